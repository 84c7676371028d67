// Serving: statuses of failed requests, malformed messages, leaving with requests still waiting.
#include <gmock/gmock.h>

#include <chrono>
#include <string>

#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/RawNats.h"
#include "value/Cab1.h"

// Each row: the status, the library's own result and a part of the error text.
TEST_F(BrokerTest, RequestsEndWithTheirStatusAndTheSatelliteKeepsServing) {
    const int E = CAB_E_HANDLER_EXCEPTION, N = CAB_E_NO_SUCH_SERVICE, I = CAB_E_INVALID_NAME;
    const struct {
        std::string target;
        const char* service;
        std::string in;
        int status, rc;
        const char* error;
    } rows[] = {
        {"EchoA", "Throw", "1", E, E, "bad argument from Throw"},
        {"EchoA", "ThrowStd", "1", E, E, "std failure from ThrowStd"},
        {"EchoA", "ThrowOther", "1", E, E, "unknown exception"},
        {"NoSuchSatellite", "Echo", "null", N, N, "NoSuchSatellite"},
        {"EchoA", "NoSuchService", "null", N, N, "EchoA"},
        {std::string(128, 'a'), "Echo", "null", N, N, ""},
        {std::string(129, 'a'), "Echo", "null", I, I, ""},
        {"Echo.A", "Echo", "null", I, I, ""},
        {"EchoA", "Echo Space", "null", I, I, ""},
        {"", "Echo", "null", I, I, ""},
        {"EchoA", "Echo", "\"" + std::string(128 * 1024, 'x') + "\"", CAB_E_TOO_LARGE, CAB_E_TOO_LARGE,
         "CAB_E_TOO_LARGE"},
        // A handler's own status is not a library failure.
        {"EchoA", "Status", "0", 0, 0, ""},
        {"EchoA", "Status", "7", 7, 0, ""},
        {"EchoA", "Status", "404", 404, 0, ""},
        {"EchoA", "Status", "-1", -1, 0, ""},
    };
    const auto start = std::chrono::steady_clock::now();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target.substr(0, 20) + " (" + std::to_string(row.target.size()) + ") " + row.service);
        CLocalVariant out;
        int rc = 99;
        EXPECT_EQ(row.status, call(row.target.c_str(), row.service, row.in, out.ptr(), &rc));
        EXPECT_EQ(row.rc, rc);
        EXPECT_EQ(VT_EMPTY, out.vt());
        EXPECT_THAT(CabGetLastError(), testing::HasSubstr(row.error));
    }
    // The time-out is 60 s: unknown names were answered by the no-responders notice.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    CLocalVariant out;
    EXPECT_EQ(0, call("EchoA", "Echo", "5", out.ptr()));
    EXPECT_EQ("5", json(out.get()));
    EXPECT_EQ(CAB_E_INVALID_NAME, echo->AddService("a.b", "", new CabSatelliteDelegateFunction(nullptr)));
    EXPECT_THAT(CabGetLastError(), testing::HasSubstr("a.b"));
    EXPECT_EQ(CAB_E_INVALID_NAME, echo->AddService("*", "", new CabSatelliteDelegateFunction(nullptr)));
    CabClient other;
    EXPECT_EQ(CAB_E_INVALID_NAME, other.Connect(server.hostPort().c_str(), "bad.name"));
    EXPECT_FALSE(other.isConnected());
}

TEST_F(BrokerTest, MalformedMessagesAreRefusedWithAStatus) {
    kivtest::RawInbox answers(server.url(), "malformed.answers");
    ASSERT_TRUE(answers.ok());
    // No reply subject: dropped; the satellite keeps serving.
    natsConnection_PublishString(answers.nc, "cab.EchoA.Echo.-", "junk");
    const std::tuple<const char*, std::string, const char*> cases[] = {
        // Cab-Proto, payload, error
        {nullptr, "", "missing Cab-Proto"},
        {"2", "", "unsupported Cab-Proto"},
        {"1 ", "", "unsupported Cab-Proto"},
        {" 1", "", "unsupported Cab-Proto"},
        {"1", std::string("\xff\xff\xff\xff garbage", 12), "request payload"},
        {"1", "", ""},  // well-formed: VT_EMPTY travels as an empty payload
    };
    for (const auto& [proto, payload, text] : cases) {
        SCOPED_TRACE(text);
        ASSERT_EQ(NATS_OK, kivtest::publish(answers.nc, "cab.EchoA.Echo.-", proto ? "Cab-Proto" : nullptr, proto,
                                            payload, "malformed.answers"));
        kivtest::Msg r = answers.next(10000);
        ASSERT_TRUE(r);
        EXPECT_EQ(std::to_string(*text ? CAB_E_MALFORMED : 0), kivtest::header(r.get(), "Cab-Status"));
        EXPECT_THAT(kivtest::header(r.get(), "Cab-Error"), testing::HasSubstr(text));
        EXPECT_EQ(0, natsMsg_GetDataLength(r.get()));
    }
}

// One handler at a time and 20 ms each: most requests still wait in the satellite when it
// starts to leave, and every one is answered (beyond the cap requests wait, not refused).
TEST_F(BrokerTest, RequestsRoutedBeforeDisconnectAreStillAnswered) {
    EchoSatellite slow;
    slow.setMaxHandlers(1);
    ASSERT_EQ(0, slow.Connect(server.hostPort().c_str(), "EchoSlow"));
    kivtest::RawInbox answers(server.url(), "drain.answers");
    ASSERT_TRUE(answers.ok());
    const int count = 20;
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(NATS_OK, kivtest::publish(answers.nc, "cab.EchoSlow.Sleep.-", "Cab-Proto", "1",
                                            Cab1Encoding(JsonVariant("20").get()).str(), "drain.answers"));
    // After the round trip the server has routed every request to the satellite.
    ASSERT_EQ(NATS_OK, natsConnection_Flush(answers.nc));
    slow.Disconnect();
    int answered = 0;
    for (kivtest::Msg r(nullptr, &natsMsg_Destroy); answered < count && (r = answers.next(30000)); ++answered)
        EXPECT_EQ("0", kivtest::header(r.get(), "Cab-Status"));
    EXPECT_EQ(count, answered);
}
