// The variant runtime (strings, arrays, copies, locks) and the JSON form of
// variants (natural types, the typed forms, dates, errors named by path).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <tuple>

#include "value/Variant.h"
#include "value/VariantJson.h"
#include "tests/cab/VariantSamples.h"

using kivtest::IdenticalVariants;

TEST(VariantRuntime, StringsKeepLengthAndBytes) {
    BSTR s = SysAllocString("abc"), z = SysAllocStringLen("a\0b", 3), zeros = SysAllocStringLen(nullptr, 4);
    EXPECT_EQ(SysStringLen(s), 3u);
    EXPECT_STREQ(s, "abc");
    EXPECT_EQ(SysStringLen(z), 3u);
    EXPECT_EQ(memcmp(z, "a\0b\0", 4), 0);  // terminated after the length
    EXPECT_EQ(memcmp(zeros, "\0\0\0\0\0", 5), 0);
    for (BSTR b : {s, z, zeros, BSTR(nullptr)}) SysFreeString(b);
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    EXPECT_EQ(SysStringLen(nullptr), 0u);
}

TEST(VariantRuntime, CreateRefusesWhatItCannotHold) {
    SAFEARRAYBOUND b{4, 0}, huge{0xFFFFFFFFu, 0}, two[2] = {{2, 0}, {2, 0}};
    const std::tuple<VARTYPE, unsigned, const SAFEARRAYBOUND*> refused[] = {
        {VT_EMPTY, 1, &b}, {VT_NULL, 1, &b},       {VT_I4 | VT_ARRAY, 1, &b}, {VT_I4, 2, two},
        {VT_I4, 1, nullptr}, {VT_VARIANT, 1, &huge}, {VT_R8, 1, &huge}};
    for (const auto& [type, dims, bounds] : refused) EXPECT_EQ(SafeArrayCreate(type, dims, bounds), nullptr) << type;
    SAFEARRAYBOUND none{0, 0};
    SAFEARRAY* empty = SafeArrayCreate(VT_UI1, 1, &none);
    ASSERT_NE(empty, nullptr);
    EXPECT_NE(empty->pvData, nullptr);  // safe to hand to memcpy with length 0
    int32_t lb = 9, ub = 9;
    EXPECT_EQ(SafeArrayGetLBound(empty, 1, &lb), S_OK);
    EXPECT_EQ(SafeArrayGetUBound(empty, 1, &ub), S_OK);
    EXPECT_EQ(lb, 0);
    EXPECT_EQ(ub, -1);
    EXPECT_LT(SafeArrayGetLBound(empty, 2, &lb), 0);
    EXPECT_LT(SafeArrayGetUBound(empty, 0, &ub), 0);
    EXPECT_EQ(SafeArrayDestroy(empty), S_OK);
}

TEST(VariantRuntime, ElementsHonourBoundsAndCopyStrings) {
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
    int32_t i = 5;
    BSTR got = nullptr;
    ASSERT_EQ(SafeArrayGetElement(strings, &i, &got), S_OK);
    EXPECT_STREQ(got, "mine");
    EXPECT_NE(got, static_cast<BSTR*>(strings->pvData)[0]);  // a copy
    SysFreeString(got);
    i = 6;
    ASSERT_EQ(SafeArrayGetElement(strings, &i, &got), S_OK);
    EXPECT_EQ(got, nullptr);  // never set
    // Overwriting frees the old string (ASan would report a leak otherwise).
    i = 5;
    ASSERT_EQ(SafeArrayPutElement(strings, &i, nullptr), S_OK);
    EXPECT_EQ(static_cast<BSTR*>(strings->pvData)[0], nullptr);
    EXPECT_EQ(SafeArrayDestroy(strings), S_OK);
}

TEST(VariantRuntime, VariantArraysCopyDeeplyInAndOut) {
    CLocalVariant list, inner, copy;
    kivtest::MakeVariantArray(&list.get(), std::vector<tagVARIANT>(2));
    kivtest::MakeString(&inner.get(), "deep");
    int32_t i = 0;
    ASSERT_EQ(SafeArrayPutElement(list.get().parray, &i, &inner.get()), S_OK);
    tagVARIANT* slot = static_cast<tagVARIANT*>(list.get().parray->pvData);
    EXPECT_EQ(slot[0].vt, VT_BSTR);
    EXPECT_NE(slot[0].bstrVal, inner.get().bstrVal);
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
    EXPECT_EQ(VariantClear(&out), S_OK);
    EXPECT_EQ(out.vt, VT_EMPTY);
    ASSERT_EQ(VariantCopy(&copy.get(), &list.get()), S_OK);
    EXPECT_TRUE(IdenticalVariants(copy.get(), list.get(), &why)) << why;
    // Copying over a variant frees what it held.
    ASSERT_EQ(VariantCopy(&copy.get(), &inner.get()), S_OK);
    EXPECT_EQ(copy.get().vt, VT_BSTR);
    EXPECT_EQ(VariantCopy(&copy.get(), &copy.get()), S_OK);
}

TEST(VariantRuntime, CopyRefusesWhatItCannotRepresent) {
    CLocalVariant dst;
    kivtest::MakeString(&dst.get(), "kept");
    tagVARIANT src;
    VariantInit(&src);
    for (VARTYPE bad : {VARTYPE(VT_BYREF | VT_I4), VARTYPE(6), VARTYPE(VT_VARIANT), VARTYPE(99),
                        VARTYPE(VT_ARRAY | VT_EMPTY), VARTYPE(VT_ARRAY | VT_BYREF | VT_I4)}) {
        src.vt = bad;
        EXPECT_LT(VariantCopy(&dst.get(), &src), 0) << bad;
        EXPECT_EQ(dst.get().vt, VT_BSTR);  // untouched on failure
    }
    // Clearing a by-reference variant frees nothing it does not own.
    src.vt = VT_BYREF | VT_BSTR;
    src.bstrVal = dst.get().bstrVal;
    EXPECT_EQ(VariantClear(&src), S_OK);
    EXPECT_EQ(src.vt, VT_EMPTY);
    EXPECT_STREQ(dst.get().bstrVal, "kept");
}

TEST(VariantRuntime, RedimHonoursLocksZeroesNewElementsAndFreesDroppedOnes) {
    CLocalVariant bytes, list;
    kivtest::MakeBytes(&bytes.get(), "abc");
    SAFEARRAY* psa = bytes.get().parray;
    void* data = nullptr;
    ASSERT_EQ(SafeArrayAccessData(psa, &data), S_OK);
    ASSERT_EQ(SafeArrayAccessData(psa, &data), S_OK);
    EXPECT_EQ(memcmp(data, "abc", 3), 0);
    SAFEARRAYBOUND b{10, 0}, huge{0xFFFFFFFFu, 0};
    EXPECT_EQ(SafeArrayRedim(psa, &b), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(VariantClear(&bytes.get()), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(bytes.get().vt, VT_ARRAY | VT_UI1);
    EXPECT_EQ(SafeArrayUnaccessData(psa), S_OK);
    EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);  // still one lock
    EXPECT_EQ(SafeArrayUnaccessData(psa), S_OK);
    EXPECT_LT(SafeArrayUnaccessData(psa), 0);
    ASSERT_EQ(SafeArrayRedim(psa, &b), S_OK);
    EXPECT_EQ(memcmp(psa->pvData, "abc\0\0\0\0\0\0\0", 10), 0);  // new elements are zero
    std::vector<tagVARIANT> e(4);
    for (int i = 0; i < 4; ++i) kivtest::MakeString(&e[i], std::string(100, char('a' + i)));
    kivtest::MakeVariantArray(&list.get(), e);
    b = {1, 0};
    ASSERT_EQ(SafeArrayRedim(list.get().parray, &b), S_OK);  // ASan: dropped strings freed
    b = {3, 0};
    ASSERT_EQ(SafeArrayRedim(list.get().parray, &b), S_OK);
    EXPECT_EQ(VariantToJson(list.get()), "[\"" + std::string(100, 'a') + "\",null,null]");
    EXPECT_LT(SafeArrayRedim(list.get().parray, &huge), 0);
    EXPECT_EQ(list.get().parray->rgsabound[0].cElements, 3u);
}

namespace {

// Reads `text`, prints it back, and returns what was printed (or the error).
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

}  // namespace

TEST(VariantJson, PlainJsonReadsAsTheNaturalTypes) {
    const std::pair<const char*, VARTYPE> types[] = {{"null", VT_EMPTY}, {"true", VT_BOOL},
        {"2147483647", VT_I4}, {"-2147483648", VT_I4}, {"2147483648", VT_I8}, {"-2147483649", VT_I8},
        {"9223372036854775807", VT_I8}, {"9223372036854775808", VT_UI8}, {"1.0", VT_R8}, {"1e3", VT_R8},
        {"\"x\"", VT_BSTR}, {"[]", VT_ARRAY | VT_VARIANT}};
    for (const auto& [text, type] : types) EXPECT_EQ(typeOf(text), type) << text;
    // Forms that print back as they are read.
    for (const char* text : {
        "[1,\"a\",{\"$vt\":\"I8\",\"v\":5},null]", "[true,false,-7,3.5,\"caf\xc3\xa9\"]", "{\"$vt\":\"NULL\"}",
        "{\"$vt\":\"BSTR\",\"v\":null}", "{\"$vt\":\"UI8\",\"v\":5}", "-0.0", "{\"$vt\":\"R8\",\"v\":\"NaN\"}",
        "{\"$vt\":\"R4\",\"v\":\"-Infinity\"}", "{\"$vt\":\"R8\",\"bits\":\"7ff8000000000001\"}",
        "{\"$vt\":\"BOOL\",\"v\":1}", "{\"$vt\":\"UI1[]\",\"base64\":\"AAEC\",\"lb\":1}",
        "{\"$vt\":\"I4[]\",\"v\":[1,2]}"})
        EXPECT_EQ(reprint(text), text);
    EXPECT_EQ(reprint("{\"$vt\":\"BSTR\",\"v\":\"plain\"}"), "\"plain\"");
    EXPECT_EQ(reprint("{\"$vt\":\"I4\",\"v\":5}"), "5");
    EXPECT_EQ(reprint("{\"$vt\":\"I8\",\"v\":5000000000}"), "5000000000");
    // An integral double stays a double.
    EXPECT_EQ(reprint("{\"$vt\":\"R8\",\"v\":3}"), "3.0");
    EXPECT_EQ(reprint("{\"$vt\":\"UI1[]\",\"v\":[0,1,2]}"), "{\"$vt\":\"UI1[]\",\"base64\":\"AAEC\"}");
    EXPECT_EQ(reprint("{\"$vt\":\"VARIANT[]\",\"v\":[1,2]}"), "[1,2]");
    EXPECT_EQ(reprint("{\"$vt\":\"VARIANT[]\",\"v\":[1],\"lb\":-2}"), "{\"$vt\":\"VARIANT[]\",\"lb\":-2,\"v\":[1]}");
    EXPECT_EQ(reprint("{\"$vt\":\"BSTR[]\",\"v\":[\"a\",null,{\"base64\":\"/w==\"}]}"),
              "{\"$vt\":\"BSTR[]\",\"v\":[\"a\",null,{\"base64\":\"/w==\"}]}");
}

TEST(VariantJson, DatesAreLocalTextWhenExact) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    CLocalVariant d;
    std::string error;
    ASSERT_TRUE(VariantFromJson("{\"$vt\":\"DATE\",\"v\":\"1970-01-01 01:00:00\"}", &d.get(), &error)) << error;
    EXPECT_EQ(d.get().vt, VT_DATE);
    EXPECT_EQ(d.get().date, 25569.0);
    EXPECT_EQ(VariantToJson(d.get()), "{\"$vt\":\"DATE\",\"v\":\"1970-01-01 01:00:00\"}");
    EXPECT_EQ(reprint("{\"$vt\":\"DATE\",\"v\":\"2008-03-04 05:06:07\"}"), "{\"$vt\":\"DATE\",\"v\":\"2008-03-04 05:06:07\"}");
    // A time with milliseconds has no exact text: it prints as days.
    EXPECT_EQ(reprint("{\"$vt\":\"DATE\",\"v\":25569.5000001}"), "{\"$vt\":\"DATE\",\"v\":25569.5000001}");
    EXPECT_EQ(reprint("{\"$vt\":\"DATE\",\"v\":25569}"), "{\"$vt\":\"DATE\",\"v\":\"1970-01-01 01:00:00\"}");
    EXPECT_NE(readError("{\"$vt\":\"DATE\",\"v\":\"2008-02-30 00:00:00\"}").find("not a date"), std::string::npos);
    // 02:30 does not exist on the spring-forward day.
    EXPECT_NE(readError("{\"$vt\":\"DATE\",\"v\":\"2021-03-28 02:30:00\"}").find("/v"), std::string::npos);
    unsetenv("TZ");
    tzset();
}

TEST(VariantJson, ReaderErrorsNameThePath) {
    struct Case { const char* json; const char* says; };
    const Case cases[] = {
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
    for (const auto& c : cases) {
        std::string error = readError(c.json);
        EXPECT_NE(error.find(c.says), std::string::npos) << c.json << " -> " << error;
    }
    std::string deep64(64, '['), deep65(65, '[');
    deep64 += std::string(64, ']');
    deep65 += std::string(65, ']');
    EXPECT_EQ(typeOf(deep64), VT_ARRAY | VT_VARIANT);
    EXPECT_NE(readError(deep65).find("nested deeper than 64"), std::string::npos);
    // What the writer cannot name it marks, and the reader refuses.
    CLocalVariant byref;
    byref.get().vt = VT_BYREF | VT_I4;
    EXPECT_EQ(VariantToJson(byref.get()), "{\"$vt\":\"?\",\"type\":16387}");
    EXPECT_NE(readError(VariantToJson(byref.get())).find("unknown type \"?\""), std::string::npos);
    byref.get().vt = VT_EMPTY;
}

TEST(VariantJson, RoundTripsGeneratedValuesBitForBit) {
    setenv("TZ", "America/New_York", 1);  // a zone with DST gaps and folds
    tzset();
    std::mt19937_64 rng(4242);
    for (int n = 0; n < 2000; ++n) {
        CLocalVariant a, b;
        kivtest::RandomVariant(rng, 5, &a.get());
        std::string text = VariantToJson(a.get(), n % 2 ? 2 : -1);
        std::string error;
        ASSERT_TRUE(VariantFromJson(text, &b.get(), &error)) << error << "\n" << text;
        std::string why;
        ASSERT_TRUE(IdenticalVariants(a.get(), b.get(), &why)) << n << ": " << why << "\n" << text;
    }
    unsetenv("TZ");
    tzset();
}

TEST(VariantJson, TextRenderingIndentsAndShortens) {
    std::vector<tagVARIANT> e(3);
    VariantInit(&e[0]); e[0].vt = VT_I4; e[0].lVal = 1;
    kivtest::MakeString(&e[1], std::string(300, 'x'));
    kivtest::MakeVariantArray(&e[2], std::vector<tagVARIANT>(1));
    CLocalVariant list;
    kivtest::MakeVariantArray(&list.get(), e);
    std::string text = VariantToText(list.get());
    EXPECT_EQ(text.substr(0, text.find('\n')), "VT_ARRAY|VT_VARIANT [3]");
    EXPECT_NE(text.find("\n  [0] VT_I4 1\n  [1] VT_BSTR \"xxx"), std::string::npos) << text;
    EXPECT_NE(text.find("... (300 bytes)"), std::string::npos);
    EXPECT_NE(text.find("\n  [2] VT_ARRAY|VT_VARIANT [1]\n    [0] VT_EMPTY"), std::string::npos) << text;
    EXPECT_EQ(VariantTypeName(VT_ARRAY | VT_UI1), "VT_ARRAY|VT_UI1");
    EXPECT_EQ(VariantTypeName(99), "99");
}
