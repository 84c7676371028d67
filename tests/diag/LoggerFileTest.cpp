#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "diag/CBBLog.h"
#include "tests/diag/LoggerFixture.h"

namespace {

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
    // What another process does when it rotates: move the file aside and
    // start a new one.
    ASSERT_EQ(0, rename(path.c_str(), (path + ".back").c_str()));
    kivtest::writeFile(path, "theirs\n");
    log.AddRawLog("mine after\n");
    ASSERT_TRUE(log.flush(60000));
    EXPECT_EQ("mine before\n", kivtest::readFile(path + ".back"));
    EXPECT_EQ("theirs\nmine after\n", kivtest::readFile(path));
}

TEST_F(LoggerTest, DeletedFileAndFolderAreCreatedAgain) {
    std::string path = logs() + "/gone.log";
    CBBLog log("gone.log", false, 524288);
    log.setLogLevel(LOGLEVEL_DEBUG);
    log.AddLog(LOGLEVEL_INFO, "first");
    ASSERT_TRUE(log.flush(60000));
    ASSERT_EQ(0, unlink(path.c_str()));
    log.AddLog(LOGLEVEL_INFO, "second");
    ASSERT_TRUE(log.flush(60000));
    std::string text = kivtest::readFile(path);
    EXPECT_EQ(std::string::npos, text.find("first"));
    EXPECT_NE(std::string::npos, text.find("second"));

    kivtest::runCommand("rm -rf '" + logs() + "'");
    log.AddLog(LOGLEVEL_FATAL, "third");
    ASSERT_TRUE(log.flush(60000));
    EXPECT_NE(std::string::npos, kivtest::readFile(path).find("third"));
    EXPECT_NE(std::string::npos, kivtest::readFile(logs() + "/errors.log").find("third"));
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
                    if (i % 100 == 0) {
                        log.getFileSize();
                        log.getLogs();
                        log.setLogLevel(LOGLEVEL_DEBUG);
                    }
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

// Several processes log to one file with a small limit: every line in the
// file and its backup is whole.
TEST_F(LoggerTest, ProcessesShareOneRotatingFileWithoutTornLines) {
    const int kProcesses = 3, kLines = 400;
    std::string path = logs() + "/shared.log";
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            freopen("/dev/null", "w", stdout);
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
        ASSERT_FALSE(text.empty()) << file;
        EXPECT_EQ('\n', text.back());
        for (const std::string& l : lines(text)) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(l, m, re)) << file << ": " << l;
            EXPECT_EQ(std::string((std::stoi(m[2]) * 7) % 90, 'a' + std::stoi(m[1])), m[3].str());
        }
        // A file grows past the limit by at most one line per process.
        EXPECT_LT(text.size(), 8192u + kProcesses * 200);
    }
}

}  // namespace
