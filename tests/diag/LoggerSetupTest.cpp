// The level kivctl writes, and the modes of the logs folder, log files, the data folder and
// CrashReports.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "CrashReport.h"
#include "diag/CBBLog.h"
#include "files/CFileTools.h"
#include "host/Preferences.h"
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
