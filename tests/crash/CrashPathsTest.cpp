// Each way of crashing the test program leaves exactly one readable dump, runs
// the reporter with the expected command line, logs the FATAL line and ends
// with status 0.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

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
        dumpDir = tmp.path() + "/dumps/";
        std::filesystem::create_directories(dumpDir);
        // A reporter path with blanks, which must reach the shell escaped.
        std::string folder = tmp.path() + "/dir with blanks";
        std::filesystem::create_directories(folder);
        reporter = folder + "/record reporter.sh";
        std::filesystem::copy_file(RECORD_REPORTER, reporter);
        chmod(reporter.c_str(), 0755);
        recordFile = tmp.path() + "/record.txt";
        std::filesystem::remove(crashtest::errorsLogPath());
    }

    // Runs one crash and checks what every path must leave; returns the dump.
    std::string crashOnce(const std::string& mode, const std::vector<std::string>& extra,
                          const std::vector<std::string>& expectedTail) {
        crashtest::ChildResult r = crashtest::runCrashProgram(mode, dumpDir, reporter, extra, recordFile);
        EXPECT_TRUE(r.exited) << mode << " ended by signal " << r.status << "\n" << r.output;
        EXPECT_EQ(0, r.status) << r.output;
        std::vector<std::string> dumps = crashtest::filesEndingWith(dumpDir, ".dmp");
        EXPECT_EQ(1u, dumps.size()) << mode;
        if (dumps.size() != 1) return std::string();
        std::string dump = dumps[0];
        std::string id = std::filesystem::path(dump).stem().string();
        EXPECT_EQ(36u, id.size()) << id;
        EXPECT_EQ('4', id[14]) << "not a random UUID: " << id;

        std::vector<std::string> expected = {dump, "CrashProgram"};
        expected.insert(expected.end(), expectedTail.begin(), expectedTail.end());
        EXPECT_EQ(expected, crashtest::recordedArguments(recordFile)) << r.output;

        struct stat st;
        EXPECT_EQ(0, stat(dump.c_str(), &st));
        std::string fatal = "[FATAL] - CrashProgram - crash of CrashProgram. minidump generated as " + dump + " (" +
                            std::to_string(st.st_size / 1024) + "kB)";
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
        bool crashThreadListed = false;
        for (const MinidumpReader::ThreadInfo& t : reader.threads()) {
            EXPECT_TRUE(t.hasContext) << "thread " << t.id;
            EXPECT_GT(t.stackSize, 0u) << "thread " << t.id;
            if (t.id == reader.exception().threadId) {
                crashThreadListed = true;
                EXPECT_EQ(uint64_t{reader.exception().context.rip}, uint64_t{t.context.rip});
            }
        }
        EXPECT_TRUE(crashThreadListed);
        const MinidumpReader::ModuleInfo* m = reader.moduleAt(reader.crashInstructionPointer());
        ASSERT_NE(nullptr, m) << "instruction pointer outside every module";
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxMaps).find(m->name));
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxCmdLine).find("crash_program"));
        EXPECT_FALSE(reader.linuxStream(minidump::kLinuxProcStatus).empty());
        EXPECT_FALSE(reader.linuxStream(minidump::kLinuxAuxv).empty());
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxEnviron).find("KIV_RECORD_FILE="));
    }

    kivtest::TempDir tmp{"crashpaths"};
    std::string dumpDir, reporter, recordFile;
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
    minidump::ModuleInfo file{};
    ASSERT_TRUE(minidump::identifyElfFile(CRASH_PROGRAM, file));
    ASSERT_TRUE(file.isBuildId) << "the test program was linked without a build id";
    EXPECT_TRUE(m->isBuildId);
    EXPECT_EQ(2 * file.idSize, m->id.size());

    int status = -1;
    kivtest::runCommand("command -v lldb >/dev/null 2>&1", &status);
    if (status != 0) return;  // lldb is not installed
    std::string out = kivtest::runCommand(std::string("lldb --batch '") + CRASH_PROGRAM + "' -c '" + dump +
                                          "' -o 'thread list' -o 'bt' 2>&1");
    size_t listed = 0;
    for (size_t at = out.find("tid = "); at != std::string::npos; at = out.find("tid = ", at + 1)) ++listed;
    EXPECT_EQ(reader.threads().size(), listed) << out;
    EXPECT_NE(std::string::npos, out.find("stop reason = signal SIGSEGV")) << out;
    size_t frame0 = out.find("frame #0: ");
    ASSERT_NE(std::string::npos, frame0) << out;
    EXPECT_NE(std::string::npos, out.find("crashWithNullStore", frame0)) << out;
}

TEST_F(CrashPaths, Usr1CrashesOnANewThread) {
    // The INFO line is only written when INFO is enabled.
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 3));
    std::string dump = crashOnce("usr1", {}, {});
    MinidumpReader reader;
    expectNullStoreDump(dump, reader);
    ASSERT_GE(reader.threads().size(), 2u);
    // The main thread waits in pause(); the crash is on another one.
    std::string status = reader.linuxStream(minidump::kLinuxProcStatus);
    size_t tgid = status.find("Tgid:");
    ASSERT_NE(std::string::npos, tgid);
    uint32_t mainThread = static_cast<uint32_t>(std::stoul(status.substr(tgid + 5)));
    EXPECT_NE(mainThread, reader.exception().threadId);
    bool mainThreadListed = false;
    for (const MinidumpReader::ThreadInfo& t : reader.threads()) mainThreadListed |= t.id == mainThread;
    EXPECT_TRUE(mainThreadListed);
    EXPECT_NE(std::string::npos, kivtest::readFile(KivFolders::LogsDirectory() + "/CrashProgram.log").find("USR1 signal received, generating crash"));
}

// Every other way of crashing, one after the other: the reporter's extra
// arguments, abort, uncaught exceptions (logged first) and stack overflows on
// the main thread and on another one.
TEST_F(CrashPaths, EachOtherCrashLeavesOneDump) {
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
        } else if (c.check == kOverflow && reader.load(dump)) {
            ASSERT_TRUE(reader.hasException());
            EXPECT_EQ(static_cast<uint32_t>(SIGSEGV), reader.exception().signal);
            EXPECT_GE(reader.threads().size(), c.minThreads);
            if (c.minThreads == 1 && !reader.threads().empty()) {
                EXPECT_GT(reader.threads().front().stackSize, 0u);
            }
        } else if (c.check == kOverflow) {
            ADD_FAILURE() << reader.error();
        }
        std::filesystem::remove(dump);
    }
}

}  // namespace
