// The logger: line format (credentials masked), levels (also as kivctl writes them), rotation (also by another
// process), lost files and folders, threads and processes on one file, the modes of what it creates.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CrashReport.h"
#include "diag/CBBLog.h"
#include "files/CFileTools.h"
#include "host/Preferences.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

namespace {

// Each test gets its own KIV_ROOT (logs folder, errors.log) and XDG_CONFIG_HOME (LogLevel setting).
class LoggerTest : public ::testing::Test {
protected:
    std::string logs() const { return m_dir.path() + "/root/Library/Logs/KivFoundry"; }
    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> out;
        std::istringstream in(text);
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }
    // Members are destroyed in reverse: the variables are put back before the folder goes.
    kivtest::TempDir m_dir{"kivlog"};
    kivtest::ScopedEnv m_root{"KIV_ROOT", (m_dir.path() + "/root").c_str()};
    kivtest::ScopedEnv m_config{"XDG_CONFIG_HOME", (m_dir.path() + "/config").c_str()};
};

const char* const kStamp = R"(\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}\.\d{3})";

TEST_F(LoggerTest, LinesHaveTheHeaderFormatWithOrWithoutTheProcessId) {
    {
        CBBLog log("KivRequestProxy.log", false, 524288);
        log.setLogLevel(LOGLEVEL_DEBUG);
        log.AddLog(LOGLEVEL_FATAL, "boom %d", 42);
        log.AddLog(LOGLEVEL_ERROR, "err");
        log.AddLog(LOGLEVEL_WARN, "warn");
        log.AddLog(LOGLEVEL_INFO, "info nats://u:pw@h:4222,nats://tok@h:4222");
        log.AddLog("debug %s", "text");
        log._AddLog(boost::format("fmt %1%-%2%") % 1 % "two", LOGLEVEL_INFO);
        log.AddRawLog("raw text without end");
        log.AddRawLog(nullptr);
        EXPECT_EQ(logs() + "/KivRequestProxy.log", log.getLogFilePath());
    }
    std::vector<std::string> got = lines(kivtest::readFile(logs() + "/KivRequestProxy.log"));
    ASSERT_EQ(7u, got.size());
    const std::string s = kStamp;
    const char* const expected[] = {R"( \[FATAL\] - KivRequestProxy - boom 42)",
                                    R"( \[ERROR\] - err)",
                                    R"( \[WARN \] - warn)",
                                    R"( \[INFO \] - info nats://u:\*{8}@h:4222,nats://\*{8}@h:4222)",  // masked
                                    R"( \[DEBUG\] - debug text)",
                                    R"( \[INFO \] - fmt 1-two)"};
    for (size_t i = 0; i < 6; ++i) EXPECT_TRUE(std::regex_match(got[i], std::regex(s + expected[i]))) << got[i];
    EXPECT_EQ("raw text without end", got[6]);
    // The FATAL line, and only it, is also in errors.log.
    EXPECT_EQ(std::vector<std::string>{got[0]}, lines(kivtest::readFile(logs() + "/errors.log")));
    EXPECT_TRUE(std::regex_match(std::string(CBBLog::getTimeString()), std::regex(s)));
    // With the process id, the program name cut at its first dot, a message cut at the buffer.
    {
        CBBLog log("sub/My.Module.log", true, 524288);
        log.setLogLevel(LOGLEVEL_INFO);
        log.AddLog(LOGLEVEL_FATAL, "f");
        log.AddLog(LOGLEVEL_WARN, "%s", std::string(30000, 'y').c_str());
    }
    got = lines(kivtest::readFile(logs() + "/sub/My.Module.log"));
    ASSERT_EQ(2u, got.size());
    std::string pid = std::to_string(getpid());
    EXPECT_TRUE(std::regex_match(got[0], std::regex(s + R"( \[FATAL\] )" + pid + " - My - f"))) << got[0];
    EXPECT_EQ(20479u, got[1].size() - (got[1].find(" - ") + 3));
}

TEST_F(LoggerTest, MemberFormsDropWhileUnsetStaticFormsDoNot) {
    CBBLog::error("no logger: %d", 1);  // must do nothing
    EXPECT_FALSE(CBBLog::isDebugEnabled());
    {
        boost::shared_ptr<CBBLog> log(new CBBLog("forms.log", false, 524288));
        log->_fatal("member fatal while unset");
        log->_error("member error while unset");
        EXPECT_EQ(LOGLEVEL_UNSET, log->getLogLevel());
        CBBLog::setLogger(log);
        EXPECT_TRUE(CBBLog::isWarnEnabled());
        EXPECT_TRUE(CBBLog::isDebugEnabled());  // true before the level is read
        CBBLog::debug("static debug filtered");
        EXPECT_EQ(LOGLEVEL_ERROR, log->getLogLevel());
        EXPECT_FALSE(CBBLog::isWarnEnabled());
        EXPECT_FALSE(CBBLog::isDebugEnabled());
        CBBLog::error("static error %s", "kept");
        CBBLog::error(boost::format("static format %1%") % "kept");
        CBBLog::warn(log, "explicit warn filtered");
        CBBLog::fatal(log, "explicit fatal kept");
        log->_error("member error kept");
        log->_warn("member warn filtered");
        log->setLogLevel(LOGLEVEL_DEBUG);
        EXPECT_TRUE(CBBLog::isInfoEnabled());
        log->_debug("member debug kept");
        CBBLog::info(boost::format("static info kept"));
        CBBLog::setLogger(boost::shared_ptr<CBBLog>());
        CBBLog::error("after reset filtered");
    }
    std::string text = kivtest::readFile(logs() + "/forms.log");
    EXPECT_TRUE(text.find("unset") == std::string::npos && text.find("filtered") == std::string::npos) << text;
    for (const char* s : {"static error kept", "static format kept", "explicit fatal kept", "member error kept",
                          "member debug kept", "static info kept"})
        EXPECT_NE(std::string::npos, text.find(s)) << s;
}

std::string raw(int n) {  // exactly 100 bytes, line end included
    std::string s = "line " + std::to_string(1000 + n) + " ";
    return s + std::string(99 - s.size(), '.') + "\n";
}

TEST_F(LoggerTest, RotatesAtTheLimitReplacingTheOldBackupAndReopensAfterAnotherProcessRotated) {
    std::string path = logs() + "/rot.log";
    kivtest::writeFile(path + ".back", "OLD BACKUP\n");
    {
        CBBLog log("rot.log", false, 1000);
        log.initialize();
        // 10 lines reach the limit exactly; the 11th write rotates first.
        for (int i = 0; i < 15; ++i) log.AddRawLog(raw(i).c_str());
        ASSERT_TRUE(log.flush(60000));
        EXPECT_EQ(500, log.getFileSize());
    }
    std::string back, current;
    for (int i = 0; i < 15; ++i) (i < 10 ? back : current) += raw(i);
    EXPECT_EQ(back, kivtest::readFile(path + ".back"));
    EXPECT_EQ(current, kivtest::readFile(path));
    // After another process rotated, the logger only reopens.
    path = logs() + "/other.log";
    CBBLog log("other.log", false, 1000);
    log.initialize();
    log.AddRawLog("mine before\n");
    ASSERT_TRUE(log.flush(60000));
    // Another process rotates: moves the file aside and starts a new one.
    ASSERT_EQ(0, rename(path.c_str(), (path + ".back").c_str()));
    kivtest::writeFile(path, "theirs\n");
    log.AddRawLog("mine after\n");
    ASSERT_TRUE(log.flush(60000));
    EXPECT_EQ("mine before\n", kivtest::readFile(path + ".back"));
    EXPECT_EQ("theirs\nmine after\n", kivtest::readFile(path));
}

TEST_F(LoggerTest, DeletedFileAndFolderAreCreatedAgainAndNoFolderIsReportedAndHarmless) {
    std::string path = logs() + "/gone.log";
    CBBLog log("gone.log", false, 524288);
    log.setLogLevel(LOGLEVEL_DEBUG);
    log.AddLog(LOGLEVEL_INFO, "first");
    ASSERT_TRUE(log.flush(60000));
    ASSERT_EQ(0, unlink(path.c_str()));
    log.AddLog(LOGLEVEL_INFO, "second");
    ASSERT_TRUE(log.flush(60000));
    std::string text = kivtest::readFile(path);
    EXPECT_TRUE(text.find("first") == std::string::npos && text.find("second") != std::string::npos) << text;
    kivtest::runCommand("rm -rf '" + logs() + "'");
    log.AddLog(LOGLEVEL_FATAL, "third");
    ASSERT_TRUE(log.flush(60000));
    EXPECT_TRUE(kivtest::readFile(path).find("third") != std::string::npos &&
                kivtest::readFile(logs() + "/errors.log").find("third") != std::string::npos);
    // The folder's path is taken by a file: no descriptor stays on the deleted files, and once the
    // path is free again the next FATAL line is in a new errors.log.
    kivtest::runCommand("rm -rf '" + logs() + "' && touch '" + logs() + "'");
    log.AddLog(LOGLEVEL_FATAL, "fourth");
    ASSERT_TRUE(log.flush(60000));
    EXPECT_EQ("", kivtest::runCommand("ls -l /proc/" + std::to_string(getpid()) + "/fd | grep '(deleted)'"));
    unlink(logs().c_str());
    log.AddLog(LOGLEVEL_FATAL, "fifth");
    ASSERT_TRUE(log.flush(60000));
    EXPECT_NE(std::string::npos, kivtest::readFile(logs() + "/errors.log").find("fifth"));
    // KIV_ROOT names a regular file, so the logs folder cannot exist: reported, and harmless.
    kivtest::writeFile(m_dir.path() + "/file", "x");
    setenv("KIV_ROOT", (m_dir.path() + "/file").c_str(), 1);
    testing::internal::CaptureStdout();
    {
        CBBLog nowhere("nowhere.log", false, 524288);
        nowhere.setLogLevel(LOGLEVEL_DEBUG);
        nowhere.AddLog(LOGLEVEL_FATAL, "nothing");  // for both files
        EXPECT_TRUE(nowhere.getFileSize() == -1 && nowhere.flush(60000));
    }
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(out.find("Error: could not open log file '") != std::string::npos &&
                out.find("Error: could not open error log file '") != std::string::npos &&
                out.find("nothing") == std::string::npos)
        << out;
}

TEST_F(LoggerTest, DestructorDrainsAndThreadsDoNotTearLines) {
    const int kThreads = 4, kLines = 500;
    std::string path = logs() + "/threads.log";
    {
        CBBLog log("threads.log", false, 1 << 30);
        log.setLogLevel(LOGLEVEL_DEBUG);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&log, t] {
                for (int i = 0; i < kLines; ++i) {
                    log.AddLog(LOGLEVEL_INFO, "t%d n%d %s", t, i, std::string(i % 50, 'z').c_str());
                    if (i % 100 == 0) log.getFileSize(), log.getLogs(), log.setLogLevel(LOGLEVEL_DEBUG);
                }
            });
        for (std::thread& th : threads) th.join();
    }  // no flush: the destructor must write everything queued
    std::vector<std::string> got = lines(kivtest::readFile(path));
    ASSERT_EQ(static_cast<size_t>(kThreads * kLines), got.size());
    std::vector<int> next(kThreads, 0);
    std::regex re(R"(.* \[INFO \] - t(\d) n(\d+) (z*))");
    for (const std::string& l : got) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, re)) << l;
        int t = std::stoi(m[1]), i = std::stoi(m[2]);
        EXPECT_EQ(next[t]++, i) << "lines of one thread stay in order";
        EXPECT_EQ(static_cast<size_t>(i % 50), m[3].length());
    }
}

TEST_F(LoggerTest, ProcessesShareOneRotatingFileWithoutTornLines) {
    const int kProcesses = 3, kLines = 400;
    std::string path = logs() + "/shared.log";
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (!freopen("/dev/null", "w", stdout)) _exit(2);
            {
                CBBLog log("shared.log", true, 8192);
                log.setLogLevel(LOGLEVEL_DEBUG);
                for (int i = 0; i < kLines; ++i)
                    log.AddLog(LOGLEVEL_DEBUG, "p%d n%d %s end", p, i, std::string((i * 7) % 90, 'a' + p).c_str());
            }
            _exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = -1;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::regex re(R"(\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \[DEBUG\] \d+ - p(\d) n(\d+) ([a-c]*) end)");
    for (const std::string& file : {path, path + ".back"}) {
        std::string text = kivtest::readFile(file);
        ASSERT_TRUE(!text.empty() && text.back() == '\n') << file;
        for (const std::string& l : lines(text)) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(l, m, re)) << file << ": " << l;
            EXPECT_EQ(std::string((std::stoi(m[2]) * 7) % 90, 'a' + std::stoi(m[1])), m[3].str());
        }
        // A file grows past the limit by at most one line per process.
        EXPECT_LT(text.size(), 8192u + kProcesses * 200);
    }
}

std::string kivctl(const std::string& args, int* status) {
    return kivtest::runCommand(std::string(KIV_BINARY_DIR) + "/bin/kivctl " + args + " 2>&1", status);
}

TEST_F(LoggerTest, LevelWrittenByKivctlEnablesDebugLines) {
    int status = -1;
    kivctl("defaults write 'Software\\Kiv Foundry\\Kiv' LogLevel -int 4", &status);
    ASSERT_EQ(0, status);
    EXPECT_EQ("4\n", kivctl("defaults read com.kiv-foundry.kiv LogLevel", &status));
    EXPECT_EQ(0, status);
    {
        CBBLog log("fromctl.log", false, 524288);
        log.AddLog(LOGLEVEL_DEBUG, "debug line visible");
    }
    EXPECT_NE(std::string::npos, kivtest::readFile(logs() + "/fromctl.log").find("[DEBUG] - debug line visible"));
    // The other actions and their statuses; a corrupt domain is a failure for readers, not an empty answer.
    EXPECT_EQ("com.kiv-foundry.kiv\n", kivctl("defaults domains", &status));
    kivtest::writeFile(m_dir.path() + "/config/kivfoundry/broken.json", "{");
    kivctl("defaults write com.kiv-foundry.kiv.config flag -bool no", &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ("0\n", kivctl("defaults read 'Software\\Kiv Foundry\\Kiv\\Config' flag", &status));
    const std::pair<const char*, int> runs[] = {{"read com.kiv-foundry.kiv.config nothing", 1},
                                                {"delete com.kiv-foundry.kiv.config flag", 0},
                                                {"delete com.kiv-foundry.kiv.config flag", 1},
                                                {"write com.kiv-foundry.kiv LogLevel -int four", 64},
                                                {"write com.kiv-foundry.kiv LogLevel -float 4", 64},
                                                {"write com.kiv-foundry.kiv LogLevel -int -1", 0},
                                                {"--help", 0},
                                                {"read broken", 2}};
    for (const auto& [args, expected] : runs)
        EXPECT_EQ(expected, (kivctl(std::string("defaults ") + args, &status), status)) << args;
    EXPECT_EQ("-1\n", kivctl("defaults read com.kiv-foundry.kiv LogLevel", &status));
    // -1 stored: every call reads the setting again.
    {
        CBBLog log("fromctl.log", false, 524288);
        log.AddLog(LOGLEVEL_FATAL, "reread dropped");
        EXPECT_EQ(LOGLEVEL_UNSET, log.getLogLevel());
        kivctl("defaults write com.kiv-foundry.kiv LogLevel -int 0", &status);
        log.AddLog(LOGLEVEL_FATAL, "reread fatal kept");
        log.AddLog(LOGLEVEL_ERROR, "reread error dropped");
        EXPECT_EQ(LOGLEVEL_FATAL, log.getLogLevel());
    }
    std::string text = kivtest::readFile(logs() + "/fromctl.log");
    EXPECT_TRUE(text.find("dropped") == std::string::npos && text.find("fatal kept") != std::string::npos) << text;
}

// Folders 0750 and files 0640 by default, 0777 and 0666 with "app.sharedFileModes";
// set explicitly, so a umask of 0 or 022 changes nothing.
TEST_F(LoggerTest, FilesArePrivateByDefaultSharedOnRequestWhateverTheUmask) {
    auto modeOf = [](const std::string& path) {
        struct stat st;
        return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 01000000;  // no mode when missing
    };
    for (bool shared : {false, true}) {
        SCOPED_TRACE(shared ? "shared" : "private");
        kivtest::ScopedEnv root("KIV_ROOT", (m_dir.path() + (shared ? "/shared" : "/private")).c_str());
        const std::string logs = m_dir.path() + (shared ? "/shared" : "/private") + "/Library/Logs/KivFoundry";
        ASSERT_TRUE(
            Preferences::Set("com.kiv-foundry.kiv.config", "app.sharedFileModes", Preferences::Value::ofBool(shared)));
        mode_t oldMask = umask(shared ? 022 : 0);
        {
            CBBLog log("modes.log", false, 524288);
            log.AddLog(LOGLEVEL_FATAL, "opens both files");
            EXPECT_TRUE(log.flush(60000));
        }
        std::string data = CFileTools::GetKivDataFolder(), crashReports;
        EXPECT_NO_THROW(crashReports = crashReportsFolder());
        umask(oldMask);
        const unsigned folder = shared ? 0777 : 0750, file = shared ? 0666 : 0640;
        EXPECT_EQ(data + "/CrashReports", crashReports);
        EXPECT_EQ((std::vector<unsigned>{folder, file, file, folder, folder}),
                  (std::vector<unsigned>{modeOf(logs), modeOf(logs + "/modes.log"), modeOf(logs + "/errors.log"),
                                         modeOf(data), modeOf(crashReports)}));
    }
}

}  // namespace
