// Start and stop of the real process, and the service table it publishes.
#include <nlohmann/json.hpp>

#include "tests/proxy/ProxyFixture.h"

// The eleven services in order with their descriptions; SIGTERM and SIGINT end the proxy with status 0.
TEST_F(ProxyTest, PublishesItsServicesAndSigtermAndSigintEndItWithStatusZero) {
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
}

TEST_F(ProxyTest, FailingRegisterIsLoggedAndExitsWithStatusZero) {
    server.stop();  // no directory at the configured port
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
    for (int i = 0; i < 3000 && proxyOutput().find("Request Sleep...") == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << "a grace of 1 s + 2 s";
    requester.join();
    EXPECT_EQ(status, CAB_E_CANCELLED) << proxyOutput();
}
