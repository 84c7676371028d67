// The real reporter files a crash dump with its summary, and kivctl lists it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "CrashReport.h"
#include "CrashTestSupport.h"
#include "host/KivFolders.h"
#include "tests/support/TempDir.h"

namespace {

TEST(CrashReporter, FilesTheDumpWithASummaryAndKivctlListsIt) {
    kivtest::TempDir tmp("reporter");
    std::string dumps = tmp.path() + "/dumps/";
    std::filesystem::create_directories(dumps);
    crashtest::ChildResult r =
        crashtest::runCrashProgram("null", dumps, CRASH_REPORTER, {"appData=abc", "name=Proxy"}, tmp.path() + "/rec");
    ASSERT_EQ(0, r.status) << r.output;
    EXPECT_TRUE(crashtest::filesEndingWith(dumps, ".dmp").empty()) << "the dump was not moved";

    std::string folder = KivFolders::DataFolder() + "/CrashReports";
    std::vector<std::string> summaries = crashtest::filesEndingWith(folder, ".json");
    ASSERT_EQ(1u, summaries.size()) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("crash report of Proxy written to " + summaries[0])) << r.output;
    std::string dump = summaries[0].substr(0, summaries[0].size() - 5) + ".dmp";
    EXPECT_TRUE(std::filesystem::exists(dump));
    namespace fs = std::filesystem;
    EXPECT_EQ(fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec,
              fs::status(folder).permissions() & fs::perms::all);
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(dump).permissions() & fs::perms::all);

    nlohmann::json j = nlohmann::json::parse(kivtest::readFile(summaries[0]));
    const nlohmann::json expected = {{"application", "Proxy"}, {"appData", "abc"}, {"signal", SIGSEGV},
                                     {"signalName", "SIGSEGV"}, {"faultAddress", "0x0000000000000000"},
                                     {"dump", dump}};
    for (const auto& [key, value] : expected.items()) EXPECT_EQ(value, j[key]) << key;
    ASSERT_TRUE(j["modules"].is_array());
    ASSERT_FALSE(j["modules"].empty());
    EXPECT_EQ(std::filesystem::canonical(CRASH_PROGRAM).string(), j["modules"][0]);

    crashtest::ChildResult list = crashtest::runProgram({KIVCTL_PROGRAM, "crashes"});
    EXPECT_EQ(0, list.status) << list.output;
    for (const std::string& part : {std::string("Proxy"), std::string("SIGSEGV"), dump})
        EXPECT_NE(std::string::npos, list.output.find(part)) << list.output;
}

TEST(CrashReporter, RefusesBadCommandLinesAndMissingOrDamagedDumps) {
    EXPECT_EQ(64, crashtest::runProgram({CRASH_REPORTER}).status);
    EXPECT_EQ(64, crashtest::runProgram({CRASH_REPORTER, "/x.dmp", "App", "-appData"}).status);
    crashtest::ChildResult help = crashtest::runProgram({CRASH_REPORTER, "--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.output.find("usage: KivCrashReporter"));
    crashtest::ChildResult missing = crashtest::runProgram({CRASH_REPORTER, "/nonexistent/x.dmp", "App"});
    EXPECT_EQ(2, missing.status);
    EXPECT_NE(std::string::npos, missing.output.find("refused to file /nonexistent/x.dmp")) << missing.output;

    // A damaged dump is still filed; the summary says why it could not be read.
    // It lies on another file system where there is one (/dev/shm), so it is
    // copied rather than renamed.
    kivtest::TempDir tmp("reporterbad");
    std::string bad = std::filesystem::is_directory("/dev/shm")
                          ? "/dev/shm/kivbad-" + std::to_string(getpid()) + ".dmp"
                          : tmp.file("kivbad-" + std::to_string(getpid()) + ".dmp");
    kivtest::writeFile(bad, std::string(64, 'x'));
    std::string folder = tmp.path() + "/reports";
    std::filesystem::create_directories(folder);
    std::string summary = fileCrashReport(CrashReportRequest{bad, "App", {}, ""}, folder);
    nlohmann::json j = nlohmann::json::parse(kivtest::readFile(summary));
    EXPECT_EQ("App", j["application"]);
    EXPECT_EQ("not a minidump (bad signature)", j["error"]);
    EXPECT_TRUE(std::filesystem::exists(folder + "/" + std::filesystem::path(bad).filename().string()));
    EXPECT_FALSE(std::filesystem::exists(bad));
}

}  // namespace
