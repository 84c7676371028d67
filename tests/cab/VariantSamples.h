// Test helpers for variants: a deterministic generator of values of every
// type and nesting, a bit-for-bit comparison, and small builders.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "value/Cab1.h"
#include "value/VariantJson.h"
#include "variant/CLocalVariant.h"

namespace kivtest {

inline const VARTYPE kScalars[] = {VT_EMPTY, VT_NULL, VT_I1, VT_UI1, VT_I2,   VT_UI2, VT_BOOL, VT_I4,
                                   VT_UI4,   VT_R4,   VT_I8, VT_UI8, VT_R8,   VT_DATE, VT_BSTR};
inline const VARTYPE kElements[] = {VT_I1, VT_UI1, VT_I2,   VT_UI2,  VT_I4,   VT_UI4,  VT_I8,
                                    VT_UI8, VT_R4, VT_R8, VT_DATE, VT_BSTR, VT_BOOL, VT_VARIANT};

inline std::string randomText(std::mt19937_64& rng) {
    static const char* samples[] = {"", "a", "hello world", "caf\xc3\xa9", "\xff\xfe raw", "nul\0inside",
                                    "quote \" and \\ backslash", "{\"$vt\":\"I2\"}", "\xe2\x82\xac euro"};
    size_t pick = rng() % 10;
    if (pick < 9) {
        const char* s = samples[pick];
        return pick == 5 ? std::string(s, 10) : std::string(s);
    }
    std::string s(rng() % 40, '\0');
    for (auto& c : s) c = char(rng());
    return s;
}

inline double randomDouble(std::mt19937_64& rng) {
    switch (rng() % 9) {
    case 0: return 0.0;
    case 1: return -0.0;
    case 2: return std::numeric_limits<double>::quiet_NaN();
    case 3: return -std::numeric_limits<double>::infinity();
    case 4: return 3.0;  // integral: must not come back as an integer
    case 5: return 39511.21253472222;  // a date with a time of day
    case 6: return double(int64_t(rng() % 80000)) + double(rng() % 86400) / 86400.0;
    case 7: { uint64_t bits = rng(); double d; memcpy(&d, &bits, 8); return d; }
    default: return std::ldexp(double(int64_t(rng())), -int(rng() % 80));
    }
}

inline void randomValueBits(std::mt19937_64& rng, VARTYPE t, void* out) {
    uint64_t bits = rng();
    switch (rng() % 4) {  // bias towards limits
    case 0: bits = 0; break;
    case 1: bits = ~uint64_t(0); break;
    case 2: bits = uint64_t(1) << (rng() % 64); break;
    default: break;
    }
    switch (t) {
    case VT_I1: case VT_UI1: memcpy(out, &bits, 1); break;
    case VT_I2: case VT_UI2: memcpy(out, &bits, 2); break;
    case VT_BOOL: { int16_t b = rng() % 5 ? (rng() % 2 ? -1 : 0) : int16_t(bits); memcpy(out, &b, 2); break; }
    case VT_I4: case VT_UI4: memcpy(out, &bits, 4); break;
    case VT_R4: { float f = float(randomDouble(rng)); memcpy(out, &f, 4); break; }
    case VT_I8: case VT_UI8: memcpy(out, &bits, 8); break;
    case VT_R8: case VT_DATE: { double d = randomDouble(rng); memcpy(out, &d, 8); break; }
    default: break;
    }
}

inline void MakeString(tagVARIANT* v, const std::string& s) {
    VariantInit(v);
    v->vt = VT_BSTR;
    v->bstrVal = SysAllocStringLen(s.data(), uint32_t(s.size()));
}

inline void MakeBytes(tagVARIANT* v, const std::string& bytes, int32_t lb = 0) {
    VariantInit(v);
    SAFEARRAYBOUND b{uint32_t(bytes.size()), lb};
    v->vt = VT_ARRAY | VT_UI1;
    v->parray = SafeArrayCreate(VT_UI1, 1, &b);
    if (!bytes.empty()) memcpy(v->parray->pvData, bytes.data(), bytes.size());
}

// An array of variants that takes ownership of the given elements.
inline void MakeVariantArray(tagVARIANT* v, std::vector<tagVARIANT> elements, int32_t lb = 0) {
    VariantInit(v);
    SAFEARRAYBOUND b{uint32_t(elements.size()), lb};
    v->vt = VT_ARRAY | VT_VARIANT;
    v->parray = SafeArrayCreate(VT_VARIANT, 1, &b);
    if (!elements.empty()) memcpy(v->parray->pvData, elements.data(), elements.size() * sizeof(tagVARIANT));
}

// Makes a random variant: scalars of every type (with edge values such as
// NaN, -0.0, limits, embedded NULs, non-UTF-8 bytes, null strings) and arrays
// of every element type, nested up to `depth` arrays.
inline void RandomVariant(std::mt19937_64& rng, int depth, tagVARIANT* out) {
    VariantInit(out);
    bool array = depth > 0 && rng() % 3 == 0;
    if (!array) {
        VARTYPE t = kScalars[rng() % (sizeof kScalars / sizeof kScalars[0])];
        out->vt = t;
        if (t == VT_BSTR) {
            if (rng() % 8) {
                std::string s = randomText(rng);
                out->bstrVal = SysAllocStringLen(s.data(), uint32_t(s.size()));
            }
        } else {
            randomValueBits(rng, t, &out->llVal);
        }
        return;
    }
    VARTYPE et = kElements[rng() % (sizeof kElements / sizeof kElements[0])];
    uint32_t n = uint32_t(rng() % 6);
    if (rng() % 10 == 0) n = uint32_t(rng() % 300);
    int32_t lb = rng() % 5 == 0 ? int32_t(rng() % 7) - 3 : 0;
    SAFEARRAYBOUND b{n, lb};
    out->vt = VT_ARRAY | et;
    out->parray = SafeArrayCreate(et, 1, &b);
    char* data = static_cast<char*>(out->parray->pvData);
    for (uint32_t i = 0; i < n; ++i) {
        if (et == VT_VARIANT) {
            RandomVariant(rng, depth - 1, reinterpret_cast<tagVARIANT*>(data) + i);
        } else if (et == VT_BSTR) {
            if (rng() % 8) {
                std::string s = randomText(rng);
                reinterpret_cast<BSTR*>(data)[i] = SysAllocStringLen(s.data(), uint32_t(s.size()));
            }
        } else {
            randomValueBits(rng, et, data + size_t(i) * out->parray->cbElements);
        }
    }
}

// Same type, bits and bounds, recursively: two independent writers, each exact
// to the bit, so a value one of them loses is still told apart by the other.
inline bool IdenticalVariants(const tagVARIANT& a, const tagVARIANT& b, std::string* why = nullptr) {
    const std::string ja = VariantToJson(a), jb = VariantToJson(b);
    if (ja == jb && Cab1Encoding(a).str() == Cab1Encoding(b).str()) return true;
    if (why) *why = ja + "\n  vs " + jb;
    return false;
}

}  // namespace kivtest
