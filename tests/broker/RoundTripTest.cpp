// Answers larger than one message, statuses, and requests too large to send.
#include "tests/broker/BrokerTestFixture.h"

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
