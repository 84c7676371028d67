// Arrays as wholes: lengths, creation and type checks, byte arrays, pair lists,
// string maps and return codes.
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/JsonVariant.h"
#include "tests/support/TempDir.h"
#include "tests/variant/VariantTestHelpers.h"
#include "variant/VUtil.h"

TEST(VUtilArrays, LengthsCreationAndTypeChecks) {
    CLocalVariant empty, scalar, hollow, v;
    vtest::setI4(scalar, 3);
    hollow.get().vt = VT_ARRAY | VT_I4;  // an array type without an array is refused, not followed
    vtest::Array shifted(VT_I4, 3, 1), one(VT_I4, 1), two(VT_I4, 2), three(VT_I4, 3);
    EXPECT_EQ(0, VUtil::GetArrayLengthEmpty(empty.get()));
    VUtil::CreateArray(v.get(), VT_BSTR, 3);
    EXPECT_EQ(VT_ARRAY | VT_BSTR, v.vt());
    EXPECT_EQ(3, VUtil::GetArrayLength(v.get()));
    VUtil::RedimArray(v.get(), 5);
    EXPECT_EQ(5, VUtil::GetArrayLengthEmpty(v.get()));
    VUtil::RedimArray(v.get(), 0);
    EXPECT_EQ(0, VUtil::GetArrayLength(v.get()));
    VUtil::CheckType(scalar.get(), VT_I4, "ctx");
    EXPECT_EQ(2, VUtil::CheckArrayType(two.get(), VT_I4, 2, nullptr));
    EXPECT_EQ(2, VUtil::CheckArrayType(two.get(), VT_I4, 2, true, nullptr));
    EXPECT_EQ(3, VUtil::CheckArrayType(three.get(), VT_I4, 2, true, "ctx"));
    const std::string notZeroIndexed = "Array is not zero indexed! (VUtil::GetArrayLength)";
    const std::string longContext(300, 'c');
    expectRefusals({
        {[&] { VUtil::GetArrayLength(empty.get()); }, "Variant passed to VUtil::GetArrayLength is not an array"},
        {[&] { VUtil::GetArrayLengthEmpty(scalar.get()); },
         "Variant passed to VUtil::GetArrayLengthEmpty is not an array"},
        {[&] { VUtil::GetArrayLength(shifted.get()); }, notZeroIndexed},
        {[&] { VUtil::GetArrayLengthEmpty(shifted.get()); }, notZeroIndexed},
        {[&] { VUtil::CheckArrayType(shifted.get(), VT_I4, 3, nullptr); }, notZeroIndexed},
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
    hollow.get().vt = VT_EMPTY;
    EXPECT_EQ(VT_EMPTY, empty.vt());
}

TEST(VUtilBytes, SlicesOfAByteArray) {
    std::string data = kivtest::patternBytes(50, 3);
    JsonVariant v("\"replaced\"");  // PutBinaryIntoVariant releases what v held
    CLocalVariant empty;
    VUtil::PutBinaryIntoVariant(v.ptr(), reinterpret_cast<const unsigned char*>(data.data()), 50);
    EXPECT_EQ(VT_ARRAY | VT_UI1, v.vt());
    EXPECT_EQ(50, VUtil::GetArrayLength(v.get()));
    unsigned char buffer[100] = {};
    for (int outside : {50, 60, -1}) EXPECT_EQ(0, VUtil::GetBinaryElement(v.get(), buffer, outside, 10)) << outside;
    EXPECT_EQ(40, VUtil::GetBinaryElement(v.get(), buffer, 10, 100));
    EXPECT_EQ(data.substr(10), std::string(reinterpret_cast<char*>(buffer), 40));
    EXPECT_EQ(5, VUtil::GetBinaryElement(v.get(), buffer, 0, 5));
    EXPECT_EQ(data.substr(0, 5), std::string(reinterpret_cast<char*>(buffer), 5));
    vtest::Array signedBytes(VT_I1, 4), words(VT_I2, 4);
    EXPECT_EQ(4, VUtil::GetBinaryElement(signedBytes.get(), buffer, 0, 10));
    EXPECT_INVALID(VUtil::GetBinaryElement(words.get(), buffer, 0, 10),
                   "Element is not an array of (unsigned) char: 8194");
    VUtil::PutBinaryIntoVariant(empty.ptr(), nullptr, 0);
    EXPECT_EQ(0, VUtil::GetArrayLength(empty.get()));
    EXPECT_INVALID(VUtil::PutBinaryIntoVariant(empty.ptr(), buffer, -1),
                   "PutBinaryIntoVariant: could not create safe array");
    EXPECT_EQ(VT_ARRAY | VT_UI1, empty.vt());
}

TEST(VUtilBytes, ByteArrayElementsOfAVariantArray) {
    JsonVariant list(R"([{"$vt":"UI1[]","base64":"AQID"}, "not bytes"])");
    const tagVARIANT& l = list.get();
    unsigned char* mallocBuffer = nullptr;
    ASSERT_EQ(3, VUtil::GetByteArray(l, 0, &mallocBuffer));
    EXPECT_EQ(0, memcmp(mallocBuffer, "\1\2\3", 3));
    free(mallocBuffer);
    unsigned char* newBuffer = nullptr;
    int len = -1;
    VUtil::GetBinaryElement(l, 0, newBuffer, len);
    ASSERT_EQ(3, len);
    EXPECT_EQ(0, memcmp(newBuffer, "\1\2\3", 3));
    delete[] newBuffer;
    JsonVariant bytes(R"({"$vt":"UI1[]","base64":"AQID"})");
    expectRefusals({
        {[&] { VUtil::GetByteArray(l, 1, &mallocBuffer); }, "Element is not an unsigned char array"},
        {[&] { VUtil::GetBinaryElement(l, 1, newBuffer, len); }, "Element is not an array of unsigned char: 8"},
        {[&] { VUtil::GetByteArray(bytes.get(), 0, &mallocBuffer); }, "Not an array of variant"},
        {[&] { VUtil::GetBinaryElement(bytes.get(), 0, newBuffer, len); }, "Not an array of variant: 8209"},
        {[&] { VUtil::GetByteArray(l, 2, &mallocBuffer); }, "SafeArrayGetElement failed in VUtil::GetElement"},
    });
}

TEST(VUtilPairs, PutGetAndFindPairs) {
    // ("Path", "/a"), empty, ("Count", 42), ("Flag", BOOL), ("Size", "17").
    vtest::Array list(VT_VARIANT, 5), strings(VT_BSTR, 2);
    tagVARIANT& l = list.get();
    VUtil::PutPair(l, 0, "Path", CStdStr("/a"));
    VUtil::PutPair(l, 2, "Count", 42L);
    CLocalVariant flag;
    flag.get().vt = VT_BOOL;
    flag.get().boolVal = VARIANT_TRUE;
    VUtil::PutPair(l, 3, "Flag", flag.get());
    VUtil::PutPair(l, 4, "Size", "17");
    EXPECT_EQ(R"([["Path","/a"],null,["Count",42],["Flag",true],["Size","17"]])", json(l));
    CStdStr name, value = "untouched";
    VUtil::GetPair(l, 0, name, value);
    EXPECT_EQ("Path", name);
    EXPECT_EQ("/a", value);
    value = "untouched";
    EXPECT_FALSE(VUtil::FindPair(l, "path", value));
    EXPECT_EQ("untouched", value);
    EXPECT_TRUE(VUtil::FindPair(l, "Path", value));
    EXPECT_EQ("/a", value);
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "PATH", value));
    EXPECT_FALSE(VUtil::FindPairNoCase(l, "missing", value));
    int count = 0;
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "count", count));
    EXPECT_EQ(42, count);
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "SIZE", count));  // atoi of the string
    EXPECT_EQ(17, count);
    tagVARIANT found;
    EXPECT_TRUE(VUtil::FindPairNoCase(l, "Flag", found));
    EXPECT_EQ("true", json(found));
    VariantClear(&found);
    CLocalVariant notList;
    vtest::setI4(notList, 1);
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
        {[&] { VUtil::FindPairNoCase(notList.get(), "a", count); }, notAList},
        {[&] { VUtil::FindPairNoCase(notList.get(), "a", found); }, notAList},
    });
}

TEST(VUtilPairs, StringMapsAndCsv) {
    vtest::Array list(VT_VARIANT, 3);
    VUtil::PutPair(list.get(), 0, "a", CStdStr("1"));
    VUtil::PutPair(list.get(), 2, "A", CStdStr("2"));
    EXPECT_EQ((VUtil::StringMap{{"a", "2"}}), VUtil::toStringMap(list.get(), true));
    EXPECT_EQ((VUtil::StringMap{{"A", "2"}, {"a", "1"}}), VUtil::toStringAMap(list.get(), false));
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
    CLocalVariant status, other;
    vtest::setI4(status, -1);
    EXPECT_EQ(-1L, VUtil::GetSingleRetcode(status.get()));
    EXPECT_INVALID(VUtil::CheckSingleRetcode(status.get(), nullptr),
                   "Cab error detected in VUtil::CheckSingleRetcode : hr = -1 - 0xffffffff");
    vtest::setI4(status, static_cast<int32_t>(0x80070057u));
    EXPECT_INVALID(VUtil::CheckSingleRetcode(status.get(), "Call"),
                   "Call: Cab error detected in VUtil::CheckSingleRetcode : hr = -2147024809 - 0x80070057");
    vtest::setI4(status, 3);
    VUtil::CheckSingleRetcode(status.get(), "Call");
    JsonVariant out(R"([0, "answer"])"), text(R"(["text"])"), code(R"([1])");
    EXPECT_EQ(0L, VUtil::GetSingleRetcode(out.get()));
    VUtil::CheckSingleRetcode(out.get(), nullptr);
    CStdStr s;
    VUtil::GetSingleOutParamString(text.get(), s);
    EXPECT_EQ("text", s);
    other.get().vt = VT_R8;
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
