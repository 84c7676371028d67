// The command-line client sets the level; a logger in this process then obeys it.
#include <gtest/gtest.h>

#include <string>

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

    // The other actions and their statuses.
    EXPECT_EQ("com.kiv-foundry.kiv\n", kivctl("defaults domains", &status));
    // A corrupt domain is a failure for readers, not an empty answer.
    kivtest::writeFile(m_dir.path() + "/config/kivfoundry/broken.json", "{");
    kivctl("defaults write com.kiv-foundry.kiv.config flag -bool no", &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ("0\n", kivctl("defaults read 'Software\\Kiv Foundry\\Kiv\\Config' flag", &status));
    const std::pair<const char*, int> runs[] = {
        {"read com.kiv-foundry.kiv.config nothing", 1}, {"delete com.kiv-foundry.kiv.config flag", 0},
        {"delete com.kiv-foundry.kiv.config flag", 1}, {"write com.kiv-foundry.kiv LogLevel -int four", 64},
        {"write com.kiv-foundry.kiv LogLevel -float 4", 64}, {"write com.kiv-foundry.kiv LogLevel -int -1", 0},
        {"--help", 0}, {"read broken", 2}};
    for (const auto& [args, expected] : runs) {
        kivctl(std::string("defaults ") + args, &status);
        EXPECT_EQ(expected, status) << args;
    }
    EXPECT_EQ("-1\n", kivctl("defaults read com.kiv-foundry.kiv LogLevel", &status));
}

}  // namespace
