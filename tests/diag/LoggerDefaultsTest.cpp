// The command-line client sets the level; a logger in this process then obeys it.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "diag/CBBLog.h"
#include "tests/diag/LoggerFixture.h"

namespace {

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

    // The other actions: their statuses and what they print.
    const std::tuple<std::string, int, const char*> actions[] = {
        {"domains", 0, "com.kiv-foundry.kiv\n"},
        {"write com.kiv-foundry.kiv.config flag -bool no", 0, ""},
        {"read 'Software\\Kiv Foundry\\Kiv\\Config' flag", 0, "0\n"},
        {"read com.kiv-foundry.kiv.config nothing", 1, nullptr},
        {"delete com.kiv-foundry.kiv.config flag", 0, nullptr},
        {"delete com.kiv-foundry.kiv.config flag", 1, nullptr},
        {"write com.kiv-foundry.kiv LogLevel -int four", 64, nullptr},
        {"write com.kiv-foundry.kiv LogLevel -float 4", 64, nullptr},
        {"write com.kiv-foundry.kiv LogLevel -int -1", 0, nullptr},
        {"read com.kiv-foundry.kiv LogLevel", 0, "-1\n"},
        {"--help", 0, nullptr},
    };
    for (const auto& [args, exit, printed] : actions) {
        const std::string out = kivctl("defaults " + args, &status);
        EXPECT_EQ(exit, status) << args;
        EXPECT_TRUE(!printed || out == printed) << args << ": " << out;
    }

    // A corrupt domain is a failure for readers, not an empty answer.
    kivtest::writeFile(m_dir->path() + "/config/kivfoundry/broken.json", "{");
    kivctl("defaults read broken", &status);
    EXPECT_EQ(2, status);
}

}  // namespace
