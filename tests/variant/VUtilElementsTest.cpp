// Reading and writing the elements of arrays: the strict readers, the
// converting readers over arrays of variants, and the writers.
#include <cmath>
#include <string>

#include "tests/support/JsonVariant.h"
#include "tests/variant/VariantTestHelpers.h"
#include "variant/VUtil.h"

namespace {

// An argument list: [I4 -7, EMPTY, BSTR "text", R8 2.5, R4 1.5, BOOL true,
// I2 3, UI2 0, DATE noon of 1 Jan 1970, NULL, BSTR null, I4 0].
const char* const kArguments = R"([-7, null, "text", 2.5, {"$vt":"R4","v":1.5}, true, {"$vt":"I2","v":3},
    {"$vt":"UI2","v":0}, {"$vt":"DATE","v":25569.5}, {"$vt":"NULL"}, {"$vt":"BSTR","v":null}, 0])";

}  // namespace

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

    // Each strict reader's refusal of a wrong array type.
    vtest::Array list(VT_VARIANT, 1);
    const tagVARIANT& l = list.get();
    short sh;
    unsigned short ush;
    long long ll;
    unsigned long long ull;
    float f;
    double d;
    bool b;
    tagVARIANT var;
    EXPECT_INVALID(VUtil::GetElement(l, 0, asLong), "Variant passed to VUtil::GetElement is not a long array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, asInt), "Variant passed to VUtil::GetElement is not an int array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, sh), "Variant passed to VUtil::GetElement is not a short array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, ush),
                   "Variant passed to VUtil::GetElement is not a unsigned short array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, asUnsigned),
                   "Variant passed to VUtil::GetElement is not a unsigned long array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, ll), "Variant passed to VUtil::GetElement is not a int64 array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, ull),
                   "Variant passed to VUtil::GetElement is not a unsigned int64 array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, f), "Variant passed to VUtil::GetElement is not a float array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, d), "Variant passed to VUtil::GetElement is not a double array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, b), "Variant passed to VUtil::GetElement is not a short array");
    EXPECT_INVALID(VUtil::GetElement(l, 0, s), "Variant passed to VUtil::GetElement is not a string array");
    EXPECT_INVALID(VUtil::GetElement(i4.get(), 0, var), "Variant passed to VUtil::GetElement is not a variant array");
}

TEST(VUtilReaders, ConvertingReadersOnAVariantArray) {
    JsonVariant list(kArguments);
    const tagVARIANT& l = list.get();

    EXPECT_EQ(-7, VUtil::GetIntElement(l, 0));
    EXPECT_EQ(-7L, VUtil::GetLongElement(l, 0));
    EXPECT_INVALID(VUtil::GetLongElement(l, 1), "Element is not a long");
    EXPECT_EQ(0L, VUtil::GetLongElementEmpty(l, 1));
    EXPECT_INVALID(VUtil::GetLongElementEmpty(l, 2), "Element is not a long");
    EXPECT_INVALID(VUtil::GetIntElement(l, 1), "Element is not an int");

    EXPECT_EQ("text", VUtil::GetStringElement(l, 2));
    EXPECT_EQ("", VUtil::GetStringElement(l, 1));
    EXPECT_EQ("", VUtil::GetStringElementEmpty(l, 10));
    EXPECT_INVALID(VUtil::GetStringElement(l, 0), "Element is not a string");

    EXPECT_EQ(2.5, VUtil::GetDoubleElement(l, 3));
    EXPECT_INVALID(VUtil::GetDoubleElement(l, 4), "Element is not a double");
    EXPECT_EQ(1.5f, VUtil::GetFloatElement(l, 4));
    EXPECT_EQ(2.5f, VUtil::GetFloatElement(l, 3));
    EXPECT_INVALID(VUtil::GetFloatElement(l, 0), "Element is not a float or a double");

    EXPECT_EQ(3, VUtil::GetShortElement(l, 6));
    EXPECT_INVALID(VUtil::GetShortElement(l, 7), "Element is not a short");
    EXPECT_EQ(0, VUtil::GetUnsignedShortElement(l, 7));
    EXPECT_INVALID(VUtil::GetUnsignedShortElement(l, 6), "Element is not an unsigned short");

    EXPECT_TRUE(VUtil::GetBoolElement(l, 5));
    EXPECT_INVALID(VUtil::GetBoolElement(l, 6), "Element is not a bool");
    EXPECT_INVALID(VUtil::GetBoolElement(l, 1), "Element is not a bool");
    // BOOL true, I2 3, I4 -7 are true; UI2 0, I4 0, NULL, EMPTY false.
    for (int i : {5, 6, 0}) EXPECT_TRUE(VUtil::GetBoolElementEmpty(l, i)) << i;
    for (int i : {7, 11, 9, 1}) EXPECT_FALSE(VUtil::GetBoolElementEmpty(l, i)) << i;
    EXPECT_INVALID(VUtil::GetBoolElementEmpty(l, 2), "Element is not a bool");

    EXPECT_EQ(43200L, VUtil::GetDateElement(l, 8));
    EXPECT_INVALID(VUtil::GetDateElement(l, 3), "Element is not a date");

    tagVARIANT copy;
    VUtil::GetElement(l, 2, copy);
    EXPECT_EQ(VT_BSTR, copy.vt);
    EXPECT_STREQ("text", copy.bstrVal);
    VariantClear(&copy);
}

TEST(VUtilReaders, ConvertingReadersOnTypedArrays) {
    vtest::Array doubles(VT_R8, 1);
    VUtil::PutElement(doubles.get(), 0, 0.1);
    EXPECT_EQ(0.1f, VUtil::GetFloatElement(doubles.get(), 0));
    EXPECT_EQ(0.1, VUtil::GetDoubleElement(doubles.get(), 0));
    VUtil::PutElement(doubles.get(), 0, 1e300);
    EXPECT_TRUE(std::isinf(VUtil::GetFloatElement(doubles.get(), 0)));

    // Booleans travel in arrays of variants: a typed bool array is refused.
    vtest::Array bools(VT_BOOL, 1);
    EXPECT_INVALID(VUtil::GetBoolElement(bools.get(), 0), "Variant passed to VUtil::GetElement is not a short array");
    EXPECT_INVALID(VUtil::GetBoolElementEmpty(bools.get(), 0),
                   "Variant passed to VUtil::GetElement is not a short array");

    vtest::Array dates(VT_DATE, 1);
    VUtil::PutDateElement(dates.get(), 0, 86399);
    EXPECT_EQ(86399L, VUtil::GetDateElement(dates.get(), 0));
    EXPECT_INVALID(VUtil::GetDateElement(dates.get(), 5), "SafeArrayGetElement failed in VUtil::GetDateElement");

    vtest::Array ints(VT_I4, 2);
    VUtil::PutElement(ints.get(), 1, 42L);
    EXPECT_EQ(42, VUtil::GetIntElement(ints.get(), 1));
    EXPECT_EQ(42L, VUtil::GetLongElementEmpty(ints.get(), 1));

    // Every converting reader's refusal of an array of another type.
    vtest::Array other(VT_UI8, 1);
    const tagVARIANT& o = other.get();
    EXPECT_INVALID(VUtil::GetIntElement(o, 0), "Not an array of variant or int");
    EXPECT_INVALID(VUtil::GetLongElement(o, 0), "Not an array of variant or long");
    EXPECT_INVALID(VUtil::GetLongElementEmpty(o, 0), "Not an array of variant or long");
    EXPECT_INVALID(VUtil::GetShortElement(o, 0), "Not an array of variant or short");
    EXPECT_INVALID(VUtil::GetUnsignedShortElement(o, 0), "Not an array of variant or unsigned short");
    EXPECT_INVALID(VUtil::GetDoubleElement(o, 0), "Not an array of variant or double");
    EXPECT_INVALID(VUtil::GetFloatElement(o, 0), "Not an array of variant, float or double");
    EXPECT_INVALID(VUtil::GetStringElement(o, 0), "Not an array of variant or string");
    EXPECT_INVALID(VUtil::GetStringElementEmpty(o, 0), "Not an array of variant or string");
    EXPECT_INVALID(VUtil::GetBoolElement(o, 0), "Not an array of variant or bool");
    EXPECT_INVALID(VUtil::GetBoolElementEmpty(o, 0), "Not an array of variant or bool");
    EXPECT_INVALID(VUtil::GetDateElement(o, 0), "Not an array of variant or date");
}

TEST(VUtilWriters, EachWriterRefusesAnArrayOfAnotherType) {
    vtest::Array strings(VT_BSTR, 1);
    EXPECT_INVALID(VUtil::PutElement(strings.get(), 0, 5L), "PutElement failed: not an array of I4 nor VARIANT");

    vtest::Array v(VT_UI4, 1);
    tagVARIANT& a = v.get();
    EXPECT_INVALID(VUtil::PutElement(a, 0, 5), "PutElement failed: not an array of I4 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, short(5)), "PutElement failed: not an array of I2 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, static_cast<unsigned short>(5)),
                   "PutElement failed: not an array of UI2 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, static_cast<unsigned char>(5)),
                   "PutElement failed: not an array of UI1 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, 5LL), "PutElement failed: not an array of I8 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, 5ULL), "PutElement failed: not an array of UI8 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, 5.0f), "PutElement failed: not an array of R4 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, 5.0), "PutElement failed: not an array of R8 nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, CStdStr("x")), "PutElement failed: not an array of BSTR nor VARIANT");
    EXPECT_INVALID(VUtil::PutElement(a, 0, "x"), "PutElement failed: not an array of BSTR nor VARIANT");
    EXPECT_INVALID(VUtil::PutBoolElement(a, 0, true), "PutElement failed: not an array of BOOL nor VARIANT");
    EXPECT_INVALID(VUtil::PutDateElement(a, 0, 0L), "PutElement failed: not an array of DATE nor VARIANT");

    CLocalVariant scalar;
    vtest::setI4(scalar, 1);
    EXPECT_INVALID(VUtil::PutElement(scalar.get(), 0, static_cast<const void*>(&a)), "SafeArrayPutElement failed");
    EXPECT_INVALID(VUtil::PutElement(scalar.get(), 0, a), "SafeArrayPutElement failed");
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
    CStdStr before = VUtil::GetStringElement(strings.get(), 0);
    EXPECT_INVALID(VUtil::PutElement(strings.get(), 5, "x"), "SafeArrayPutElement failed");
    EXPECT_EQ(before, VUtil::GetStringElement(strings.get(), 0));
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

    EXPECT_EQ(12L, VUtil::GetLongElement(l, 0));
    EXPECT_EQ("str", VUtil::GetStringElement(l, 1));
    EXPECT_TRUE(VUtil::GetBoolElement(l, 2));
    EXPECT_EQ(43200L, VUtil::GetDateElement(l, 3));
    EXPECT_EQ(2.25f, VUtil::GetFloatElement(l, 4));

    tagVARIANT e;
    VUtil::GetElement(l, 2, e);
    EXPECT_EQ(VT_BOOL, e.vt);
    EXPECT_EQ(VARIANT_TRUE, e.boolVal);  // the variant form gets -1
    VUtil::GetElement(l, 3, e);
    EXPECT_EQ(VT_DATE, e.vt);
    EXPECT_DOUBLE_EQ(25569.5, e.date);
    VUtil::GetElement(l, 5, e);
    EXPECT_EQ(VT_UI1, e.vt);
    EXPECT_EQ(200, e.bVal);
    VUtil::GetElement(l, 6, e);
    EXPECT_EQ(VT_UI8, e.vt);

    // The array keeps its own deep copy of a stored variant.
    {
        vtest::Array inner(VT_BSTR, 1);
        VUtil::PutElement(inner.get(), 0, "deep");
        VUtil::PutElement(l, 7, inner.get());
    }
    VUtil::GetElement(l, 7, e);
    EXPECT_EQ(VT_ARRAY | VT_BSTR, e.vt);
    EXPECT_EQ("deep", VUtil::GetStringElement(e, 0));
    VariantClear(&e);
}
