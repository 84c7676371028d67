// End to end: nats-server, the real KivRequestProxy and the real
// kiv-media-catalog (as "KivMediaV2", over a catalog written into the test's
// folder), plus a client. Media files live in `media`.
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
    // Non-zero: the proxy and the client use a directory of their own with this
    // message size limit (big transfers then travel in fewer parts).
    virtual int maxPayload() const { return 0; }
    // "127.0.0.1:PORT" of the directory in use.
    std::string hostPort() const;

    // Starts kiv-media-catalog with `catalogJson`; waits for its "ready" line.
    bool startCatalog(const std::string& catalogJson);
    void stopCatalog();

    // "GetFile" with the given in-array; *bytes gets the block's contents.
    int getFile(const tagVARIANT& in, std::string* bytes);
    // [path] or [path, offset, max] with both counts of variant type `vt`.
    int getFile(const std::string& path, std::string* bytes);
    int getFile(const std::string& path, VARTYPE vt, long long offset, long long max, std::string* bytes);
    // "QueryFileSize" of [medium, items]; *count and *total from the answer.
    int queryFileSize(const std::string& medium, const std::vector<std::string>& items, int* count,
                      long long* total);
    std::string proxyLog() const;
    // Waits until the proxy's log holds `text` (the logger writes on its own thread).
    bool waitForLog(const std::string& text);

    std::unique_ptr<kivtest::NatsServer> ownServer;
    kivtest::TempDir media{"kivmedia"};
    pid_t catalogPid = -1;
    int catalogOut = -1;
};

// A deterministic pseudo-random byte string.
std::string patternBytes(size_t size, unsigned pattern);
