// Module identifiers: the GNU build id when the file has one, else a stable
// MD5 of the .text section; files that are not ELF are refused.
#include <gtest/gtest.h>

#include <cstring>

#include "diag/MinidumpModules.h"

namespace {

TEST(ModuleId, BuildIdOrTextHash) {
    minidump::ModuleInfo withId{};
    ASSERT_TRUE(minidump::identifyElfFile(CRASH_PROGRAM, withId));
    EXPECT_TRUE(withId.isBuildId);
    EXPECT_EQ(20u, withId.idSize);  // GNU ld's default SHA-1 build id

    minidump::ModuleInfo hashed{}, again{};
    ASSERT_TRUE(minidump::identifyElfFile(NO_BUILD_ID_PROGRAM, hashed));
    ASSERT_TRUE(minidump::identifyElfFile(NO_BUILD_ID_PROGRAM, again));
    EXPECT_FALSE(hashed.isBuildId);
    ASSERT_EQ(16u, hashed.idSize);
    EXPECT_EQ(0, memcmp(hashed.id, again.id, 16));
    static const uint8_t zero[16] = {};
    EXPECT_NE(0, memcmp(hashed.id, zero, 16));

    minidump::ModuleInfo none{};
    EXPECT_FALSE(minidump::identifyElfFile(RECORD_REPORTER, none));  // a script, longer than an ELF header
    EXPECT_FALSE(minidump::identifyElfFile("/nonexistent/program", none));
}

TEST(ModuleId, MapsParsingGroupsTheMappingsOfOneFile) {
    std::string exe = CRASH_PROGRAM;
    std::string text = "1000-2000 r--p 00000000 08:01 42 " + exe + "\n" +
                       "2000-3000 r-xp 00001000 08:01 42 " + exe + "\n" +
                       "3000-4000 rw-p 00002000 08:01 42 " + exe + "\n" +
                       "4000-5000 rw-p 00000000 00:00 0 \n" +
                       "7000-8000 rw-p 00000000 00:00 0 [stack]\n" +
                       "garbage line\n"
                       "9000-9100 r--p 00000000 08:01 43 /nonexistent/lib.so\n";
    minidump::Mapping maps[16];
    int n = minidump::parseMaps(&text[0], maps, 16);  // parsed in place
    ASSERT_EQ(6, n);
    EXPECT_TRUE(maps[1].executable);
    EXPECT_STREQ("[stack]", maps[4].path);
    EXPECT_EQ(&maps[4], minidump::findMapping(maps, n, 0x7fff));
    EXPECT_EQ(nullptr, minidump::findMapping(maps, n, 0x6000));
    minidump::ModuleInfo modules[4];
    int m = minidump::collectModules(maps, n, modules, 4);
    ASSERT_EQ(1, m);  // the unreadable file is no module
    EXPECT_EQ(0x1000u, modules[0].base);
    EXPECT_EQ(0x3000u, modules[0].size);
}

}  // namespace
