// Discovery answers and the loss and return of the directory.
#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/RawNats.h"

TEST_F(BrokerTest, DiscoveryDescribesTheSatelliteAndCountsRequests) {
    CLocalVariant out;
    ASSERT_EQ(0, call("EchoA", "Echo", "1", out.ptr()));
    ASSERT_EQ(0, call("EchoA", "Echo", "1", out.ptr()));
    ASSERT_EQ(CAB_E_HANDLER_EXCEPTION, call("EchoA", "Throw", "1", out.ptr()));
    // The fields that matter, by JSON pointer, of the one answer to `verb`
    // (asked of all, which waits its whole time, or of EchoA alone).
    nlohmann::json j;
    auto expectFields = [&](const char* verb, const char* name,
                            const std::vector<std::pair<std::string, nlohmann::json>>& fields) {
        std::vector<std::string> replies;
        ASSERT_EQ(0, client->Discover(verb, name, 5000, &replies));
        ASSERT_EQ(1u, replies.size()) << "only satellites with services answer";
        j = nlohmann::json::parse(replies[0]);
        EXPECT_EQ(8u, j["endpoints"].size());
        for (const auto& [pointer, value] : fields)
            EXPECT_EQ(j.value(nlohmann::json::json_pointer(pointer), nlohmann::json()), value) << pointer;
    };
    expectFields("INFO", nullptr,
                 {{"/type", "io.nats.micro.v1.info_response"},
                  {"/name", "EchoA"},
                  {"/id", echo->instanceId()},
                  {"/endpoints/0/name", "Echo"},
                  {"/endpoints/0/subject", "cab.EchoA.Echo"},
                  {"/endpoints/0/queue_group", "EchoA"},
                  {"/endpoints/0/metadata/description", "Answers its input"},
                  {"/endpoints/2/name", "Throw"},
                  {"/endpoints/2/metadata/description", ""},
                  {"/endpoints/7/name", "Sleep"}});
    // On an open directory anybody may answer a request addressed to EchoA: an answer naming another is dropped.
    kivtest::RawInbox impostor(server.url(), "$SRV.STATS.EchoA");
    ASSERT_EQ(NATS_OK, natsConnection_Flush(impostor.nc));
    std::thread liar([&] {
        if (kivtest::Msg m = impostor.next(30000))
            natsConnection_PublishString(impostor.nc, natsMsg_GetReply(m.get()), R"({"name":"Other","id":"x"})");
    });
    expectFields("STATS", "EchoA",
                 {{"/type", "io.nats.micro.v1.stats_response"},
                  {"/endpoints/0/num_requests", 2},
                  {"/endpoints/0/num_errors", 0},
                  {"/endpoints/2/num_requests", 1},
                  {"/endpoints/2/num_errors", 1},
                  {"/endpoints/2/last_error", "bad argument from Throw"}});
    liar.join();
    EXPECT_FALSE(j["started"].get<std::string>().empty());
    EXPECT_GT(j["endpoints"][0]["processing_time"].get<int64_t>(), 0);
    std::vector<std::string> replies;
    ASSERT_EQ(0, client->Discover("PING", "NoSuch", 300, &replies));
    EXPECT_TRUE(replies.empty());
    CABSTATUS st = 0;
    EXPECT_EQ(0, client->DirectoryPingSatellite(nullptr, "EchoA", 0, 5000, &st));
    EXPECT_EQ(0, st);
}

// Under load the directory restarts: the satellite serves again. With the directory gone,
// Disconnect neither hangs nor crashes, and the satellite connects again once it is back.
TEST_F(BrokerTest, SatelliteServesAgainAfterTheDirectoryRestartsAndLeavesWithoutIt) {
    client->setRequestTimeoutMs(10000);
    std::atomic<bool> stop{false};
    std::atomic<int> ok{0}, wrongFailures{0};
    std::vector<std::thread> load;
    for (int t = 0; t < 4; ++t)
        load.emplace_back([&] {
            while (!stop) {
                CLocalVariant out;
                const int st = call("EchoA", "Sleep", "2", out.ptr());
                ok += st == 0;
                // While the directory is away: lost, not connected, or nobody (yet) subscribed again.
                if (st != 0 && st != CAB_E_CONNECTION_LOST && st != CAB_E_NOT_CONNECTED && st != CAB_E_NO_SUCH_SERVICE)
                    ++wrongFailures;
            }
        });
    kivtest::eventually([&] { return ok >= 20; }, 30000);
    ASSERT_TRUE(server.restart()) << server.error();
    const int before = ok;
    const bool served = kivtest::eventually([&] { return ok > before + 10; }, 30000);
    stop = true;
    for (auto& t : load) t.join();
    EXPECT_TRUE(served);
    EXPECT_EQ(0, wrongFailures.load());

    server.stop();
    EXPECT_EQ(0, echo->Disconnect());
    ASSERT_TRUE(server.restart()) << server.error();
    ASSERT_EQ(0, echo->Connect(server.hostPort().c_str(), "EchoA"));
    kivtest::eventually([&] { return client->isConnected(); }, 30000);  // on the client's own schedule
    CLocalVariant out;
    EXPECT_EQ(0, call("EchoA", "Echo", "9", out.ptr()));
    EXPECT_EQ("9", json(out.get()));
}
