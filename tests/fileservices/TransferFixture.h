// End to end: nats-server, the real KivRequestProxy and the real
// kiv-media-catalog (as "KivMediaV2", over a catalog written into the test's
// folder), plus a client. Media files live in `media`.
#pragma once

#include <unistd.h>

#include "tests/proxy/ProxyFixture.h"
#include "variant/VUtil.h"

class TransferTest : public ProxyTest {
protected:
    void SetUp() override {
        ProxyTest::SetUp();
        if (HasFatalFailure()) return;
        if (maxPayload() > 0) {
            ownServer.reset(new kivtest::NatsServer(maxPayload()));
            ASSERT_TRUE(ownServer->start()) << ownServer->error();
            ASSERT_TRUE(setting("cabDirectory.port", ownServer->port()));
            client.reset(new CabClient);
            ASSERT_EQ(client->Connect(ownServer->hostPort().c_str(), "TransferTestClient"), 0);
        }
        ASSERT_TRUE(startProxy()) << proxyOutput();
    }
    void TearDown() override {
        stopCatalog();
        ProxyTest::TearDown();
        ownServer.reset();
    }
    // Non-zero: the proxy and the client use a directory of their own with this
    // message size limit (big transfers then travel in fewer parts).
    virtual int maxPayload() const { return 0; }
    std::string hostPort() const override { return ownServer ? ownServer->hostPort() : server.hostPort(); }

    // Starts kiv-media-catalog over `catalogJson`; true once it says "ready".
    bool startCatalog(const std::string& catalogJson) {
        const std::string file = media.file("catalog.json"), out = media.file("catalog.out");
        kivtest::writeFile(file, catalogJson);
        const std::string command = std::string(KIV_BINARY_DIR) + "/bin/kiv-media-catalog --catalog " + file +
                                    " --root " + media.path() + " --server " + hostPort();
        catalogPid = std::stoi(kivtest::runCommand(command + " >" + out + " 2>&1 & echo $!"));
        for (int i = 0; i < 3000 && kill(catalogPid, 0) == 0; ++i, usleep(20000))  // a safety net of 60 s
            if (kivtest::readFile(out).find("ready\n") != std::string::npos) return true;
        return false;
    }
    void stopCatalog() {
        if (catalogPid > 0) kill(catalogPid, SIGTERM);
        catalogPid = -1;
    }

    // "GetFile" of the JSON in-array; *bytes gets the block.
    int getFile(const std::string& in, std::string* bytes) {
        CLocalVariant out;
        const int status = call("GetFile", in, out.ptr());
        *bytes = bytesOf(out.get());
        EXPECT_TRUE(status != 0 || out.vt() == (VT_ARRAY | VT_UI1)) << out.vt();
        return status;
    }
    // [path, offset, max] with both counts of variant type `type` ("I4", "UI8", ...).
    int getFile(const std::string& path, const std::string& type, long long offset, long long max,
                std::string* bytes) {
        return getFile("[\"" + path + "\"," + typed(type, offset) + "," + typed(type, max) + "]", bytes);
    }
    // The JSON of the "QueryFileSize" answer to [medium, items], or "status N".
    std::string querySizes(const std::string& medium, const std::vector<std::string>& items) {
        CLocalVariant out;
        const int status = call("QueryFileSize", nlohmann::json::array({medium, items}).dump(), out.ptr());
        return status == 0 ? json(out.get()) : "status " + std::to_string(status);
    }

    std::unique_ptr<kivtest::NatsServer> ownServer;
    kivtest::TempDir media{"kivmedia"};
    pid_t catalogPid = -1;
};

// A deterministic pseudo-random byte string.
inline std::string patternBytes(size_t size, unsigned pattern) {
    std::string s(size, '\0');
    uint64_t x = 0x9E3779B97F4A7C15ull ^ pattern;
    for (char& c : s) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        c = static_cast<char>(x);
    }
    return s;
}
