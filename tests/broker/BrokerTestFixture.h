// A real nats-server, an echo satellite "EchoA" and a client; a satellite whose handlers wait for the test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "cab/CabConnection.h"
#include "cab/CabSatellite.h"
#include "host/PThread.h"
#include "tests/support/JsonVariant.h"
#include "tests/support/NatsServer.h"
#include "tools/cab-echo/EchoSatellite.h"

// A request on `c` with the input in its JSON form: returns the retcode (status),
// fills *out and, given rc, the library's own result.
int request(CabSatellite& c, const std::string& target, const char* service, const std::string& jsonIn, tagVARIANT* out,
            int* rc = nullptr);
// A client connected to `url`, as `user` when one is given.
std::unique_ptr<CabClient> connectClient(const std::string& url, const char* name, const char* user = nullptr,
                                         const char* password = nullptr, int timeoutMs = 60000);
// Wrong bytes in an echo "Blob" answer of `size` bytes (every `step`th byte and
// the last are checked); -1 when it is not a byte array of that size.
int64_t blobErrors(const tagVARIANT& v, int64_t size, int64_t step = 1);

class BrokerTest : public testing::Test {
protected:
    void SetUp() override;
    int call(const char* target, const char* service, const std::string& jsonIn, tagVARIANT* out, int* rc = nullptr) {
        return request(*client, target, service, jsonIn, out, rc);
    }

    kivtest::NatsServer server{64 * 1024};
    std::unique_ptr<EchoSatellite> echo;
    std::unique_ptr<CabClient> client;
};

// "Meet" returns once `expected` calls are inside it together, or fails
// after ten seconds; "Hold" blocks until the test opens the gate.
class GateSatellite : public CabSatellite {
public:
    ~GateSatellite() override { openAndWaitEmpty(); }  // a handler must end before the object goes
    int CreateServices() override {
        AddService("Meet", "", new CabSatelliteDelegateMember<GateSatellite>(this, &GateSatellite::meet));
        return AddService("Hold", "", new CabSatelliteDelegateMember<GateSatellite>(this, &GateSatellite::hold));
    }
    int meet(const char*, const tagVARIANT&, tagVARIANT*) {
        PLockGuard guard(lock);
        ++inside;
        lock.broadcast();
        struct timespec deadline = cabDeadline(10000);
        while (inside < expected)
            if (!lock.waitUntil(deadline)) return 1;
        return 0;
    }
    int hold(const char*, const tagVARIANT&, tagVARIANT*) {
        PLockGuard guard(lock);
        maxHolding = std::max(maxHolding, ++holding);
        lock.broadcast();
        while (!open) lock.wait();
        --holding;
        lock.broadcast();
        return 0;
    }
    void expect(int n) {
        PLockGuard guard(lock);
        expected = n;
    }
    bool waitHolding(int n) {  // false after a minute, a safety net only
        PLockGuard guard(lock);
        struct timespec deadline = cabDeadline(60000);
        while (holding < n)
            if (!lock.waitUntil(deadline)) return false;
        return true;
    }
    void openAndWaitEmpty() {
        PLockGuard guard(lock);
        open = true;
        lock.broadcast();
        while (holding > 0) lock.wait();
    }
    PCondMutex lock;     // guards the five below
    int inside = 0;      // lock: in "Meet"
    int holding = 0;     // lock: in "Hold"
    int maxHolding = 0;  // lock: most in "Hold" at once
    int expected = 3;    // lock
    bool open = false;   // lock
};
