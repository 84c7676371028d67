// Crash reporting piece by piece: the reporter command line and MiniDumper's
// defaults and handlers, module identifiers (the GNU build id when the file has
// one, else a stable MD5 of the .text section), the dump reader's refusal of
// damaged files, and the real reporter, which files a dump with its summary
// that kivctl lists.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <vector>

#include "CrashReport.h"
#include "CrashTestSupport.h"
#include "diag/MiniDumper.h"
#include "diag/MinidumpModules.h"
#include "diag/MinidumpReader.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"
#include "tests/support/TempDir.h"

namespace {

TEST(MiniDumperCommand, DefaultsAndEachConstructorsCommandLineWithEveryBlankEscaped) {
    MiniDumper d(nullptr, true, true, true, false, false);
    EXPECT_EQ("Unknown", d.getApplicationName());
    EXPECT_EQ("/tmp/", d.getDumpDirectory());
    EXPECT_EQ(MiniDumper::escapeBlanks(KivFolders::BinFolder() + "/KivCrashReporter"), d.getCrashReporterPath());
    MiniDumper p("KivRequestProxy", true, true, true, false, false);
    p.SetCrashReporterPath("/opt/kiv/bin/KivCrashReporter");
    EXPECT_EQ("/opt/kiv/bin/KivCrashReporter \"/tmp/x.dmp\" \"KivRequestProxy\"", p.commandLine("/tmp/x.dmp"));
    p.setAppData("user data");
    EXPECT_EQ("/opt/kiv/bin/KivCrashReporter \"/tmp/x.dmp\" \"KivRequestProxy\" -appData \"user data\"",
              p.commandLine("/tmp/x.dmp"));
    p.setDumpDirectory("/var/dumps");
    EXPECT_EQ("/var/dumps/", p.getDumpDirectory());
    // Extra arguments win over the application data; the reporter defaults to the current folder.
    MiniDumper e("App", "one", "two three", "/d");
    e.setAppData("ignored");
    EXPECT_EQ("./KivCrashReporter \"/d/id.dmp\" \"App\" \"one\" \"two three\"", e.commandLine("/d/id.dmp"));
    EXPECT_EQ("/d/", e.getDumpDirectory());
    // Every blank in the reporter path is escaped, also one after a backslash
    // (a folder whose name ends in a backslash).
    EXPECT_EQ("/a\\ b/c\\ \\ d", MiniDumper::escapeBlanks("/a b/c  d"));
    EXPECT_EQ("/a\\\\ b", MiniDumper::escapeBlanks("/a\\ b"));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "InstallDir",
                                                           CStdStr("/opt/My Kiv")));
    MiniDumper i("App", true, true, true, false, false);
    EXPECT_EQ("/opt/My\\ Kiv/bin/KivCrashReporter \"/tmp/i.dmp\" \"App\"", i.commandLine("/tmp/i.dmp"));
    i.SetCrashReporterPath("/x y/KivCrashReporter");  // as given; the next initialisation escapes it
    EXPECT_EQ("/x y/KivCrashReporter", i.getCrashReporterPath());
    i.initialize(false, false);
    EXPECT_EQ("/x\\ y/KivCrashReporter", i.getCrashReporterPath());
}

void (*currentHandler(int sig))(int) {
    struct sigaction sa;
    sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

TEST(MiniDumperHandlers, InstalledByTheNameConstructorAndPutBackOnDestruction) {
    auto handlers = [] {
        return std::vector<void (*)(int)>{currentHandler(SIGUSR1), currentHandler(SIGABRT),
                                          currentHandler(SIGSEGV)};
    };
    const std::vector<void (*)(int)> before = handlers();
    std::terminate_handler terminateBefore = std::get_terminate();
    {
        MiniDumper d("App");
        EXPECT_EQ(&usr1Handler, currentHandler(SIGUSR1));
        EXPECT_EQ(&abortHandler, currentHandler(SIGABRT));
        EXPECT_EQ(&terminateHandler, std::get_terminate());
        EXPECT_NE(before[2], currentHandler(SIGSEGV));
        d.initialize(true, true);  // a second initialisation keeps them in place
        EXPECT_EQ(&abortHandler, currentHandler(SIGABRT));
    }
    EXPECT_EQ(before, handlers());
    EXPECT_EQ(terminateBefore, std::get_terminate());
}

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

std::vector<uint8_t> realDump() {
    kivtest::TempDir tmp("readerdump");
    crashtest::ChildResult r =
        crashtest::runCrashProgram("null", tmp.path() + "/", "/bin/true", {}, tmp.path() + "/rec");
    EXPECT_EQ(0, r.status) << r.output;
    std::vector<std::string> files = crashtest::filesEndingWith(tmp.path(), ".dmp");
    std::string text = files.size() == 1 ? kivtest::readFile(files[0]) : "";
    return std::vector<uint8_t>(text.begin(), text.end());
}

TEST(MinidumpReader, RefusesTruncatedAndGarbledFiles) {
    std::vector<uint8_t> good = realDump();
    ASSERT_GT(good.size(), 1024u);
    MinidumpReader reader;
    ASSERT_TRUE(reader.parse(good)) << reader.error();
    EXPECT_EQ(static_cast<uint16_t>(minidump::kCpuArchitectureAmd64), reader.systemInfo().processorArchitecture);
    EXPECT_EQ(minidump::kOsLinux, reader.systemInfo().platformId);
    EXPECT_FALSE(reader.modules().empty());
    // Cut inside the header, the directory and the stream records.
    for (size_t cut : {size_t(0), size_t(4), size_t(31), size_t(40), size_t(200), size_t(1000), good.size() / 2}) {
        std::vector<uint8_t> part(good.begin(), good.begin() + static_cast<long>(cut));
        EXPECT_FALSE(reader.parse(part)) << "cut at " << cut;
        EXPECT_FALSE(reader.error().empty());
    }
    std::vector<uint8_t> bad = good;
    bad[0] = 'X';
    EXPECT_FALSE(reader.parse(bad));
    EXPECT_EQ("not a minidump (bad signature)", reader.error());
    // Random damage past the header: either refused or parsed, never a crash.
    std::mt19937 rng(12345);
    for (int round = 0; round < 200; ++round) {
        std::vector<uint8_t> damaged = good;
        for (int i = 0; i < 8; ++i) damaged[32 + rng() % (std::min<size_t>(damaged.size(), 4096) - 32)] = static_cast<uint8_t>(rng());
        if (reader.parse(damaged)) {
            reader.crashModules();
            char buf[16];
            reader.readMemory(reader.crashInstructionPointer(), sizeof buf, buf);
        } else {
            EXPECT_FALSE(reader.error().empty());
        }
    }
    EXPECT_FALSE(reader.load("/nonexistent/dump.dmp"));
}

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
