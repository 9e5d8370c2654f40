#include "bsdf_plot.h"

#include <algorithm>
#include <cmath>

#include "cli_common.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/url.h"

namespace kelvo::cli {
namespace {

constexpr double kPi = 3.14159265358979323846;

// value x |cos| of wi; negative values (the legacy transmission sign) by magnitude.
double Lobe(BSDFLegacyInterface& m, const Vec3& wo, const Vec3& wi) {
    double p;
    double v = std::abs(m.ComputeBSDF(wo, wi, wi, p).r) * std::abs(wi.z);
    return std::isfinite(v) ? v : 0.0;
}

// A dark-to-warm ramp for t in 0..1.
void Heat(double t, uint8_t& r, uint8_t& g, uint8_t& b) {
    t = std::clamp(t, 0.0, 1.0);
    r = uint8_t(255 * std::clamp(1.5 * t, 0.0, 1.0));
    g = uint8_t(255 * std::clamp(1.5 * t - 0.5, 0.0, 1.0));
    b = uint8_t(255 * std::clamp(3.0 * t - 2.0, 0.0, 1.0) * 0.8 + 40 * (1 - t));
}

RgbPicture Blank(int w, int h, uint8_t grey) {
    RgbPicture p;
    p.width = w;
    p.height = h;
    p.rgb.assign(size_t(w) * size_t(h) * 3, grey);
    return p;
}

RgbPicture Polar(BSDFLegacyInterface& m, const Vec3& wo, int size) {
    RgbPicture pic = Blank(size, size, 245);
    // The plane of incidence: the normal and wo's tangential direction.
    double phi = std::atan2(wo.y, wo.x);
    double cp = std::cos(phi), sp = std::sin(phi);
    constexpr int kAngles = 1440;
    std::vector<double> radius(kAngles);
    for (int i = 0; i < kAngles; ++i) {
        double theta = -kPi + (i + 0.5) * 2 * kPi / kAngles;
        Vec3 wi{std::sin(theta) * cp, std::sin(theta) * sp, std::cos(theta)};
        radius[i] = Lobe(m, wo, wi);
    }
    double peak = *std::max_element(radius.begin(), radius.end());
    double half = size / 2.0, scale = peak > 0.0 ? 0.95 * half / peak : 0.0;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            double px = x + 0.5 - half, py = half - (y + 0.5);
            double r = std::hypot(px, py);
            double theta = std::atan2(px, py);  // from the normal, towards wo's side
            int i = std::clamp(int((theta + kPi) / (2 * kPi) * kAngles), 0, kAngles - 1);
            if (r <= radius[i] * scale) pic.Set(x, y, py >= 0 ? 210 : 70, 90, py >= 0 ? 40 : 200);
            if (std::abs(py) < 0.5 || std::abs(px) < 0.5) pic.Set(x, y, 150, 150, 150);
        }
    }
    // The view direction.
    double sinO = std::sqrt(std::max(0.0, 1.0 - wo.z * wo.z));
    for (double t = 0; t < 0.95 * half; t += 0.25) {
        int x = int(half + t * sinO), y = int(half - t * wo.z);
        if (x >= 0 && x < size && y >= 0 && y < size) pic.Set(x, y, 20, 120, 20);
    }
    return pic;
}

RgbPicture Hemisphere(BSDFLegacyInterface& m, const Vec3& wo, int size, bool upper) {
    RgbPicture pic = Blank(size, size, 245);
    std::vector<double> v(size_t(size) * size, -1.0);
    double peak = 0.0, half = size / 2.0;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            double px = (x + 0.5 - half) / half, py = (half - (y + 0.5)) / half;
            double r2 = px * px + py * py;
            if (r2 >= 1.0) continue;
            double z = std::sqrt(1.0 - r2);
            double value = Lobe(m, wo, Vec3{px, py, upper ? z : -z});
            v[size_t(y) * size + x] = value;
            peak = std::max(peak, value);
        }
    }
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            double value = v[size_t(y) * size + x];
            if (value < 0.0) continue;
            uint8_t r, g, b;
            // The square root shows the tails of sharp lobes as well.
            Heat(peak > 0.0 ? std::sqrt(value / peak) : 0.0, r, g, b);
            pic.Set(x, y, r, g, b);
        }
    }
    return pic;
}

}  // namespace

void RgbPicture::Set(int x, int y, uint8_t r, uint8_t g, uint8_t b) {
    uint8_t* p = &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3];
    p[0] = r;
    p[1] = g;
    p[2] = b;
}

void RgbPicture::Paste(const RgbPicture& tile, int x0, int y0) {
    for (int y = 0; y < tile.height && y0 + y < height; ++y)
        for (int x = 0; x < tile.width && x0 + x < width; ++x) {
            const uint8_t* s = &tile.rgb[(size_t(y) * tile.width + x) * 3];
            Set(x0 + x, y0 + y, s[0], s[1], s[2]);
        }
}

RgbPicture DrawLobe(BSDFLegacyInterface& model, const Vec3& wo, int size) {
    RgbPicture out = Blank(3 * size + 8, size, 255);
    out.Paste(Polar(model, wo, size), 0, 0);
    out.Paste(Hemisphere(model, wo, size, true), size + 4, 0);
    out.Paste(Hemisphere(model, wo, size, false), 2 * size + 8, 0);
    return out;
}

Result<void> WritePicture(const std::filesystem::path& path, const RgbPicture& picture) {
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(picture.width, picture.height));
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(picture.width, picture.height, kPixelRgb8,
                                                        COLORPROFILE::SRGB));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(kPixelRgb8, COLORPROFILE::SRGB));
    for (int y = 0; y < picture.height; ++y)
        KELVO_TRY(
            writer->SetPixels(0, y, picture.width, &picture.rgb[size_t(y) * picture.width * 3]));
    KELVO_TRY(image->AddLayer(layer));
    return WriteOutput(path, [&](const std::filesystem::path& at) {
        return ExportImage(Url::FromFile(at.string()), *image, Id("net.kelvo.fileformat.imagepng"));
    });
}

}  // namespace kelvo::cli

#include "commands.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/registry.h"

namespace kelvo::cli {

Result<std::vector<std::string>> WriteBsdfSheet(const std::filesystem::path& folder) {
    struct Entry {
        const char* suffix;
        const char* parameters;
    };
    static constexpr Entry kSheet[] = {
        {"lambertbrdf", ""},
        {"orennayarbrdf", "sigma 0.5"},
        {"irawanbrdf", "denim, st (0.31, 0.62), kd 0.2, ks 1"},
        {"blurrysimplebrdf", "n 40, table GGX level 100"},
        {"blurryspecularbrdf", "exponent 30"},
        {"beckmannbrdf", "roughness 0.35"},
        {"beckmannbtdf", "roughness 0.35, ior 1.5"},
        {"ggxbrdf", "roughness 0.35"},
        {"ggxbtdf", "roughness 0.35, ior 1.5"},
        {"phongbrdf", "roughness 0.35"},
        {"phongbtdf", "roughness 0.35, ior 1.5"},
        {"wardbrdf", "roughness 0.35"},
        {"wardbtdf", "roughness 0.35, ior 1.5"},
        {"anisotropicbrdf", "roughness 0.5, anisotropy 0.6, rotation 0.5"},
        {"anisotropicbtdf", "roughness 0.5, anisotropy 0.6, rotation 0.5, ior 1.5"},
    };
    KELVO_ASSIGN_OR_RETURN(auto caches, CreateComponent<MicrofacetDistributionCachesInterface>());
    KELVO_TRY(caches->Alloc());
    caches->Init();
    DataDictionary d;
    KELVO_TRY(bsdfdata::SetDistributionTables(d, caches.get()));
    KELVO_TRY(d.Set(bsdfdata::kOrenNayarSigma, 0.5));
    KELVO_TRY(d.Set(bsdfdata::kIorIn, 1.5));
    KELVO_TRY(d.Set(bsdfdata::kIorOut, 1.0));
    KELVO_TRY(d.Set(bsdfdata::kAnisotropy, 0.6));
    KELVO_TRY(d.Set(bsdfdata::kRotation, 0.5));
    KELVO_TRY(d.Set(bsdfdata::kClothPattern, std::string("denim")));
    KELVO_TRY(d.Set(bsdfdata::kTextureCoordinate, Vec2{0.31, 0.62}));
    for (const Id& k : {bsdfdata::kWarpDiffuse, bsdfdata::kWeftDiffuse}) KELVO_TRY(d.Set(k, 0.2));
    for (const Id& k : {bsdfdata::kWarpSpecular, bsdfdata::kWeftSpecular}) KELVO_TRY(d.Set(k, 1.0));
    KELVO_TRY(
        bsdfdata::SetTable(d, bsdfdata::kBlurryTable, caches->GetCache(DISTRIBUTIONKIND_GGX)));
    KELVO_TRY(d.Set(bsdfdata::kBlurryDensityRow, int64_t(2000 * 100)));
    KELVO_TRY(d.Set(bsdfdata::kBlurrySamplingRow, int64_t(1000 * 100)));

    constexpr int kTile = 96, kColumns = 3, kRows = 5, kGap = 12;
    const int tileWidth = 3 * kTile + 8;
    RgbPicture sheet;
    sheet.width = kColumns * tileWidth + (kColumns + 1) * kGap;
    sheet.height = kRows * kTile + (kRows + 1) * kGap;
    sheet.rgb.assign(size_t(sheet.width) * sheet.height * 3, 255);
    const Vec3 wo{std::sqrt(0.5), 0.0, std::sqrt(0.5)};
    std::string legend =
        "Legacy BSDF lobes, wo at 45 degrees. Each tile: polar plot of value x |cos| in the plane "
        "of incidence (reflection orange, transmission blue, wo green), then the upper and the "
        "lower hemisphere seen from above. Tiles left to right, top to bottom:\n";
    int index = 0;
    for (const Entry& e : kSheet) {
        double roughness = std::string_view(e.suffix).starts_with("anisotropic") ? 0.5 : 0.35;
        KELVO_TRY(d.Set(bsdfdata::kRoughness, roughness));
        KELVO_TRY(d.Set(bsdfdata::kBlurryExponent,
                        std::string_view(e.suffix) == "blurrysimplebrdf" ? 40.0 : 30.0));
        KELVO_ASSIGN_OR_RETURN(
            Id id, Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + e.suffix));
        KELVO_ASSIGN_OR_RETURN(auto model, CreateClass<BSDFLegacyInterface>(id));
        KELVO_TRY(model->Init(d));
        int col = index % kColumns, row = index / kColumns;
        sheet.Paste(DrawLobe(*model, wo, kTile), kGap + col * (tileWidth + kGap),
                    kGap + row * (kTile + kGap));
        legend += std::to_string(index + 1) + ". " + e.suffix + (e.parameters[0] ? " (" : "") +
                  e.parameters + (e.parameters[0] ? ")" : "") + "\n";
        ++index;
    }
    caches->Free();
    KELVO_TRY(WritePicture(folder / "bsdf-sheet.png", sheet));
    KELVO_TRY(WriteTextFile(folder / "bsdf-sheet.txt", legend));
    return std::vector<std::string>{"bsdf-sheet.png", "bsdf-sheet.txt"};
}

}  // namespace kelvo::cli
