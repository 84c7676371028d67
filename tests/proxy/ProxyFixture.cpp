#include "tests/proxy/ProxyFixture.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

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
    ASSERT_EQ(client->Connect(server.hostPort().c_str(), "ProxyTestClient"), 0);
    std::string root = getenv("KIV_ROOT");
    std::error_code ec;
    std::filesystem::create_directories(root, ec);
    outputPath = root + "/proxy.out";
}

void ProxyTest::TearDown() {
    if (proxy > 0) stopProxy(SIGKILL);
    client.reset();
    echo.reset();
}

pid_t ProxyTest::startProxy(const std::map<std::string, std::string>& env) {
    std::string exe = std::string(KIV_BINARY_DIR) + "/bin/KivRequestProxy";
    pid_t pid = fork();
    if (pid == 0) {
        for (const auto& e : env) {
            if (e.second.empty())
                unsetenv(e.first.c_str());
            else
                setenv(e.first.c_str(), e.second.c_str(), 1);
        }
        // Each start replaces the output of the one before.
        if (!freopen(outputPath.c_str(), "w", stdout)) _exit(126);
        dup2(fileno(stdout), 2);
        // The test process may have these blocked; the proxy must start clean.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl(exe.c_str(), exe.c_str(), (char*)nullptr);
        _exit(127);
    }
    proxy = pid;
    return pid;
}

bool ProxyTest::waitUntilServing() {
    // The directory answers "no responders" at once until the proxy has
    // subscribed, so each try is quick; the deadline is only a safety net.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        CLocalVariant in, out, rc;
        client->Request("VorpaMediaProxy", "GetKivConfig", in.get(), out.ptr(), 0, rc.ptr());
        if (CabRetcode(rc.get()) != CAB_E_NO_SUCH_SERVICE) return true;
        int status = 0;
        if (proxy > 0 && waitpid(proxy, &status, WNOHANG) == proxy) {
            proxy = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int ProxyTest::waitProxy() {
    int status = 0;
    pid_t pid = proxy;
    proxy = -1;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int ProxyTest::stopProxy(int signal) {
    if (proxy <= 0) return -2;
    kill(proxy, signal);
    return waitProxy();
}

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
