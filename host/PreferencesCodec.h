// How one preferences value is written in a domain's JSON object, and the
// text helpers behind it. encodeValue/decodeValue are exact inverses for every
// Value; a string that is not valid UTF-8 becomes {"$bytes": "<base64>"}.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "host/Preferences.h"

namespace PreferencesCodec {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(const std::string& s);
std::string base64Encode(const std::string& bytes);
// False on a character outside the alphabet or a bad length/padding.
bool base64Decode(const std::string& text, std::string& bytes);

nlohmann::json encodeValue(const Preferences::Value& value);
// False when `j` is not one of the stored forms (e.g. a float or an array).
bool decodeValue(const nlohmann::json& j, Preferences::Value& value);

}  // namespace PreferencesCodec
