// The modes of what the product creates in its fixed folders: the logs
// folder, log files, the data folder and CrashReports.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include "CrashReport.h"
#include "diag/CBBLog.h"
#include "files/CFileTools.h"
#include "host/Preferences.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

namespace {

unsigned modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 01000000;  // no mode when missing
}

// Folders 0750 and log files 0640 by default, 0777 and 0666 with
// "app.sharedFileModes"; set explicitly, so a umask of 0 (which would leave
// the old world-writable modes) or 022 (which would take the shared write
// bits off) changes nothing.
TEST(FileModes, PrivateByDefaultSharedOnRequestWhateverTheUmask) {
    for (bool shared : {false, true}) {
        SCOPED_TRACE(shared ? "shared" : "private");
        kivtest::TempDir dir("modes");
        kivtest::ScopedEnv root("KIV_ROOT", (dir.path() + "/root").c_str());
        ASSERT_TRUE(Preferences::Set("com.kiv-foundry.kiv.config", "app.sharedFileModes",
                                     Preferences::Value::ofBool(shared)));
        mode_t oldMask = umask(shared ? 022 : 0);
        std::string logs = dir.path() + "/root/Library/Logs/KivFoundry";
        {
            CBBLog log("modes.log", false, 524288);
            log.setLogLevel(LOGLEVEL_DEBUG);
            log.AddLog(LOGLEVEL_FATAL, "opens both files");
            EXPECT_TRUE(log.flush(60000));
        }
        std::string data = CFileTools::GetKivDataFolder();
        std::string crashReports;
        EXPECT_NO_THROW(crashReports = crashReportsFolder());
        umask(oldMask);

        const unsigned folder = shared ? 0777 : 0750, file = shared ? 0666 : 0640;
        EXPECT_EQ(folder, modeOf(logs));
        EXPECT_EQ(file, modeOf(logs + "/modes.log"));
        EXPECT_EQ(file, modeOf(logs + "/errors.log"));
        EXPECT_EQ(folder, modeOf(data));
        EXPECT_EQ(data + "/CrashReports", crashReports);
        EXPECT_EQ(folder, modeOf(crashReports));
    }
    Preferences::Remove("com.kiv-foundry.kiv.config", "app.sharedFileModes");
}

}  // namespace
