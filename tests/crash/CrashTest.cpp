// Each way of crashing the test program leaves one readable dump, runs the reporter, logs the FATAL line
// and ends with status 0; then MiniDumper's command line and handlers, module ids, the reader, the reporter.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "CrashReport.h"
#include "diag/MiniDumper.h"
#include "diag/MinidumpModules.h"
#include "diag/MinidumpReader.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"
#include "tests/support/TempDir.h"

namespace {

// Runs argv through the shell after the assignments `env` ("A=1 B=2"): standard output and error together,
// and in *status the shell's (128 + the signal's number when a signal ended the program).
std::string runProgram(const std::vector<std::string>& argv, int* status, const std::string& env = "") {
    std::string command = env;
    for (const std::string& a : argv) command += " " + kivtest::shellQuoted(a);
    return kivtest::runCommand(command + " 2>&1", status);
}

// The lines recorded by the stand-in reporter, without their "<" ">" frame.
std::vector<std::string> recordedArguments(const std::string& recordFile) {
    std::vector<std::string> args;
    std::istringstream in(kivtest::readFile(recordFile));
    for (std::string l; std::getline(in, l);)
        args.push_back(l.size() >= 2 && l.front() == '<' && l.back() == '>' ? l.substr(1, l.size() - 2) : "?" + l);
    return args;
}

std::string errorsLogPath() { return KivFolders::LogsDirectory() + "/errors.log"; }

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
        std::filesystem::remove(errorsLogPath());
    }
    // Runs one crash and checks what every path must leave; returns the dump.
    std::string crashOnce(const std::string& mode, const std::vector<std::string>& extra,
                          std::vector<std::string> expectedArguments) {
        std::vector<std::string> argv = {CRASH_PROGRAM, mode, dumpDir, reporter};
        argv.insert(argv.end(), extra.begin(), extra.end());
        // The sanitizers leave crash signals to the program; the reporter run after the dump allocates
        // inside the signal handler by design.
        int status = -1;
        const std::string output =
            runProgram(argv, &status,
                       "KIV_RECORD_FILE=" + kivtest::shellQuoted(recordFile) +
                           " ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:"
                           "handle_sigfpe=0:detect_leaks=0:use_sigaltstack=0 UBSAN_OPTIONS=halt_on_error=1"
                           " TSAN_OPTIONS=report_signal_unsafe=0");
        EXPECT_EQ(0, status) << mode << "\n" << output;
        std::vector<std::string> dumps;
        for (const auto& e : std::filesystem::directory_iterator(dumpDir))
            if (e.path().extension() == ".dmp") dumps.push_back(e.path().string());
        EXPECT_EQ(1u, dumps.size()) << mode;
        if (dumps.size() != 1) return std::string();
        std::string dump = dumps[0], id = std::filesystem::path(dump).stem().string();
        EXPECT_TRUE(id.size() == 36 && id[14] == '4') << "not a random UUID: " << id;
        expectedArguments.insert(expectedArguments.begin(), {dump, "CrashProgram"});
        EXPECT_EQ(expectedArguments, recordedArguments(recordFile)) << output;
        std::string fatal = "[FATAL] - CrashProgram - crash of CrashProgram. minidump generated as " + dump + " (" +
                            std::to_string(std::filesystem::file_size(dump) / 1024) + "kB)";
        EXPECT_NE(std::string::npos, kivtest::readFile(errorsLogPath()).find(fatal))
            << kivtest::readFile(errorsLogPath());
        return dump;
    }
    // The dump is well formed and shows a null store by the crashing thread.
    void expectNullStoreDump(const std::string& dump, MinidumpReader& reader) {
        ASSERT_TRUE(reader.load(dump) && reader.hasException() && reader.exception().hasContext) << reader.error();
        EXPECT_TRUE(reader.exception().signal == SIGSEGV && reader.exception().address == 0u);
        int crashThreadListed = 0;  // with the registers of the exception
        for (const MinidumpReader::ThreadInfo& t : reader.threads()) {
            EXPECT_TRUE(t.hasContext && t.stackSize > 0) << "thread " << t.id;
            crashThreadListed += t.id == reader.exception().threadId && t.context.rip == reader.exception().context.rip;
        }
        EXPECT_EQ(1, crashThreadListed);
        const MinidumpReader::ModuleInfo* m = reader.moduleAt(reader.crashInstructionPointer());
        ASSERT_NE(nullptr, m) << "instruction pointer outside every module";
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxMaps).find(m->name));
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxCmdLine).find("crash_program"));
        for (auto stream : {minidump::kLinuxProcStatus, minidump::kLinuxAuxv})
            EXPECT_FALSE(reader.linuxStream(stream).empty()) << stream;
        EXPECT_NE(std::string::npos, reader.linuxStream(minidump::kLinuxEnviron).find("KIV_RECORD_FILE="));
    }
    kivtest::TempDir tmp{"crashpaths"};
    std::string dumpDir = tmp.path() + "/dumps/", recordFile = tmp.path() + "/record.txt";
    // A reporter path with blanks, which must reach the shell escaped.
    std::string reporter = tmp.path() + "/dir with blanks/record reporter.sh";
};

// A null store with other threads: every thread and the build id are dumped; lldb opens the dump; the
// reader refuses truncated or garbled copies of it.
TEST_F(CrashPaths, NullStoreWithOtherThreadsDumpsEveryThreadAndTheBuildIdAndDamagedCopiesAreRefused) {
    std::string dump = crashOnce("threads", {}, {});
    MinidumpReader reader;
    expectNullStoreDump(dump, reader);
    EXPECT_EQ(5u, reader.threads().size());  // main, three parked threads, the logger's writer
    const MinidumpReader::ModuleInfo* m = reader.moduleAt(reader.crashInstructionPointer());
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(std::filesystem::canonical(CRASH_PROGRAM).string(), m->name);
    EXPECT_TRUE(m->isBuildId && m->id.size() == 40u);  // GNU ld's 20-byte build id, in hex
    // Copies of the dump, whole, truncated and garbled.
    const std::string text = kivtest::readFile(dump);
    const std::vector<uint8_t> good(text.begin(), text.end());
    MinidumpReader copies;
    ASSERT_TRUE(good.size() > 1024 && copies.parse(good)) << copies.error();
    EXPECT_EQ(static_cast<uint16_t>(minidump::kCpuArchitectureAmd64), copies.systemInfo().processorArchitecture);
    EXPECT_EQ(minidump::kOsLinux, copies.systemInfo().platformId);
    for (size_t cut : {size_t(0), size_t(4), size_t(31), size_t(40), size_t(200), size_t(1000), good.size() / 2})
        EXPECT_FALSE(copies.parse(std::vector<uint8_t>(good.begin(), good.begin() + long(cut)))) << cut;
    std::vector<uint8_t> bad = good;
    bad[0] = 'X';
    EXPECT_FALSE(copies.parse(bad));
    EXPECT_EQ("not a minidump (bad signature)", copies.error());
    std::mt19937 rng(12345);  // random damage past the header: refused or parsed, never a crash
    for (int round = 0; round < 200; ++round) {
        std::vector<uint8_t> damaged = good;
        for (int i = 0; i < 8; ++i) damaged[32 + rng() % (std::min<size_t>(good.size(), 4096) - 32)] = uint8_t(rng());
        char buf[16];
        if (copies.parse(damaged)) copies.crashModules(), copies.readMemory(copies.crashInstructionPointer(), 16, buf);
        else EXPECT_FALSE(copies.error().empty());
    }
    EXPECT_FALSE(copies.load("/nonexistent/dump.dmp"));
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

// The reporter's extra arguments, SIGUSR1 (a crash on a new thread), abort, uncaught exceptions
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
        std::filesystem::remove(errorsLogPath());
        std::string dump = crashOnce(c.mode, c.extra, c.tail);
        EXPECT_NE(std::string::npos, kivtest::readFile(errorsLogPath()).find(c.logged));
        MinidumpReader reader;
        if (c.check == kNullStore) {
            expectNullStoreDump(dump, reader);
            ASSERT_GE(reader.threads().size(), c.minThreads);
        } else if (c.check == kOverflow) {
            ASSERT_TRUE(reader.load(dump) && reader.hasException()) << reader.error();
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

TEST(MiniDumperCommand, DefaultsAndEachConstructorsCommandLineWithEveryBlankEscaped) {
    MiniDumper d(nullptr, true, true, true, false, false);
    EXPECT_TRUE(d.getApplicationName() == "Unknown" && d.getDumpDirectory() == "/tmp/");
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
    // Every blank in the reporter path is escaped, also one after a backslash.
    EXPECT_EQ("/a\\ b/c\\ \\ d", MiniDumper::escapeBlanks("/a b/c  d"));
    EXPECT_EQ("/a\\\\ b", MiniDumper::escapeBlanks("/a\\ b"));
    ASSERT_TRUE(
        CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "InstallDir", CStdStr("/opt/My Kiv")));
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
        return std::vector<void (*)(int)>{currentHandler(SIGUSR1), currentHandler(SIGABRT), currentHandler(SIGSEGV)};
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

// Without a build id (CrashPaths sees the one of CRASH_PROGRAM), a module is named by an MD5 of .text.
TEST(ModuleId, TextHashWithoutABuildIdAndMapsParsingGroupsTheMappingsOfOneFile) {
    minidump::ModuleInfo hashed{}, again{};
    ASSERT_TRUE(minidump::identifyElfFile(NO_BUILD_ID_PROGRAM, hashed));
    ASSERT_TRUE(minidump::identifyElfFile(NO_BUILD_ID_PROGRAM, again));
    ASSERT_TRUE(!hashed.isBuildId && hashed.idSize == 16u);
    EXPECT_EQ(0, memcmp(hashed.id, again.id, 16));
    static const uint8_t zero[16] = {};
    EXPECT_NE(0, memcmp(hashed.id, zero, 16));
    minidump::ModuleInfo none{};
    EXPECT_FALSE(minidump::identifyElfFile(RECORD_REPORTER, none));  // a script, longer than an ELF header
    EXPECT_FALSE(minidump::identifyElfFile("/nonexistent/program", none));
    const std::string exe = std::string(" 08:01 42 ") + CRASH_PROGRAM + "\n";  // device, inode, path
    std::string text = "1000-2000 r--p 00000000" + exe + "2000-3000 r-xp 00001000" + exe + "3000-4000 rw-p 00002000" +
                       exe + "4000-5000 rw-p 00000000 00:00 0 \n7000-8000 rw-p 00000000 00:00 0 [stack]\n" +
                       "garbage line\n9000-9100 r--p 00000000 08:01 43 /nonexistent/lib.so\n";
    minidump::Mapping maps[16];
    int n = minidump::parseMaps(&text[0], maps, 16);  // parsed in place
    ASSERT_EQ(6, n);
    EXPECT_TRUE(maps[1].executable && std::string("[stack]") == maps[4].path);
    EXPECT_EQ(&maps[4], minidump::findMapping(maps, n, 0x7fff));
    EXPECT_EQ(nullptr, minidump::findMapping(maps, n, 0x6000));
    minidump::ModuleInfo modules[4];
    int m = minidump::collectModules(maps, n, modules, 4);
    ASSERT_EQ(1, m);  // the unreadable file is no module
    EXPECT_TRUE(modules[0].base == 0x1000u && modules[0].size == 0x3000u);
}

TEST(CrashReporter, RefusesBadCommandLinesAndFilesDamagedDumpsWithTheReason) {
    int status = -1;
    EXPECT_EQ(64, (runProgram({CRASH_REPORTER}, &status), status));
    EXPECT_EQ(64, (runProgram({CRASH_REPORTER, "/x.dmp", "App", "-appData"}, &status), status));
    EXPECT_NE(std::string::npos, runProgram({CRASH_REPORTER, "--help"}, &status).find("usage: KivCrashReporter"));
    EXPECT_EQ(0, status);
    const std::string missing = runProgram({CRASH_REPORTER, "/nonexistent/x.dmp", "App"}, &status);
    EXPECT_EQ(2, status);
    EXPECT_NE(std::string::npos, missing.find("refused to file /nonexistent/x.dmp")) << missing;
    // On another file system where there is one (/dev/shm), so it is copied rather than renamed.
    kivtest::TempDir tmp("reporterbad");
    std::string name = "kivbad-" + std::to_string(getpid()) + ".dmp", folder = tmp.path() + "/reports";
    std::string bad = std::filesystem::is_directory("/dev/shm") ? "/dev/shm/" + name : tmp.file(name);
    kivtest::writeFile(bad, std::string(64, 'x'));
    std::filesystem::create_directories(folder);
    nlohmann::json j = nlohmann::json::parse(kivtest::readFile(fileCrashReport({bad, "App", {}, ""}, folder)));
    EXPECT_EQ("App", j["application"]);
    EXPECT_EQ("not a minidump (bad signature)", j["error"]);
    EXPECT_TRUE(std::filesystem::exists(folder + "/" + name));
    EXPECT_FALSE(std::filesystem::exists(bad));
}

}  // namespace
