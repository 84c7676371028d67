#include <gtest/gtest.h>

#include <string>

#include "common/Base64.h"
#include "common/Utf8.h"

TEST(TextCodecs, Base64RoundTripsAndIsStrictUtf8IsStrict) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    for (size_t n = 0; n < 7; ++n) {
        std::string in = all.substr(250 - n, n), out;
        ASSERT_TRUE(Base64Decode(Base64Encode(in.data(), in.size()), &out, nullptr));
        EXPECT_EQ(in, out);
    }
    std::string out;
    EXPECT_TRUE(Base64Decode(Base64Encode(all.data(), all.size()), &out, nullptr));
    EXPECT_EQ(all, out);
    EXPECT_FALSE(Base64Decode("abc", &out, nullptr));
    EXPECT_FALSE(Base64Decode("ab!d", &out, nullptr));
    EXPECT_FALSE(Base64Decode("a=bc", &out, nullptr));

    EXPECT_TRUE(IsValidUtf8(std::string("a\0b", 3)));
    EXPECT_TRUE(IsValidUtf8("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"));
    // A stray byte, an overlong "/", a surrogate, above U+10FFFF, cut short.
    for (const char* bad : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"})
        EXPECT_FALSE(IsValidUtf8(bad)) << bad;
}
