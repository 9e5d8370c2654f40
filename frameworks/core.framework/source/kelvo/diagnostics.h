// Diagnostic output: warnings and notes that never stop processing. The host decides
// where they go (stderr by default; tests capture them).
#pragma once

#include <string_view>

#include "kelvo/binding.h"
#include "kelvo/error.h"

namespace kelvo {

template <typename... A>
void DiagnosticOutput(std::string_view fmt, const A&... args) {
    g_kelvo.host.Diagnostic(DIAGLEVEL::INFO, FormatMessage(fmt, args...));
}
template <typename... A>
void DiagnosticWarning(std::string_view fmt, const A&... args) {
    g_kelvo.host.Diagnostic(DIAGLEVEL::WARNING, FormatMessage(fmt, args...));
}

}  // namespace kelvo
