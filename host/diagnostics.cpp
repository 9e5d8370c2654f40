// Diagnostic output: warnings and errors modules report, to stderr or a test's sink.
#include <iostream>
#include <mutex>

#include "host.h"

namespace kelvo::host {

namespace {
std::mutex g_sinkMutex;
DiagnosticSink& Sink() {
    static DiagnosticSink sink = [](DIAGLEVEL level, std::string_view text) {
        std::cerr << (level == DIAGLEVEL::WARNING ? "kelvo: warning: "
                      : level == DIAGLEVEL::ERROR ? "kelvo: error: "
                                                  : "kelvo: ")
                  << text << '\n';
    };
    return sink;
}

void DiagnosticSlot(DIAGLEVEL level, std::string_view text) {
    DiagnosticSink sink;
    {
        std::lock_guard lock(g_sinkMutex);
        sink = Sink();
    }
    if (sink) sink(level, text);
}
}  // namespace

DiagnosticSink SetDiagnosticSink(DiagnosticSink sink) {
    std::lock_guard lock(g_sinkMutex);
    return std::exchange(Sink(), std::move(sink));
}

struct CaptureState {
    std::mutex mutex;
    std::vector<std::string> lines;
};

CapturedDiagnostics::CapturedDiagnostics() : _state(std::make_shared<CaptureState>()) {
    _previous = SetDiagnosticSink([state = _state](DIAGLEVEL, std::string_view text) {
        std::lock_guard lock(state->mutex);
        state->lines.emplace_back(text);
    });
}
CapturedDiagnostics::~CapturedDiagnostics() { SetDiagnosticSink(std::move(_previous)); }
std::vector<std::string> CapturedDiagnostics::Lines() const {
    std::lock_guard lock(_state->mutex);
    return _state->lines;
}

namespace detail {
void FillDiagnosticSlots(KelvoHostSlots& slots) { slots.Diagnostic = &DiagnosticSlot; }
}  // namespace detail

}  // namespace kelvo::host
