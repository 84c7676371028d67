// Each way of crashing the test program leaves exactly one readable dump, runs
// the reporter with the expected command line, logs the FATAL line and ends
// with status 0.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "CrashTestSupport.h"
#include "diag/MinidumpModules.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"
#include "diag/MinidumpReader.h"
#include "tests/support/TempDir.h"

namespace {

class CrashPaths : public ::testing::Test {
protected:
    void SetUp() override {
#if defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "ThreadSanitizer wraps and defers signal handlers (SIGUSR1, abort) and adds its own "
                        "thread; the crash paths are checked by the plain and the ASan builds";
#endif
        std::filesystem::create_directories(dumpDir);
        std::filesystem::create_directories(tmp.path() + "/dir with blanks");
        std::filesystem::copy_file(RECORD_REPORTER, reporter);  // an executable copy
        std::filesystem::remove(crashtest::errorsLogPath());
    }
    // Runs one crash and checks what every path must leave; returns the dump.
    std::string crashOnce(const std::string& mode, const std::vector<std::string>& extra,
                          std::vector<std::string> expectedArguments) {
        crashtest::ChildResult r = crashtest::runCrashProgram(mode, dumpDir, reporter, extra, recordFile);
        EXPECT_TRUE(r.exited && r.status == 0) << mode << (r.exited ? " exited with " : " ended by signal ")
                                               << r.status << "\n" << r.output;
        std::vector<std::string> dumps = crashtest::filesEndingWith(dumpDir, ".dmp");
        EXPECT_EQ(1u, dumps.size()) << mode;
        if (dumps.size() != 1) return std::string();
        std::string dump = dumps[0], id = std::filesystem::path(dump).stem().string();
        EXPECT_TRUE(id.size() == 36 && id[14] == '4') << "not a random UUID: " << id;
        expectedArguments.insert(expectedArguments.begin(), {dump, "CrashProgram"});
        EXPECT_EQ(expectedArguments, crashtest::recordedArguments(recordFile)) << r.output;
        std::string fatal = "[FATAL] - CrashProgram - crash of CrashProgram. minidump generated as " + dump + " (" +
                            std::to_string(std::filesystem::file_size(dump) / 1024) + "kB)";
        EXPECT_NE(std::string::npos, kivtest::readFile(crashtest::errorsLogPath()).find(fatal))
            << kivtest::readFile(crashtest::errorsLogPath());
        return dump;
    }
    // The dump is well formed and shows a null store by the crashing thread.
    void expectNullStoreDump(const std::string& dump, MinidumpReader& reader) {
        ASSERT_TRUE(reader.load(dump)) << reader.error();
        ASSERT_TRUE(reader.hasException());
        EXPECT_EQ(static_cast<uint32_t>(SIGSEGV), reader.exception().signal);
        EXPECT_EQ(0u, reader.exception().address);
        ASSERT_TRUE(reader.exception().hasContext);
        int crashThreadListed = 0;  // with the registers of the exception
        for (const MinidumpReader::ThreadInfo& t : reader.threads()) {
            EXPECT_TRUE(t.hasContext && t.stackSize > 0) << "thread " << t.id;
            crashThreadListed +=
                t.id == reader.exception().threadId && t.context.rip == reader.exception().context.rip;
        }
        EXPECT_EQ(1, crashThreadListed);
        const MinidumpReader::ModuleInfo* m = reader.moduleAt(reader.crashInstructionPointer());
        ASSERT_NE(nullptr, m) << "instruction pointer outside every module";
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxMaps).find(m->name));
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxCmdLine).find("crash_program"));
        EXPECT_FALSE(reader.linuxStream(minidump::kLinuxProcStatus).empty());
        EXPECT_FALSE(reader.linuxStream(minidump::kLinuxAuxv).empty());
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxEnviron).find("KIV_RECORD_FILE="));
    }
    kivtest::TempDir tmp{"crashpaths"};
    std::string dumpDir = tmp.path() + "/dumps/", recordFile = tmp.path() + "/record.txt";
    // A reporter path with blanks, which must reach the shell escaped.
    std::string reporter = tmp.path() + "/dir with blanks/record reporter.sh";
};

// The dump of a null store with other threads running lists every thread and
// the program's build id, and lldb opens it at the crashing function.
TEST_F(CrashPaths, NullStoreWithOtherThreadsDumpsEveryThreadAndTheProgramsBuildId) {
    std::string dump = crashOnce("threads", {}, {});
    MinidumpReader reader;
    expectNullStoreDump(dump, reader);
    EXPECT_EQ(5u, reader.threads().size());  // main, three parked threads, the logger's writer
    const MinidumpReader::ModuleInfo* m = reader.moduleAt(reader.crashInstructionPointer());
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(std::filesystem::canonical(CRASH_PROGRAM).string(), m->name);
    EXPECT_TRUE(m->isBuildId);
    EXPECT_EQ(40u, m->id.size());  // GNU ld's 20-byte build id, in hex
    int status = -1;
    kivtest::runCommand("command -v lldb >/dev/null 2>&1", &status);
    if (status != 0) return;  // lldb is not installed
    std::string out = kivtest::runCommand(std::string("lldb --batch '") + CRASH_PROGRAM + "' -c '" + dump +
                                          "' -o 'thread list' -o 'bt' 2>&1");
    size_t listed = 0;
    for (size_t at = out.find("tid = "); at != std::string::npos; at = out.find("tid = ", at + 1)) ++listed;
    EXPECT_EQ(reader.threads().size(), listed) << out;
    EXPECT_NE(std::string::npos, out.find("stop reason = signal SIGSEGV")) << out;
    EXPECT_NE(std::string::npos, out.find("crashWithNullStore", out.find("frame #0: "))) << out;
}

// Every other way of crashing, one after the other: the reporter's extra
// arguments, SIGUSR1 (a crash on a new thread), abort, uncaught exceptions
// (logged first) and stack overflows on the main thread and on another one.
TEST_F(CrashPaths, EachOtherCrashLeavesOneDump) {
    // The INFO line of SIGUSR1 is only written when INFO is enabled.
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 3));
    enum Check { kNone, kOverflow, kNullStore };
    const struct Case {
        const char* mode;
        std::vector<std::string> extra, tail;
        Check check;
        size_t minThreads;
        const char* logged;  // expected in errors.log
    } cases[] = {
        {"null", {"appData=some data"}, {"-appData", "some data"}, kNone, 0, ""},
        {"null", {"arg1=first one", "arg2=second"}, {"first one", "second"}, kNone, 0, ""},
        {"usr1", {}, {}, kNullStore, 2, ""},
        {"abort", {}, {}, kNullStore, 1, ""},
        {"throw", {}, {}, kNullStore, 1, "uncaught std::runtime_error c++ exception: nobody catches this"},
        {"throw-int", {}, {}, kNone, 0, "uncaught unknown c++ exception"},
        {"overflow", {}, {}, kOverflow, 1, ""},
        {"overflow-thread", {}, {}, kOverflow, 2, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        std::filesystem::remove(crashtest::errorsLogPath());
        std::string dump = crashOnce(c.mode, c.extra, c.tail);
        EXPECT_NE(std::string::npos, kivtest::readFile(crashtest::errorsLogPath()).find(c.logged));
        MinidumpReader reader;
        if (c.check == kNullStore) {
            expectNullStoreDump(dump, reader);
            ASSERT_GE(reader.threads().size(), c.minThreads);
        } else if (c.check == kOverflow) {
            ASSERT_TRUE(reader.load(dump)) << reader.error();
            ASSERT_TRUE(reader.hasException());
            EXPECT_EQ(static_cast<uint32_t>(SIGSEGV), reader.exception().signal);
            ASSERT_GE(reader.threads().size(), c.minThreads);
            EXPECT_TRUE(c.minThreads > 1 || reader.threads().front().stackSize > 0);
        }
        if (c.mode == std::string("usr1")) {
            // The main thread waits in pause(); the crash is on another one.
            std::string status = reader.linuxStream(minidump::kLinuxProcStatus);
            uint32_t mainThread = static_cast<uint32_t>(std::stoul(status.substr(status.find("Tgid:") + 5)));
            EXPECT_NE(mainThread, reader.exception().threadId);
            EXPECT_TRUE(std::any_of(reader.threads().begin(), reader.threads().end(),
                                    [&](const MinidumpReader::ThreadInfo& t) { return t.id == mainThread; }));
            EXPECT_NE(std::string::npos, kivtest::readFile(KivFolders::LogsDirectory() + "/CrashProgram.log")
                                             .find("USR1 signal received, generating crash"));
        }
        std::filesystem::remove(dump);
    }
}

}  // namespace
