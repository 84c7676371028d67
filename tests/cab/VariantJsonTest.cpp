#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "cab/VariantJson.h"
#include "tests/cab/VariantSamples.h"

using kivtest::IdenticalVariants;
using kivtest::OwnedVariant;

namespace {

// Reads `text`, prints it back, and returns what was printed (or the error).
std::string reprint(const std::string& text) {
    OwnedVariant v;
    std::string error;
    if (!VariantFromJson(text, &v.v, &error)) return "error: " + error;
    return VariantToJson(v.v);
}

VARTYPE typeOf(const std::string& text) {
    OwnedVariant v;
    std::string error;
    EXPECT_TRUE(VariantFromJson(text, &v.v, &error)) << text << ": " << error;
    return v.v.vt;
}

std::string readError(const std::string& text) {
    OwnedVariant v;
    std::string error;
    EXPECT_FALSE(VariantFromJson(text, &v.v, &error)) << text;
    EXPECT_EQ(v.v.vt, VT_EMPTY);
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
    OwnedVariant d;
    std::string error;
    ASSERT_TRUE(VariantFromJson("{\"$vt\":\"DATE\",\"v\":\"1970-01-01 01:00:00\"}", &d.v, &error)) << error;
    EXPECT_EQ(d.v.vt, VT_DATE);
    EXPECT_EQ(d.v.date, 25569.0);
    EXPECT_EQ(VariantToJson(d.v), "{\"$vt\":\"DATE\",\"v\":\"1970-01-01 01:00:00\"}");
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
}

TEST(VariantJson, RoundTripsGeneratedValuesBitForBit) {
    setenv("TZ", "America/New_York", 1);  // a zone with DST gaps and folds
    tzset();
    std::mt19937_64 rng(4242);
    for (int n = 0; n < 2000; ++n) {
        OwnedVariant a, b;
        kivtest::RandomVariant(rng, 5, &a.v);
        std::string text = VariantToJson(a.v, n % 2 ? 2 : -1);
        std::string error;
        ASSERT_TRUE(VariantFromJson(text, &b.v, &error)) << error << "\n" << text;
        std::string why;
        ASSERT_TRUE(IdenticalVariants(a.v, b.v, &why)) << n << ": " << why << "\n" << text;
    }
    unsetenv("TZ");
    tzset();
}

TEST(VariantJson, WriterMarksWhatItCannotName) {
    OwnedVariant v;
    v.v.vt = VT_BYREF | VT_I4;
    EXPECT_EQ(VariantToJson(v.v), "{\"$vt\":\"?\",\"type\":16387}");
    EXPECT_NE(readError(VariantToJson(v.v)).find("unknown type \"?\""), std::string::npos);
    v.v.vt = VT_EMPTY;
}

TEST(VariantJson, TextRenderingIndentsAndShortens) {
    std::vector<tagVARIANT> e(3);
    VariantInit(&e[0]); e[0].vt = VT_I4; e[0].lVal = 1;
    kivtest::MakeString(&e[1], std::string(300, 'x'));
    kivtest::MakeVariantArray(&e[2], std::vector<tagVARIANT>(1));
    OwnedVariant list;
    kivtest::MakeVariantArray(&list.v, e);
    std::string text = VariantToText(list.v);
    EXPECT_EQ(text.substr(0, text.find('\n')), "VT_ARRAY|VT_VARIANT [3]");
    EXPECT_NE(text.find("\n  [0] VT_I4 1\n  [1] VT_BSTR \"xxx"), std::string::npos) << text;
    EXPECT_NE(text.find("... (300 bytes)"), std::string::npos);
    EXPECT_NE(text.find("\n  [2] VT_ARRAY|VT_VARIANT [1]\n    [0] VT_EMPTY"), std::string::npos) << text;
    EXPECT_EQ(VariantTypeName(VT_ARRAY | VT_UI1), "VT_ARRAY|VT_UI1");
    EXPECT_EQ(VariantTypeName(99), "99");
}
