#include "tests/broker/BrokerTestFixture.h"

void BrokerTest::SetUp() {
    ASSERT_TRUE(server.start()) << server.error();
    echo.reset(new EchoSatellite);
    ASSERT_EQ(0, echo->Connect(server.hostPort().c_str(), "EchoA")) << CabGetLastError();
    client = connectClient(server.url(), "TestClient");
    ASSERT_TRUE(client->isConnected());
}

int request(CabSatellite& c, const std::string& target, const char* service, const std::string& jsonIn, tagVARIANT* out,
            int* rc) {
    CLocalVariant codes;
    int r = c.Request(target.c_str(), service, JsonVariant(jsonIn).get(), out, 0, codes.ptr());
    if (rc) *rc = r;
    return CabRetcode(codes.get(), -99999);
}

std::unique_ptr<CabClient> connectClient(const std::string& url, const char* name, const char* user,
                                         const char* password, int timeoutMs) {
    std::unique_ptr<CabClient> c(new CabClient);
    if (user) c->setUser(user, password);
    c->setRequestTimeoutMs(timeoutMs);
    EXPECT_EQ(0, c->Connect(url.c_str(), name)) << CabGetLastError();
    return c;
}

int64_t blobErrors(const tagVARIANT& v, int64_t size, int64_t step) {
    if (v.vt != (VT_ARRAY | VT_UI1) || !v.parray || v.parray->rgsabound[0].cElements != (uint64_t)size) return -1;
    const unsigned char* p = static_cast<const unsigned char*>(v.parray->pvData);
    int64_t bad = p[size - 1] != echoBlobByte((uint64_t)(size - 1));
    for (int64_t i = 0; i < size; i += step) bad += p[i] != echoBlobByte((uint64_t)i);
    return bad;
}
