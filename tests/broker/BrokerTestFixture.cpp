#include "tests/broker/BrokerTestFixture.h"

#include "cab/Cab1.h"

void BrokerTest::SetUp() {
    ASSERT_TRUE(server.start()) << server.error();
    echo.reset(new EchoSatellite);
    ASSERT_EQ(0, echo->Connect(server.hostPort().c_str(), "EchoA")) << CabGetLastError();
    client.reset(new CabClient);
    client->setRequestTimeoutMs(60000);
    ASSERT_EQ(0, client->Connect(server.hostPort().c_str(), "TestClient")) << CabGetLastError();
}

void BrokerTest::TearDown() {
    client.reset();
    echo.reset();
    server.stop();
}

int BrokerTest::call(const char* target, const char* service, const tagVARIANT& in, tagVARIANT* out, int* rc) {
    Var codes;
    int r = client->Request(target, service, in, out, 0, &codes.v);
    if (rc) *rc = r;
    return CabRetcode(codes.v, -99999);
}

int BrokerTest::call(const char* target, const char* service, const std::string& jsonIn, tagVARIANT* out, int* rc) {
    return call(target, service, JsonVariant(jsonIn).get(), out, rc);
}

std::string encodingOf(const tagVARIANT& v) {
    Cab1Encoding e(v);
    return e.ok() ? e.str() : "invalid: " + e.error();
}

std::string directoryUsers(const std::string& users) {
    kivtest::TempDir dir("kivauth");
    kivtest::writeFile(dir.file("users"), users);
    int status = -1;
    const std::string conf = kivtest::runCommand("bash '" KIV_SOURCE_DIR "/scripts/cab-directory-users' < '" +
                                                 dir.file("users") + "'", &status);
    EXPECT_EQ(0, status) << conf;
    return conf;
}

void setI4(tagVARIANT* v, int32_t n) {
    VariantClear(v);
    v->vt = VT_I4;
    v->lVal = n;
}
