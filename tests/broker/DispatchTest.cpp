// How served requests reach their handlers: concurrently within one service,
// queued beyond the cap, answered CAB_E_CANCELLED when the satellite leaves
// (running or still queued), and gone with a removed service.
#include <chrono>
#include <thread>
#include <vector>

#include <nats/nats.h>

#include "cab/CabConnection.h"
#include "cab/CabStatus.h"
#include "host/CRegistry.h"
#include "host/PThread.h"
#include "tests/broker/BrokerTestFixture.h"

namespace {

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
        ++holding;
        lock.broadcast();
        while (!open) lock.wait();
        --holding;
        lock.broadcast();
        return 0;
    }
    void waitHolding(int n) {
        PLockGuard guard(lock);
        while (holding < n) lock.wait();
    }
    void openAndWaitEmpty() {
        PLockGuard guard(lock);
        open = true;
        lock.broadcast();
        while (holding > 0) lock.wait();
    }
    PCondMutex lock;   // guards the four below
    int inside = 0;    // lock: in "Meet"
    int holding = 0;   // lock: in "Hold"
    int expected = 3;  // lock
    bool open = false; // lock
};

}  // namespace

TEST_F(BrokerTest, RequestsToOneServiceRunTogether) {
    GateSatellite gate;
    ASSERT_EQ(0, gate.Connect(server.hostPort().c_str(), "Gate"));
    // One request first, so that the service threads are in their steady
    // state: a handler that blocks is relieved by the deputy.
    Var in, out;
    {
        PLockGuard guard(gate.lock);
        gate.expected = 1;
    }
    ASSERT_EQ(0, call("Gate", "Meet", in.v, &out));
    {
        PLockGuard guard(gate.lock);
        gate.expected = 4;
    }
    std::vector<std::thread> ts;
    std::vector<int> status(3, -1);
    for (int i = 0; i < 3; ++i)
        ts.emplace_back([&, i] {
            Var in, out;
            status[i] = call("Gate", "Meet", in.v, &out);
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(std::vector<int>(3, 0), status) << "handlers of one service did not run at the same time";
}

TEST_F(BrokerTest, LeavingAnswersRunningAndQueuedRequestsCancelled) {
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                           "cabDirectory.shutdownGraceMs", 300));
    GateSatellite gate;
    gate.setMaxHandlers(1);
    ASSERT_EQ(0, gate.Connect(server.hostPort().c_str(), "Gate"));
    int status = -1;
    std::thread first([&] {
        Var in, out;
        status = call("Gate", "Hold", in.v, &out);
    });
    gate.waitHolding(1);
    // The second waits in the subscription: the one handler allowed is busy.
    // After the flush's round trip the server has routed it to the satellite.
    natsConnection* nc = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_ConnectTo(&nc, server.url().c_str()));
    natsSubscription* answers = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_SubscribeSync(&answers, nc, "queued.answer"));
    natsMsg* m = nullptr;
    natsMsg_Create(&m, "cab.Gate.Hold", "queued.answer", nullptr, 0);
    natsMsgHeader_Set(m, "Cab-Proto", "1");
    ASSERT_EQ(NATS_OK, natsConnection_PublishMsg(nc, m));
    natsMsg_Destroy(m);
    ASSERT_EQ(NATS_OK, natsConnection_Flush(nc));
    auto start = std::chrono::steady_clock::now();
    gate.Disconnect();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2300));  // grace + close
    first.join();
    EXPECT_EQ(CAB_E_CANCELLED, status);
    natsMsg* r = nullptr;
    EXPECT_EQ(NATS_OK, natsSubscription_NextMsg(&r, answers, 30000));
    const char* queued = nullptr;
    if (r) natsMsgHeader_Get(r, "Cab-Status", &queued);
    EXPECT_EQ(std::to_string(CAB_E_CANCELLED), queued ? queued : "");
    natsMsg_Destroy(r);
    natsSubscription_Destroy(answers);
    natsConnection_Destroy(nc);
    EXPECT_EQ(1, gate.handlersStillRunning());
}

TEST_F(BrokerTest, ARemovedServiceIsNoLongerServed) {
    GateSatellite gate;
    ASSERT_EQ(0, gate.Connect(server.hostPort().c_str(), "Gate"));
    {
        PLockGuard guard(gate.lock);
        gate.expected = 1;
    }
    Var in, out;
    ASSERT_EQ(0, call("Gate", "Meet", in.v, &out));
    ASSERT_EQ(0, gate.RemoveService("Meet"));
    int rc = 0;
    call("Gate", "Meet", in.v, &out, &rc);
    EXPECT_EQ(CAB_E_NO_SUCH_SERVICE, rc) << CabGetLastError();
    EXPECT_EQ(0, call("EchoA", "Echo", in.v, &out));
}
