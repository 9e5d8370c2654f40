// The configuration database and diagnostic output.
#include <iostream>
#include <mutex>

#include "runtime_state.h"

namespace kelvo::host {

using detail::GetState;

namespace {
std::string BoolText(bool v) { return v ? "true" : "false"; }

Result<bool> ParseBool(std::string_view name, std::string_view value) {
    if (value == "true" || value == "1") return true;
    if (value == "false" || value == "0") return false;
    return IllegalArgumentError(KELVO_HERE, "Value '@' is not a bool for @.", value, name);
}

Result<std::string> ConfigGetStringSlot(std::string_view name) {
    auto& s = GetState();
    std::shared_lock lock(s.mutex);
    auto it = s.config.find(name);
    if (it == s.config.end() || !it->second.declared)
        return IllegalArgumentError(KELVO_HERE, "Configuration variable @ not found.", name);
    return it->second.type == CONFIGTYPE::BOOL ? BoolText(it->second.boolValue) : it->second.text;
}

Result<bool> ConfigGetBoolSlot(std::string_view name) {
    auto& s = GetState();
    std::shared_lock lock(s.mutex);
    auto it = s.config.find(name);
    if (it == s.config.end() || !it->second.declared)
        return IllegalArgumentError(KELVO_HERE, "Configuration variable @ not found.", name);
    if (it->second.type != CONFIGTYPE::BOOL)
        return IllegalArgumentError(KELVO_HERE, "Configuration variable @ is not a bool.", name);
    return it->second.boolValue;
}

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

void DeclareConfig(const ConfigVariable& v) {
    auto& s = GetState();
    std::unique_lock lock(s.mutex);
    auto& e = s.config[v.name];
    bool preset = !e.declared && (!e.text.empty() || e.boolValue);
    std::string pending = e.text;
    e.type = v.type;
    e.help = v.help ? v.help : "";
    e.defaultValue = v.type == CONFIGTYPE::BOOL ? BoolText(v.defaultBool) : v.defaultText;
    e.declared = true;
    // A value set on the command line before the module loaded wins over the default.
    if (!preset) pending = e.defaultValue;
    if (v.type == CONFIGTYPE::BOOL) {
        auto b = ParseBool(v.name, pending);
        e.boolValue = b ? *b : v.defaultBool;
        e.text.clear();
    } else {
        e.text = pending;
    }
}

void ForgetConfig(const ConfigVariable& v) {
    auto& s = GetState();
    std::unique_lock lock(s.mutex);
    s.config.erase(std::string(v.name));
}

std::vector<ConfigInfo> ConfigVariables() {
    auto& s = GetState();
    std::shared_lock lock(s.mutex);
    std::vector<ConfigInfo> out;
    for (const auto& [name, e] : s.config) {
        if (!e.declared) continue;
        out.push_back({name, e.type, e.type == CONFIGTYPE::BOOL ? BoolText(e.boolValue) : e.text,
                       e.defaultValue, e.help});
    }
    return out;
}

Result<void> ConfigSet(std::string_view name, std::string_view value) {
    auto& s = GetState();
    std::unique_lock lock(s.mutex);
    auto it = s.config.find(name);
    if (it == s.config.end() || !it->second.declared) {
        // Kept until a module declares the variable; a pending value is text.
        auto& e = s.config[std::string(name)];
        e.text = value;
        e.boolValue = !value.empty();
        return OK();
    }
    if (it->second.type == CONFIGTYPE::BOOL) {
        KELVO_ASSIGN_OR_RETURN(it->second.boolValue, ParseBool(name, value));
    } else {
        it->second.text = value;
    }
    return OK();
}

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
void FillConfigSlots(KelvoHostSlots& slots) {
    slots.ConfigGetString = &ConfigGetStringSlot;
    slots.ConfigGetBool = &ConfigGetBoolSlot;
    slots.Diagnostic = &DiagnosticSlot;
}
}  // namespace detail

}  // namespace kelvo::host
