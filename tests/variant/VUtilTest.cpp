// VUtil: arrays as wholes, the readers and writers of their elements, dates;
// and the times of TimeUtils.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <boost/make_shared.hpp>

#include "cab/CabException.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/JsonVariant.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"
#include "value/Variant.h"
#include "variant/CLocalVariant.h"
#include "variant/TimeUtils.h"
#include "variant/VUtil.h"

// Expects `stmt` to throw a CabException with `code` and exactly `text`;
// an invalid parameter has the code 1.
#define EXPECT_CAB_THROW(stmt, code, text)               \
    do {                                                 \
        try {                                            \
            stmt;                                        \
            ADD_FAILURE() << "no exception from " #stmt; \
        } catch (const CabException& e) {                \
            EXPECT_STREQ(text, e.getMessage()) << #stmt; \
            EXPECT_EQ(code, e.getCode());                \
        }                                                \
    } while (0)
#define EXPECT_INVALID(stmt, text) EXPECT_CAB_THROW(stmt, 1, text)

// Expects each call to be refused as an invalid parameter with its text.
inline void expectRefusals(const std::vector<std::pair<std::function<void()>, std::string>>& refusals) {
    for (const auto& [call, text] : refusals) {
        SCOPED_TRACE(text);
        EXPECT_INVALID(call(), text.c_str());
    }
}

// A one-dimensional array of `elementType`, of `count` elements from `lowerBound`.
struct Array : CLocalVariant {
    Array(VARTYPE elementType, uint32_t count, int32_t lowerBound = 0) {
        SAFEARRAYBOUND bound{count, lowerBound};
        get().parray = SafeArrayCreate(elementType, 1, &bound);
        get().vt = static_cast<VARTYPE>(VT_ARRAY | elementType);
    }
};

TEST(VUtilArrays, LengthsCreationAndTypeChecks) {
    CLocalVariant empty, hollow, v;
    JsonVariant scalar("3");
    hollow.get().vt = VT_ARRAY | VT_I4;  // an array type without an array is refused, not followed
    Array shifted(VT_I4, 3, 1), one(VT_I4, 1), two(VT_I4, 2), three(VT_I4, 3);
    EXPECT_EQ(0, VUtil::GetArrayLengthEmpty(empty.get()));
    VUtil::CreateArray(v.get(), VT_BSTR, 3);
    EXPECT_TRUE(v.vt() == (VT_ARRAY | VT_BSTR) && VUtil::GetArrayLength(v.get()) == 3);
    VUtil::RedimArray(v.get(), 5);
    EXPECT_EQ(5, VUtil::GetArrayLengthEmpty(v.get()));
    VUtil::RedimArray(v.get(), 0);
    EXPECT_EQ(0, VUtil::GetArrayLength(v.get()));
    VUtil::CheckType(scalar.get(), VT_I4, "ctx");
    EXPECT_EQ(2, VUtil::CheckArrayType(two.get(), VT_I4, 2, nullptr));
    EXPECT_EQ(2, VUtil::CheckArrayType(two.get(), VT_I4, 2, true, nullptr));
    EXPECT_EQ(3, VUtil::CheckArrayType(three.get(), VT_I4, 2, true, "ctx"));
    const std::string longContext(300, 'c');
    expectRefusals({
        {[&] { VUtil::GetArrayLength(empty.get()); }, "Variant passed to VUtil::GetArrayLength is not an array"},
        {[&] { VUtil::GetArrayLengthEmpty(scalar.get()); },
         "Variant passed to VUtil::GetArrayLengthEmpty is not an array"},
        {[&] { VUtil::GetArrayLength(shifted.get()); }, "Array is not zero indexed! (VUtil::GetArrayLength)"},
        {[&] { VUtil::GetArrayLength(hollow.get()); }, "SafeArrayGetLBound failed in VUtil::GetArrayLength"},
        {[&] { VUtil::RedimArray(empty.get(), 2); }, "Could not redimension safe array"},
        {[&] { VUtil::CreateArray(empty.get(), VT_EMPTY, 2); }, "Could not create safe array"},
        {[&] { VUtil::CheckType(scalar.get(), VT_BSTR, "GetFile"); }, "GetFile: checkType failed, got 3, expected 8"},
        {[&] { VUtil::CheckType(scalar.get(), VT_BSTR, nullptr); }, "checkType failed, got 3, expected 8"},
        {[&] { VUtil::CheckArrayType(three.get(), VT_I4, 2, nullptr); },
         "checkArrayType failed, got length 3, expect 2"},
        {[&] { VUtil::CheckArrayType(one.get(), VT_I4, 2, true, "ctx"); },
         "ctx: checkArrayType failed, got length 1, expect 2+"},
        {[&] { VUtil::CheckArrayType(two.get(), VT_BSTR, 2, "ctx"); },
         "ctx: checkArrayType failed, got 8195, expected 8200"},
        // Messages are cut at 255 characters.
        {[&] { VUtil::CheckType(empty.get(), VT_I4, longContext.c_str()); }, std::string(255, 'c')},
    });
    EXPECT_EQ(VT_EMPTY, empty.vt());
}

TEST(VUtilBytes, ByteArraysOfAVariantArrayAndSlicesOfAByteArray) {
    JsonVariant list(R"([{"$vt":"UI1[]","base64":"AQID"}, "not bytes"])");
    const tagVARIANT& l = list.get();
    unsigned char* mallocBuffer = nullptr;
    ASSERT_EQ(3, VUtil::GetByteArray(l, 0, &mallocBuffer));
    EXPECT_EQ(0, memcmp(mallocBuffer, "\1\2\3", 3));
    free(mallocBuffer);
    unsigned char* newBuffer = nullptr;
    int len = -1;
    VUtil::GetBinaryElement(l, 0, newBuffer, len);
    EXPECT_TRUE(len == 3 && memcmp(newBuffer, "\1\2\3", 3) == 0);
    delete[] newBuffer;
    JsonVariant bytes(R"({"$vt":"UI1[]","base64":"AQID"})");
    expectRefusals({
        {[&] { VUtil::GetByteArray(l, 1, &mallocBuffer); }, "Element is not an unsigned char array"},
        {[&] { VUtil::GetBinaryElement(l, 1, newBuffer, len); }, "Element is not an array of unsigned char: 8"},
        {[&] { VUtil::GetByteArray(bytes.get(), 0, &mallocBuffer); }, "Not an array of variant"},
        {[&] { VUtil::GetBinaryElement(bytes.get(), 0, newBuffer, len); }, "Not an array of variant: 8209"},
        {[&] { VUtil::GetByteArray(l, 2, &mallocBuffer); }, "SafeArrayGetElement failed in VUtil::GetElement"},
    });
    std::string data = kivtest::patternBytes(50, 3);
    JsonVariant v("\"replaced\"");  // PutBinaryIntoVariant releases what v held
    CLocalVariant empty;
    VUtil::PutBinaryIntoVariant(v.ptr(), reinterpret_cast<const unsigned char*>(data.data()), 50);
    EXPECT_TRUE(v.vt() == (VT_ARRAY | VT_UI1) && VUtil::GetArrayLength(v.get()) == 50);
    unsigned char buffer[100] = {};
    for (int outside : {50, 60, -1}) EXPECT_EQ(0, VUtil::GetBinaryElement(v.get(), buffer, outside, 10)) << outside;
    auto got = [&](int n) { return std::string(reinterpret_cast<char*>(buffer), n); };
    EXPECT_TRUE(VUtil::GetBinaryElement(v.get(), buffer, 10, 100) == 40 && data.substr(10) == got(40));
    EXPECT_TRUE(VUtil::GetBinaryElement(v.get(), buffer, 0, 5) == 5 && data.substr(0, 5) == got(5));
    Array signedBytes(VT_I1, 4), words(VT_I2, 4);
    EXPECT_EQ(4, VUtil::GetBinaryElement(signedBytes.get(), buffer, 0, 10));
    EXPECT_INVALID(VUtil::GetBinaryElement(words.get(), buffer, 0, 10),
                   "Element is not an array of (unsigned) char: 8194");
    VUtil::PutBinaryIntoVariant(empty.ptr(), nullptr, 0);
    EXPECT_EQ(0, VUtil::GetArrayLength(empty.get()));
    EXPECT_INVALID(VUtil::PutBinaryIntoVariant(empty.ptr(), buffer, -1),
                   "PutBinaryIntoVariant: could not create safe array");
    EXPECT_EQ(VT_ARRAY | VT_UI1, empty.vt());
}

TEST(VUtilPairs, PutGetFindPairsStringMapsAndCsv) {
    // ("Path", "/a"), empty, ("Count", 42), ("Flag", BOOL), ("Size", "17").
    Array list(VT_VARIANT, 5), strings(VT_BSTR, 2);
    tagVARIANT& l = list.get();
    VUtil::PutPair(l, 0, "Path", CStdStr("/a"));
    VUtil::PutPair(l, 2, "Count", 42L);
    VUtil::PutPair(l, 3, "Flag", JsonVariant("true").get());
    VUtil::PutPair(l, 4, "Size", "17");
    EXPECT_EQ(R"([["Path","/a"],null,["Count",42],["Flag",true],["Size","17"]])", json(l));
    CStdStr name, value = "untouched";
    VUtil::GetPair(l, 0, name, value);
    EXPECT_EQ(std::make_pair(CStdStr("Path"), CStdStr("/a")), std::make_pair(name, value));
    value = "untouched";
    EXPECT_TRUE(!VUtil::FindPair(l, "path", value) && value == "untouched");
    EXPECT_TRUE(VUtil::FindPair(l, "Path", value) && value == "/a");
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "PATH", value) && !VUtil::FindPairNoCase(l, "missing", value));
    int count = 0;
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "count", count) && count == 42);
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "SIZE", count) && count == 17);  // atoi of the string
    tagVARIANT found;
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "Flag", found) && json(found) == "true");
    VariantClear(&found);
    JsonVariant notList("1");
    const char* const notAList = "Variant passed to VUtil::FindPair is not an array";
    expectRefusals({
        {[&] { VUtil::GetPair(l, 2, name, value); }, "Element is not a string"},
        {[&] { VUtil::GetPair(l, 9, name, value); }, "SafeArrayGetElement failed in VUtil::GetPair"},
        {[&] { VUtil::GetPair(strings.get(), 0, name, value); }, "Variant passed to VUtil::GetPair is not an array"},
        {[&] { VUtil::PutPair(strings.get(), 0, "a", CStdStr("b")); },
         "PutPair: the given variant is not an array of variants"},
        {[&] { VUtil::PutPair(l, 5, "a", 1L); }, "PutPair failed"},
        {[&] { VUtil::FindPairNoCase(l, "flag", count); }, "the value in the pair is neither a string nor an int"},
        {[&] { VUtil::FindPair(notList.get(), "a", value); }, notAList},
        {[&] { VUtil::FindPairNoCase(notList.get(), "a", value); }, notAList},
        {[&] { VUtil::toStringMap(strings.get(), false); }, "Variant passed to VUtil::toStringAMap is not an array"},
    });
    // String maps: the later of two names that differ in case wins when case is ignored.
    Array pairs(VT_VARIANT, 3);
    VUtil::PutPair(pairs.get(), 0, "a", CStdStr("1"));
    VUtil::PutPair(pairs.get(), 2, "A", CStdStr("2"));
    EXPECT_EQ((VUtil::StringMap{{"a", "2"}}), VUtil::toStringMap(pairs.get(), true));
    EXPECT_EQ((VUtil::StringMap{{"A", "2"}, {"a", "1"}}), VUtil::toStringAMap(pairs.get(), false));
    EXPECT_TRUE(VUtil::toStringMap(Array(VT_VARIANT, 0).get(), false).empty());
    VUtil::PutElement(pairs.get(), 1, 5L);  // not a pair: the whole map fails
    EXPECT_INVALID(VUtil::toStringMap(pairs.get(), false), "Not an array of variant or string");
    VUtil::PutElement(strings.get(), 0, " a,,b , c ");
    EXPECT_EQ((std::vector<CStdStr>{"a", "b", "c"}), VUtil::GetCSVElement(strings.get(), 0));
}

TEST(VUtilPairs, ReturnCodesAndOutputStrings) {
    JsonVariant failed("-1"), hresult("-2147024809"), positive("3"), other("2.5");
    EXPECT_EQ(-1L, VUtil::GetSingleRetcode(failed.get()));
    EXPECT_INVALID(VUtil::CheckSingleRetcode(failed.get(), nullptr),
                   "Cab error detected in VUtil::CheckSingleRetcode : hr = -1 - 0xffffffff");
    EXPECT_INVALID(VUtil::CheckSingleRetcode(hresult.get(), "Call"),
                   "Call: Cab error detected in VUtil::CheckSingleRetcode : hr = -2147024809 - 0x80070057");
    VUtil::CheckSingleRetcode(positive.get(), "Call");
    JsonVariant out(R"([0, "answer"])"), text(R"(["text"])"), code(R"([1])");
    EXPECT_EQ(0L, VUtil::GetSingleRetcode(out.get()));
    VUtil::CheckSingleRetcode(out.get(), nullptr);
    CStdStr s;
    VUtil::GetSingleOutParamString(text.get(), s);
    EXPECT_EQ("text", s);
    EXPECT_THROW(VUtil::CheckSingleRetcode(other.get(), nullptr), CabInvalidParameterException);
    expectRefusals({
        {[&] { VUtil::GetSingleRetcode(text.get()); },
         "safeArrayGetElement failed in VUtil::GetSingleRetcode : 'Element is not a long'"},
        {[&] { VUtil::CheckSingleRetcode(text.get(), "Call"); },
         "Call: safeArrayGetElement failed in VUtil::CheckSingleRetcode : 'Element is not a long'"},
        {[&] { VUtil::GetSingleRetcode(other.get()); }, "VUtil::GetSingleRetcode wrong type"},
        {[&] { VUtil::GetSingleOutParamString(other.get(), s); },
         "SafeArrayGetElement failed in VUtil::GetSingleOutParamString"},
        {[&] { VUtil::GetSingleOutParamString(code.get(), s); },
         "outParam is not a BSTR in VUtil::GetSingleOutParamString"},
    });
}

template <class T>
T element(const tagVARIANT& v, int i, T start) {
    VUtil::GetElement(v, i, start);
    return start;
}

TEST(VUtilReaders, ConvertingReadersOnAVariantArray) {
    JsonVariant list(R"([-7, null, "text", 2.5, {"$vt":"R4","v":1.5}, true, {"$vt":"I2","v":3},
        {"$vt":"UI2","v":0}, {"$vt":"DATE","v":25569.5}, {"$vt":"NULL"}, {"$vt":"BSTR","v":null}, 0])");
    const tagVARIANT& l = list.get();
    EXPECT_EQ(-7, VUtil::GetIntElement(l, 0));
    EXPECT_EQ(-7L, VUtil::GetLongElement(l, 0));
    EXPECT_EQ(0L, VUtil::GetLongElementEmpty(l, 1));
    EXPECT_EQ("text", VUtil::GetStringElement(l, 2));
    EXPECT_EQ("", VUtil::GetStringElement(l, 1));
    EXPECT_EQ("", VUtil::GetStringElementEmpty(l, 10));
    EXPECT_EQ(2.5, VUtil::GetDoubleElement(l, 3));
    EXPECT_EQ(1.5f, VUtil::GetFloatElement(l, 4));
    EXPECT_EQ(2.5f, VUtil::GetFloatElement(l, 3));
    EXPECT_EQ(3, VUtil::GetShortElement(l, 6));
    EXPECT_EQ(0, VUtil::GetUnsignedShortElement(l, 7));
    EXPECT_TRUE(VUtil::GetBoolElement(l, 5));
    // BOOL true, I2 3, I4 -7 are true; UI2 0, I4 0, NULL, EMPTY false.
    for (int i : {5, 6, 0}) EXPECT_TRUE(VUtil::GetBoolElementEmpty(l, i)) << i;
    for (int i : {7, 11, 9, 1}) EXPECT_FALSE(VUtil::GetBoolElementEmpty(l, i)) << i;
    EXPECT_EQ(43200L, VUtil::GetDateElement(l, 8));
    tagVARIANT copy;
    VUtil::GetElement(l, 2, copy);
    EXPECT_TRUE(copy.vt == VT_BSTR && std::string("text") == copy.bstrVal);
    VariantClear(&copy);
    expectRefusals({{[&] { VUtil::GetLongElement(l, 1); }, "Element is not a long"},
                    {[&] { VUtil::GetLongElementEmpty(l, 2); }, "Element is not a long"},
                    {[&] { VUtil::GetIntElement(l, 1); }, "Element is not an int"},
                    {[&] { VUtil::GetStringElement(l, 0); }, "Element is not a string"},
                    {[&] { VUtil::GetDoubleElement(l, 4); }, "Element is not a double"},
                    {[&] { VUtil::GetFloatElement(l, 0); }, "Element is not a float or a double"},
                    {[&] { VUtil::GetShortElement(l, 7); }, "Element is not a short"},
                    {[&] { VUtil::GetUnsignedShortElement(l, 6); }, "Element is not an unsigned short"},
                    {[&] { VUtil::GetBoolElement(l, 6); }, "Element is not a bool"},
                    {[&] { VUtil::GetBoolElement(l, 1); }, "Element is not a bool"},
                    {[&] { VUtil::GetBoolElementEmpty(l, 2); }, "Element is not a bool"},
                    {[&] { VUtil::GetDateElement(l, 3); }, "Element is not a date"}});
}

TEST(VUtilTypedArrays, WritersKeepValuesReadersConvertOrTakeTheirTypeExactlyAndFailedStoresChangeNothing) {
    Array doubles(VT_R8, 1);
    VUtil::PutElement(doubles.get(), 0, 0.1);
    EXPECT_TRUE(VUtil::GetFloatElement(doubles.get(), 0) == 0.1f && VUtil::GetDoubleElement(doubles.get(), 0) == 0.1);
    VUtil::PutElement(doubles.get(), 0, 1e300);
    EXPECT_TRUE(std::isinf(VUtil::GetFloatElement(doubles.get(), 0)));
    Array dates(VT_DATE, 1);
    VUtil::PutDateElement(dates.get(), 0, 86399);
    EXPECT_EQ(86399L, VUtil::GetDateElement(dates.get(), 0));
    EXPECT_INVALID(VUtil::GetDateElement(dates.get(), 5), "SafeArrayGetElement failed in VUtil::GetDateElement");
    Array i4(VT_I4, 2);
    VUtil::PutElement(i4.get(), 0, -3L);
    VUtil::PutElement(i4.get(), 1, 9);
    EXPECT_TRUE(VUtil::GetLongElement(i4.get(), 0) == -3L && VUtil::GetIntElement(i4.get(), 1) == 9 &&
                VUtil::GetLongElementEmpty(i4.get(), 0) == -3L);
    EXPECT_INVALID(VUtil::PutElement(i4.get(), 2, 1L), "SafeArrayPutElement failed");
    EXPECT_EQ(2, VUtil::GetArrayLength(i4.get()));
    Array i8(VT_I8, 1);
    VUtil::PutElement(i8.get(), 0, -(1LL << 40));
    EXPECT_EQ(-(1LL << 40), element(i8.get(), 0, 0LL));
    Array bools(VT_BOOL, 2);
    VUtil::PutBoolElement(bools.get(), 0, true);
    VUtil::PutBoolElement(bools.get(), 1, false);
    VARIANT_BOOL stored[2] = {7, 7};
    for (int32_t i = 0; i < 2; ++i) ASSERT_EQ(S_OK, SafeArrayGetElement(bools.get().parray, &i, &stored[i]));
    EXPECT_TRUE(stored[0] == 1 && stored[1] == 0);  // the typed array gets 1, not -1
    Array strings(VT_BSTR, 2);
    VUtil::PutElement(strings.get(), 0, CStdStr("first"));
    VUtil::PutElement(strings.get(), 0, "second");  // replaces, freeing the first
    VUtil::PutElement(strings.get(), 1, static_cast<const char*>(nullptr));
    EXPECT_EQ("second", VUtil::GetStringElement(strings.get(), 0));
    EXPECT_EQ("", VUtil::GetStringElement(strings.get(), 1));
    EXPECT_INVALID(VUtil::PutElement(strings.get(), 5, "x"), "SafeArrayPutElement failed");
    EXPECT_EQ("second", VUtil::GetStringElement(strings.get(), 0));
    // The strict readers take exactly their typed array.
    JsonVariant ui4(R"({"$vt":"UI4[]","v":[4294967280]})");
    long asLong = 0;
    EXPECT_EQ(-3L, element(i4.get(), 0, 0x7777777777L));  // all 64 bits must be replaced
    EXPECT_EQ(9, element(i4.get(), 1, 0));
    EXPECT_EQ(0xFFFFFFF0UL, element(ui4.get(), 0, ~0UL));
    EXPECT_EQ("second", element(strings.get(), 0, CStdStr("old")));
    EXPECT_EQ("", element(strings.get(), 1, CStdStr("old")));  // never set: null string
    for (int outside : {2, -1})
        EXPECT_INVALID(VUtil::GetElement(i4.get(), outside, asLong), "SafeArrayGetElement failed in VUtil::GetElement");
}

// Every reader and writer refuses an array of another type with a text naming the type it needs. The
// strict readers share one check, and so do the typed writers: a few of their texts stand for all.
TEST(VUtilElements, EachReaderAndWriterRefusesAnArrayOfAnotherType) {
    Array list(VT_VARIANT, 1), i4(VT_I4, 1), ui8(VT_UI8, 1), ui4(VT_UI4, 1), strings(VT_BSTR, 1), bools(VT_BOOL, 1);
    tagVARIANT &l = list.get(), &o = ui8.get(), &a = ui4.get();
    auto notA = [](const char* type) { return std::string("Variant passed to VUtil::GetElement is not a") + type; };
    auto notOf = [](const char* type) {
        return std::string("PutElement failed: not an array of ") + type + " nor VARIANT";
    };
    auto get = [&l](auto out) { VUtil::GetElement(l, 0, out); };  // the reader for out's type
    tagVARIANT var;
    JsonVariant scalar("1");
    expectRefusals({
        {[&] { get(0L); }, notA(" long array")},
        {[&] { get(0); }, notA("n int array")},
        {[&] { get(false); }, notA(" short array")},
        {[&] { get(CStdStr()); }, notA(" string array")},
        {[&] { VUtil::GetElement(i4.get(), 0, var); }, notA(" variant array")},
        // Booleans travel in arrays of variants: a typed bool array is refused.
        {[&] { VUtil::GetBoolElement(bools.get(), 0); }, notA(" short array")},
        {[&] { VUtil::GetBoolElementEmpty(bools.get(), 0); }, notA(" short array")},
        {[&] { VUtil::GetIntElement(o, 0); }, "Not an array of variant or int"},
        {[&] { VUtil::GetLongElement(o, 0); }, "Not an array of variant or long"},
        {[&] { VUtil::GetLongElementEmpty(o, 0); }, "Not an array of variant or long"},
        {[&] { VUtil::GetShortElement(o, 0); }, "Not an array of variant or short"},
        {[&] { VUtil::GetUnsignedShortElement(o, 0); }, "Not an array of variant or unsigned short"},
        {[&] { VUtil::GetDoubleElement(o, 0); }, "Not an array of variant or double"},
        {[&] { VUtil::GetFloatElement(o, 0); }, "Not an array of variant, float or double"},
        {[&] { VUtil::GetStringElement(o, 0); }, "Not an array of variant or string"},
        {[&] { VUtil::GetStringElementEmpty(o, 0); }, "Not an array of variant or string"},
        {[&] { VUtil::GetBoolElement(o, 0); }, "Not an array of variant or bool"},
        {[&] { VUtil::GetBoolElementEmpty(o, 0); }, "Not an array of variant or bool"},
        {[&] { VUtil::GetDateElement(o, 0); }, "Not an array of variant or date"},
        {[&] { VUtil::PutElement(strings.get(), 0, 5L); }, notOf("I4")},
        {[&] { VUtil::PutElement(a, 0, short(5)); }, notOf("I2")},
        {[&] { VUtil::PutElement(a, 0, 5LL); }, notOf("I8")},
        {[&] { VUtil::PutElement(a, 0, 5.0); }, notOf("R8")},
        {[&] { VUtil::PutElement(a, 0, "x"); }, notOf("BSTR")},
        {[&] { VUtil::PutBoolElement(a, 0, true); }, notOf("BOOL")},
        {[&] { VUtil::PutDateElement(a, 0, 0L); }, notOf("DATE")},
        {[&] { VUtil::PutElement(scalar.get(), 0, static_cast<const void*>(&a)); }, "SafeArrayPutElement failed"},
    });
}

TEST(VUtilWriters, VariantArraysGetWrappedValues) {
    Array list(VT_VARIANT, 8);
    tagVARIANT& l = list.get();
    VUtil::PutElement(l, 0, 12L);
    VUtil::PutElement(l, 1, "str");
    VUtil::PutBoolElement(l, 2, true);
    VUtil::PutDateElement(l, 3, 43200L);
    VUtil::PutElement(l, 4, 2.25f);
    VUtil::PutElement(l, 5, static_cast<unsigned char>(200));
    VUtil::PutElement(l, 6, 7ULL);
    VUtil::PutElement(l, 7, JsonVariant(R"({"$vt":"BSTR[]","v":["deep"]})").get());  // kept as a deep copy
    kivtest::ScopedEnv utc("TZ", "UTC");
    tzset();
    // The variant form of true is -1.
    EXPECT_EQ(R"([12,"str",true,{"$vt":"DATE","v":"1970-01-01 12:00:00"},{"$vt":"R4","v":2.25},)"
              R"({"$vt":"UI1","v":200},{"$vt":"UI8","v":7},{"$vt":"BSTR[]","v":["deep"]}])",
              json(l));
}

#define EXPECT_TIME_FAILURE(stmt, text) EXPECT_CAB_THROW(stmt, -1, text)

namespace {

const long k20080304050607 = 1204607167;  // 2008-03-04 05:06:07 UTC

// In UTC unless a test sets another zone, and with the lines logged kept.
class TimeUtilsTest : public testing::Test {
protected:
    void SetUp() override { setZone("UTC"), CBBLog::setLogger(log); }
    void TearDown() override { CBBLog::setLogger(boost::shared_ptr<CBBLog>()), setZone("UTC"); }
    static void setZone(const char* zone) { setenv("TZ", zone, 1), tzset(); }
    boost::shared_ptr<CapturingLog> log = boost::make_shared<CapturingLog>();
};

}  // namespace

TEST(VUtilDates, ConversionsBothWays) {
    EXPECT_EQ(25569.0, VUtil::TimeToDate(0));
    EXPECT_EQ(25569 - 1 / 86400.0, VUtil::TimeToDate(-1));
    const std::pair<double, long> times[] = {{25569.5, 43200}, {25569.99999, 86399},
                                             {25569.0, 0},     {VUtil::TimeToDate(-1), -1},
                                             {NAN, -1},        {INFINITY, -1},
                                             {1e300, -1}};
    for (const auto& [date, time] : times) EXPECT_EQ(time, VUtil::DateToTime(date)) << date;
    for (long t : {0L, 1L, 59L, 86399L, 86400L, -86400L, -129600L, k20080304050607, 4102444800L, -2208988800L})
        EXPECT_EQ(t, VUtil::DateToTime(VUtil::TimeToDate(t))) << t;
}

TEST_F(TimeUtilsTest, VariantDatesPassOnTheThreeLowBits) {
    tagVARIANT v{};
    v.date = 25569.5;
    for (VARTYPE vt : {VT_DATE, VT_I4, VT_R8})  // the low bits of VT_DATE set: the value bits are read as a date
        EXPECT_EQ(43200L, TimeUtils::GetTime((v.vt = vt, v))) << vt;
    for (VARTYPE refused : {VT_EMPTY, VT_BSTR, VT_I1}) {
        v.vt = refused;
        EXPECT_TIME_FAILURE(TimeUtils::GetTime(v), "TimeUtils::GetTime: variant is not a VT_DATE");
    }
    v.vt = VT_DATE;
    v.date = VUtil::TimeToDate(k20080304050607);
    EXPECT_EQ("20080304050607", TimeUtils::FormatTime(v));
    EXPECT_TRUE(log->lines.empty());
    v.vt = VT_EMPTY;
    EXPECT_EQ("", TimeUtils::FormatTime(v));
    EXPECT_EQ(std::vector<CStdStr>{"FormatTime(Variant) failed"}, log->lines);
}

TEST_F(TimeUtilsTest, ThreeLayoutsParseToTheSameSecondsAndParseIntClamps) {
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime2("2008-03-04 05:06:07"));
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime(CStdStr("03/04/2008 05:06:07")));
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime3("20080304050607"));
    // Only the positions count, not the separators.
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime2("2008x03x04T05x06x07"));
    EXPECT_TRUE(log->lines.empty());
    // A 13-character database time is reported and still parsed by position.
    EXPECT_EQ(k20080304050607 - 7, TimeUtils::GetTime3("2008030405060"));
    EXPECT_EQ(std::vector<CStdStr>{"******* Invalid DB time length: 2008030405060"}, log->lines);
    EXPECT_EQ(std::vector<LOGLEVEL>{LOGLEVEL_ERROR}, log->levels);
    // The one second that mktime reports as -1.
    log->lines.clear();
    EXPECT_EQ(-1L, TimeUtils::GetTime2("1969-12-31 23:59:59"));
    EXPECT_EQ(-1L, TimeUtils::GetTime3("19691231235959"));
    EXPECT_EQ(-1L, TimeUtils::GetTime(CStdStr("12/31/1969 23:59:59")));
    EXPECT_EQ((std::vector<CStdStr>{"******* Invalid KivMedia time: 1969-12-31 23:59:59",
                                    "******* Invalid DB time: 19691231235959"}),
              log->lines);
    // Garbage does not throw; the text form never logs.
    log->lines.clear();
    TimeUtils::GetTime(CStdStr(""));
    TimeUtils::GetTime(CStdStr("not a time at all"));
    EXPECT_TRUE(log->lines.empty());
    // ParseInt: offset, length, the number; "-" alone is 0.
    const int cases[][3] = {{0, 4, 2008}, {5, 2, 3},   {-3, 2, 20}, {0, -1, 0}, {10, 2, 0},
                            {400, 2, 0},  {8, 100, 4}, {4, 1, 0},   {4, 3, -3}};
    for (const auto& c : cases) EXPECT_EQ(c[2], TimeUtils::ParseInt("2008-03-04", c[0], c[1])) << c[0] << " " << c[1];
    EXPECT_EQ(INT_MAX, TimeUtils::ParseInt("99999999999999999999", 0, 20));
}

TEST_F(TimeUtilsTest, FormattersAndTimeZone) {
    const long t = k20080304050607;
    CStdStr out = "old";
    TimeUtils::FormatTime(out, t);
    EXPECT_EQ("2008/03/04 05:06:07", out);
    EXPECT_EQ("20080304050607", TimeUtils::FormatTime(t));
    EXPECT_EQ("20080304050607", TimeUtils::FormatTime3(t));
    EXPECT_EQ("2008-03-04 05:06:07", TimeUtils::FormatTime2(t));
    EXPECT_EQ("2008-03-04 05:06", TimeUtils::FormatTime4(t));
    EXPECT_EQ("2008/03/04 05:06:07", TimeUtils::FormatTimeAccess(t));
    EXPECT_EQ("03-04-2008 05-06-07", TimeUtils::FormatFilenameDate(t));
    EXPECT_EQ("2008-03-04T05:06:07.0000000-8:00", TimeUtils::FormatUniversal(t));
    setZone("JST-9");
    EXPECT_EQ("1970-01-01T09:00:00.0000000-8:00", TimeUtils::FormatUniversal(0));
    EXPECT_EQ("19700101090000", TimeUtils::FormatTime(0L));
    EXPECT_EQ(0L, TimeUtils::GetTime3("19700101090000"));
    EXPECT_TIME_FAILURE(TimeUtils::FormatTime(out, LONG_MAX), "FormatTime: Localtime failed");
    EXPECT_TIME_FAILURE(TimeUtils::FormatTime(LONG_MAX), "FormatTime3: Localtime failed");
    EXPECT_TIME_FAILURE(TimeUtils::FormatUniversal(LONG_MAX), "FormatTime: Localtime failed");
    // The last zone is in daylight saving all year: standard offset and the flag.
    const std::tuple<const char*, long, bool, long> zones[] = {{"UTC", 0, false, 0},
                                                               {"JST-9", -540, false, -32400},
                                                               {"STD5DST4,0/0,J365/25", 300, true, 300 * 60 - 3600}};
    for (const auto& [zone, west, daylight, difference] : zones) {
        setZone(zone);
        long w = 99;
        bool d = !daylight;
        EXPECT_EQ(0, TimeUtils::getTimeZone(&w, &d));
        EXPECT_EQ(std::tuple(west, daylight, difference), std::make_tuple(w, d, TimeUtils::getTimeZoneDifference()))
            << zone;
    }
}
