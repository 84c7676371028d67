// The reporter command line and the defaults of MiniDumper, without crashing.
#include <gtest/gtest.h>
#include <signal.h>

#include <exception>

#include "diag/MiniDumper.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"

namespace {


TEST(MiniDumperCommand, DefaultsAndTheThreeArgumentForm) {
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
}

TEST(MiniDumperCommand, ExtraArgumentsWinOverAppDataAndReporterDefaultsToTheCurrentFolder) {
    MiniDumper d("App", "one", "two three", "/d");
    d.setAppData("ignored");
    EXPECT_EQ("./KivCrashReporter \"/d/id.dmp\" \"App\" \"one\" \"two three\"", d.commandLine("/d/id.dmp"));
    EXPECT_EQ("/d/", d.getDumpDirectory());
}

TEST(MiniDumperCommand, BlanksInTheReporterPathAreEscapedOnce) {
    EXPECT_EQ("/a\\ b/c\\ \\ d", MiniDumper::escapeBlanks("/a b/c  d"));
    EXPECT_EQ("/a\\ b", MiniDumper::escapeBlanks("/a\\ b"));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "InstallDir",
                                                           CStdStr("/opt/My Kiv")));
    MiniDumper d("App", true, true, true, false, false);
    EXPECT_EQ("/opt/My\\ Kiv/bin/KivCrashReporter", d.getCrashReporterPath());
    EXPECT_EQ("/opt/My\\ Kiv/bin/KivCrashReporter \"/tmp/i.dmp\" \"App\"", d.commandLine("/tmp/i.dmp"));
    d.SetCrashReporterPath("/x y/KivCrashReporter");  // as given; the next initialisation escapes it
    EXPECT_EQ("/x y/KivCrashReporter", d.getCrashReporterPath());
    d.initialize(false, false);
    EXPECT_EQ("/x\\ y/KivCrashReporter", d.getCrashReporterPath());
}

}  // namespace

namespace {

void (*currentHandler(int sig))(int) {
    struct sigaction sa;
    sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

TEST(MiniDumperHandlers, InstalledByTheNameConstructorAndPutBackOnDestruction) {
    void (*usr1Before)(int) = currentHandler(SIGUSR1);
    void (*abrtBefore)(int) = currentHandler(SIGABRT);
    void (*segvBefore)(int) = currentHandler(SIGSEGV);
    std::terminate_handler terminateBefore = std::get_terminate();
    {
        MiniDumper d("App");
        EXPECT_EQ(&usr1Handler, currentHandler(SIGUSR1));
        EXPECT_EQ(&abortHandler, currentHandler(SIGABRT));
        EXPECT_EQ(&terminateHandler, std::get_terminate());
        EXPECT_NE(segvBefore, currentHandler(SIGSEGV));
        d.initialize(true, true);  // a second initialisation keeps them in place
        EXPECT_EQ(&abortHandler, currentHandler(SIGABRT));
    }
    EXPECT_EQ(usr1Before, currentHandler(SIGUSR1));
    EXPECT_EQ(abrtBefore, currentHandler(SIGABRT));
    EXPECT_EQ(segvBefore, currentHandler(SIGSEGV));
    EXPECT_EQ(terminateBefore, std::get_terminate());
}

}  // namespace
