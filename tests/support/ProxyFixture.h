// The proxy fixture shared by the proxy, archive and transfer tests: a real nats-server, the real KivRequestProxy
// executable, an echo satellite "EchoA" and a client, inside the test's KIV_ROOT and settings folder; the proxy serves
// the files of `data`. Also what those tests read archives with.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "cab/CabSatellite.h"
#include "files/CFileTools.h"
#include "tests/proxy/TestHelpers.h"
#include "tests/support/Eventually.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProxyProcess.h"
#include "tests/support/TempDir.h"
#include "tools/cab-echo/EchoSatellite.h"
#include "variant/VUtil.h"

namespace fs = std::filesystem;

class ProxyTest : public testing::Test {
protected:
    void SetUp() override {
        server.setMaxPayload(maxPayload());
        ASSERT_TRUE(server.start()) << server.error();
        ASSERT_TRUE(setting("cabDirectory.host", CStdStr("127.0.0.1")));
        ASSERT_TRUE(setting("cabDirectory.port", server.port()));
        ASSERT_TRUE(setting("cabDirectory.servers", CStdStr()));  // unset: a test may have named an old directory
        ASSERT_TRUE(setting("LogLevel", 4, "Software\\Kiv Foundry\\Kiv"));
        ASSERT_TRUE(setting("files.roots", CStdStr(data.path())));
        echo.reset(new EchoSatellite);
        ASSERT_EQ(echo->Connect(server.hostPort().c_str(), "EchoA"), 0);
        client.reset(new CabClient);
        client->setRequestTimeoutMs(60000);  // a lost request fails the test in a minute, not five
        ASSERT_EQ(client->Connect(server.hostPort().c_str(), "ProxyTestClient"), 0);
        fs::create_directories(root);
    }
    void TearDown() override {
        proxy.stop(SIGKILL);
        client.reset();
        echo.reset();
    }

    // The directory's message size limit (big answers travel in parts of it).
    virtual int maxPayload() const { return 64 * 1024; }
    std::string hostPort() const { return server.hostPort(); }
    // Starts the proxy (an empty value unsets a variable) and waits until it serves.
    bool startProxy(const std::map<std::string, std::string>& env = {}) {
        return proxy.start(env, root + "/proxy.out") && proxy.waitUntilServing(*client);
    }
    int stopProxy(int signal = SIGTERM) { return proxy.stop(signal); }
    // Request to the proxy; the service's status or the library's code.
    int call(const char* service, const tagVARIANT& in, tagVARIANT* out) {
        CLocalVariant rc;
        client->Request("VorpaMediaProxy", service, in, out, 0, rc.ptr());
        return CabRetcode(rc.get());
    }
    int call(const char* service, const std::string& jsonIn, tagVARIANT* out) {
        return call(service, JsonVariant(jsonIn).get(), out);
    }
    // kivctl VERB --server DIRECTORY REST after `prefix`, both outputs to *output; its exit status.
    int kivctl(const std::string& command, std::string* output = nullptr, const std::string& prefix = "") {
        const size_t verb = std::min(command.find(' '), command.size());
        int status = -1;
        const std::string out = kivtest::runCommand(prefix + KIV_BINARY_DIR "/bin/kivctl " + command.substr(0, verb) +
                                                        " --server " + hostPort() + command.substr(verb) +
                                                        " 2>&1 </dev/null",
                                                    &status);
        if (output) *output = out;
        return status;
    }
    std::string proxyOutput() const { return kivtest::readFile(root + "/proxy.out"); }
    // The proxy's log, its rotated part first (the binary's tests share it).
    std::string proxyLog() const {
        const std::string log = root + "/Library/Logs/KivFoundry/KivRequestProxy.log";
        return kivtest::readFile(log + ".back") + kivtest::readFile(log);
    }
    // Waits until the log holds `text` (the logger writes on its own thread).
    bool waitForLog(const std::string& text) {
        return kivtest::eventually([&] { return proxyLog().find(text) != std::string::npos; });
    }

    const std::string root = getenv("KIV_ROOT");
    kivtest::TempDir data{"kivdata"};  // the test's files, served to clients
    kivtest::NatsServer server;
    std::unique_ptr<EchoSatellite> echo;
    std::unique_ptr<CabClient> client;
    kivtest::ProxyProcess proxy;
};

// Entry name -> method column of `unzip -v` ("Stored", "Defl:X", ...); empty
// when `unzip -t` finds an error in the archive.
typedef std::map<std::string, std::string> Methods;
inline Methods zipMethods(const std::string& zip) {
    std::istringstream rows(kivtest::runCommand("unzip -tqq '" + zip + "' >/dev/null 2>&1 && unzip -v '" + zip +
                                                "' | awk '/^--------/ {n++; next} n == 1 {print $8, $2}'"));
    Methods out;
    for (std::string name, method; rows >> name >> method;) out[name] = method;
    return out;
}
