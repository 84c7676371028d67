#include <gtest/gtest.h>

#include <cstring>

#include "cab/Variant.h"
#include "tests/cab/VariantSamples.h"

using kivtest::IdenticalVariants;
using kivtest::OwnedVariant;

TEST(VariantRuntime, StringsKeepLengthAndBytes) {
    BSTR s = SysAllocString("abc");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(SysStringLen(s), 3u);
    EXPECT_STREQ(s, "abc");
    SysFreeString(s);

    BSTR z = SysAllocStringLen("a\0b", 3);
    EXPECT_EQ(SysStringLen(z), 3u);
    EXPECT_EQ(memcmp(z, "a\0b\0", 4), 0);  // terminated after the length
    SysFreeString(z);

    BSTR zeros = SysAllocStringLen(nullptr, 4);
    EXPECT_EQ(memcmp(zeros, "\0\0\0\0\0", 5), 0);
    SysFreeString(zeros);

    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    EXPECT_EQ(SysStringLen(nullptr), 0u);
    SysFreeString(nullptr);
}

TEST(VariantRuntime, CreateRefusesWhatItCannotHold) {
    SAFEARRAYBOUND b{4, 0};
    EXPECT_EQ(SafeArrayCreate(VT_EMPTY, 1, &b), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_NULL, 1, &b), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_I4 | VT_ARRAY, 1, &b), nullptr);
    SAFEARRAYBOUND two[2] = {{2, 0}, {2, 0}};
    EXPECT_EQ(SafeArrayCreate(VT_I4, 2, two), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_I4, 1, nullptr), nullptr);
    SAFEARRAYBOUND huge{0xFFFFFFFFu, 0};
    EXPECT_EQ(SafeArrayCreate(VT_VARIANT, 1, &huge), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_R8, 1, &huge), nullptr);

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
    BSTR mine = SysAllocString("mine");
    int32_t i = 5;
    ASSERT_EQ(SafeArrayPutElement(strings, &i, mine), S_OK);
    SysFreeString(mine);  // the array holds its own copy
    i = 7;
    BSTR x = SysAllocString("x");
    ASSERT_EQ(SafeArrayPutElement(strings, &i, x), S_OK);
    SysFreeString(x);
    for (int32_t bad : {4, 8, -1, INT32_MIN, INT32_MAX}) {
        BSTR out = nullptr;
        EXPECT_EQ(SafeArrayGetElement(strings, &bad, &out), DISP_E_BADINDEX) << bad;
        EXPECT_EQ(SafeArrayPutElement(strings, &bad, nullptr), DISP_E_BADINDEX) << bad;
    }
    i = 5;
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
    OwnedVariant list;
    kivtest::MakeVariantArray(&list.v, std::vector<tagVARIANT>(2));
    OwnedVariant inner;
    kivtest::MakeString(&inner.v, "deep");
    int32_t i = 0;
    ASSERT_EQ(SafeArrayPutElement(list.v.parray, &i, &inner.v), S_OK);
    tagVARIANT* slot = static_cast<tagVARIANT*>(list.v.parray->pvData);
    EXPECT_EQ(slot[0].vt, VT_BSTR);
    EXPECT_NE(slot[0].bstrVal, inner.v.bstrVal);

    // Nest the list inside itself by value: the copy is independent.
    i = 1;
    ASSERT_EQ(SafeArrayPutElement(list.v.parray, &i, &list.v), S_OK);
    slot = static_cast<tagVARIANT*>(list.v.parray->pvData);
    ASSERT_EQ(slot[1].vt, VT_ARRAY | VT_VARIANT);
    EXPECT_NE(slot[1].parray, list.v.parray);

    tagVARIANT out;
    memset(&out, 0xAB, sizeof out);  // garbage: GetElement must not clear it
    ASSERT_EQ(SafeArrayGetElement(list.v.parray, &i, &out), S_OK);
    std::string why;
    EXPECT_TRUE(IdenticalVariants(out, slot[1], &why)) << why;
    EXPECT_NE(out.parray, slot[1].parray);
    EXPECT_EQ(VariantClear(&out), S_OK);
    EXPECT_EQ(out.vt, VT_EMPTY);

    OwnedVariant copy;
    ASSERT_EQ(VariantCopy(&copy.v, &list.v), S_OK);
    EXPECT_TRUE(IdenticalVariants(copy.v, list.v, &why)) << why;
    // Copying over a variant frees what it held.
    ASSERT_EQ(VariantCopy(&copy.v, &inner.v), S_OK);
    EXPECT_EQ(copy.v.vt, VT_BSTR);
    EXPECT_EQ(VariantCopy(&copy.v, &copy.v), S_OK);
}

TEST(VariantRuntime, CopyRefusesWhatItCannotRepresent) {
    OwnedVariant dst;
    kivtest::MakeString(&dst.v, "kept");
    tagVARIANT src;
    VariantInit(&src);
    for (VARTYPE bad : {VARTYPE(VT_BYREF | VT_I4), VARTYPE(6), VARTYPE(VT_VARIANT), VARTYPE(99),
                        VARTYPE(VT_ARRAY | VT_EMPTY), VARTYPE(VT_ARRAY | VT_BYREF | VT_I4)}) {
        src.vt = bad;
        EXPECT_LT(VariantCopy(&dst.v, &src), 0) << bad;
        EXPECT_EQ(dst.v.vt, VT_BSTR);  // untouched on failure
    }
    // Clearing a by-reference variant frees nothing it does not own.
    src.vt = VT_BYREF | VT_BSTR;
    src.bstrVal = dst.v.bstrVal;
    EXPECT_EQ(VariantClear(&src), S_OK);
    EXPECT_EQ(src.vt, VT_EMPTY);
    EXPECT_STREQ(dst.v.bstrVal, "kept");
}

TEST(VariantRuntime, LocksBlockDestroyAndRedim) {
    OwnedVariant bytes;
    kivtest::MakeBytes(&bytes.v, "abc");
    SAFEARRAY* psa = bytes.v.parray;
    void* data = nullptr;
    ASSERT_EQ(SafeArrayAccessData(psa, &data), S_OK);
    ASSERT_EQ(SafeArrayAccessData(psa, &data), S_OK);
    EXPECT_EQ(memcmp(data, "abc", 3), 0);
    SAFEARRAYBOUND b{10, 0};
    EXPECT_EQ(SafeArrayRedim(psa, &b), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(VariantClear(&bytes.v), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(bytes.v.vt, VT_ARRAY | VT_UI1);
    EXPECT_EQ(SafeArrayUnaccessData(psa), S_OK);
    EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);  // still one lock
    EXPECT_EQ(SafeArrayUnaccessData(psa), S_OK);
    EXPECT_LT(SafeArrayUnaccessData(psa), 0);
    ASSERT_EQ(SafeArrayRedim(psa, &b), S_OK);
    const char* grown = static_cast<const char*>(psa->pvData);
    EXPECT_EQ(memcmp(grown, "abc\0\0\0\0\0\0\0", 10), 0);  // new elements are zero
}

TEST(VariantRuntime, RedimShrinkFreesDroppedElements) {
    OwnedVariant list;
    std::vector<tagVARIANT> e(4);
    for (int i = 0; i < 4; ++i) kivtest::MakeString(&e[i], std::string(100, char('a' + i)));
    kivtest::MakeVariantArray(&list.v, e);
    SAFEARRAYBOUND b{1, 0};
    ASSERT_EQ(SafeArrayRedim(list.v.parray, &b), S_OK);  // ASan: dropped strings freed
    int32_t ub = -5;
    SafeArrayGetUBound(list.v.parray, 1, &ub);
    EXPECT_EQ(ub, 0);
    b = {3, 0};
    ASSERT_EQ(SafeArrayRedim(list.v.parray, &b), S_OK);
    tagVARIANT* slot = static_cast<tagVARIANT*>(list.v.parray->pvData);
    EXPECT_EQ(slot[0].vt, VT_BSTR);
    EXPECT_EQ(slot[1].vt, VT_EMPTY);
    EXPECT_EQ(slot[2].vt, VT_EMPTY);
    SAFEARRAYBOUND huge{0xFFFFFFFFu, 0};
    EXPECT_LT(SafeArrayRedim(list.v.parray, &huge), 0);
    EXPECT_EQ(list.v.parray->rgsabound[0].cElements, 3u);
}

TEST(VariantRuntime, CopyAndClearOverGeneratedValues) {
    std::mt19937_64 rng(20240611);
    for (int n = 0; n < 300; ++n) {
        OwnedVariant a, b;
        kivtest::RandomVariant(rng, 4, &a.v);
        ASSERT_EQ(VariantCopy(&b.v, &a.v), S_OK);
        std::string why;
        ASSERT_TRUE(IdenticalVariants(a.v, b.v, &why)) << n << ": " << why;
    }
}
