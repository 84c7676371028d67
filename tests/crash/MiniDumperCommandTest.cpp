// The reporter command line and the defaults of MiniDumper, without crashing.
#include <gtest/gtest.h>
#include <signal.h>

#include <exception>
#include <vector>

#include "diag/MiniDumper.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"

namespace {


TEST(MiniDumperCommand, DefaultsAndEachConstructorsCommandLineWithBlanksEscapedOnce) {
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

    // Blanks in the reporter path are escaped once.
    EXPECT_EQ("/a\\ b/c\\ \\ d", MiniDumper::escapeBlanks("/a b/c  d"));
    EXPECT_EQ("/a\\ b", MiniDumper::escapeBlanks("/a\\ b"));
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

}  // namespace
