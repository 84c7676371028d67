// The module base's one-per-process rule outside any real process start, and the sources of the time zone name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    const TimeZoneSources s{"KIV_TEST_TZ", dir.file("timezone"), dir.file("localtime"), zoneinfo};
    unsetenv("KIV_TEST_TZ");
    const std::pair<std::string, std::string> steps[] = {
        // a command in the test's folder, the name then found
        {"true", ""},                                                        // no source at all
        {"printf LIMA-DATA > localtime", "America/Lima"},                    // a copy of a zone file: by content
        {"ln -sf " + zoneinfo + "/Europe/Paris localtime", "Europe/Paris"},  // a link into zoneinfo: the part after
        {"ln -sf ../somewhere/Else localtime", "../somewhere/Else"},         // a link elsewhere: the target as read
        {"printf 'Asia/Tokyo\\nignored\\n' > timezone", "Asia/Tokyo"},       // /etc/timezone wins over the link
    };
    for (const auto& [command, name] : steps) {
        kivtest::runCommand("cd " + dir.path() + " && " + command);
        EXPECT_EQ(FindTimeZoneName(s), name) << command;
    }
    setenv("KIV_TEST_TZ", ":UTC", 1);  // TZ over everything, taken as it is
    EXPECT_EQ(FindTimeZoneName(s), ":UTC");
    unsetenv("KIV_TEST_TZ");
}
