// The live display of a preview run on a terminal: one line per preview, redrawn in place.
#pragma once

#include <vector>

#include "preview_request.h"

namespace kelvo::cli {

class LiveDisplay {
public:
    explicit LiveDisplay(bool on) : _on(on) {}
    // Redraws every line on stderr; `now` in seconds from the inbox's start. Nothing when off.
    void Draw(const std::vector<PreviewProgress>& previews, double now);

private:
    bool _on;
    int _lines = 0;
};

}  // namespace kelvo::cli
