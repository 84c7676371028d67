// Start and stop of the real process, and the service table it publishes.
#include <signal.h>

#include <chrono>
#include <thread>

#include <nlohmann/json.hpp>

#include "host/CRegistry.h"
#include "tests/proxy/ProxyFixture.h"
#include "tests/support/TempDir.h"

// The proxy publishes its eleven services in order with their descriptions,
// and SIGTERM and SIGINT end it with status 0.
TEST_F(ProxyTest, PublishesItsServicesAndSigtermAndSigintEndItWithStatusZero) {
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    std::vector<std::string> replies;
    ASSERT_EQ(client->Discover("INFO", "VorpaMediaProxy", 3000, &replies), 0);
    ASSERT_EQ(replies.size(), 1u);
    nlohmann::json info = nlohmann::json::parse(replies[0]);
    EXPECT_EQ(info["name"], "VorpaMediaProxy");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"QueryFileSize", "Get file size"}, {"GetFile", "Download a file"}, {"my-KIV_GetVersion", "Get Kiv version"},
        {"my-KIV_TailLog", ""}, {"MultiRequest", ""}, {"CreateZip", ""}, {"DeleteTempFile", ""},
        {"GetKivDataFolder", ""}, {"GetKivConfig", ""}, {"GenerateCrash", ""},
        {"ZipLogs", "Inparams: none; Outparams = (string)zipPath"},
    };
    const auto& endpoints = info["endpoints"];
    ASSERT_EQ(endpoints.size(), expected.size()) << info.dump(2);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(endpoints[i]["name"], expected[i].first) << i;
        EXPECT_EQ(endpoints[i]["metadata"]["description"], expected[i].second) << i;
        EXPECT_EQ(endpoints[i]["subject"], "cab.VorpaMediaProxy." + expected[i].first) << i;
    }
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    std::string out = proxyOutput();
    EXPECT_NE(out.find("[INFO ] - Starting"), std::string::npos) << out;
    EXPECT_NE(out.find("Register returned 0x0"), std::string::npos) << out;

    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    EXPECT_EQ(stopProxy(SIGINT), 0);
    // The log file holds what the writer thread drained before the exit.
    std::string log = kivtest::readFile(logsFolder() + "/KivRequestProxy.log");
    EXPECT_NE(log.find("~KivModuleBase KivRequestProxy"), std::string::npos) << log;
}

TEST_F(ProxyTest, FailingRegisterIsLoggedAndExitsWithStatusZero) {
    server.stop();  // no directory at the configured port
    startProxy();
    EXPECT_EQ(waitProxy(), 0);
    std::string out = proxyOutput();
    EXPECT_NE(out.find("Register returned 0x"), std::string::npos) << out;
    EXPECT_EQ(out.find("Register returned 0x0\n"), std::string::npos) << out;
}

TEST_F(ProxyTest, SigtermWithASlowRequestInFlightEndsWithinTheGrace) {
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                           "cabDirectory.shutdownGraceMs", 1000));
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    int status = 0;
    std::thread requester([&] {
        CLocalVariant out;
        status = call("MultiRequest", R"([["EchoA", "Sleep", 20000]])", out.ptr());
    });
    // The sub-request is on its way once the proxy logs it.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (proxyOutput().find("Request Sleep...") == std::string::npos && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    requester.join();
    EXPECT_LT(seconds, 3.0) << "the grace is 1 s, and the process has 2 s more";
    EXPECT_EQ(status, CAB_E_CANCELLED) << proxyOutput();
}
