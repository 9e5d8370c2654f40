#include "preview_display.h"

#include <cstdio>
#include <string>

namespace kelvo::cli {

void LiveDisplay::Draw(const std::vector<PreviewProgress>& previews, double now) {
    if (!_on) return;
    std::string text;
    if (_lines > 0) text += "\x1b[" + std::to_string(_lines) + "A";
    for (size_t i = 0; i < previews.size(); ++i) {
        const PreviewProgress& p = previews[i];
        char line[256];
        if (!p.error.empty()) {
            std::snprintf(line, sizeof line, "failed: %s", p.error.c_str());
        } else if (p.done) {
            std::snprintf(line, sizeof line, "done, %lld/%lld in %.1f s", (long long)p.iterations,
                          (long long)p.count, p.finalImageSeconds);
        } else if (p.iterations > 0 && p.submitted >= 0.0) {
            const double left =
                (now - p.submitted) / double(p.iterations) * double(p.count - p.iterations);
            std::snprintf(line, sizeof line, "iteration %lld/%lld, %.1f s left",
                          (long long)p.iterations, (long long)p.count, left);
        } else {
            std::snprintf(line, sizeof line, "%s", p.submitted >= 0.0 ? "waiting" : "queued");
        }
        char head[64];
        std::snprintf(head, sizeof head, "%3zu %-22.22s ", i + 1, p.label.c_str());
        text += "\x1b[2K" + std::string(head) + line + "\n";
    }
    _lines = int(previews.size());
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace kelvo::cli
