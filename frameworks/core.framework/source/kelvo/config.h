// The host's configuration database. Modules declare variables as entries
// (KELVO_CONFIG_STRING / KELVO_CONFIG_BOOL) and read them by name at any time.
#pragma once

#include <string>
#include <string_view>

#include "kelvo/entry.h"
#include "kelvo/result.h"

namespace kelvo {

// The current text of a string variable. A declared variable that was never set reads
// as its default; an undeclared name fails with "Configuration variable @ not found.".
inline Result<std::string> ConfigGetString(std::string_view name) {
    return g_kelvo.host.ConfigGetString(name);
}
inline Result<bool> ConfigGetBool(std::string_view name) {
    return g_kelvo.host.ConfigGetBool(name);
}

}  // namespace kelvo

#define KELVO_CONFIG_STRING(var, name, defaultText, help)                                    \
    static const ::kelvo::ConfigVariable KELVO_CONCAT(var, _variable){                       \
        name, ::kelvo::CONFIGTYPE::STRING, defaultText, false, help};                        \
    KELVO_ENTRY(var, ::kelvo::ENTRYKIND::CONFIGVARIABLE, name, ::kelvo::Id(), ::kelvo::Id(), \
                &KELVO_CONCAT(var, _variable), nullptr)

#define KELVO_CONFIG_BOOL(var, name, defaultValue, help)                                     \
    static const ::kelvo::ConfigVariable KELVO_CONCAT(var, _variable){                       \
        name, ::kelvo::CONFIGTYPE::BOOL, "", defaultValue, help};                            \
    KELVO_ENTRY(var, ::kelvo::ENTRYKIND::CONFIGVARIABLE, name, ::kelvo::Id(), ::kelvo::Id(), \
                &KELVO_CONCAT(var, _variable), nullptr)
