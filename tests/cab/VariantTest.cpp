// Variants: the runtime (strings, arrays, copies, locks), the JSON form (natural types, typed forms, dates,
// errors named by path) and the CAB1 wire form, over documented bytes, generated values and hostile input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "common/Base64.h"
#include "tests/support/JsonVariant.h"
#include "value/Cab1.h"
#include "value/Variant.h"
#include "value/VariantJson.h"
#include "variant/CLocalVariant.h"

namespace {

// Generated values of every type and nesting, and a bit-for-bit comparison.
const VARTYPE kScalars[] = {VT_EMPTY, VT_NULL, VT_I1, VT_UI1, VT_I2, VT_UI2,  VT_BOOL, VT_I4,
                            VT_UI4,   VT_R4,   VT_I8, VT_UI8, VT_R8, VT_DATE, VT_BSTR};
const VARTYPE kElements[] = {VT_I1,  VT_UI1, VT_I2, VT_UI2,  VT_I4,   VT_UI4,  VT_I8,
                             VT_UI8, VT_R4,  VT_R8, VT_DATE, VT_BSTR, VT_BOOL, VT_VARIANT};

BSTR randomBstr(std::mt19937_64& rng) {  // one in eight is a null string
    if (rng() % 8 == 0) return nullptr;
    // Empty, a blank, UTF-8, bytes that are not UTF-8, a NUL, JSON's escapes, what looks like a typed value.
    static const char* samples[] = {"",        "a b",       "caf\xc3\xa9",      "\xff\xfe raw",
                                    "nul\0in", "\" and \\", "{\"$vt\":\"I2\"}", "\xe2\x82\xac"};
    size_t pick = rng() % 9;
    if (pick < 8) return SysAllocStringLen(samples[pick], pick == 4 ? 6 : uint32_t(strlen(samples[pick])));
    std::string s(rng() % 40, '\0');
    for (auto& c : s) c = char(rng());
    return SysAllocStringLen(s.data(), uint32_t(s.size()));
}

double randomDouble(std::mt19937_64& rng) {
    switch (rng() % 9) {
    case 0: return 0.0;
    case 1: return -0.0;
    case 2: return std::numeric_limits<double>::quiet_NaN();
    case 3: return -std::numeric_limits<double>::infinity();
    case 4: return 3.0;                // integral: must not come back as an integer
    case 5: return 39511.21253472222;  // a date with a time of day
    case 6: return double(int64_t(rng() % 80000)) + double(rng() % 86400) / 86400.0;
    case 7: {
        uint64_t bits = rng();
        double d;
        memcpy(&d, &bits, 8);
        return d;
    }
    default: return std::ldexp(double(int64_t(rng())), -int(rng() % 80));
    }
}

void randomValueBits(std::mt19937_64& rng, VARTYPE t, void* out) {
    uint64_t bits = rng();
    switch (rng() % 4) {  // bias towards limits
    case 0: bits = 0; break;
    case 1: bits = ~uint64_t(0); break;
    case 2: bits = uint64_t(1) << (rng() % 64); break;
    default: break;
    }
    if (t == VT_BOOL) bits = rng() % 5 ? (rng() % 2 ? 0xFFFF : 0) : bits;  // mostly the two true values
    const double d = t == VT_R4 || t == VT_R8 || t == VT_DATE ? randomDouble(rng) : 0;
    const float f = float(d);
    if (t == VT_R4) memcpy(&bits, &f, 4);
    if (t == VT_R8 || t == VT_DATE) memcpy(&bits, &d, 8);
    memcpy(out, &bits, SafeArrayElementSize(t));  // little-endian: the low bytes
}

// Scalars of every type (NaN, -0.0, limits, embedded NULs, non-UTF-8 bytes, null
// strings) and arrays of every element type, nested up to `depth` arrays.
void RandomVariant(std::mt19937_64& rng, int depth, tagVARIANT* out) {
    VariantInit(out);
    bool array = depth > 0 && rng() % 3 == 0;
    if (!array) {
        VARTYPE t = kScalars[rng() % (sizeof kScalars / sizeof kScalars[0])];
        out->vt = t;
        if (t == VT_BSTR) out->bstrVal = randomBstr(rng);
        else randomValueBits(rng, t, &out->llVal);
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
        if (et == VT_VARIANT) RandomVariant(rng, depth - 1, reinterpret_cast<tagVARIANT*>(data) + i);
        else if (et == VT_BSTR) reinterpret_cast<BSTR*>(data)[i] = randomBstr(rng);
        else randomValueBits(rng, et, data + size_t(i) * out->parray->cbElements);
    }
}

// Same type, bits and bounds, recursively: two independent writers, each exact
// to the bit, so a value one of them loses is still told apart by the other.
bool IdenticalVariants(const tagVARIANT& a, const tagVARIANT& b, std::string* why = nullptr) {
    const std::string ja = VariantToJson(a), jb = VariantToJson(b);
    if (ja == jb && Cab1Encoding(a).str() == Cab1Encoding(b).str()) return true;
    if (why) *why = ja + "\n  vs " + jb;
    return false;
}

std::string reprint(const std::string& text) {
    CLocalVariant v;
    std::string error;
    if (!VariantFromJson(text, &v.get(), &error)) return "error: " + error;
    return VariantToJson(v.get());
}

VARTYPE typeOf(const std::string& text) {
    CLocalVariant v;
    std::string error;
    EXPECT_TRUE(VariantFromJson(text, &v.get(), &error)) << text << ": " << error;
    return v.get().vt;
}

std::string readError(const std::string& text) {
    CLocalVariant v;
    std::string error;
    EXPECT_FALSE(VariantFromJson(text, &v.get(), &error)) << text;
    EXPECT_EQ(v.get().vt, VT_EMPTY);
    return error;
}

std::string unhex(const std::string& h) {
    std::string out;
    for (size_t i = 0; i + 1 < h.size(); i += h[i] == ' ' ? 1 : 2)
        if (h[i] != ' ') out.push_back(char(std::stoi(h.substr(i, 2), nullptr, 16)));
    return out;
}

std::string hex(const std::string& b) {
    std::string out;
    for (unsigned char c : b) out += "0123456789abcdef"[c >> 4] + std::string(1, "0123456789abcdef"[c & 15]);
    return out;
}

std::string decodeError(const std::string& bytes) {
    CLocalVariant v;
    std::string error;
    EXPECT_FALSE(Cab1Decode(bytes.data(), bytes.size(), &v.get(), &error)) << hex(bytes);
    EXPECT_EQ(v.get().vt, VT_EMPTY);
    // Arriving one byte per piece changes nothing, not even the message.
    std::vector<Cab1Piece> pieces;
    for (size_t i = 0; i < bytes.size(); ++i) pieces.push_back({bytes.data() + i, 1});
    CLocalVariant w;
    std::string piecewise;
    EXPECT_FALSE(Cab1DecodePieces(pieces.data(), pieces.size(), &w.get(), &piecewise)) << hex(bytes);
    EXPECT_EQ(w.get().vt, VT_EMPTY);
    EXPECT_EQ(piecewise, error);
    return error;
}

// Cuts `bytes` into up to five pieces at random places (empty pieces included).
std::vector<Cab1Piece> randomPieces(std::mt19937_64& rng, const std::string& bytes) {
    std::vector<size_t> cuts{0, bytes.size()};
    for (int i = rng() % 5; i > 0; --i) cuts.push_back(bytes.empty() ? 0 : rng() % (bytes.size() + 1));
    std::sort(cuts.begin(), cuts.end());
    std::vector<Cab1Piece> pieces;
    for (size_t i = 0; i + 1 < cuts.size(); ++i) pieces.push_back({bytes.data() + cuts[i], cuts[i + 1] - cuts[i]});
    return pieces;
}

int g_released = 0;
void countRelease(void*) { ++g_released; }

}  // namespace

TEST(VariantRuntime, CreateRefusesWhatItCannotHold) {
    SAFEARRAYBOUND b{4, 0}, huge{0xFFFFFFFFu, 0}, two[2] = {{2, 0}, {2, 0}};
    const std::tuple<VARTYPE, unsigned, const SAFEARRAYBOUND*> refused[] =
        {{VT_EMPTY, 1, &b},   {VT_NULL, 1, &b},       {VT_I4 | VT_ARRAY, 1, &b}, {VT_I4, 2, two},
         {VT_I4, 1, nullptr}, {VT_VARIANT, 1, &huge}, {VT_R8, 1, &huge}};
    for (const auto& [type, dims, bounds] : refused) EXPECT_EQ(SafeArrayCreate(type, dims, bounds), nullptr) << type;
    SAFEARRAYBOUND none{0, 0};
    SAFEARRAY* empty = SafeArrayCreate(VT_UI1, 1, &none);
    ASSERT_TRUE(empty && empty->pvData);  // safe to hand to memcpy with length 0
    int32_t lb = 9, ub = 9;
    EXPECT_TRUE(SafeArrayGetLBound(empty, 1, &lb) == S_OK && SafeArrayGetUBound(empty, 1, &ub) == S_OK);
    EXPECT_EQ(std::make_pair(lb, ub), std::make_pair(0, -1));
    EXPECT_TRUE(SafeArrayGetLBound(empty, 2, &lb) < 0 && SafeArrayGetUBound(empty, 0, &ub) < 0);
    EXPECT_EQ(SafeArrayDestroy(empty), S_OK);
}

TEST(VariantRuntime, StringsKeepLengthAndBytesAndArraysOfThemHonourBoundsAndCopy) {
    BSTR s = SysAllocString("abc"), z = SysAllocStringLen("a\0b", 3), zeros = SysAllocStringLen(nullptr, 4);
    EXPECT_EQ((std::vector<uint32_t>{3, 3, 4, 0}),
              (std::vector<uint32_t>{SysStringLen(s), SysStringLen(z), SysStringLen(zeros), SysStringLen(nullptr)}));
    EXPECT_STREQ(s, "abc");
    EXPECT_EQ(memcmp(z, "a\0b\0", 4), 0);  // terminated after the length
    EXPECT_EQ(memcmp(zeros, "\0\0\0\0\0", 5), 0);
    for (BSTR b : {s, z, zeros, BSTR(nullptr)}) SysFreeString(b);
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    SAFEARRAYBOUND b{3, 5};
    SAFEARRAY* strings = SafeArrayCreate(VT_BSTR, 1, &b);
    ASSERT_NE(strings, nullptr);
    for (auto [i, text] : {std::pair<int32_t, const char*>{5, "mine"}, {7, "x"}}) {
        BSTR mine = SysAllocString(text);
        ASSERT_EQ(SafeArrayPutElement(strings, &i, mine), S_OK);
        SysFreeString(mine);  // the array holds its own copy
    }
    for (int32_t bad : {4, 8, -1, INT32_MIN, INT32_MAX}) {
        BSTR out = nullptr;
        EXPECT_EQ(SafeArrayGetElement(strings, &bad, &out), DISP_E_BADINDEX) << bad;
        EXPECT_EQ(SafeArrayPutElement(strings, &bad, nullptr), DISP_E_BADINDEX) << bad;
    }
    int32_t i = 5, unset = 6;
    BSTR got = nullptr;
    ASSERT_EQ(SafeArrayGetElement(strings, &i, &got), S_OK);
    EXPECT_STREQ(got, "mine");
    EXPECT_NE(got, static_cast<BSTR*>(strings->pvData)[0]);  // a copy
    SysFreeString(got);
    EXPECT_TRUE(SafeArrayGetElement(strings, &unset, &got) == S_OK && got == nullptr);
    // Overwriting frees the old string (ASan would report a leak otherwise).
    ASSERT_EQ(SafeArrayPutElement(strings, &i, nullptr), S_OK);
    EXPECT_EQ(static_cast<BSTR*>(strings->pvData)[0], nullptr);
    EXPECT_EQ(SafeArrayDestroy(strings), S_OK);
}

TEST(VariantRuntime, VariantArraysCopyDeeplyInAndOutAndCopyRefusesWhatItCannotRepresent) {
    JsonVariant list("[null,null]"), inner("\"deep\"");
    CLocalVariant copy;
    int32_t i = 0;
    ASSERT_EQ(SafeArrayPutElement(list.get().parray, &i, &inner.get()), S_OK);
    tagVARIANT* slot = static_cast<tagVARIANT*>(list.get().parray->pvData);
    EXPECT_TRUE(slot[0].vt == VT_BSTR && slot[0].bstrVal != inner.get().bstrVal);
    // Nest the list inside itself by value: the copy is independent.
    i = 1;
    ASSERT_EQ(SafeArrayPutElement(list.get().parray, &i, &list.get()), S_OK);
    slot = static_cast<tagVARIANT*>(list.get().parray->pvData);
    ASSERT_EQ(slot[1].vt, VT_ARRAY | VT_VARIANT);
    EXPECT_NE(slot[1].parray, list.get().parray);
    tagVARIANT out;
    memset(&out, 0xAB, sizeof out);  // garbage: GetElement must not clear it
    ASSERT_EQ(SafeArrayGetElement(list.get().parray, &i, &out), S_OK);
    std::string why;
    EXPECT_TRUE(IdenticalVariants(out, slot[1], &why)) << why;
    EXPECT_NE(out.parray, slot[1].parray);
    EXPECT_TRUE(VariantClear(&out) == S_OK && out.vt == VT_EMPTY);
    ASSERT_EQ(VariantCopy(&copy.get(), &list.get()), S_OK);
    EXPECT_TRUE(IdenticalVariants(copy.get(), list.get(), &why)) << why;
    // Copying over a variant frees what it held.
    EXPECT_TRUE(VariantCopy(&copy.get(), &inner.get()) == S_OK && copy.get().vt == VT_BSTR);
    EXPECT_EQ(VariantCopy(&copy.get(), &copy.get()), S_OK);
    // What cannot be copied is refused, and the target keeps its string.
    tagVARIANT src;
    VariantInit(&src);
    for (VARTYPE bad : {VARTYPE(VT_BYREF | VT_I4), VARTYPE(6), VARTYPE(VT_VARIANT), VARTYPE(99),
                        VARTYPE(VT_ARRAY | VT_EMPTY), VARTYPE(VT_ARRAY | VT_BYREF | VT_I4)}) {
        src.vt = bad;
        EXPECT_LT(VariantCopy(&inner.get(), &src), 0) << bad;
        EXPECT_EQ(inner.get().vt, VT_BSTR);  // untouched on failure
    }
    // Clearing a by-reference variant frees nothing it does not own.
    src.vt = VT_BYREF | VT_BSTR;
    src.bstrVal = inner.get().bstrVal;
    EXPECT_TRUE(VariantClear(&src) == S_OK && src.vt == VT_EMPTY);
    EXPECT_STREQ(inner.get().bstrVal, "deep");
}

TEST(VariantRuntime, RedimHonoursLocksZeroesNewElementsAndFreesDroppedOnes) {
    JsonVariant bytes(R"({"$vt":"UI1[]","base64":"YWJj"})"), list(R"(["a","b","c","d"])");
    SAFEARRAY* psa = bytes.get().parray;
    void* data = nullptr;
    ASSERT_TRUE(SafeArrayAccessData(psa, &data) == S_OK && SafeArrayAccessData(psa, &data) == S_OK);  // two locks
    EXPECT_EQ(memcmp(data, "abc", 3), 0);
    SAFEARRAYBOUND b{10, 0}, huge{0xFFFFFFFFu, 0};
    EXPECT_EQ(SafeArrayRedim(psa, &b), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);
    EXPECT_TRUE(VariantClear(&bytes.get()) == DISP_E_ARRAYISLOCKED && bytes.get().vt == (VT_ARRAY | VT_UI1));
    EXPECT_EQ(SafeArrayUnaccessData(psa), S_OK);
    EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);  // still one lock
    EXPECT_EQ(SafeArrayUnaccessData(psa), S_OK);
    EXPECT_LT(SafeArrayUnaccessData(psa), 0);
    ASSERT_EQ(SafeArrayRedim(psa, &b), S_OK);
    EXPECT_EQ(memcmp(psa->pvData, "abc\0\0\0\0\0\0\0", 10), 0);             // new elements are zero
    for (SAFEARRAYBOUND to : {SAFEARRAYBOUND{1, 0}, SAFEARRAYBOUND{3, 0}})  // ASan: dropped strings freed
        ASSERT_EQ(SafeArrayRedim(list.get().parray, &to), S_OK);
    EXPECT_EQ(VariantToJson(list.get()), R"(["a",null,null])");
    EXPECT_TRUE(SafeArrayRedim(list.get().parray, &huge) < 0 && list.get().parray->rgsabound[0].cElements == 3u);
}

TEST(VariantJson, PlainJsonReadsAsTheNaturalTypes) {
    const std::pair<const char*, VARTYPE> types[] = {{"null", VT_EMPTY},    {"true", VT_BOOL},
                                                     {"2147483647", VT_I4}, {"-2147483648", VT_I4},
                                                     {"2147483648", VT_I8}, {"-2147483649", VT_I8},
                                                     {"1.0", VT_R8},        {"1e3", VT_R8},
                                                     {"\"x\"", VT_BSTR},    {"[]", VT_ARRAY | VT_VARIANT}};
    for (const auto& [text, type] : types) EXPECT_EQ(typeOf(text), type) << text;
    EXPECT_TRUE(typeOf("9223372036854775807") == VT_I8 && typeOf("9223372036854775808") == VT_UI8);
    // Forms that print back as they are read.
    for (const char* text :
         {"[1,\"a\",{\"$vt\":\"I8\",\"v\":5},null]", "[true,false,-7,3.5,\"caf\xc3\xa9\"]", "{\"$vt\":\"NULL\"}",
          "{\"$vt\":\"BSTR\",\"v\":null}", "{\"$vt\":\"UI8\",\"v\":5}", "-0.0", "{\"$vt\":\"R8\",\"v\":\"NaN\"}",
          "{\"$vt\":\"R4\",\"v\":\"-Infinity\"}", "{\"$vt\":\"R8\",\"bits\":\"7ff8000000000001\"}",
          "{\"$vt\":\"BOOL\",\"v\":1}", "{\"$vt\":\"UI1[]\",\"base64\":\"AAEC\",\"lb\":1}",
          "{\"$vt\":\"I4[]\",\"v\":[1,2]}", "{\"$vt\":\"BSTR[]\",\"v\":[\"a\",null,{\"base64\":\"/w==\"}]}"})
        EXPECT_EQ(reprint(text), text);
    EXPECT_EQ(reprint("{\"$vt\":\"BSTR\",\"v\":\"plain\"}"), "\"plain\"");
    EXPECT_EQ(reprint("{\"$vt\":\"I4\",\"v\":5}"), "5");
    EXPECT_EQ(reprint("{\"$vt\":\"I8\",\"v\":5000000000}"), "5000000000");
    // An integral double stays a double.
    EXPECT_EQ(reprint("{\"$vt\":\"R8\",\"v\":3}"), "3.0");
    EXPECT_EQ(reprint("{\"$vt\":\"UI1[]\",\"v\":[0,1,2]}"), "{\"$vt\":\"UI1[]\",\"base64\":\"AAEC\"}");
    EXPECT_EQ(reprint("{\"$vt\":\"VARIANT[]\",\"v\":[1,2]}"), "[1,2]");
    EXPECT_EQ(reprint("{\"$vt\":\"VARIANT[]\",\"v\":[1],\"lb\":-2}"), "{\"$vt\":\"VARIANT[]\",\"lb\":-2,\"v\":[1]}");
}

TEST(VariantJson, DatesAreLocalTextWhenExact) {
    setenv("TZ", "Europe/Berlin", 1), tzset();
    CLocalVariant d;
    std::string error;
    ASSERT_TRUE(VariantFromJson("{\"$vt\":\"DATE\",\"v\":\"1970-01-01 01:00:00\"}", &d.get(), &error)) << error;
    EXPECT_TRUE(d.get().vt == VT_DATE && d.get().date == 25569.0);
    // A time with milliseconds has no exact text: it prints as days.
    for (const char* text : {R"({"$vt":"DATE","v":25569.5000001})", R"({"$vt":"DATE","v":"2008-03-04 05:06:07"})"})
        EXPECT_EQ(reprint(text), text);
    EXPECT_EQ(reprint("{\"$vt\":\"DATE\",\"v\":25569}"), "{\"$vt\":\"DATE\",\"v\":\"1970-01-01 01:00:00\"}");
    EXPECT_NE(readError("{\"$vt\":\"DATE\",\"v\":\"2008-02-30 00:00:00\"}").find("not a date"), std::string::npos);
    // 02:30 does not exist on the spring-forward day.
    EXPECT_NE(readError("{\"$vt\":\"DATE\",\"v\":\"2021-03-28 02:30:00\"}").find("/v"), std::string::npos);
    unsetenv("TZ"), tzset();
}

TEST(VariantJson, ReaderErrorsNameThePath) {
    const std::pair<const char*, const char*> cases[] = {
        {"[1,", "JSON parse error"},
        {"", "JSON parse error"},
        {"{}", "JSON path /: an object must name its type"},
        {"[0,{\"$vt\":\"I3\"}]", "JSON path /1/$vt: unknown type \"I3\""},
        {"{\"$vt\":\"VARIANT\",\"v\":1}", "unknown type"},
        {"{\"$vt\":\"NULL[]\",\"v\":[]}", "unknown type"},
        {"{\"$vt\":\"I2\",\"v\":70000}", "JSON path /v: 70000 is out of range for I2"},
        {"{\"$vt\":\"UI4\",\"v\":-1}", "-1 is out of range for UI4"},
        {"{\"$vt\":\"I4\",\"v\":1.5}", "expected an integer for I4"},
        {"{\"$vt\":\"I4\"}", "needs a value"},
        {"{\"$vt\":\"I4\",\"v\":1,\"x\":2}", "JSON path /x: unexpected key \"x\""},
        {"{\"$vt\":\"NULL\",\"v\":1}", "unexpected key \"v\""},
        {"{\"$vt\":\"I4[]\",\"v\":[1,\"2\"]}", "JSON path /v/1: expected an integer for I4"},
        {"{\"$vt\":\"I4[]\",\"v\":[1],\"lb\":1e3}", "JSON path /lb"},
        {"{\"$vt\":\"I4[]\",\"v\":[1],\"lb\":3000000000}", "JSON path /lb"},
        {"{\"$vt\":\"I4[]\",\"base64\":\"AA==\"}", "unexpected key \"base64\""},
        {"{\"$vt\":\"UI1[]\",\"base64\":\"A*==\"}", "JSON path /base64: invalid base64"},
        {"{\"$vt\":\"UI1[]\",\"base64\":\"AB==\"}", "non-canonical"},
        {"{\"$vt\":\"UI1[]\",\"base64\":\"AA==\",\"v\":[]}", "not both"},
        {"{\"$vt\":\"R4\",\"v\":1e300}", "out of range for R4"},
        {"{\"$vt\":\"R8\",\"v\":\"fast\"}", "is not a number"},
        {"{\"$vt\":\"R8\",\"bits\":\"7ff8\"}", "JSON path /bits: expected 16 hex digits"},
        {"{\"$vt\":\"BSTR\",\"v\":5}", "expected a string"},
        {"[[{\"$vt\":\"BSTR[]\",\"v\":[{\"base64\":1}]}]]", "JSON path /0/0/v/0/base64"},
    };
    for (const auto& [text, says] : cases) EXPECT_NE(readError(text).find(says), std::string::npos) << text;
    std::string deep64 = std::string(64, '[') + std::string(64, ']'), deep65 = "[" + deep64 + "]";
    EXPECT_EQ(typeOf(deep64), VT_ARRAY | VT_VARIANT);
    EXPECT_NE(readError(deep65).find("nested deeper than 64"), std::string::npos);
    // What the writer cannot name it marks, and the reader refuses.
    tagVARIANT byref{};
    byref.vt = VT_BYREF | VT_I4;
    EXPECT_EQ(VariantToJson(byref), "{\"$vt\":\"?\",\"type\":16387}");
    EXPECT_NE(readError(VariantToJson(byref)).find("unknown type \"?\""), std::string::npos);
}

TEST(VariantJson, TextRenderingIndentsAndShortens) {
    JsonVariant list("[1,\"" + std::string(300, 'x') + "\",[null]]");
    std::string text = VariantToText(list.get());
    EXPECT_EQ(text.rfind("VT_ARRAY|VT_VARIANT [3]\n", 0), 0u);
    EXPECT_NE(text.find("\n  [0] VT_I4 1\n  [1] VT_BSTR \"xxx"), std::string::npos) << text;
    EXPECT_NE(text.find("... (300 bytes)"), std::string::npos);
    EXPECT_NE(text.find("\n  [2] VT_ARRAY|VT_VARIANT [1]\n    [0] VT_EMPTY"), std::string::npos) << text;
    EXPECT_EQ(VariantTypeName(VT_ARRAY | VT_UI1), "VT_ARRAY|VT_UI1");
    EXPECT_EQ(VariantTypeName(99), "99");
}

TEST(Cab1, EncodesTheDocumentedBytesAndRefusesWhatTheWireCannotCarry) {
    const std::pair<const char*, std::string> cases[] = {
        {R"([1, "a", {"$vt":"I8","v":5}, null])",
         "0c20 00000000 04000000 0300 01000000 0800 01000000 61 1400 0500000000000000 0000"},
        {R"({"$vt":"BSTR","v":null})", "0800ffffffff"},
        {"true", "0b00ffff"},
        {R"({"$vt":"UI1[]","lb":-1,"base64":"AQI="})", "1120ffffffff020000000102"},
    };
    for (const auto& [value, bytes] : cases) {
        JsonVariant v(value);
        EXPECT_EQ(hex(Cab1Encoding(v.get()).str()), hex(unhex(bytes))) << value;
    }
    // Nothing, and a type alone, decode too.
    for (const auto& [bytes, value] :
         {std::pair<std::string, std::string>{"", "null"}, {"0000", "null"}, {"0100", "{\"$vt\":\"NULL\"}"}}) {
        CLocalVariant v;
        v.get().vt = VT_I4;
        EXPECT_TRUE(Cab1Decode(unhex(bytes).data(), bytes.size() / 2, &v.get(), nullptr));
        EXPECT_EQ(VariantToJson(v.get()), value) << bytes;
    }
    // What the wire cannot carry is refused.
    CLocalVariant v;
    v.get().vt = VT_BYREF | VT_I4;
    Cab1Encoding byref(v.get());
    EXPECT_TRUE(!byref.ok() && byref.size() == 0u);
    v.get().vt = 6;
    EXPECT_FALSE(Cab1Encoding(v.get()).ok());
    VariantInit(&v.get());
    // 65 nested arrays are one too many; 64 are fine.
    JsonVariant deep(std::string(64, '[') + std::string(64, ']')), deeper("[null]");
    EXPECT_TRUE(Cab1Encoding(deep.get()).ok());
    int32_t first = 0;
    ASSERT_EQ(SafeArrayPutElement(deeper.get().parray, &first, &deep.get()), S_OK);
    Cab1Encoding tooDeep(deeper.get());
    EXPECT_TRUE(!tooDeep.ok() && tooDeep.error().find("64") != std::string::npos);
}

// Each generated value comes back the same to the bit from its JSON text and from its CAB1 bytes.
TEST(GeneratedValues, RoundTripBitForBitAsJsonAndAsCab1) {
    setenv("TZ", "America/New_York", 1), tzset();  // dates in JSON: a zone with DST gaps and folds
    std::mt19937_64 rng(4242);
    for (int n = 0; n < 3000; ++n) {
        CLocalVariant a, j, b;
        RandomVariant(rng, 5, &a.get());
        std::string text = VariantToJson(a.get(), n % 2 ? 2 : -1), error, why;
        ASSERT_TRUE(VariantFromJson(text, &j.get(), &error)) << error << "\n" << text;
        ASSERT_TRUE(IdenticalVariants(a.get(), j.get(), &why)) << n << ": " << why << "\n" << text;
        Cab1Encoding enc(a.get());
        std::string bytes = enc.str();
        ASSERT_TRUE(enc.ok() && bytes.size() == enc.size()) << enc.error();
        ASSERT_TRUE(Cab1Decode(bytes.data(), bytes.size(), &b.get(), &error)) << error;
        ASSERT_TRUE(IdenticalVariants(a.get(), b.get(), &why)) << n << ": " << why;
        // The same bytes arriving in pieces decode to the same value.
        std::vector<Cab1Piece> pieces = randomPieces(rng, bytes);
        CLocalVariant d;
        ASSERT_TRUE(Cab1DecodePieces(pieces.data(), pieces.size(), &d.get(), &error)) << n << ": " << error;
        ASSERT_TRUE(IdenticalVariants(a.get(), d.get(), &why)) << n << " in " << pieces.size() << " pieces: " << why;
        // Every strict prefix is refused (a prefix of 0 bytes is VT_EMPTY, 2 bytes may be a type alone).
        size_t cut = bytes.size() > 2 ? 1 + rng() % (bytes.size() - 1) : 0;
        CLocalVariant c;
        bool typeAlone = cut == 2 && (a.get().vt == VT_EMPTY || a.get().vt == VT_NULL);
        EXPECT_FALSE(cut && !typeAlone && Cab1Decode(bytes.data(), cut, &c.get(), &error)) << cut;
    }
    unsetenv("TZ"), tzset();
}

TEST(Cab1, DecoderRefusesHostileBytes) {
    const std::pair<const char*, const char*> cases[] = {
        {"00", "truncated type code (needs 2 bytes, 1 left) at byte offset 0"},
        {"0900", "unknown type code 0x0009 at byte offset 0"},
        {"0c00", "unknown type code 0x000C at byte offset 0"},
        {"0340 01000000", "by-reference flag in type code 0x4003 at byte offset 0"},
        {"0060", "by-reference flag"},
        {"0020 00000000 00000000", "bad array element type in type code 0x2000 at byte offset 0"},
        {"0120 00000000 00000000", "bad array element type"},
        {"0620 00000000 00000000", "bad array element type"},
        {"0130 00000000 00000000", "bad array element type"},
        {"0300 0100", "truncated value (needs 4 bytes, 2 left) at byte offset 2"},
        {"0800 05000000 6162", "truncated string (length 5, 2 bytes left) at byte offset 2"},
        {"0800 feffffff", "truncated string"},
        {"0300 01000000 00", "1 trailing bytes at byte offset 6"},
        {"0000 00", "trailing bytes at byte offset 2"},
        {"1120 00000000 ffffffff 00",
         "array count 4294967295 needs at least 4294967295 bytes but only 1 remain at byte offset 6"},
        {"0c20 00000000 ffffffff 0000", "array count 4294967295 needs at least 8589934590 bytes"},
        {"0820 00000000 02000000 00000000", "array count 2 needs at least 8 bytes but only 4 remain"},
        {"0520 00000000 01000000 0000", "array count 1 needs at least 8 bytes"},
        {"0c20 00000000 02000000 0300 01000000 0900", "unknown type code 0x0009 at byte offset 16"},
        {"0c20 00000000 01000000 0c20 00000000 01000000 0800 03000000 6162",
         "truncated string (length 3, 2 bytes left) at byte offset 22"},
        {"1120 00000000", "truncated array count"},
        {"1120 000000", "truncated array lower bound"},
    };
    for (const auto& [bytes, says] : cases) {
        std::string error = decodeError(unhex(bytes));
        EXPECT_NE(error.find(says), std::string::npos) << bytes << " -> " << error;
        EXPECT_EQ(error.rfind("CAB1: ", 0), 0u) << error;
    }
    // Nesting: 64 arrays decode, 65 are refused, and so are a million (no stack overflow).
    auto nested = [](int levels) {
        std::string b;
        for (int i = 0; i < levels; ++i) b += unhex("0c20 00000000 01000000");
        b += unhex("0000");
        return b;
    };
    CLocalVariant ok;
    std::string error, b64 = nested(64);
    EXPECT_TRUE(Cab1Decode(b64.data(), b64.size(), &ok.get(), &error)) << error;
    EXPECT_NE(decodeError(nested(65)).find("arrays nested deeper than 64 at byte offset 640"), std::string::npos);
    EXPECT_NE(decodeError(nested(1000000)).find("nested deeper"), std::string::npos);
}

TEST(Cab1, LargeArraysDecodeOverTheirInput) {
    auto encoded = [](VARTYPE et, uint32_t count, int32_t lb) {
        CLocalVariant v;
        SAFEARRAYBOUND b{count, lb};
        v.get().vt = VARTYPE(VT_ARRAY | et);
        v.get().parray = SafeArrayCreate(et, 1, &b);
        char* p = static_cast<char*>(v.get().parray->pvData);
        for (size_t i = 0; i < size_t(count) * SafeArrayElementSize(et); ++i) p[i] = char(i * 13);
        return Cab1Encoding(v.get()).str();
    };
    const size_t head = 10;
    // A large byte array: the array's storage is the input, released once, when the array goes or
    // when a resize moves the elements onto storage of the array's own. A copy owns its storage.
    std::string bytes = encoded(VT_UI1, kCab1LendMin, -3);
    for (bool resize : {false, true}) {
        g_released = 0;
        {
            CLocalVariant out, copy;
            bool lent = false;
            ASSERT_TRUE(Cab1DecodeLending(&bytes[0], bytes.size(), &countRelease, nullptr, &out.get(), &lent, nullptr));
            ASSERT_TRUE(lent);
            SAFEARRAY* psa = out.get().parray;
            EXPECT_TRUE(out.get().vt == (VT_ARRAY | VT_UI1) && psa->pvData == static_cast<void*>(&bytes[head]));
            EXPECT_TRUE(psa->rgsabound[0].lLbound == -3 && psa->rgsabound[0].cElements == kCab1LendMin);
            ASSERT_EQ(VariantCopy(&copy.get(), &out.get()), S_OK);
            EXPECT_NE(copy.get().parray->pvData, psa->pvData);
            SAFEARRAYBOUND bigger{kCab1LendMin + 5, 0};
            ASSERT_TRUE(!resize || SafeArrayRedim(psa, &bigger) == S_OK);
            EXPECT_EQ(g_released, resize ? 1 : 0);
            EXPECT_EQ(memcmp(psa->pvData, &bytes[head], kCab1LendMin), 0);
            EXPECT_TRUE(!resize || static_cast<const char*>(psa->pvData)[kCab1LendMin + 4] == 0);
        }
        EXPECT_EQ(g_released, 1);
    }
    // Small arrays, misaligned elements (heap blocks start 16-aligned: these start 3 bytes off), other
    // shapes and damaged inputs are decoded as copies (or refused) and the input stays the caller's.
    const std::string lendable = Base64Encode(std::string(kCab1LendMin, 'n').data(), kCab1LendMin);
    JsonVariant nested(R"([{"$vt":"UI1[]","base64":")" + lendable + "\"}]");
    std::tuple<std::string, size_t, bool> cases[] = {{encoded(VT_UI1, kCab1LendMin - 1, 0), 0, true},
                                                     {"x" + encoded(VT_I4, kCab1LendMin, 0), 1, true},
                                                     {Cab1Encoding(nested.get()).str(), 0, true},
                                                     {bytes.substr(0, bytes.size() - 1), 0, false}};
    g_released = 0;
    for (auto& [in, skip, good] : cases) {
        CLocalVariant out;
        bool lent = true;
        std::string error;
        EXPECT_EQ(Cab1DecodeLending(&in[skip], in.size() - skip, &countRelease, nullptr, &out.get(), &lent, &error),
                  good)
            << error;
        EXPECT_FALSE(lent);
    }
    EXPECT_EQ(g_released, 0);
}
