// A real nats-server, the real KivRequestProxy executable connected to it, an
// echo satellite "EchoA" and a client, all inside the test's KIV_ROOT and
// settings folder.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

#include "cab/CabSatellite.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProxyProcess.h"
#include "tools/cab-echo/EchoSatellite.h"
#include "variant/CLocalVariant.h"

class ProxyTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the proxy with extra environment variables (an empty value unsets one).
    pid_t startProxy(const std::map<std::string, std::string>& env = {});
    // Waits until "VorpaMediaProxy" answers; false after the safety time-out.
    bool waitUntilServing();
    // Sends `signal`, waits for the process and returns its exit status (-1 when killed).
    int stopProxy(int signal);
    // Waits for the proxy to end by itself; its exit status, or -1 when killed by a signal.
    int waitProxy();
    // Request to the proxy; returns the service's status (or the library's code).
    int call(const char* service, const tagVARIANT& in, tagVARIANT* out);
    int call(const char* service, const std::string& jsonIn, tagVARIANT* out);
    std::string proxyOutput() const;
    std::string logsFolder() const;

    kivtest::NatsServer server{64 * 1024};
    std::unique_ptr<EchoSatellite> echo;
    std::unique_ptr<CabClient> client;
    kivtest::ProxyProcess proxy;
    std::string outputPath;
};

// JSON text of a variant, for compact assertions.
std::string json(const tagVARIANT& v);
