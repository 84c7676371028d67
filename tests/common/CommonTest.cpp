#include <gtest/gtest.h>

#include <string>

#include "common/Base64.h"
#include "common/CStdStr.h"
#include "common/Utf8.h"

TEST(CStdStr, FormatReplaceAndTokens) {
    CStdStr s;
    s.Format("%s-%d", "abc", 42);
    EXPECT_EQ(s, "abc-42");
    std::string big(100000, 'x');
    s.Format("<%s>", big.c_str());
    EXPECT_EQ(s.size(), big.size() + 2);
    s.AppendFormat("%05d", 7);
    EXPECT_TRUE(s.EndsWith(">00007"));
    CStdStr a("aaa"), p("a\\b\\c");
    EXPECT_EQ(a.Replace("a", "aa"), 3);  // scans on after the inserted text
    EXPECT_EQ(a, "aaaaaa");
    p.Replace('\\', '.');
    EXPECT_EQ(p, "a.b.c");
    EXPECT_EQ(p.Replace("", "x"), 0);
    EXPECT_EQ(CStdStr(" a,,b , c ").Tokens(", "), (std::vector<CStdStr>{"a", "b", "c"}));
    EXPECT_TRUE(CStdStr(",,, ").Tokens(", ").empty());
}

TEST(CStdStr, CaseAndSubstringsNeverThrow) {
    EXPECT_EQ(CStdStr("AbC").CompareNoCase("aBc"), 0);
    EXPECT_LT(CStdStr("abc").CompareNoCase("abd"), 0);
    EXPECT_GT(CStdStr("abcd").CompareNoCase("ABC"), 0);
    EXPECT_EQ(CStdStr("a\xE9Z").ToLower(), "a\xE9z");  // bytes above 127 untouched
    CStdStr s("hello"), u("//a//");
    EXPECT_EQ((std::vector<CStdStr>{"hello", "", "lo", "", "ello", "lo", "hello"}),
              (std::vector<CStdStr>{s.Left(10), s.Left(-1), s.Mid(3), s.Mid(9), s.Mid(1, 100), s.Right(2),
                                    s.Right(9)}));
    EXPECT_EQ((std::vector<int>{3, -1, 3}), (std::vector<int>{s.ReverseFind('l'), s.ReverseFind('z'), s.Find("l", 3)}));
    EXPECT_EQ(CStdStr("  x y \n").Trim(), "x y");
    EXPECT_EQ(u.TrimLeft("/"), "a//");
    EXPECT_EQ(u.TrimRight("/"), "a");
}

TEST(TextCodecs, Base64RoundTripsAndIsStrictUtf8IsStrict) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    std::string out;
    for (size_t n : {0, 1, 2, 3, 4, 5, 6, 256})  // every padding, every byte value
        EXPECT_TRUE(Base64Decode(Base64Encode(&all[256 - n], n), &out, nullptr) && out == all.substr(256 - n)) << n;
    for (const char* bad : {"abc", "ab!d", "a=bc"}) EXPECT_FALSE(Base64Decode(bad, &out, nullptr)) << bad;
    EXPECT_TRUE(IsValidUtf8(std::string("a\0b", 3)));
    EXPECT_TRUE(IsValidUtf8("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"));
    // A stray byte, an overlong "/", a surrogate, a code point above U+10FFFF, a sequence cut short.
    for (const char* bad : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"})
        EXPECT_FALSE(IsValidUtf8(bad)) << bad;
}
