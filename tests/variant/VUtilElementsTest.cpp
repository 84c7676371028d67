// Reading and writing the elements of arrays: the strict readers, the
// converting readers over arrays of variants, and the writers.
#include <cmath>
#include <ctime>
#include <string>

#include "tests/support/JsonVariant.h"
#include "tests/support/ScopedEnv.h"
#include "tests/variant/VariantTestHelpers.h"
#include "variant/VUtil.h"

TEST(VUtilReaders, StrictReadersTakeExactlyTheirTypedArray) {
    JsonVariant i4(R"({"$vt":"I4[]","v":[-5]})");
    long asLong = 0x7777777777L;  // all 64 bits must be replaced
    VUtil::GetElement(i4.get(), 0, asLong);
    EXPECT_EQ(-5L, asLong);
    int asInt = 0;
    VUtil::GetElement(i4.get(), 0, asInt);
    EXPECT_EQ(-5, asInt);
    JsonVariant ui4(R"({"$vt":"UI4[]","v":[4294967280]})");
    unsigned long asUnsigned = ~0UL;
    VUtil::GetElement(ui4.get(), 0, asUnsigned);
    EXPECT_EQ(0xFFFFFFF0UL, asUnsigned);
    JsonVariant strings(R"({"$vt":"BSTR[]","v":["abc",null]})");
    CStdStr s = "old";
    VUtil::GetElement(strings.get(), 0, s);
    EXPECT_EQ("abc", s);
    VUtil::GetElement(strings.get(), 1, s);  // never set: null string
    EXPECT_EQ("", s);
    EXPECT_INVALID(VUtil::GetElement(i4.get(), 1, asLong), "SafeArrayGetElement failed in VUtil::GetElement");
    EXPECT_INVALID(VUtil::GetElement(i4.get(), -1, asLong), "SafeArrayGetElement failed in VUtil::GetElement");
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
    EXPECT_EQ(VT_BSTR, copy.vt);
    EXPECT_STREQ("text", copy.bstrVal);
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

TEST(VUtilReaders, ConvertingReadersOnTypedArrays) {
    vtest::Array doubles(VT_R8, 1);
    VUtil::PutElement(doubles.get(), 0, 0.1);
    EXPECT_EQ(0.1f, VUtil::GetFloatElement(doubles.get(), 0));
    EXPECT_EQ(0.1, VUtil::GetDoubleElement(doubles.get(), 0));
    VUtil::PutElement(doubles.get(), 0, 1e300);
    EXPECT_TRUE(std::isinf(VUtil::GetFloatElement(doubles.get(), 0)));
    vtest::Array dates(VT_DATE, 1);
    VUtil::PutDateElement(dates.get(), 0, 86399);
    EXPECT_EQ(86399L, VUtil::GetDateElement(dates.get(), 0));
    EXPECT_INVALID(VUtil::GetDateElement(dates.get(), 5), "SafeArrayGetElement failed in VUtil::GetDateElement");
    vtest::Array ints(VT_I4, 2);
    VUtil::PutElement(ints.get(), 1, 42L);
    EXPECT_EQ(42, VUtil::GetIntElement(ints.get(), 1));
    EXPECT_EQ(42L, VUtil::GetLongElementEmpty(ints.get(), 1));
}

// Every reader and writer refuses an array of another type with its own text.
TEST(VUtilElements, EachReaderAndWriterRefusesAnArrayOfAnotherType) {
    vtest::Array list(VT_VARIANT, 1), i4(VT_I4, 1), ui8(VT_UI8, 1), ui4(VT_UI4, 1), strings(VT_BSTR, 1),
        bools(VT_BOOL, 1);
    tagVARIANT &l = list.get(), &o = ui8.get(), &a = ui4.get();
    auto notA = [](const char* type) { return std::string("Variant passed to VUtil::GetElement is not a") + type; };
    auto notOf = [](const char* type) { return std::string("PutElement failed: not an array of ") + type + " nor VARIANT"; };
    short sh;
    unsigned short ush;
    long asLong;
    int asInt;
    unsigned long ul;
    long long ll;
    unsigned long long ull;
    float f;
    double d;
    bool b;
    CStdStr s;
    tagVARIANT var;
    CLocalVariant scalar;
    vtest::setI4(scalar, 1);
    expectRefusals({
        {[&] { VUtil::GetElement(l, 0, asLong); }, notA(" long array")},
        {[&] { VUtil::GetElement(l, 0, asInt); }, notA("n int array")},
        {[&] { VUtil::GetElement(l, 0, sh); }, notA(" short array")},
        {[&] { VUtil::GetElement(l, 0, ush); }, notA(" unsigned short array")},
        {[&] { VUtil::GetElement(l, 0, ul); }, notA(" unsigned long array")},
        {[&] { VUtil::GetElement(l, 0, ll); }, notA(" int64 array")},
        {[&] { VUtil::GetElement(l, 0, ull); }, notA(" unsigned int64 array")},
        {[&] { VUtil::GetElement(l, 0, f); }, notA(" float array")},
        {[&] { VUtil::GetElement(l, 0, d); }, notA(" double array")},
        {[&] { VUtil::GetElement(l, 0, b); }, notA(" short array")},
        {[&] { VUtil::GetElement(l, 0, s); }, notA(" string array")},
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
        {[&] { VUtil::PutElement(a, 0, 5); }, notOf("I4")},
        {[&] { VUtil::PutElement(a, 0, short(5)); }, notOf("I2")},
        {[&] { VUtil::PutElement(a, 0, static_cast<unsigned short>(5)); }, notOf("UI2")},
        {[&] { VUtil::PutElement(a, 0, static_cast<unsigned char>(5)); }, notOf("UI1")},
        {[&] { VUtil::PutElement(a, 0, 5LL); }, notOf("I8")},
        {[&] { VUtil::PutElement(a, 0, 5ULL); }, notOf("UI8")},
        {[&] { VUtil::PutElement(a, 0, 5.0f); }, notOf("R4")},
        {[&] { VUtil::PutElement(a, 0, 5.0); }, notOf("R8")},
        {[&] { VUtil::PutElement(a, 0, CStdStr("x")); }, notOf("BSTR")},
        {[&] { VUtil::PutElement(a, 0, "x"); }, notOf("BSTR")},
        {[&] { VUtil::PutBoolElement(a, 0, true); }, notOf("BOOL")},
        {[&] { VUtil::PutDateElement(a, 0, 0L); }, notOf("DATE")},
        {[&] { VUtil::PutElement(scalar.get(), 0, static_cast<const void*>(&a)); }, "SafeArrayPutElement failed"},
        {[&] { VUtil::PutElement(scalar.get(), 0, a); }, "SafeArrayPutElement failed"},
    });
}

TEST(VUtilWriters, TypedArraysKeepValuesAndFailedStoresChangeNothing) {
    vtest::Array i4(VT_I4, 2);
    VUtil::PutElement(i4.get(), 0, -3L);
    VUtil::PutElement(i4.get(), 1, 9);
    EXPECT_EQ(-3L, VUtil::GetLongElement(i4.get(), 0));
    EXPECT_EQ(9, VUtil::GetIntElement(i4.get(), 1));
    EXPECT_INVALID(VUtil::PutElement(i4.get(), 2, 1L), "SafeArrayPutElement failed");
    EXPECT_EQ(2, VUtil::GetArrayLength(i4.get()));
    vtest::Array i8(VT_I8, 1);
    VUtil::PutElement(i8.get(), 0, -(1LL << 40));
    long long ll = 0;
    VUtil::GetElement(i8.get(), 0, ll);
    EXPECT_EQ(-(1LL << 40), ll);
    vtest::Array bools(VT_BOOL, 2);
    VUtil::PutBoolElement(bools.get(), 0, true);
    VUtil::PutBoolElement(bools.get(), 1, false);
    VARIANT_BOOL stored[2] = {7, 7};
    for (int32_t i = 0; i < 2; ++i) ASSERT_EQ(S_OK, SafeArrayGetElement(bools.get().parray, &i, &stored[i]));
    EXPECT_EQ(1, stored[0]);  // the typed array gets 1, not -1
    EXPECT_EQ(0, stored[1]);
    vtest::Array strings(VT_BSTR, 2);
    VUtil::PutElement(strings.get(), 0, CStdStr("first"));
    VUtil::PutElement(strings.get(), 0, "second");  // replaces, freeing the first
    VUtil::PutElement(strings.get(), 1, static_cast<const char*>(nullptr));
    EXPECT_EQ("second", VUtil::GetStringElement(strings.get(), 0));
    EXPECT_EQ("", VUtil::GetStringElement(strings.get(), 1));
    EXPECT_INVALID(VUtil::PutElement(strings.get(), 5, "x"), "SafeArrayPutElement failed");
    EXPECT_EQ("second", VUtil::GetStringElement(strings.get(), 0));
}

TEST(VUtilWriters, VariantArraysGetWrappedValues) {
    vtest::Array list(VT_VARIANT, 8);
    tagVARIANT& l = list.get();
    VUtil::PutElement(l, 0, 12L);
    VUtil::PutElement(l, 1, "str");
    VUtil::PutBoolElement(l, 2, true);
    VUtil::PutDateElement(l, 3, 43200L);
    VUtil::PutElement(l, 4, 2.25f);
    VUtil::PutElement(l, 5, static_cast<unsigned char>(200));
    VUtil::PutElement(l, 6, 7ULL);
    {  // the array keeps its own deep copy of a stored variant
        vtest::Array inner(VT_BSTR, 1);
        VUtil::PutElement(inner.get(), 0, "deep");
        VUtil::PutElement(l, 7, inner.get());
    }
    kivtest::ScopedEnv utc("TZ", "UTC");
    tzset();
    // The variant form of true is -1.
    EXPECT_EQ(R"([12,"str",true,{"$vt":"DATE","v":"1970-01-01 12:00:00"},{"$vt":"R4","v":2.25},)"
              R"({"$vt":"UI1","v":200},{"$vt":"UI8","v":7},{"$vt":"BSTR[]","v":["deep"]}])",
              json(l));
}
