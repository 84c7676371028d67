// Arrays as wholes: lengths, creation and type checks, byte arrays, pair lists,
// string maps and return codes.
#include <cstdlib>
#include <string>
#include <vector>

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

namespace {

std::vector<unsigned char> pattern(int n) {
    std::vector<unsigned char> bytes(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) bytes[static_cast<size_t>(i)] = static_cast<unsigned char>(i * 7 + 3);
    return bytes;
}

}  // namespace

TEST(VUtilBytes, SlicesOfAByteArray) {
    std::vector<unsigned char> data = pattern(50);
    CLocalVariant v;
    vtest::setString(v, "replaced");  // PutBinaryIntoVariant releases what v held
    VUtil::PutBinaryIntoVariant(v.ptr(), data.data(), 50);
    EXPECT_EQ(VT_ARRAY | VT_UI1, v.vt());
    EXPECT_EQ(50, VUtil::GetArrayLength(v.get()));

    unsigned char buffer[100] = {};
    EXPECT_EQ(0, VUtil::GetBinaryElement(v.get(), buffer, 50, 10));
    EXPECT_EQ(0, VUtil::GetBinaryElement(v.get(), buffer, 60, 10));
    EXPECT_EQ(0, VUtil::GetBinaryElement(v.get(), buffer, -1, 10));
    EXPECT_EQ(40, VUtil::GetBinaryElement(v.get(), buffer, 10, 100));
    EXPECT_EQ(std::vector<unsigned char>(data.begin() + 10, data.end()),
              std::vector<unsigned char>(buffer, buffer + 40));
    EXPECT_EQ(5, VUtil::GetBinaryElement(v.get(), buffer, 0, 5));
    EXPECT_EQ(0, memcmp(buffer, data.data(), 5));

    vtest::Array signedBytes(VT_I1, 4);
    EXPECT_EQ(4, VUtil::GetBinaryElement(signedBytes.get(), buffer, 0, 10));

    vtest::Array words(VT_I2, 4);
    EXPECT_INVALID(VUtil::GetBinaryElement(words.get(), buffer, 0, 10),
                   "Element is not an array of (unsigned) char: 8194");

    CLocalVariant empty;
    VUtil::PutBinaryIntoVariant(empty.ptr(), nullptr, 0);
    EXPECT_EQ(0, VUtil::GetArrayLength(empty.get()));
    EXPECT_INVALID(VUtil::PutBinaryIntoVariant(empty.ptr(), data.data(), -1),
                   "PutBinaryIntoVariant: could not create safe array");
    EXPECT_EQ(VT_ARRAY | VT_UI1, empty.vt());
}

TEST(VUtilBytes, ByteArrayElementsOfAVariantArray) {
    std::vector<unsigned char> data = pattern(33);
    CLocalVariant list, bytes, text;
    vtest::makeArray(list, VT_VARIANT, 2);

    VUtil::PutBinaryIntoVariant(bytes.ptr(), data.data(), 33);
    vtest::put(list, 0, bytes.get());
    vtest::setString(text, "not bytes");
    vtest::put(list, 1, text.get());

    unsigned char* mallocBuffer = nullptr;
    ASSERT_EQ(33, VUtil::GetByteArray(list.get(), 0, &mallocBuffer));
    EXPECT_EQ(0, memcmp(mallocBuffer, data.data(), 33));
    free(mallocBuffer);

    unsigned char* newBuffer = nullptr;
    int len = -1;
    VUtil::GetBinaryElement(list.get(), 0, newBuffer, len);
    ASSERT_EQ(33, len);
    EXPECT_EQ(0, memcmp(newBuffer, data.data(), 33));
    delete[] newBuffer;

    EXPECT_INVALID(VUtil::GetByteArray(list.get(), 1, &mallocBuffer), "Element is not an unsigned char array");
    EXPECT_INVALID(VUtil::GetBinaryElement(list.get(), 1, newBuffer, len),
                   "Element is not an array of unsigned char: 8");
    EXPECT_INVALID(VUtil::GetByteArray(bytes.get(), 0, &mallocBuffer), "Not an array of variant");
    EXPECT_INVALID(VUtil::GetBinaryElement(bytes.get(), 0, newBuffer, len), "Not an array of variant: 8209");
    EXPECT_INVALID(VUtil::GetByteArray(list.get(), 2, &mallocBuffer),
                   "SafeArrayGetElement failed in VUtil::GetElement");
}

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
