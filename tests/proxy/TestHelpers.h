// Helpers of the proxy, transfer and archive tests: settings, typed variants, matchers, test data.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "host/CRegistry.h"
#include "tests/support/JsonVariant.h"
#include "tests/support/TempDir.h"

using testing::HasSubstr;
using testing::Not;

// Writes a setting, by default under the configuration key.
template <class T>
bool setting(const char* name, const T& value, const char* key = "Software\\Kiv Foundry\\Kiv\\Config") {
    return CRegistry::getInstance()->WriteSettingImpl(key, name, value);
}

// The JSON form of an integer of variant type `type` ("I8", "UI4", ...).
inline std::string typed(const std::string& type, long long value) {
    return "{\"$vt\":\"" + type + "\",\"v\":" + std::to_string(value) + "}";
}
// The bytes of a VT_ARRAY | VT_UI1 variant ("" for any other type).
inline std::string bytesOf(const tagVARIANT& v) {
    if (v.vt != (VT_ARRAY | VT_UI1)) return std::string();
    return std::string(static_cast<const char*>(v.parray->pvData), v.parray->rgsabound[0].cElements);
}
using kivtest::patternBytes;
