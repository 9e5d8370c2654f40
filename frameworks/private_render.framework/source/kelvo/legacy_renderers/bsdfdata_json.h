// Fills a BSDF data record from a JSON object, for the tools and modules that take
// materials as JSON (nlohmann::json, or any type with its interface). A member is named by
// its key's full id or the id's last part ("roughness"); integers must be whole numbers,
// since nothing is rounded. Tables are addresses, never read from text: `tableMessage` says
// why to the user ("@" is the member's name). Numbers go through the caller's `readNumber`,
// which holds its wording and the spellings of infinity it accepts.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "kelvo/error.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo::bsdfdata {

template <typename Json, typename ReadNumber>
Result<void> ReadJson(const Json& data, DataDictionary& record, const ReadNumber& readNumber,
                      std::string_view tableMessage) {
    if (!data.is_object()) return IllegalArgumentError(KELVO_HERE, "data must be an object.");
    for (const auto& [name, value] : data.items()) {
        const KeyInfo* info = nullptr;
        for (const auto& k : kKeys) {
            std::string_view id = k.key.Text();
            if (id == name || id.substr(id.rfind('.') + 1) == name) info = &k;
        }
        if (!info) return IllegalArgumentError(KELVO_HERE, "Unknown BSDF data key '@'.", name);
        switch (info->type) {
            case KEYTYPE::DOUBLE: {
                KELVO_ASSIGN_OR_RETURN(double v, readNumber(value, name));
                KELVO_TRY(record.Set(info->key, v));
                break;
            }
            case KEYTYPE::INT:
                if (!value.is_number_integer() ||
                    (value.is_number_unsigned() &&
                     value.template get<uint64_t>() >
                         uint64_t(std::numeric_limits<int64_t>::max())))
                    return IllegalArgumentError(KELVO_HERE, "@ must be an integer.", name);
                KELVO_TRY(record.Set(info->key, value.template get<int64_t>()));
                break;
            case KEYTYPE::BOOL:
                if (!value.is_boolean())
                    return IllegalArgumentError(KELVO_HERE, "@ must be true or false.", name);
                KELVO_TRY(record.Set(info->key, value.template get<bool>()));
                break;
            case KEYTYPE::STRING:
                if (!value.is_string())
                    return IllegalArgumentError(KELVO_HERE, "@ must be a string.", name);
                KELVO_TRY(record.Set(info->key, value.template get<std::string>()));
                break;
            case KEYTYPE::VEC2: {
                // An element that is no number gets the vector's wording, not the scalar's.
                bool ok = value.is_array() && value.size() == 2;
                double c[2] = {};
                for (size_t i = 0; ok && i < 2; ++i) {
                    Result<double> v = readNumber(value[i], name);
                    ok = v.Ok();
                    if (ok) c[i] = *v;
                }
                if (!ok)
                    return IllegalArgumentError(KELVO_HERE, "@ must be an array of 2 numbers.",
                                                name);
                KELVO_TRY(record.Set(info->key, Vec2{c[0], c[1]}));
                break;
            }
            case KEYTYPE::TABLE:
                return IllegalArgumentError(KELVO_HERE, tableMessage, name);
        }
    }
    return OK();
}

}  // namespace kelvo::bsdfdata
