// Variants written in their JSON form ({"$vt":"I2","v":3} names a type) and read back as JSON.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "value/VariantJson.h"
#include "variant/CLocalVariant.h"

struct JsonVariant : CLocalVariant {
    explicit JsonVariant(const std::string& text) {
        std::string error;
        EXPECT_TRUE(VariantFromJson(text, ptr(), &error)) << error << " in " << text;
    }
};
inline std::string json(const tagVARIANT& v) { return VariantToJson(v); }
// The JSON array of one string.
inline std::string listOf(const std::string& text) { return nlohmann::json::array({text}).dump(); }
