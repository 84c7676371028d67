// Variants written in tests as their JSON form ({"$vt":"I8","v":5} names a
// type), and the matchers the tests use.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "cab/VariantJson.h"
#include "variant/CLocalVariant.h"

using testing::HasSubstr;
using testing::Not;

struct JsonVariant : CLocalVariant {
    explicit JsonVariant(const std::string& text) {
        std::string error;
        EXPECT_TRUE(VariantFromJson(text, ptr(), &error)) << error << " in " << text;
    }
};
inline std::string json(const tagVARIANT& v) { return VariantToJson(v); }
// The JSON array of one string.
inline std::string listOf(const std::string& text) { return nlohmann::json::array({text}).dump(); }
// The JSON form of an integer of variant type `type` ("I8", "UI4", ...).
inline std::string typed(const std::string& type, long long value) {
    return "{\"$vt\":\"" + type + "\",\"v\":" + std::to_string(value) + "}";
}
// The bytes of a VT_ARRAY | VT_UI1 variant ("" for any other type).
inline std::string bytesOf(const tagVARIANT& v) {
    if (v.vt != (VT_ARRAY | VT_UI1)) return std::string();
    return std::string(static_cast<const char*>(v.parray->pvData), v.parray->rgsabound[0].cElements);
}
