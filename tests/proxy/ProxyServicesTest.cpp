// The version report and the diagnostic services of the running process.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "host/CRegistry.h"
#include "satellite/TimeZoneName.h"
#include "tests/proxy/ProxyFixture.h"
#include "tests/support/TempDir.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

TEST_F(ProxyTest, VersionReportHasSixElementsAndTheZoneFromTz) {
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "Version", CStdStr("7.1.2")));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                            "kiv.streaming.performanceIndex", CStdStr("42")));
    startProxy({{"TZ", ":Europe/Paris"}});
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    CLocalVariant out;
    time_t before = time(nullptr);
    ASSERT_EQ(call("my-KIV_GetVersion", "null", out.ptr()), 0);
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 6);
    CLocalVariant first;
    VUtil::GetElement(out.get(), 0, first.get());
    EXPECT_EQ(first.vt(), VT_EMPTY);
    EXPECT_EQ(VUtil::GetStringElement(out.get(), 1), "7.1.2");
    long when = VUtil::GetDateElement(out.get(), 2);
    EXPECT_LE(std::labs(when - static_cast<long>(before)), 5);
    EXPECT_EQ(VUtil::GetStringElement(out.get(), 3), ":Europe/Paris");  // exactly as set
    EXPECT_EQ(VUtil::GetStringElement(out.get(), 4), "42");
    EXPECT_EQ(VUtil::GetStringElement(out.get(), 5), "linux");
    EXPECT_EQ(stopProxy(SIGTERM), 0);

    // Without TZ the machine's own sources answer, as this process finds them.
    startProxy({{"TZ", ""}});
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    CLocalVariant out2;
    ASSERT_EQ(call("my-KIV_GetVersion", "null", out2.ptr()), 0);
    TimeZoneSources noTz;
    noTz.tzVariable = "KIV_TEST_NO_SUCH_VARIABLE";
    CStdStr zone = FindTimeZoneName(noTz);
    CLocalVariant third;
    VUtil::GetElement(out2.get(), 3, third.get());
    if (zone.empty())
        EXPECT_EQ(third.vt(), VT_EMPTY);
    else
        EXPECT_EQ(VUtil::GetStringElement(out2.get(), 3), zone);
    EXPECT_EQ(stopProxy(SIGTERM), 0);
}

TEST_F(ProxyTest, TailReturnsTheLastBytesCappedAndMissingFilesAre404) {
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("small.txt"), "abcd");
    std::string big(5000100, 'x');
    big.replace(big.size() - 5, 5, "TAIL!");
    kivtest::writeFile(dir.file("big.txt"), big);
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();

    CLocalVariant a;
    ASSERT_EQ(call("my-KIV_TailLog", "[\"" + dir.file("small.txt") + "\", 10]", a.ptr()), 0);
    EXPECT_EQ(json(a.get()), "[4,4,\"abcd\"]");

    CLocalVariant b;
    ASSERT_EQ(call("my-KIV_TailLog", "[\"" + dir.file("small.txt") + "\", 2]", b.ptr()), 0);
    EXPECT_EQ(json(b.get()), "[4,2,\"cd\"]");

    for (const char* count : {"-1", "6000000"}) {
        CLocalVariant c;
        ASSERT_EQ(call("my-KIV_TailLog", "[\"" + dir.file("big.txt") + "\", " + count + "]", c.ptr()), 0);
        EXPECT_EQ(VUtil::GetIntElement(c.get(), 0), 5000100) << count;
        EXPECT_EQ(VUtil::GetIntElement(c.get(), 1), 5000000) << count;
        CStdStr text = VUtil::GetStringElement(c.get(), 2);
        EXPECT_EQ(text.size(), 5000000u) << count;
        EXPECT_TRUE(text.EndsWith("TAIL!")) << count;
    }

    CLocalVariant d;
    EXPECT_EQ(call("my-KIV_TailLog", "[\"" + dir.file("missing.txt") + "\", 10]", d.ptr()), 404);
    EXPECT_EQ(d.vt(), VT_EMPTY);
    EXPECT_EQ(stopProxy(SIGTERM), 0);
}

TEST_F(ProxyTest, ConfigIsSortedMasksCredentialsAndDataFolderIsUnderTheRootOrThrows) {
    const char* key = "Software\\Kiv Foundry\\Kiv\\Config";
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(key, "zeta", CStdStr("last")));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(key, "alpha", CStdStr("first")));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(key, "app.fileBrowser.enabled", CStdStr("true")));
    // Credentials by the end of their name, in any case; near misses are shown.
    const std::map<std::string, std::string> secrets = {{"mail.apiToken", "Secret-1"},
                                                        {"mail.ADMINPASSWORD", "Secret-2"},
                                                        {"backup.nkeySeed", "Secret-3"},
                                                        {"backup.nkeyseedfile", "Secret-4"}};
    for (const auto& s : secrets) ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(key, s.first, CStdStr(s.second)));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(key, "mail.tokenLimit", CStdStr("7x")));
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    CLocalVariant out;
    ASSERT_EQ(call("GetKivConfig", "null", out.ptr()), 0);
    int n = VUtil::GetArrayLength(out.get());
    ASSERT_GE(n, 10);  // the eight above plus cabDirectory.host and .port
    CStdStr previous;
    std::map<std::string, std::string> shown;
    for (int i = 0; i < n; ++i) {
        CLocalVariant pair;
        VUtil::GetElement(out.get(), i, pair.get());
        ASSERT_EQ(pair.vt(), VT_ARRAY | VT_BSTR);
        CStdStr name, value;
        VUtil::GetElement(pair.get(), 0, name);
        VUtil::GetElement(pair.get(), 1, value);
        EXPECT_LT(previous, name);
        previous = name;
        shown[name] = value;
    }
    EXPECT_EQ(shown.begin()->first, "alpha");
    EXPECT_EQ(shown.begin()->second, "first");
    EXPECT_EQ(shown["mail.tokenLimit"], "7x");
    for (const auto& s : secrets) EXPECT_EQ(shown[s.first], "********") << s.first;

    CLocalVariant folder;
    ASSERT_EQ(call("GetKivDataFolder", "null", folder.ptr()), 0);
    ASSERT_EQ(folder.vt(), VT_BSTR);
    std::string expected = std::string(getenv("KIV_ROOT")) + "/Library/KivFoundry";
    EXPECT_EQ(std::string(folder.get().bstrVal), expected);
    struct stat st;
    ASSERT_EQ(stat(expected.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    // A data folder that cannot be made reaches the caller as the handler's exception, with its text.
    std::filesystem::rename(expected, expected + ".away");
    std::filesystem::create_symlink(expected + ".nowhere/x", expected);
    CLocalVariant none;
    EXPECT_EQ(call("GetKivDataFolder", "null", none.ptr()), CAB_E_HANDLER_EXCEPTION);
    EXPECT_NE(CabGetLastError().find("Failed to create Kiv data folder"), std::string::npos) << CabGetLastError();
    std::filesystem::remove(expected);  // the binary's later tests share this root
    std::filesystem::rename(expected + ".away", expected);
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    // No credential reached the proxy's output or its log.
    std::string logged = proxyOutput() + kivtest::readFile(logsFolder() + "/KivRequestProxy.log");
    for (const auto& s : secrets) EXPECT_EQ(logged.find(s.second), std::string::npos) << s.first;
}

TEST_F(ProxyTest, GenerateCrashEndsTheProcessThroughTheCrashHandler) {
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    // The request never gets an answer; a short-lived client sends it so the
    // test does not wait for the request time-out.
    std::thread sender([this] {
        CabClient c;
        c.setRequestTimeoutMs(2000);
        if (c.Connect(server.hostPort().c_str(), "CrashSender") != 0) return;
        CLocalVariant in, out, rc;
        in.get().vt = VT_I4;
        in.get().lVal = 7;
        c.Request("VorpaMediaProxy", "GenerateCrash", in.get(), out.ptr(), 0, rc.ptr());
    });
    int status = waitProxy();
    sender.join();
    EXPECT_EQ(status, 0) << proxyOutput();
    std::string errors = kivtest::readFile(logsFolder() + "/errors.log");
    EXPECT_NE(errors.find("crash of KivRequestProxy. minidump generated as "), std::string::npos) << errors;

    // The reporter beside the executable filed the dump with a summary.
    std::string reports = std::string(getenv("KIV_ROOT")) + "/Library/KivFoundry/CrashReports";
    int dumps = 0, summaries = 0;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(reports, ec)) {
        if (e.path().extension() == ".dmp") ++dumps;
        if (e.path().extension() == ".json") {
            ++summaries;
            EXPECT_NE(kivtest::readFile(e.path().string()).find("KivRequestProxy"), std::string::npos);
        }
    }
    EXPECT_EQ(dumps, 1) << reports;
    EXPECT_EQ(summaries, 1) << reports;
}
