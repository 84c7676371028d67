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
