#include <gtest/gtest.h>

#include <string>

#include "common/Base64.h"
#include "common/Utf8.h"

TEST(TextCodecs, Base64RoundTripsAndIsStrictUtf8IsStrict) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    std::string out;
    for (size_t n : {0, 1, 2, 3, 4, 5, 6, 256}) {
        std::string in = all.substr(256 - n, n);
        ASSERT_TRUE(Base64Decode(Base64Encode(in.data(), in.size()), &out, nullptr));
        EXPECT_EQ(in, out);
    }
    for (const char* bad : {"abc", "ab!d", "a=bc"}) EXPECT_FALSE(Base64Decode(bad, &out, nullptr)) << bad;
    EXPECT_TRUE(IsValidUtf8(std::string("a\0b", 3)));
    EXPECT_TRUE(IsValidUtf8("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"));
    // A stray byte, an overlong "/", a surrogate, a code point above U+10FFFF, a sequence cut short.
    for (const char* bad : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"})
        EXPECT_FALSE(IsValidUtf8(bad)) << bad;
}
