// How served requests reach their handlers: concurrently within one service, answered CAB_E_CANCELLED when the
// satellite leaves (running or still queued), and gone with a removed service.
#include <chrono>
#include <thread>
#include <vector>

#include "host/CRegistry.h"
#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/RawNats.h"

TEST_F(BrokerTest, RequestsToOneServiceRunTogether) {
    GateSatellite gate;
    ASSERT_EQ(0, gate.Connect(server.hostPort().c_str(), "Gate"));
    // One request first, so that a handler that blocks is relieved by the deputy (the steady state).
    CLocalVariant out;
    gate.expect(1);
    ASSERT_EQ(0, call("Gate", "Meet", "null", out.ptr()));
    gate.expect(4);
    std::vector<std::thread> ts;
    std::vector<int> status(3, -1);
    for (int i = 0; i < 3; ++i)
        ts.emplace_back([&, i] {
            CLocalVariant out;
            status[i] = call("Gate", "Meet", "null", out.ptr());
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(std::vector<int>(3, 0), status) << "handlers of one service did not run at the same time";
}

// Ten times: a request right after RemoveService finds no such service (not a satellite leaving it waiting).
TEST_F(BrokerTest, ARemovedServiceIsNoLongerServed) {
    client->setRequestTimeoutMs(5000);
    CLocalVariant out;
    for (int i = 0; i < 10; ++i) {
        const std::string name = "Gone" + std::to_string(i);
        auto none = +[](const char*, const tagVARIANT&, tagVARIANT*) { return 0; };
        ASSERT_EQ(0, echo->AddService(name.c_str(), "", none));
        ASSERT_EQ(0, call("EchoA", name.c_str(), "null", out.ptr()));
        ASSERT_EQ(0, echo->RemoveService(name.c_str()));
        int rc = 0;
        call("EchoA", name.c_str(), "null", out.ptr(), &rc);
        EXPECT_EQ(CAB_E_NO_SUCH_SERVICE, rc) << name << ": " << CabGetLastError();
    }
    EXPECT_EQ(0, call("EchoA", "Echo", "1", out.ptr()));
}

TEST_F(BrokerTest, LeavingAnswersRunningAndQueuedRequestsCancelled) {
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                           "cabDirectory.shutdownGraceMs", 1000));
    GateSatellite gate;
    gate.setMaxHandlers(1);
    // Requests wait in several subscriptions (each with a leader): leaving waits for them once, not once each.
    const int kServices = 8;
    for (int i = 1; i < kServices; ++i)
        gate.AddService(("Hold" + std::to_string(i)).c_str(), "",
                        new CabSatelliteDelegateMember<GateSatellite>(&gate, &GateSatellite::hold));
    ASSERT_EQ(0, gate.Connect(server.hostPort().c_str(), "Gate"));
    int status = -1;
    std::thread first([&] {
        CLocalVariant out;
        status = call("Gate", "Hold", "null", out.ptr());
    });
    ASSERT_TRUE(gate.waitHolding(1));
    // The others wait, in their subscriptions or taken by their leaders: the one handler allowed is busy, whichever
    // service they ask for. After the flush's round trip the server has routed it to the satellite.
    kivtest::RawInbox answers(server.url(), "queued.answer");
    ASSERT_TRUE(answers.ok());
    for (int i = 0; i < 2 * kServices; ++i)
        ASSERT_EQ(NATS_OK,
                  kivtest::publish(answers.nc,
                                   "cab.Gate.Hold" + (i % kServices ? std::to_string(i % kServices) : "") + ".-",
                                   "Cab-Proto", "1", "", "queued.answer"));
    ASSERT_EQ(NATS_OK, natsConnection_Flush(answers.nc));
    auto start = std::chrono::steady_clock::now();
    gate.Disconnect();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));  // once each would take 8 s
    first.join();
    EXPECT_EQ(CAB_E_CANCELLED, status);
    for (int i = 0; i < 2 * kServices; ++i)
        ASSERT_EQ(std::to_string(CAB_E_CANCELLED), kivtest::header(answers.next().get(), "Cab-Status")) << i;
    EXPECT_GE(gate.handlersStillRunning(), 1);
    PLockGuard guard(gate.lock);
    EXPECT_EQ(1, gate.maxHolding) << "the cap holds across services";
}
