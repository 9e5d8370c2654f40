// The square preview of an IES profile: the light near a wall and above a floor.
#include <algorithm>
#include <atomic>
#include <cmath>

#include "ies_impl.h"
#include "kelvo/jobs.h"
#include "kelvo/spinlock.h"

namespace kelvo {
namespace {

// Each surface is sampled on a 32 x 32 grid; pixels interpolate between grid points.
constexpr int kGrid = 32;
// The light hangs this far above the origin of the grids (the foot of the wall).
constexpr double kLightHeight = 0.9;
// Compression of the samples: s / (s + kKnee * max), scaled so that the maximum maps to 1.
constexpr float kKnee = 0.25f;

// A rectangle of a surface: the grid point (i, j) lies at origin + i * du + j * dv.
struct Surface {
    Vec3 origin, du, dv, normal;
};
// The wall: y = 0.5 (in the direction φ = 0), x from -1 to 1, z from 2 down to 0.
// The floor: z = 0, x from -1 to 1, y from 0.5 (the wall's foot) down to -1.
const Surface kSurfaces[2] = {
    {{-1.0, 0.5, 2.0}, {2.0 / (kGrid - 1), 0, 0}, {0, 0, -2.0 / (kGrid - 1)}, {0, -1, 0}},
    {{-1.0, 0.5, 0.0}, {2.0 / (kGrid - 1), 0, 0}, {0, -1.5 / (kGrid - 1), 0}, {0, 0, 1}},
};

using Grid = float[2][kGrid][kGrid];

// Light arriving at each grid point: intensity towards it, times the cosine at the
// surface, over the squared distance (1/r is held at 1000 when the point is the light).
float SampleGrids(const IesImpl& ies, Grid& grid) {
    const Vec3 light{0, 0, kLightHeight};
    float largest = 0.0f;
    for (int s = 0; s < 2; ++s)
        for (int j = 0; j < kGrid; ++j)
            for (int i = 0; i < kGrid; ++i) {
                const Surface& f = kSurfaces[s];
                Vec3 d = f.origin + f.du * double(i) + f.dv * double(j) - light;
                double r = Length(d);
                double inv = r > 0.0 ? 1.0 / r : 1000.0;
                Vec3 dir = d * (r > 0.0 ? inv : 0.0);
                double v =
                    ies.ComputeLightIntensity(dir) * std::fabs(Dot(dir, f.normal)) * inv * inv;
                grid[s][j][i] = static_cast<float>(v);
                largest = std::max(largest, grid[s][j][i]);
            }
    return largest;
}

// Bilinear value of a grid at fractional grid coordinates (clamped to the grid).
float Bilinear(const float (&g)[kGrid][kGrid], double u, double v) {
    u = std::clamp(u, 0.0, double(kGrid - 1));
    v = std::clamp(v, 0.0, double(kGrid - 1));
    int i = std::min(int(u), kGrid - 2), j = std::min(int(v), kGrid - 2);
    float fu = float(u - i), fv = float(v - j);
    float top = g[j][i] + (g[j][i + 1] - g[j][i]) * fu;
    float bottom = g[j + 1][i] + (g[j + 1][i + 1] - g[j + 1][i]) * fu;
    return top + (bottom - top) * fv;
}

}  // namespace

Result<void> IesImpl::GeneratePreviewImage(int64_t width, int64_t height,
                                           const IesPixelHandlerDelegate& handler,
                                           const IesProgressDelegate& progress) const {
    if (width != height)
        return Error(ERRORKIND::ILLEGALARGUMENT, KELVO_HERE,
                     "Width and height of image must match.");
    if (width <= 0) return OK();
    if (!handler) return IllegalArgumentError(KELVO_HERE, "No pixel handler delegate.");
    KELVO_ASSIGN_OR_RETURN(StrongRef<SetPixelHandlerInterface> out,
                           handler(kPixelGrey32f, COLORPROFILE::LINEAR));
    if (!out) return IllegalArgumentError(KELVO_HERE, "The delegate returned no pixel handler.");

    Grid grid;  // 8 KiB
    const float largest = SampleGrids(*this, grid);
    const float scale = largest > 0.0f ? (1.0f + kKnee) : 0.0f;
    const float knee = kKnee * largest;

    // The upper two thirds of the rows show the wall, the rest the floor.
    const int64_t size = width;
    const int64_t wallRows = std::max<int64_t>(1, (size * 2 + 2) / 3);
    const int64_t floorRows = std::max<int64_t>(1, size - wallRows);
    std::atomic<int64_t> done{0};
    Spinlock progressLock;
    float reported = 0.0f;
    using Row = std::vector<float, Allocator<float>>;
    Result<void> r = ParallelFor<Row>(
        0, size, [&](Row& row) { row.resize(size_t(size)); },
        [&](Row& row, int64_t y) -> Result<void> {
            const bool wall = y < wallRows;
            const double v = wall ? (double(y) + 0.5) / double(wallRows)
                                  : (double(y - wallRows) + 0.5) / double(floorRows);
            for (int64_t x = 0; x < size; ++x) {
                const double u = (double(x) + 0.5) / double(size);
                float s = Bilinear(grid[wall ? 0 : 1], u * (kGrid - 1), v * (kGrid - 1));
                row[size_t(x)] = s > 0.0f ? scale * s / (s + knee) : 0.0f;
            }
            KELVO_TRY(out->SetPixels(0, y, size, row.data()));
            // Progress in steps of about 1/64, never two reports at once and never backwards.
            int64_t n = done.fetch_add(1, std::memory_order_relaxed) + 1;
            if (progress && (n * 64 / size != (n - 1) * 64 / size)) {
                std::lock_guard lock(progressLock);
                float f = float(done.load(std::memory_order_relaxed)) / float(size);
                if (f > reported) {
                    reported = f;
                    progress(f);
                }
            }
            return OK();
        },
        [](Row&) {});
    KELVO_TRY(r);
    if (progress && reported < 1.0f) progress(1.0f);
    return OK();
}

Result<StrongRef<ImageInterface>> IesImpl::GeneratePreviewImage(int64_t size) const {
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, CreateImage(size, size));
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageLayerInterface> layer,
                           CreateImageLayer(size, size, kPixelGrey8, COLORPROFILE::SRGB));
    KELVO_TRY(GeneratePreviewImage(size, size,
                                   [&](PixelFormat format, COLORPROFILE profile) {
                                       return layer->SetPixelHandler(format, profile);
                                   },
                                   {}));
    KELVO_TRY(image->AddLayer(layer));
    return image;
}

}  // namespace kelvo
