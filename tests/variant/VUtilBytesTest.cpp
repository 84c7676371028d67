#include <cstdlib>
#include <vector>

#include "tests/variant/VariantTestHelpers.h"
#include "variant/VUtil.h"

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
