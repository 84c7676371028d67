#include "host/PreferencesCodec.h"

#include "common/Base64.h"
#include "common/Utf8.h"

#include <cstdint>
#include <limits>

namespace PreferencesCodec {

namespace {
const char kBytesKey[] = "$bytes";

}  // namespace

nlohmann::json encodeValue(const Preferences::Value& value) {
    switch (value.type) {
    case Preferences::Value::Bool: return nlohmann::json(value.b);
    case Preferences::Value::Int: return nlohmann::json(static_cast<int64_t>(value.i));
    case Preferences::Value::String: break;
    }
    if (IsValidUtf8(value.s)) return nlohmann::json(value.s);
    nlohmann::json j = nlohmann::json::object();
    j[kBytesKey] = Base64Encode(value.s.data(), value.s.size());
    return j;
}

bool decodeValue(const nlohmann::json& j, Preferences::Value& value) {
    if (j.is_boolean()) {
        value = Preferences::Value::ofBool(j.get<bool>());
        return true;
    }
    if (j.is_number_integer()) {
        if (j.is_number_unsigned()) {
            uint64_t u = j.get<uint64_t>();
            if (u > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return false;
            value = Preferences::Value::ofInt(static_cast<int32_t>(u));
            return true;
        }
        int64_t v = j.get<int64_t>();
        if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max()) return false;
        value = Preferences::Value::ofInt(static_cast<int32_t>(v));
        return true;
    }
    if (j.is_string()) {
        value = Preferences::Value::ofString(j.get<std::string>());
        return true;
    }
    if (j.is_object() && j.size() == 1 && j.contains(kBytesKey) && j[kBytesKey].is_string()) {
        std::string bytes;
        if (!Base64Decode(j[kBytesKey].get<std::string>(), &bytes, nullptr)) return false;
        value = Preferences::Value::ofString(bytes);
        return true;
    }
    return false;
}

}  // namespace PreferencesCodec
