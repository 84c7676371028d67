// The real process: start and stop, the service table it publishes, the
// version report and the diagnostic services.
#include <nlohmann/json.hpp>

#include "satellite/TimeZoneName.h"
#include "tests/proxy/ProxyFixture.h"
#include "variant/VUtil.h"

// The eleven services in order with their descriptions; SIGTERM and SIGINT end the proxy with status 0,
// and so does a register that fails.
TEST_F(ProxyTest, PublishesItsServicesAndEndsWithStatusZeroOnSignalsOrAFailingRegister) {
    ASSERT_TRUE(startProxy()) << proxyOutput();
    std::vector<std::string> replies;
    ASSERT_EQ(client->Discover("INFO", "VorpaMediaProxy", 3000, &replies), 0);
    ASSERT_EQ(replies.size(), 1u);
    nlohmann::json info = nlohmann::json::parse(replies[0]);
    EXPECT_EQ(info["name"], "VorpaMediaProxy");
    const std::vector<std::pair<std::string, std::string>> expected = {{"QueryFileSize", "Get file size"},
        {"GetFile", "Download a file"}, {"my-KIV_GetVersion", "Get Kiv version"}, {"my-KIV_TailLog", ""},
        {"MultiRequest", ""}, {"CreateZip", ""}, {"DeleteTempFile", ""}, {"GetKivDataFolder", ""},
        {"GetKivConfig", ""}, {"GenerateCrash", ""},
        {"ZipLogs", "Inparams: none; Outparams = (string)zipPath"}};
    ASSERT_EQ(info["endpoints"].size(), expected.size()) << info.dump(2);
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(expected[i].first);
        EXPECT_EQ(info["endpoints"][i]["name"], expected[i].first);
        EXPECT_EQ(info["endpoints"][i]["metadata"]["description"], expected[i].second);
        EXPECT_EQ(info["endpoints"][i]["subject"], "cab.VorpaMediaProxy." + expected[i].first);
    }
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_THAT(proxyOutput(), HasSubstr("[INFO ] - Starting"));
    EXPECT_THAT(proxyOutput(), HasSubstr("Register returned 0x0"));
    ASSERT_TRUE(startProxy()) << proxyOutput();
    EXPECT_EQ(stopProxy(SIGINT), 0);
    // The log holds what the writer thread drained before the exit.
    EXPECT_THAT(proxyLog(), HasSubstr("~KivModuleBase KivRequestProxy"));

    // No directory at the configured port: the failing register is logged, and the exit status is 0.
    server.stop();
    ASSERT_TRUE(proxy.start({}, root + "/proxy.out"));
    EXPECT_EQ(proxy.wait(), 0);
    EXPECT_THAT(proxyOutput(), HasSubstr("Register returned 0x"));
    EXPECT_THAT(proxyOutput(), Not(HasSubstr("Register returned 0x0\n")));
}

TEST_F(ProxyTest, SigtermWithASlowRequestInFlightEndsWithinTheGrace) {
    ASSERT_TRUE(setting("cabDirectory.shutdownGraceMs", 1000));
    ASSERT_TRUE(startProxy()) << proxyOutput();
    int status = 0;
    std::thread requester([&] {
        CLocalVariant out;
        status = call("MultiRequest", R"([["EchoA", "Sleep", 20000]])", out.ptr());
    });
    // The sub-request is on its way once the proxy logs it.
    kivtest::eventually([&] { return proxyOutput().find("Request Sleep...") != std::string::npos; });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << "a grace of 1 s + 2 s";
    requester.join();
    EXPECT_EQ(status, CAB_E_CANCELLED) << proxyOutput();
}

TEST_F(ProxyTest, VersionReportHasSixElementsAndTheZoneFromTzAndTailReturnsTheLastBytesCapped) {
    ASSERT_TRUE(setting("Version", CStdStr("7.1.2"), "Software\\Kiv Foundry\\Kiv"));
    ASSERT_TRUE(setting("kiv.streaming.performanceIndex", CStdStr("42")));
    ASSERT_TRUE(startProxy({{"TZ", ":Europe/Paris"}})) << proxyOutput();
    CLocalVariant out, noTz;
    const time_t before = time(nullptr);
    ASSERT_EQ(call("my-KIV_GetVersion", "null", out.ptr()), 0);
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 6);
    EXPECT_LE(std::labs(VUtil::GetDateElement(out.get(), 2) - static_cast<long>(before)), 5);
    VUtil::PutElement(out.get(), 2, 0);  // the date is checked: the rest as JSON; the zone exactly as set
    EXPECT_EQ(json(out.get()), R"([null,"7.1.2",0,":Europe/Paris","42","linux"])");

    // The tail of a log: the last bytes, at most 5000000, and all of a file shorter than asked for.
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("small.txt"), "abcd");
    kivtest::writeFile(dir.file("big.txt"), std::string(5000095, 'x') + "TAIL!");
    CLocalVariant small;
    ASSERT_EQ(call("my-KIV_TailLog", "[\"" + dir.file("small.txt") + "\", 10]", small.ptr()), 0);
    EXPECT_EQ(json(small.get()), "[4,4,\"abcd\"]");
    for (const char* count : {"-1", "6000000"}) {
        CLocalVariant big;
        ASSERT_EQ(call("my-KIV_TailLog", "[\"" + dir.file("big.txt") + "\", " + count + "]", big.ptr()), 0);
        EXPECT_EQ(json(big.get()), "[5000100,5000000,\"" + std::string(4999995, 'x') + "TAIL!\"]") << count;
    }
    EXPECT_EQ(stopProxy(), 0);

    // Without TZ the machine's own sources answer, as this process finds them.
    ASSERT_TRUE(startProxy({{"TZ", ""}})) << proxyOutput();
    ASSERT_EQ(call("my-KIV_GetVersion", "null", noTz.ptr()), 0);
    TimeZoneSources sources;
    sources.tzVariable = "KIV_TEST_NO_SUCH_VARIABLE";
    const std::string expected = FindTimeZoneName(sources);
    const nlohmann::json zone = nlohmann::json::parse(json(noTz.get()))[3];
    EXPECT_EQ(zone, expected.empty() ? nullptr : nlohmann::json(expected));
}

TEST_F(ProxyTest, ConfigIsSortedMasksCredentialsAndDataFolderIsUnderTheRootOrThrows) {
    // Credentials by the end of their name, in any case; a near miss is shown.
    const std::map<std::string, std::string> secrets = {{"mail.apiToken", "Secret-1"},
        {"mail.ADMINPASSWORD", "Secret-2"},
        {"backup.nkeySeed", "Secret-3"}, {"backup.nkeyseedfile", "Secret-4"}};
    for (const auto& s : secrets) ASSERT_TRUE(setting(s.first.c_str(), CStdStr(s.second)));
    for (const char* name : {"zeta", "alpha", "mail.tokenLimit"}) ASSERT_TRUE(setting(name, CStdStr(name)));
    ASSERT_TRUE(startProxy()) << proxyOutput();
    CLocalVariant out, folder, none;
    ASSERT_EQ(call("GetKivConfig", "null", out.ptr()), 0);
    ASSERT_GE(VUtil::GetArrayLength(out.get()), 9);  // the seven above plus cabDirectory.host and .port
    std::map<std::string, std::string> shown;
    for (int i = 0; i < VUtil::GetArrayLength(out.get()); ++i) {  // sorted pairs of strings
        CLocalVariant pair;
        VUtil::GetElement(out.get(), i, pair.get());
        ASSERT_EQ(pair.vt(), VT_ARRAY | VT_BSTR);
        const std::string name = VUtil::GetStringElement(pair.get(), 0);
        EXPECT_TRUE(shown.empty() || shown.rbegin()->first < name) << name << " is out of order";
        shown[name] = VUtil::GetStringElement(pair.get(), 1);
    }
    EXPECT_EQ(*shown.begin(), (std::pair<const std::string, std::string>("alpha", "alpha")));
    EXPECT_EQ(shown["mail.tokenLimit"], "mail.tokenLimit");
    for (const auto& s : secrets) EXPECT_EQ(shown[s.first], "********") << s.first;

    ASSERT_EQ(call("GetKivDataFolder", "null", folder.ptr()), 0);
    const std::string data = root + "/Library/KivFoundry";
    EXPECT_EQ(json(folder.get()), "\"" + data + "\"");
    EXPECT_TRUE(std::filesystem::is_directory(data));
    // A data folder that cannot be made reaches the caller as the handler's exception, with its text.
    std::filesystem::rename(data, data + ".away");
    std::filesystem::create_symlink(data + ".nowhere/x", data);
    EXPECT_EQ(call("GetKivDataFolder", "null", none.ptr()), CAB_E_HANDLER_EXCEPTION);
    EXPECT_THAT(CabGetLastError(), HasSubstr("Failed to create Kiv data folder"));
    std::filesystem::remove(data);  // the binary's later tests share this root
    std::filesystem::rename(data + ".away", data);
    EXPECT_EQ(stopProxy(), 0);
    // No credential reached the proxy's output or its log.
    for (const auto& s : secrets) EXPECT_THAT(proxyOutput() + proxyLog(), Not(HasSubstr(s.second)));
}

TEST_F(ProxyTest, GenerateCrashEndsTheProcessThroughTheCrashHandler) {
    ASSERT_TRUE(startProxy()) << proxyOutput();
    // The request never gets an answer: a short-lived client sends it.
    std::thread sender([this] {
        CabClient c;
        c.setRequestTimeoutMs(2000);
        CLocalVariant out, rc;
        if (c.Connect(server.hostPort().c_str(), "CrashSender") == 0)
            c.Request("VorpaMediaProxy", "GenerateCrash", JsonVariant("7").get(), out.ptr(), 0, rc.ptr());
    });
    EXPECT_EQ(proxy.wait(), 0) << proxyOutput();
    sender.join();
    EXPECT_THAT(kivtest::readFile(root + "/Library/Logs/KivFoundry/errors.log"),
                HasSubstr("crash of KivRequestProxy. minidump generated as "));
    // The reporter beside the executable filed the dump with a summary that names the program.
    const std::string reports = "cd " + root + "/Library/KivFoundry/CrashReports && ";
    EXPECT_EQ(kivtest::runCommand(reports + "ls | sed 's/.*[.]//'"), "dmp\njson\n");
    EXPECT_EQ(kivtest::runCommand(reports + "grep -l KivRequestProxy *.json | wc -l"), "1\n");
}
