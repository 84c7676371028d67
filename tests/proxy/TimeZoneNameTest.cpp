#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "satellite/TimeZoneName.h"
#include "tests/support/TempDir.h"

// Each source in turn: TZ, /etc/timezone, the link, the content comparison.
TEST(TimeZoneName, SourcesAreTriedInOrder) {
    kivtest::TempDir dir;
    std::string zoneinfo = dir.file("zoneinfo");
    kivtest::writeFile(zoneinfo + "/posix/Europe/Paris", "PARIS-DATA");  // skipped folder
    kivtest::writeFile(zoneinfo + "/Europe/Paris", "PARIS-DATA");
    kivtest::writeFile(zoneinfo + "/America/Lima", "LIMA-DATA");

    TimeZoneSources s;
    s.tzVariable = "KIV_TEST_TZ";
    s.etcTimezone = dir.file("timezone");
    s.localtime = dir.file("localtime");
    s.zoneinfo = zoneinfo;

    // No source at all.
    unsetenv("KIV_TEST_TZ");
    EXPECT_EQ(FindTimeZoneName(s), "");

    // A copy of a zone file: found by content, relative to the folder.
    kivtest::writeFile(s.localtime, "LIMA-DATA");
    EXPECT_EQ(FindTimeZoneName(s), "America/Lima");

    // A link into a zoneinfo folder: the part after "/zoneinfo/".
    unlink(s.localtime.c_str());
    ASSERT_EQ(symlink((zoneinfo + "/Europe/Paris").c_str(), s.localtime.c_str()), 0);
    EXPECT_EQ(FindTimeZoneName(s), "Europe/Paris");

    // A link elsewhere: the target as read.
    unlink(s.localtime.c_str());
    ASSERT_EQ(symlink("../somewhere/Else", s.localtime.c_str()), 0);
    EXPECT_EQ(FindTimeZoneName(s), "../somewhere/Else");

    // /etc/timezone wins over the link, TZ over everything (taken as it is).
    kivtest::writeFile(s.etcTimezone, "Asia/Tokyo\nignored\n");
    EXPECT_EQ(FindTimeZoneName(s), "Asia/Tokyo");
    setenv("KIV_TEST_TZ", ":UTC", 1);
    EXPECT_EQ(FindTimeZoneName(s), ":UTC");
    unsetenv("KIV_TEST_TZ");
}
