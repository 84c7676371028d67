#include "tests/variant/VariantTestHelpers.h"
#include "variant/VUtil.h"

namespace {

// A pair list: ("Path", "/a"), empty, ("Count", 42), ("Flag", BOOL), ("Size", "17").
void buildPairs(CLocalVariant& list) {
    vtest::makeArray(list, VT_VARIANT, 5);
    VUtil::PutPair(list.get(), 0, "Path", CStdStr("/a"));
    VUtil::PutPair(list.get(), 2, "Count", 42L);
    CLocalVariant flag;
    flag.get().vt = VT_BOOL;
    flag.get().boolVal = VARIANT_TRUE;
    VUtil::PutPair(list.get(), 3, "Flag", flag.get());
    VUtil::PutPair(list.get(), 4, "Size", "17");
}

}  // namespace

TEST(VUtilPairs, PutAndGetPairs) {
    CLocalVariant list;
    buildPairs(list);
    CStdStr name, value;
    VUtil::GetPair(list.get(), 0, name, value);
    EXPECT_EQ("Path", name);
    EXPECT_EQ("/a", value);

    tagVARIANT pair;
    VUtil::GetElement(list.get(), 2, pair);
    EXPECT_EQ(2, VUtil::CheckArrayType(pair, VT_VARIANT, 2, nullptr));
    EXPECT_EQ(42L, VUtil::GetLongElement(pair, 1));
    VariantClear(&pair);

    EXPECT_INVALID(VUtil::GetPair(list.get(), 2, name, value), "Element is not a string");
    EXPECT_INVALID(VUtil::GetPair(list.get(), 9, name, value), "SafeArrayGetElement failed in VUtil::GetPair");

    vtest::Array strings(VT_BSTR, 2);
    EXPECT_INVALID(VUtil::GetPair(strings.get(), 0, name, value), "Variant passed to VUtil::GetPair is not an array");
    EXPECT_INVALID(VUtil::PutPair(strings.get(), 0, "a", CStdStr("b")),
                   "PutPair: the given variant is not an array of variants");
    EXPECT_INVALID(VUtil::PutPair(list.get(), 5, "a", 1L), "PutPair failed");
}

TEST(VUtilPairs, FindPairIsCaseSensitiveAndNoCaseIsNot) {
    CLocalVariant list;
    buildPairs(list);
    CStdStr value = "untouched";
    EXPECT_FALSE(VUtil::FindPair(list.get(), "path", value));
    EXPECT_EQ("untouched", value);
    EXPECT_TRUE(VUtil::FindPair(list.get(), "Path", value));
    EXPECT_EQ("/a", value);
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "PATH", value));
    EXPECT_EQ("/a", value);
    EXPECT_FALSE(VUtil::FindPairNoCase(list.get(), "missing", value));

    int count = 0;
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "count", count));
    EXPECT_EQ(42, count);
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "SIZE", count));  // atoi of the string
    EXPECT_EQ(17, count);
    EXPECT_INVALID(VUtil::FindPairNoCase(list.get(), "flag", count),
                   "the value in the pair is neither a string nor an int");

    tagVARIANT found;
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "Flag", found));
    EXPECT_EQ(VT_BOOL, found.vt);
    EXPECT_EQ(VARIANT_TRUE, found.boolVal);
    VariantClear(&found);

    CLocalVariant notList;
    vtest::setI4(notList, 1);
    EXPECT_INVALID(VUtil::FindPair(notList.get(), "a", value), "Variant passed to VUtil::FindPair is not an array");
    EXPECT_INVALID(VUtil::FindPairNoCase(notList.get(), "a", value),
                   "Variant passed to VUtil::FindPair is not an array");
    EXPECT_INVALID(VUtil::FindPairNoCase(notList.get(), "a", count),
                   "Variant passed to VUtil::FindPair is not an array");
    EXPECT_INVALID(VUtil::FindPairNoCase(notList.get(), "a", found),
                   "Variant passed to VUtil::FindPair is not an array");
}

TEST(VUtilPairs, StringMapsAndCsv) {
    vtest::Array list(VT_VARIANT, 3);
    VUtil::PutPair(list.get(), 0, "a", CStdStr("1"));
    VUtil::PutPair(list.get(), 2, "A", CStdStr("2"));
    VUtil::StringMap lower = VUtil::toStringMap(list.get(), true);
    EXPECT_EQ((VUtil::StringMap{{"a", "2"}}), lower);
    VUtil::StringMap exact = VUtil::toStringAMap(list.get(), false);
    EXPECT_EQ((VUtil::StringMap{{"A", "2"}, {"a", "1"}}), exact);

    vtest::Array empty(VT_VARIANT, 0);
    EXPECT_TRUE(VUtil::toStringMap(empty.get(), false).empty());
    vtest::Array strings(VT_BSTR, 1);
    EXPECT_INVALID(VUtil::toStringMap(strings.get(), false), "Variant passed to VUtil::toStringAMap is not an array");
    EXPECT_INVALID(VUtil::toStringAMap(strings.get(), true), "Variant passed to VUtil::toStringAMap is not an array");
    VUtil::PutElement(list.get(), 1, 5L);  // not a pair: the whole map fails
    EXPECT_INVALID(VUtil::toStringMap(list.get(), false), "Not an array of variant or string");

    VUtil::PutElement(strings.get(), 0, " a,,b , c ");
    EXPECT_EQ((std::vector<CStdStr>{"a", "b", "c"}), VUtil::GetCSVElement(strings.get(), 0));
    VUtil::PutElement(strings.get(), 0, ", ,");
    EXPECT_TRUE(VUtil::GetCSVElement(strings.get(), 0).empty());
}

TEST(VUtilPairs, ReturnCodesAndOutputStrings) {
    CLocalVariant status;
    vtest::setI4(status, -1);
    EXPECT_EQ(-1L, VUtil::GetSingleRetcode(status.get()));
    EXPECT_INVALID(VUtil::CheckSingleRetcode(status.get(), nullptr),
                   "Cab error detected in VUtil::CheckSingleRetcode : hr = -1 - 0xffffffff");
    vtest::setI4(status, static_cast<int32_t>(0x80070057u));
    EXPECT_INVALID(VUtil::CheckSingleRetcode(status.get(), "Call"),
                   "Call: Cab error detected in VUtil::CheckSingleRetcode : hr = -2147024809 - 0x80070057");
    vtest::setI4(status, 3);
    VUtil::CheckSingleRetcode(status.get(), "Call");

    vtest::Array out(VT_VARIANT, 2);
    VUtil::PutElement(out.get(), 0, 0L);
    VUtil::PutElement(out.get(), 1, "answer");
    EXPECT_EQ(0L, VUtil::GetSingleRetcode(out.get()));
    VUtil::CheckSingleRetcode(out.get(), nullptr);

    VUtil::PutElement(out.get(), 0, "text");
    EXPECT_INVALID(VUtil::GetSingleRetcode(out.get()),
                   "safeArrayGetElement failed in VUtil::GetSingleRetcode : 'Element is not a long'");
    EXPECT_INVALID(VUtil::CheckSingleRetcode(out.get(), "Call"),
                   "Call: safeArrayGetElement failed in VUtil::CheckSingleRetcode : 'Element is not a long'");
    CStdStr text;
    VUtil::GetSingleOutParamString(out.get(), text);
    EXPECT_EQ("text", text);

    CLocalVariant other;
    other.get().vt = VT_R8;
    EXPECT_INVALID(VUtil::GetSingleRetcode(other.get()), "VUtil::GetSingleRetcode wrong type");
    EXPECT_THROW(VUtil::CheckSingleRetcode(other.get(), nullptr), CabInvalidParameterException);
    EXPECT_INVALID(VUtil::GetSingleOutParamString(other.get(), text),
                   "SafeArrayGetElement failed in VUtil::GetSingleOutParamString");
    VUtil::PutElement(out.get(), 0, 1L);
    EXPECT_INVALID(VUtil::GetSingleOutParamString(out.get(), text),
                   "outParam is not a BSTR in VUtil::GetSingleOutParamString");
}
