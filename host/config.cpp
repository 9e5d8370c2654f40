// The configuration database: variables modules declare and values set before or after.
#include <mutex>

#include "imagefiles.h"
#include "kelvo/data.h"
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
    // The host's own variable has a form of its own; checked before it is kept, so that a
    // value set before the declaration is refused as well.
    if (name == detail::kMaxImageBytesVariable) KELVO_TRY(detail::ParseMaxImageBytes(value));
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

namespace {
std::mutex g_defaultsMutex;
std::shared_ptr<const DataDictionary>& Defaults() {
    static std::shared_ptr<const DataDictionary> d = std::make_shared<const DataDictionary>();
    return d;
}
std::shared_ptr<const DataDictionary> DefaultDataDictionarySlot() {
    std::lock_guard lock(g_defaultsMutex);
    return Defaults();
}
}  // namespace

void SetDefaultDataDictionary(std::shared_ptr<const DataDictionary> defaults) {
    std::lock_guard lock(g_defaultsMutex);
    Defaults() = std::move(defaults);
}

namespace detail {
void FillConfigSlots(KelvoHostSlots& slots) {
    slots.ConfigGetString = &ConfigGetStringSlot;
    slots.ConfigGetBool = &ConfigGetBoolSlot;
    slots.DefaultDataDictionary = &DefaultDataDictionarySlot;
}
}  // namespace detail

}  // namespace kelvo::host
