// kivctl against the running proxy: output and exit statuses.
#include <signal.h>

#include <string>

#include <nlohmann/json.hpp>

#include "tests/proxy/ProxyFixture.h"
#include "tests/support/TempDir.h"

namespace {
std::string kivctl() { return std::string(KIV_BINARY_DIR) + "/bin/kivctl"; }
}  // namespace

TEST_F(ProxyTest, KivctlCommandsAnswerWithTheirExitStatuses) {
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    const std::string k = kivctl() + " ";
    const std::string at = " --server " + server.hostPort();
    int status = -1;

    // call: 0 for status 0, 1 for another handler status, 2 for a library failure, 64 for bad JSON.
    std::string out = kivtest::runCommand(k + "call" + at + " VorpaMediaProxy GetKivDataFolder", &status);
    EXPECT_EQ(status, 0) << out;
    nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << out;
    EXPECT_EQ(j["status"], 0);
    EXPECT_EQ(j["out"], std::string(getenv("KIV_ROOT")) + "/Library/KivFoundry");

    kivtest::runCommand(k + "call" + at + " VorpaMediaProxy my-KIV_TailLog '[\"/no/such/file\", 5]'", &status);
    EXPECT_EQ(status, 1);
    kivtest::runCommand(k + "call" + at + " NoSuchSatellite Echo 2>/dev/null", &status);
    EXPECT_EQ(status, 2);
    kivtest::runCommand(k + "call" + at + " VorpaMediaProxy Echo '[1,' 2>/dev/null", &status);
    EXPECT_EQ(status, 64);

    // list: the proxy's services with their descriptions.
    out = kivtest::runCommand(k + "list" + at + " VorpaMediaProxy", &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("my-KIV_GetVersion"), std::string::npos) << out;
    EXPECT_NE(out.find("Inparams: none; Outparams = (string)zipPath"), std::string::npos) << out;

    // version, config, tail and multi.
    out = kivtest::runCommand(k + "version" + at, &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("platform:"), std::string::npos) << out;
    EXPECT_NE(out.find("linux"), std::string::npos) << out;

    out = kivtest::runCommand(k + "config" + at + " --json", &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(nlohmann::json::parse(out, nullptr, false).contains("cabDirectory.host")) << out;

    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("a.log"), "first\nsecond\n");
    out = kivtest::runCommand(k + "tail" + at + " -c 7 " + dir.file("a.log"), &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "second\n");
    kivtest::runCommand(k + "tail" + at + " " + dir.file("none.log") + " 2>/dev/null", &status);
    EXPECT_EQ(status, 1);

    out = kivtest::runCommand("echo '[[\"EchoA\",\"Echo\",7],[\"Nobody\",\"X\",1]]' | " + k + "multi" + at, &status);
    EXPECT_EQ(status, 0) << out;
    j = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(j.is_array() && j.size() == 2) << out;
    EXPECT_EQ(j[0]["status"], 0);
    EXPECT_EQ(j[0]["out"], 7);
    EXPECT_LT(j[1]["status"].get<int>(), 0);

    EXPECT_EQ(stopProxy(SIGTERM), 0);
}
