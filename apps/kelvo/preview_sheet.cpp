#include "preview_sheet.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>

#include "kelvo/config.h"
#include "kelvo/nodes/previewimageplaceholder.h"
#include "kelvo/registry.h"
#include "preview_display.h"

namespace kelvo::cli {

Result<nodes::PreviewImageProviderOutputImage> PlaceholderCell(const Id& reason, int64_t w,
                                                               int64_t h) {
    KELVO_ASSIGN_OR_RETURN(auto samples, NewObject<nodes::PreviewImageSamples>());
    samples->resize(size_t(w * h));
    ImageTextureRef texture;
    if (auto placeholders = CreateComponent<nodes::PreviewImagePlaceholderInterface>())
        if (auto t = (*placeholders)->GetPlaceholder(reason)) texture = *t;
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x) {
            Col4f& p = (*samples)[size_t(y * w + x)];
            if (texture) {
                const Col4f c =
                    texture->GetPixel(x * texture->GetWidth() / w, y * texture->GetHeight() / h);
                p = {c.r * c.a, c.g * c.a, c.b * c.a, 1.0f};
            } else {
                const bool on =
                    ((x * 8 / std::max<int64_t>(w, 1)) + (y * 8 / std::max<int64_t>(h, 1))) % 2;
                p = {on ? 1.0f : 0.05f, 0.05f, on ? 1.0f : 0.05f, 1.0f};
            }
        }
    return nodes::PreviewImageProviderOutputImage{w, h, std::move(samples), true};
}

namespace {

// Memory one swatch pixel takes on its way to the sheet: the renderer's sums (3 doubles) and
// pass (3 floats), the delivered image, the swatch's copy, the sheet and the picture written
// (63 bytes measured between 1024 and 2048 pixel swatches).
constexpr uint64_t kBytesPerSwatchPixel = 64;

// The bound on one picture's bytes, which the swatches' buffers share. The host refuses any
// value that is not a whole number, so the text always reads.
uint64_t MaxImageBytes() {
    uint64_t bytes = uint64_t(1) << 30;
    if (Result<std::string> text = ConfigGetString("g_maxImageBytes"))
        (void)std::from_chars(text->data(), text->data() + text->size(), bytes);
    return bytes;
}

Result<void> CheckSheetOptions(const SheetOptions& o) {
    if (o.materials.empty())
        return IllegalArgumentError(KELVO_HERE, "Give at least one --material.");
    KELVO_TRY(CheckPreviewSettings({o.width, o.height, o.scene, o.iterations, o.seed, false}));
    // Refused before anything renders: a size the checks above accept can still need more
    // than a picture may take (16384 x 16384 swatches would take tens of GB).
    const uint64_t need =
        uint64_t(o.width) * uint64_t(o.height) * o.materials.size() * kBytesPerSwatchPixel;
    if (need > MaxImageBytes())
        return IllegalArgumentError(
            KELVO_HERE,
            "@ swatches of @ x @ need @ bytes of buffers, more than @ (g_maxImageBytes).",
            o.materials.size(), o.width, o.height, need, MaxImageBytes());
    if (o.priority < 0 || o.priority > int(o.materials.size()))
        return IllegalArgumentError(KELVO_HERE, "--priority must be a swatch number from 1 to @.",
                                    o.materials.size());
    return OK();
}

}  // namespace

Result<SheetOutcome> RenderSheet(const SheetOptions& options) {
    KELVO_TRY(CheckSheetOptions(options));
    const size_t n = options.materials.size();
    auto inbox = std::make_shared<PreviewInbox>();
    std::vector<StrongRef<nodes::PreviewImageRequestInterface>> requests(n);
    // Lets go of every preview however the run ends; each release waits for its iteration.
    struct Release {
        std::vector<StrongRef<nodes::PreviewImageRequestInterface>>& requests;
        ~Release() {
            for (auto& r : requests)
                if (r) r->Reset();
        }
    } release{requests};

    for (size_t i = 0; i < n; ++i) {
        KELVO_ASSIGN_OR_RETURN(PreviewMaterialInput material,
                               ParsePreviewMaterial(options.materials[i]));
        const size_t slot = inbox->Add(material.label, options.iterations);
        PreviewRequestSettings settings{options.width, options.height,
                                        options.scene, options.iterations,
                                        options.seed,  int(i) + 1 == options.priority};
        KELVO_ASSIGN_OR_RETURN(requests[i],
                               BuildPreviewRequest(material, settings, inbox->Receiver(slot)));
        if (!requests[i])
            inbox->Fail(slot, NoNodeSpaceMessage(material.space), nodes::kPlaceholderNoSpace);
    }

    InterruptGuard interrupts(&inbox->GetWakeup());
    // The priority swatch is submitted once the others are under way, as when the swatch
    // being edited changes while the sheet refines: it preempts them.
    const size_t priority = options.priority > 0 ? size_t(options.priority - 1) : n;
    auto submit = [&](size_t i) -> Result<void> {
        if (!requests[i]) return OK();
        inbox->MarkSubmitted(i);
        return requests[i]->Submit();
    };
    for (size_t i = 0; i < n; ++i)
        if (i != priority) KELVO_TRY(submit(i));

    LiveDisplay display(options.progress);
    bool prioritySubmitted = priority >= n;
    SheetOutcome sheet;
    // Sleeps until a delivery (or Ctrl-C) and looks at what arrived.
    for (;;) {
        const std::vector<PreviewProgress> now = inbox->GetAll();
        bool allDone = true, anyImage = false, othersDone = true;
        for (size_t i = 0; i < n; ++i) {
            allDone = allDone && now[i].done;
            if (i != priority) {
                anyImage = anyImage || now[i].iterations > 0;
                othersDone = othersDone && now[i].done;
            }
        }
        if (!prioritySubmitted && (anyImage || othersDone)) {
            KELVO_TRY(submit(priority));
            prioritySubmitted = true;
            continue;
        }
        display.Draw(now, inbox->Seconds());
        if (allDone) break;
        if (interrupts.Interrupted()) {
            sheet.cancelled = true;
            break;
        }
        inbox->Wait();
    }
    for (auto& r : requests)
        if (r) r->Reset();
    sheet.seconds = inbox->Seconds();
    sheet.swatches = inbox->GetAll();
    display.Draw(sheet.swatches, sheet.seconds);

    for (PreviewProgress& p : sheet.swatches) {
        if (p.error.empty()) continue;
        ++sheet.failed;
        if (p.placeholder.empty()) p.placeholder = std::string(nodes::kPlaceholderError.Text());
        KELVO_ASSIGN_OR_RETURN(Id reason, Id::FromText(p.placeholder));
        KELVO_ASSIGN_OR_RETURN(p.image, PlaceholderCell(reason, options.width, options.height));
    }
    return sheet;
}

Result<void> WriteSheet(const std::string& output, const SheetOutcome& sheet, int64_t width,
                        int64_t height) {
    const int64_t n = int64_t(sheet.swatches.size());
    // About square; one column more when that fills the last row (15 swatches: 5 x 3).
    int64_t columns = std::max<int64_t>(1, int64_t(std::ceil(std::sqrt(double(n)))));
    if (n % columns != 0 && n % (columns + 1) == 0) ++columns;
    const int64_t rows = std::max<int64_t>(1, (n + columns - 1) / columns);
    const int64_t w = columns * width, h = rows * height;
    std::vector<float> rgb(size_t(w * h * 3), 0.0f);
    for (int64_t i = 0; i < n; ++i) {
        const nodes::PreviewImageProviderOutputImage& cell = sheet.swatches[size_t(i)].image;
        if (!cell.samples || cell.width != width || cell.height != height) continue;
        const int64_t x0 = (i % columns) * width, y0 = (i / columns) * height;
        for (int64_t y = 0; y < height; ++y) {
            float* out = &rgb[size_t(((y0 + y) * w + x0) * 3)];
            const Col4f* in = &(*cell.samples)[size_t(y * width)];
            for (int64_t x = 0; x < width; ++x, out += 3) {
                out[0] = in[x].r;
                out[1] = in[x].g;
                out[2] = in[x].b;
            }
        }
    }
    return WritePicture(output, PictureView::Of(w, h, kPixelRgb32f, rgb.data()));
}

}  // namespace kelvo::cli
