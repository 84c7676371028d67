#include <string>

#include "tests/support/Thrown.h"
#include "tests/variant/VariantTestHelpers.h"
#include "variant/VUtil.h"


TEST(VUtilArrays, LengthOfEmptyNonArrayAndShiftedArrays) {
    CLocalVariant empty;
    EXPECT_EQ(0, VUtil::GetArrayLengthEmpty(empty.get()));
    EXPECT_INVALID(VUtil::GetArrayLength(empty.get()), "Variant passed to VUtil::GetArrayLength is not an array");

    CLocalVariant scalar;
    vtest::setI4(scalar, 4);
    EXPECT_INVALID(VUtil::GetArrayLengthEmpty(scalar.get()),
                   "Variant passed to VUtil::GetArrayLengthEmpty is not an array");

    vtest::Array shifted(VT_I4, 3, 1);
    EXPECT_INVALID(VUtil::GetArrayLength(shifted.get()), "Array is not zero indexed! (VUtil::GetArrayLength)");
    EXPECT_INVALID(VUtil::GetArrayLengthEmpty(shifted.get()), "Array is not zero indexed! (VUtil::GetArrayLength)");

    // An array-typed variant without an array is refused, not followed.
    CLocalVariant hollow;
    hollow.get().vt = VT_ARRAY | VT_I4;
    EXPECT_INVALID(VUtil::GetArrayLength(hollow.get()), "SafeArrayGetLBound failed in VUtil::GetArrayLength");
    hollow.get().vt = VT_EMPTY;
}

TEST(VUtilArrays, CreateAndRedim) {
    CLocalVariant v;
    VUtil::CreateArray(v.get(), VT_BSTR, 3);
    EXPECT_EQ(VT_ARRAY | VT_BSTR, v.vt());
    EXPECT_EQ(3, VUtil::GetArrayLength(v.get()));
    VUtil::RedimArray(v.get(), 5);
    EXPECT_EQ(5, VUtil::GetArrayLengthEmpty(v.get()));
    VUtil::RedimArray(v.get(), 0);
    EXPECT_EQ(0, VUtil::GetArrayLength(v.get()));

    CLocalVariant none;
    EXPECT_INVALID(VUtil::RedimArray(none.get(), 2), "Could not redimension safe array");
    EXPECT_INVALID(VUtil::CreateArray(none.get(), VT_EMPTY, 2), "Could not create safe array");
    EXPECT_EQ(VT_EMPTY, none.vt());
}

TEST(VUtilArrays, CheckTypeMessages) {
    CLocalVariant v;
    vtest::setI4(v, 1);
    VUtil::CheckType(v.get(), VT_I4, "ctx");
    EXPECT_INVALID(VUtil::CheckType(v.get(), VT_BSTR, "GetFile"), "GetFile: checkType failed, got 3, expected 8");
    EXPECT_INVALID(VUtil::CheckType(v.get(), VT_BSTR, nullptr), "checkType failed, got 3, expected 8");
}

TEST(VUtilArrays, CheckArrayTypeExactOrMore) {
    vtest::Array two(VT_I4, 2);
    vtest::Array three(VT_I4, 3);
    vtest::Array one(VT_I4, 1);

    EXPECT_EQ(2, VUtil::CheckArrayType(two.get(), VT_I4, 2, nullptr));
    EXPECT_EQ(2, VUtil::CheckArrayType(two.get(), VT_I4, 2, true, nullptr));
    EXPECT_EQ(3, VUtil::CheckArrayType(three.get(), VT_I4, 2, true, "ctx"));
    EXPECT_INVALID(VUtil::CheckArrayType(three.get(), VT_I4, 2, nullptr),
                   "checkArrayType failed, got length 3, expect 2");
    EXPECT_INVALID(VUtil::CheckArrayType(one.get(), VT_I4, 2, true, "ctx"),
                   "ctx: checkArrayType failed, got length 1, expect 2+");
    EXPECT_INVALID(VUtil::CheckArrayType(two.get(), VT_BSTR, 2, "ctx"),
                   "ctx: checkArrayType failed, got 8195, expected 8200");

    vtest::Array shifted(VT_I4, 2, 1);
    EXPECT_INVALID(VUtil::CheckArrayType(shifted.get(), VT_I4, 2, nullptr),
                   "Array is not zero indexed! (VUtil::GetArrayLength)");
}

TEST(VUtilArrays, LongMessagesAreCutAt255Characters) {
    CLocalVariant v;
    std::string context(300, 'c');
    EXPECT_EQ(std::string(255, 'c'),
              kivtest::thrownBy([&] { VUtil::CheckType(v.get(), VT_I4, context.c_str()); }));
}
