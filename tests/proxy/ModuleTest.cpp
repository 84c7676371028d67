// The module base's one-per-process rule outside any real process start, and
// the sources of the time zone name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "satellite/TimeZoneName.h"
#include "tests/support/TempDir.h"
#include "tools/KivRequestProxy/KivModuleBase.h"

namespace {
struct TestModule : KivModuleBase {
    explicit TestModule(const char* name) : KivModuleBase(name) {}
    bool init(const std::vector<CStdStr>&) override { return true; }
    void close() override {}
};
}  // namespace

TEST(KivModuleBase, OneModulePerProcessAndAbortEndsRun) {
    {
        TestModule first("FirstModule");
        EXPECT_EQ(KivModuleBase::kivModule, &first);
        EXPECT_THAT([] { TestModule second("SecondModule"); },
                    testing::ThrowsMessage<std::logic_error>(
                        "Can't have more than one instance of KivModuleBase per module!"));
        EXPECT_EQ(KivModuleBase::kivModule, &first);
        // abort() sends SIGTERM to the process; the blocked signal waits for run().
        first.abort();
        first.run();
    }
    EXPECT_EQ(KivModuleBase::kivModule, nullptr);
    TestModule again("AgainModule");
    EXPECT_EQ(KivModuleBase::kivModule, &again);
}

// Each source in turn: TZ, /etc/timezone, the link, the content comparison.
TEST(TimeZoneName, SourcesAreTriedInOrder) {
    kivtest::TempDir dir;
    const std::string zoneinfo = dir.file("zoneinfo");
    kivtest::writeFile(zoneinfo + "/posix/Europe/Paris", "PARIS-DATA");  // skipped folder
    kivtest::writeFile(zoneinfo + "/Europe/Paris", "PARIS-DATA");
    kivtest::writeFile(zoneinfo + "/America/Lima", "LIMA-DATA");
    TimeZoneSources s;
    s.tzVariable = "KIV_TEST_TZ";
    s.etcTimezone = dir.file("timezone");
    s.localtime = dir.file("localtime");
    s.zoneinfo = zoneinfo;
    unsetenv("KIV_TEST_TZ");
    EXPECT_EQ(FindTimeZoneName(s), "") << "no source at all";
    kivtest::writeFile(s.localtime, "LIMA-DATA");
    EXPECT_EQ(FindTimeZoneName(s), "America/Lima") << "a copy of a zone file: by content";
    unlink(s.localtime.c_str());
    ASSERT_EQ(symlink((zoneinfo + "/Europe/Paris").c_str(), s.localtime.c_str()), 0);
    EXPECT_EQ(FindTimeZoneName(s), "Europe/Paris") << "a link into a zoneinfo folder: the part after it";
    unlink(s.localtime.c_str());
    ASSERT_EQ(symlink("../somewhere/Else", s.localtime.c_str()), 0);
    EXPECT_EQ(FindTimeZoneName(s), "../somewhere/Else") << "a link elsewhere: the target as read";
    // /etc/timezone wins over the link, TZ over everything (taken as it is).
    kivtest::writeFile(s.etcTimezone, "Asia/Tokyo\nignored\n");
    EXPECT_EQ(FindTimeZoneName(s), "Asia/Tokyo");
    setenv("KIV_TEST_TZ", ":UTC", 1);
    EXPECT_EQ(FindTimeZoneName(s), ":UTC");
    unsetenv("KIV_TEST_TZ");
}
