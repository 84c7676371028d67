// Serving: throwing handlers, unknown targets, names, concurrency, nesting,
// messages that do not follow the protocol, answers larger than one message,
// statuses, and requests too large to send.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/RawNats.h"

TEST_F(BrokerTest, ThrowingHandlersFailTheRequestAndTheSatelliteKeepsServing) {
    const std::pair<const char*, const char*> cases[] = {{"Throw", "bad argument from Throw"},
        {"ThrowStd", "std failure from ThrowStd"}, {"ThrowOther", "unknown exception"}};
    for (const auto& [service, text] : cases) {
        Var out;
        int rc = 0;
        EXPECT_EQ(CAB_E_HANDLER_EXCEPTION, call("EchoA", service, "1", &out, &rc)) << service;
        EXPECT_EQ(CAB_E_HANDLER_EXCEPTION, rc);
        EXPECT_EQ(VT_EMPTY, out.v.vt);
        EXPECT_NE(std::string::npos, CabGetLastError().find(text)) << CabGetLastError();
    }
    Var out;
    EXPECT_EQ(0, call("EchoA", "Echo", "5", &out));
    EXPECT_EQ(5, out.v.lVal);
}

TEST_F(BrokerTest, UnknownSatelliteOrServiceFailsAtOnce) {
    auto start = std::chrono::steady_clock::now();
    for (auto target : {std::make_pair("NoSuchSatellite", "Echo"), std::make_pair("EchoA", "NoSuchService")}) {
        Var in, out;
        int rc = 0;
        EXPECT_EQ(CAB_E_NO_SUCH_SERVICE, call(target.first, target.second, in.v, &out, &rc));
        EXPECT_EQ(CAB_E_NO_SUCH_SERVICE, rc);
        EXPECT_NE(std::string::npos, CabGetLastError().find(target.first));
    }
    // The time-out is 60 s: an answer this fast came from the no-responders notice.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST_F(BrokerTest, NamesOutsideTheAlphabetAreRefused) {
    Var in, out;
    for (const auto& [target, service] : std::vector<std::pair<std::string, const char*>>{
             {"Echo.A", "Echo"}, {"EchoA", "Echo Space"}, {"", "Echo"}, {std::string(129, 'a'), "Echo"}})
        EXPECT_EQ(CAB_E_INVALID_NAME, call(target.c_str(), service, in.v, &out)) << target << " " << service;
    EXPECT_EQ(CAB_E_NO_SUCH_SERVICE, call(std::string(128, 'a').c_str(), "Echo", in.v, &out));
    EXPECT_EQ(CAB_E_INVALID_NAME, echo->AddService("a.b", "", new CabSatelliteDelegateFunction(nullptr)));
    EXPECT_NE(std::string::npos, CabGetLastError().find("a.b"));
    EXPECT_EQ(CAB_E_INVALID_NAME, echo->AddService("*", "", new CabSatelliteDelegateFunction(nullptr)));
    CabClient other;
    EXPECT_EQ(CAB_E_INVALID_NAME, other.Connect(server.hostPort().c_str(), "bad.name"));
    EXPECT_FALSE(other.isConnected());
}

// Many threads at once, each also running a chain of handlers that request
// their own satellite three levels deep, so that the levels interleave.
TEST_F(BrokerTest, ManyThreadsRequestAtOnceAndHandlersNestThreeDeep) {
    const int threads = 12, perThread = 60;
    std::atomic<int> wrong{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t) {
        ts.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                Var out, codes;
                const std::string text = "t" + std::to_string(t) + "-" + std::to_string(i);
                int r = client->Request("EchoA", "Echo", JsonVariant("\"" + text + "\"").get(), &out.v, 0, &codes.v);
                if (r != 0 || CabRetcode(codes.v) != 0 || out.v.vt != VT_BSTR || text != out.v.bstrVal) ++wrong;
            }
            if (t >= 6) return;
            Var out;
            if (call("EchoA", "Nest", "3", &out) != 0 || out.v.vt != VT_I4 || out.v.lVal != 3) ++wrong;
        });
    }
    for (auto& t : ts) t.join();
    EXPECT_EQ(0, wrong.load());
}

namespace {

// A raw NATS request; returns the answer (caller destroys) or null.
natsMsg* rawRequest(natsConnection* nc, const char* subject, const char* proto, const std::string& payload) {
    natsMsg* m = nullptr;
    natsMsg_Create(&m, subject, nullptr, payload.data(), (int)payload.size());
    if (proto) natsMsgHeader_Set(m, "Cab-Proto", proto);
    natsMsg* reply = nullptr;
    natsStatus s = natsConnection_RequestMsg(&reply, nc, m, 10000);
    natsMsg_Destroy(m);
    return s == NATS_OK ? reply : nullptr;
}

}  // namespace

TEST_F(BrokerTest, MalformedMessagesAreRefusedWithAStatus) {
    natsConnection* nc = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_ConnectTo(&nc, server.url().c_str()));
    const std::tuple<const char*, std::string, const char*> cases[] = {  // Cab-Proto, payload, error
        {nullptr, "", "missing Cab-Proto"}, {"2", "", "unsupported Cab-Proto"}, {"1 ", "", "unsupported Cab-Proto"},
        {" 1", "", "unsupported Cab-Proto"}, {"1", std::string("\xff\xff\xff\xff garbage", 12), "request payload"},
    };
    for (const auto& [proto, payload, text] : cases) {
        natsMsg* r = rawRequest(nc, "cab.EchoA.Echo", proto, payload);
        ASSERT_NE(nullptr, r) << text;
        EXPECT_EQ(std::to_string(CAB_E_MALFORMED), kivtest::header(r, "Cab-Status")) << text;
        EXPECT_THAT(kivtest::header(r, "Cab-Error"), testing::HasSubstr(text));
        natsMsg_Destroy(r);
    }
    // No reply subject: dropped; the satellite keeps serving.
    natsConnection_PublishString(nc, "cab.EchoA.Echo", "junk");
    natsConnection_Flush(nc);
    natsMsg* r = rawRequest(nc, "cab.EchoA.Echo", "1", "");
    ASSERT_NE(nullptr, r);
    EXPECT_EQ("0", kivtest::header(r, "Cab-Status"));
    EXPECT_EQ(0, natsMsg_GetDataLength(r));  // VT_EMPTY travels as an empty payload
    natsMsg_Destroy(r);
    natsConnection_Destroy(nc);
}

// One handler at a time and 20 ms each: most requests still wait in the
// satellite when it starts to leave, and every one is answered (beyond the
// cap requests wait; they are not refused).
TEST_F(BrokerTest, RequestsRoutedBeforeDisconnectAreStillAnswered) {
    EchoSatellite slow;
    slow.setMaxHandlers(1);
    ASSERT_EQ(0, slow.Connect(server.hostPort().c_str(), "EchoSlow"));
    kivtest::RawInbox answers(server.url(), "drain.answers");
    ASSERT_TRUE(answers.ok());
    Var ms;
    setI4(&ms.v, 20);
    const int count = 20;
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(NATS_OK, kivtest::publish(answers.nc, "cab.EchoSlow.Sleep", "Cab-Proto", "1", encodingOf(ms.v),
                                            "drain.answers"));
    // After the round trip the server has routed every request to the satellite.
    ASSERT_EQ(NATS_OK, natsConnection_Flush(answers.nc));
    slow.Disconnect();
    int answered = 0;
    for (kivtest::Msg r(nullptr, &natsMsg_Destroy); answered < count && (r = answers.next(30000)); ++answered)
        EXPECT_EQ("0", kivtest::header(r.get(), "Cab-Status"));
    EXPECT_EQ(count, answered);
}

TEST_F(BrokerTest, ReplyLargerThanOneMessageArrivesWhole) {
    // 64 KiB max payload: 9 MiB + 1 travels in ~150 parts, beyond the 8 MiB
    // credit window, so the requester's credit lets the rest go.
    for (int32_t size : {60 * 1024, 64 * 1024, 9 * 1024 * 1024 + 1}) {
        Var out;
        ASSERT_EQ(0, call("EchoA", "Blob", std::to_string(size), &out)) << CabGetLastError();
        ASSERT_EQ(VT_ARRAY | VT_UI1, out.v.vt);
        int32_t ub = -2;
        SafeArrayGetUBound(out.v.parray, 1, &ub);
        ASSERT_EQ(size - 1, ub);
        unsigned char* p = nullptr;
        SafeArrayAccessData(out.v.parray, (void**)&p);
        size_t bad = 0;
        for (int32_t i = 0; i < size; ++i) bad += p[i] != echoBlobByte((uint64_t)i);
        SafeArrayUnaccessData(out.v.parray);
        EXPECT_EQ(0u, bad) << size;
    }
}

TEST(BrokerLargeMessages, AnswersUpToOneMessageGoWholeAndStayValid) {
    // An 8 MiB max payload: answers up to 8 MiB - 4 KiB go as one message (a large
    // array answer then lives in that message), bigger ones in parts of 4 MiB.
    kivtest::NatsServer server(8 << 20);
    ASSERT_TRUE(server.start()) << server.error();
    EchoSatellite echo;
    ASSERT_EQ(0, echo.Connect(server.hostPort().c_str(), "EchoBig")) << CabGetLastError();
    CabClient client;
    client.setRequestTimeoutMs(60000);
    ASSERT_EQ(0, client.Connect(server.hostPort().c_str(), "BigClient")) << CabGetLastError();
    const int32_t sizes[] = {64 * 1024, (5 << 20) + 3, (8 << 20) - 4096 - 10, 9 << 20};
    // Every answer is held until all have arrived, so each must outlive the traffic after it.
    Var out[4];
    for (int i = 0; i < 4; ++i) {
        Var in, codes;
        setI4(&in.v, sizes[i]);
        ASSERT_EQ(0, client.Request("EchoBig", "Blob", in.v, &out[i].v, 0, &codes.v)) << CabGetLastError();
        ASSERT_EQ(0, CabRetcode(codes.v));
    }
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(VT_ARRAY | VT_UI1, out[i].v.vt);
        ASSERT_EQ((uint32_t)sizes[i], out[i].v.parray->rgsabound[0].cElements);
        const unsigned char* p = static_cast<const unsigned char*>(out[i].v.parray->pvData);
        size_t bad = 0;
        for (int32_t k = 0; k < sizes[i]; ++k) bad += p[k] != echoBlobByte((uint64_t)k);
        EXPECT_EQ(0u, bad) << sizes[i];
    }
    // A lent answer can be resized like any other array.
    SAFEARRAYBOUND bigger{(uint32_t)sizes[0] + 1, 0};
    ASSERT_EQ(S_OK, SafeArrayRedim(out[0].v.parray, &bigger));
    EXPECT_EQ(echoBlobByte(7), static_cast<const unsigned char*>(out[0].v.parray->pvData)[7]);
    client.Disconnect();
    echo.Disconnect();
}

TEST_F(BrokerTest, RequestLargerThanOneMessageIsRefused) {
    Var in, out, codes;
    in.v.vt = VT_ARRAY | VT_UI1;
    SAFEARRAYBOUND b{128 * 1024, 0};
    in.v.parray = SafeArrayCreate(VT_UI1, 1, &b);
    EXPECT_EQ(CAB_E_TOO_LARGE, client->Request("EchoA", "Echo", in.v, &out.v, 0, &codes.v));
    EXPECT_EQ(CAB_E_TOO_LARGE, CabRetcode(codes.v));
    EXPECT_NE(std::string::npos, CabGetLastError().find("CAB_E_TOO_LARGE"));
}

TEST_F(BrokerTest, HandlerStatusesTravelBack) {
    for (int32_t st : {0, 7, 404, -1}) {
        Var out;
        int rc = 99;
        EXPECT_EQ(st, call("EchoA", "Status", std::to_string(st), &out, &rc));
        EXPECT_EQ(0, rc) << "a handler's own status is not a library failure";
        EXPECT_EQ(VT_EMPTY, out.v.vt);
    }
}

TEST_F(BrokerTest, RetcodeReaderAcceptsBothArrayForms) {
    Var a;
    a.v.vt = VT_ARRAY | VT_I4;
    SAFEARRAYBOUND b{1, 0};
    a.v.parray = SafeArrayCreate(VT_I4, 1, &b);
    int32_t i = 0, seven = 7;
    SafeArrayPutElement(a.v.parray, &i, &seven);
    EXPECT_EQ(7, CabRetcode(a.v));
    Var e;
    EXPECT_EQ(-5, CabRetcode(e.v, -5));
    setI4(&e.v, 3);
    EXPECT_EQ(3, CabRetcode(e.v));
}
