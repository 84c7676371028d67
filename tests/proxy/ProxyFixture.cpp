#include "tests/proxy/ProxyFixture.h"

#include <signal.h>

#include <cstdlib>
#include <filesystem>

#include "cab/VariantJson.h"
#include "host/CRegistry.h"
#include "tests/support/TempDir.h"

namespace {
const char* kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";
}

std::string json(const tagVARIANT& v) { return VariantToJson(v); }

void ProxyTest::SetUp() {
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.host", CStdStr("127.0.0.1")));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.port", server.port()));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 4));
    echo.reset(new EchoSatellite);
    ASSERT_EQ(echo->Connect(server.hostPort().c_str(), "EchoA"), 0);
    client.reset(new CabClient);
    client->setRequestTimeoutMs(60000);  // a lost request fails the test in a minute, not five
    ASSERT_EQ(client->Connect(server.hostPort().c_str(), "ProxyTestClient"), 0);
    std::string root = getenv("KIV_ROOT");
    std::error_code ec;
    std::filesystem::create_directories(root, ec);
    outputPath = root + "/proxy.out";
}

void ProxyTest::TearDown() {
    proxy.stop(SIGKILL);
    client.reset();
    echo.reset();
}

pid_t ProxyTest::startProxy(const std::map<std::string, std::string>& env) {
    return proxy.start(env, outputPath) ? proxy.pid() : -1;
}

bool ProxyTest::waitUntilServing() { return proxy.waitUntilServing(*client); }

int ProxyTest::waitProxy() { return proxy.wait(); }

int ProxyTest::stopProxy(int signal) { return proxy.stop(signal); }

int ProxyTest::call(const char* service, const tagVARIANT& in, tagVARIANT* out) {
    CLocalVariant rc;
    client->Request("VorpaMediaProxy", service, in, out, 0, rc.ptr());
    return CabRetcode(rc.get());
}

int ProxyTest::call(const char* service, const std::string& jsonIn, tagVARIANT* out) {
    CLocalVariant in;
    std::string error;
    EXPECT_TRUE(VariantFromJson(jsonIn, in.ptr(), &error)) << error;
    return call(service, in.get(), out);
}

std::string ProxyTest::proxyOutput() const { return kivtest::readFile(outputPath); }

std::string ProxyTest::logsFolder() const { return std::string(getenv("KIV_ROOT")) + "/Library/Logs/KivFoundry"; }
