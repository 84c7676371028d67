#include <gtest/gtest.h>

#include "common/CStdStr.h"

TEST(CStdStr, FormatHandlesAnyLength) {
    CStdStr s;
    s.Format("%s-%d", "abc", 42);
    EXPECT_EQ(s, "abc-42");
    std::string big(100000, 'x');
    s.Format("<%s>", big.c_str());
    EXPECT_EQ(s.size(), big.size() + 2);
    s.AppendFormat("%05d", 7);
    EXPECT_TRUE(s.EndsWith(">00007"));
}

TEST(CStdStr, ReplaceScansOnAfterInsertedTextAndTokensSkipRunsOfDelimiters) {
    CStdStr s("aaa");
    EXPECT_EQ(s.Replace("a", "aa"), 3);
    EXPECT_EQ(s, "aaaaaa");
    CStdStr p("a\\b\\c");
    p.Replace('\\', '.');
    EXPECT_EQ(p, "a.b.c");
    EXPECT_EQ(p.Replace("", "x"), 0);
    // Tokens skip runs of delimiters.
    EXPECT_EQ(CStdStr(" a,,b , c ").Tokens(", "), (std::vector<CStdStr>{"a", "b", "c"}));
    EXPECT_TRUE(CStdStr(",,, ").Tokens(", ").empty());
}

TEST(CStdStr, CaseAndSubstringsNeverThrow) {
    EXPECT_EQ(CStdStr("AbC").CompareNoCase("aBc"), 0);
    EXPECT_LT(CStdStr("abc").CompareNoCase("abd"), 0);
    EXPECT_GT(CStdStr("abcd").CompareNoCase("ABC"), 0);
    EXPECT_EQ(CStdStr("a\xE9Z").ToLower(), "a\xE9z");  // bytes above 127 untouched
    CStdStr s("hello");
    EXPECT_EQ(s.Left(10), "hello");
    EXPECT_EQ(s.Left(-1), "");
    EXPECT_EQ(s.Mid(3), "lo");
    EXPECT_EQ(s.Mid(9), "");
    EXPECT_EQ(s.Mid(1, 100), "ello");
    EXPECT_EQ(s.Right(2), "lo");
    EXPECT_EQ(s.Right(9), "hello");
    EXPECT_EQ(s.ReverseFind('l'), 3);
    EXPECT_EQ(s.ReverseFind('z'), -1);
    EXPECT_EQ(s.Find("l", 3), 3);
    EXPECT_EQ(CStdStr("  x y \n").Trim(), "x y");
    CStdStr u("//a//");
    EXPECT_EQ(u.TrimLeft("/"), "a//");
    EXPECT_EQ(u.TrimRight("/"), "a");
}
