#include "tests/variant/VariantTestHelpers.h"
#include "variant/VUtil.h"

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
