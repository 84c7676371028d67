// End to end: nats-server, the real KivRequestProxy, the real kiv-media-catalog
// (as "KivMediaV2", over a catalog in `media`) and a client.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/proxy/ProxyFixture.h"
#include "tests/support/TempDir.h"

class TransferTest : public ProxyTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Non-zero: the proxy and the client use a server of their own with this message size limit.
    virtual int maxPayload() const { return 0; }
    std::string hostPort() const;
    // Starts kiv-media-catalog with `catalogJson`; waits for its "ready" line.
    bool startCatalog(const std::string& catalogJson);
    void stopCatalog();
    // "GetFile" of a JSON in-array, or of [path, offset, max] with both counts of type `vt`;
    // *bytes gets the block.
    int getFile(const std::string& jsonIn, std::string* bytes);
    int getFile(const std::string& path, VARTYPE vt, long long offset, long long max, std::string* bytes);
    // "QueryFileSize" of [medium, items]; *count and *total from the answer.
    int queryFileSize(const std::string& medium, const std::vector<std::string>& items, int* count,
                      long long* total);
    std::string proxyLog() const;
    bool waitForLog(const std::string& text);  // the logger writes on its own thread

    std::unique_ptr<kivtest::NatsServer> ownServer;
    kivtest::TempDir media{"kivmedia"};
    pid_t catalogPid = -1;
    int catalogOut = -1;
};

// A deterministic pseudo-random byte string.
std::string patternBytes(size_t size, unsigned pattern);
