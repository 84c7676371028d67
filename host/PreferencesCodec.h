// How one preferences value is written in a domain's JSON object, and the
// text helpers behind it. encodeValue/decodeValue are exact inverses for every
// Value; a string that is not valid UTF-8 becomes {"$bytes": "<base64>"}.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "host/Preferences.h"

namespace PreferencesCodec {

nlohmann::json encodeValue(const Preferences::Value& value);
// False when `j` is not one of the stored forms (e.g. a float or an array).
bool decodeValue(const nlohmann::json& j, Preferences::Value& value);

}  // namespace PreferencesCodec
