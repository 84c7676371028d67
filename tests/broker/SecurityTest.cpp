// Identities on the directory: the users make run writes (scripts/cab-directory-users), TLS, run-local.
#include <gmock/gmock.h>

#include <chrono>
#include <string>

#include <nats/nats.h>
#include <nlohmann/json.hpp>

#include "cab/CabConnection.h"
#include "host/CRegistry.h"
#include "satellite/AdminServices.h"
#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/RawNats.h"
#include "tests/support/ScopedEnv.h"

namespace {

using Clock = std::chrono::steady_clock;
using kivtest::msSince;
const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";

// The authorization block make run would write (scripts/cab-directory-users) for these identities.
std::string authorization() {
    int status = -1;
    std::string conf = kivtest::runCommand(
        "printf '"
        "satellite EchoA echoPassword0123456 alpha\\n"
        "satellite Other otherPassword012345\\n"
        "client cli cliPassword012345678\\n"
        "client snoop snoopPassword0123456\\n"
        "admin root rootPassword01234567\\n"
        "' | bash '" KIV_SOURCE_DIR "/scripts/cab-directory-users'",
        &status);
    EXPECT_EQ(0, status) << conf;
    // A user allowed to send requests to EchoA only: its other requests are refused.
    conf.insert(conf.rfind("  ]"),
                "    { user: \"narrow\", password: \"narrowPassword0123\", permissions: {\n"
                "        subscribe: { allow: [\"_INBOX_narrow.>\"] }\n"
                "        publish: { allow: [\"cab.EchoA.>\"] } } }\n");
    return conf;
}

class SecurityTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start()) << server.error();
        echo.setUser("EchoA", "echoPassword0123456");
        ASSERT_EQ(0, echo.Connect(server.hostPort().c_str(), "EchoA")) << CabGetLastError();
    }

    kivtest::NatsServer server{64 * 1024, authorization()};
    EchoSatellite echo;
};

// A raw NATS connection as `user`; null when the directory refuses it.
natsConnection* rawConnection(const std::string& hostPort, const std::string& user, const std::string& password) {
    natsConnection* nc = nullptr;
    const std::string url = "nats://" + user + ":" + password + "@" + hostPort;
    return natsConnection_ConnectTo(&nc, url.c_str()) == NATS_OK ? nc : nullptr;
}

// The directory's answer to a subscription of `nc`: "" when accepted.
std::string refusal(natsConnection* nc, natsSubscription** sub, const char* subject, const char* queue) {
    if (queue) natsConnection_QueueSubscribeSync(sub, nc, subject, queue);
    else natsConnection_SubscribeSync(sub, nc, subject);
    natsConnection_FlushTimeout(nc, 5000);
    const char* text = nullptr;
    if (natsConnection_GetLastError(nc, &text) != NATS_NOT_PERMITTED || !text) return "";
    return text;
}

// The messages that reached `sub` by a round trip of `nc`; the subscription ends.
int pendingAfterFlush(natsConnection* nc, natsSubscription* sub) {
    natsConnection_FlushTimeout(nc, 5000);
    int pending = -1;
    natsSubscription_GetPending(sub, &pending, nullptr);
    natsSubscription_Destroy(sub);
    return pending;
}

}  // namespace

TEST_F(SecurityTest, EachUserServesAndReadsOnlyWhatIsItsOwn) {
    std::unique_ptr<CabClient> client = connectClient(server.url(), "TestClient", "cli", "cliPassword012345678");
    // An answer in more parts than the window: credit and parts each reach the other's inbox.
    CLocalVariant out;
    ASSERT_EQ(0, request(*client, "EchoA", "Blob", std::to_string(10 << 20), out.ptr())) << CabGetLastError();
    EXPECT_EQ(0, blobErrors(out.get(), 10 << 20, 4093));

    // Neither the client's user nor another satellite's (in any queue group) can serve as EchoA: refused at once.
    for (const auto& [user, password] : {std::pair{"cli", "cliPassword012345678"}, {"Other", "otherPassword012345"}}) {
        EchoSatellite fake;
        fake.setUser(user, password);
        auto t0 = Clock::now();
        EXPECT_EQ(CAB_E_PERMISSION_DENIED, fake.Connect(server.hostPort().c_str(), "EchoA")) << user;
        EXPECT_THAT(CabGetLastError(), testing::HasSubstr("Permissions Violation for Subscription"));
        EXPECT_LT(msSince(t0), 20000);
    }
    // Serving also under its host's name (cabDirectory.hostScope) is granted for that host only.
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.hostScope", 1));
    for (const char* host : {"alpha", "beta"}) {
        kivtest::ScopedEnv hostName("KIV_HOSTNAME", host);
        EchoSatellite scoped;
        scoped.setUser("EchoA", "echoPassword0123456");
        const bool granted = host[0] == 'a';
        EXPECT_EQ(granted ? 0 : CAB_E_PERMISSION_DENIED, scoped.Connect(server.hostPort().c_str(), "EchoA")) << host;
        EXPECT_EQ(granted ? 0 : CAB_E_NO_SUCH_SERVICE,
                  request(*client, "EchoA@" + std::string(host), "Echo", "7", out.ptr()))
            << host;
    }
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.hostScope", 0));

    natsConnection* snoop = rawConnection(server.hostPort(), "snoop", "snoopPassword0123456");
    ASSERT_NE(nullptr, snoop);
    natsSubscription* subs[3] = {};
    EXPECT_NE("", refusal(snoop, &subs[0], "cab.EchoA.>", "EchoA"));
    EXPECT_NE("", refusal(snoop, &subs[1], "_INBOX_cli.>", nullptr));
    EXPECT_NE("", refusal(snoop, &subs[2], ">", nullptr));
    // While the refused subscriptions stand, the client's traffic reaches none of them.
    ASSERT_EQ(0, request(*client, "EchoA", "Echo", "7", out.ptr())) << CabGetLastError();
    for (natsSubscription* s : subs) EXPECT_EQ(0, pendingAfterFlush(snoop, s));
    natsConnection_Destroy(snoop);
    EXPECT_FALSE(rawConnection(server.hostPort(), "cli", "wrong-password-xxxx"));
}

// Every user is held to its own name: nobody asks or answers (discovery too) as another, only
// admins reach the support services, and a refused request fails at once with the directory's text.
TEST_F(SecurityTest, RequestsCarryTheirSenderAndAnswersGoOnlyToItsInbox) {
    std::unique_ptr<CabClient> client = connectClient(server.url(), "TestClient", "cli", "cliPassword012345678");
    std::unique_ptr<CabClient> narrow = connectClient(server.url(), "Narrow", "narrow", "narrowPassword0123");
    CLocalVariant out;
    auto t0 = Clock::now();
    int rc = 0;
    EXPECT_EQ(CAB_E_PERMISSION_DENIED, request(*narrow, "Other", "Echo", "1", out.ptr(), &rc));
    EXPECT_EQ(CAB_E_PERMISSION_DENIED, rc);
    EXPECT_THAT(CabGetLastError(), testing::HasSubstr("cab.Other.Echo"));
    EXPECT_LT(msSince(t0), 20000);  // far below the 60 s request time-out
    ASSERT_EQ(0, request(*narrow, "EchoA", "Echo", "1", out.ptr())) << "the connection stays usable";
    for (const char* service : {"GenerateCrash", "GetKivConfig", "my-KIV_TailLog", "ZipLogs"}) {
        SCOPED_TRACE(service);
        EXPECT_EQ(CAB_E_PERMISSION_DENIED, request(*client, "EchoA", service, "null", out.ptr()));
        EXPECT_EQ(CAB_E_PERMISSION_DENIED, request(echo, "Other@h", service, "null", out.ptr()));
    }
    std::unique_ptr<CabClient> admin = connectClient(server.url(), "Admin", "root", "rootPassword01234567");
    EXPECT_EQ(CAB_E_NO_SUCH_SERVICE, request(*admin, "EchoA", "GenerateCrash", "null", out.ptr()));

    natsConnection* cli = rawConnection(server.hostPort(), "cli", "cliPassword012345678");
    natsConnection* snoop = rawConnection(server.hostPort(), "snoop", "snoopPassword0123456");
    ASSERT_TRUE(cli && snoop);
    natsSubscription* inbox = nullptr;
    ASSERT_EQ("", refusal(snoop, &inbox, "_INBOX_snoop.>", nullptr));
    // Asking as somebody else is refused by the directory.
    natsConnection_PublishRequestString(cli, "cab.EchoA.Echo.snoop", "_INBOX_cli.x", "");
    natsConnection_FlushTimeout(cli, 5000);
    const char* text = nullptr;
    EXPECT_EQ(NATS_NOT_PERMITTED, natsConnection_GetLastError(cli, &text));
    // An answer the sender would write into snoop's inbox is dropped (counted as a service error).
    ASSERT_EQ(NATS_OK, kivtest::publish(cli, "cab.EchoA.Echo.cli", "Cab-Proto", "1", "", "_INBOX_snoop.x"));
    auto errors = [&] {
        std::vector<std::string> stats;
        admin->Discover("STATS", "EchoA", 2000, &stats);
        return stats.size() == 1 ? nlohmann::json::parse(stats[0])["endpoints"][0]["num_errors"].get<int>() : -1;
    };
    EXPECT_TRUE(kivtest::eventually([&] { return errors() == 1; }));
    EXPECT_EQ(0, pendingAfterFlush(snoop, inbox));
    natsConnection_Destroy(snoop);
    natsConnection_Destroy(cli);

    // Another satellite answers discovery in EchoA's name: only EchoA's own answers are kept.
    natsConnection* other = rawConnection(server.hostPort(), "Other", "otherPassword012345");
    ASSERT_NE(nullptr, other);
    natsSubscription* fakeInfo = nullptr;
    auto impostor = [](natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
        const std::string lie = R"({"name":"EchoA","id":"fake","endpoints":[{"name":"Fake"}]})";
        if (natsMsg_GetReply(m)) natsConnection_PublishString(nc, natsMsg_GetReply(m), lie.c_str());
        natsMsg_Destroy(m);
    };
    ASSERT_EQ(NATS_OK, natsConnection_Subscribe(&fakeInfo, other, "$SRV.INFO", impostor, nullptr));
    natsConnection_Flush(other);
    for (const char* name : {"", "EchoA"}) {
        std::vector<std::string> answers;
        ASSERT_EQ(0, client->Discover("INFO", name, 2000, &answers)) << CabGetLastError();
        ASSERT_EQ(1u, answers.size()) << name;
        EXPECT_EQ(echo.instanceId(), nlohmann::json::parse(answers[0])["id"]);
    }
    natsSubscription_Destroy(fakeInfo);
    natsConnection_Destroy(other);
}

// The users script denies every user but an admin exactly the proxy's admin services.
TEST(SecurityUsers, EveryoneButAdminsIsDeniedExactlyTheAdminServices) {
    std::string expected;
    for (const char* service : kAdminServices)
        expected += std::string(expected.empty() ? "" : ", ") + "\"cab.*." + service + ".*\"";
    const std::string conf = authorization();
    size_t denials = 0;
    for (size_t at = conf.find("deny: ["); at != std::string::npos; at = conf.find("deny: [", at + 1), ++denials)
        EXPECT_EQ(expected, conf.substr(at + 7, conf.find(']', at) - at - 7));
    EXPECT_EQ(4u, denials) << conf;  // EchoA, Other, cli, snoop; not root (narrow has an allow list only)
}

TEST(SecurityTls, ConnectsOnlyWithTheTrustedAuthorityAndAClientCertificate) {
    kivtest::TempDir dir("kivtls");
    std::string d = dir.path();
    // A CA, a server certificate for 127.0.0.1 and a client certificate, all signed by the CA.
    const std::string script =
        "set -e; cd '" + d +
        "'; echo subjectAltName=IP:127.0.0.1 > server.ext; : > client.ext\n"
        "key() { echo -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout $1.key -subj /CN=$1; }\n"
        "openssl req -x509 $(key ca) -out ca.pem -days 2 2>/dev/null\n"
        "for n in server client; do openssl req $(key $n) -out $n.csr 2>/dev/null\n"
        "  openssl x509 -req -in $n.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile $n.ext -out $n.pem "
        "2>/dev/null; done\n";
    int status = -1;
    std::string log = kivtest::runCommand(script, &status);
    ASSERT_EQ(0, status) << log;
    kivtest::NatsServer server(64 * 1024, "tls {\n  cert_file: \"" + d + "/server.pem\"\n  key_file: \"" + d +
                                              "/server.key\"\n  ca_file: \"" + d + "/ca.pem\"\n  verify: true\n}\n");
    ASSERT_TRUE(server.start()) << server.error();
    const std::string url = "tls://" + server.hostPort();
    auto set = [](const char* key, const std::string& value) {
        CRegistry::getInstance()->WriteSettingImpl(kConfigKey, key, CStdStr(value));
    };

    // Without the CA the server's certificate is not trusted.
    CabClient client;
    client.setRequestTimeoutMs(60000);
    EXPECT_EQ(CAB_E_CONNECT_FAILED, client.Connect(url.c_str(), "TlsClient"));
    set("cabDirectory.tls.ca", d + "/ca.pem");
    EXPECT_EQ(CAB_E_CONNECT_FAILED, client.Connect(url.c_str(), "TlsClient"))
        << "the server wants a client certificate";

    set("cabDirectory.tls.cert", d + "/client.pem");
    set("cabDirectory.tls.key", d + "/client.key");
    EchoSatellite echo;
    ASSERT_EQ(0, echo.Connect(url.c_str(), "EchoA")) << CabGetLastError();
    ASSERT_EQ(0, client.Connect(url.c_str(), "TlsClient")) << CabGetLastError();
    CLocalVariant out;
    ASSERT_EQ(0, request(client, "EchoA", "Echo", "42", out.ptr())) << CabGetLastError();
    EXPECT_EQ("42", json(out.get()));
    for (const char* k : {"cabDirectory.tls.ca", "cabDirectory.tls.cert", "cabDirectory.tls.key"}) set(k, "");
}

TEST(SecurityRunLocal, RefusesATakenPortAndNeverUsesTheServerOnIt) {
    kivtest::NatsServer other;  // another directory holds the port
    ASSERT_TRUE(other.start()) << other.error();
    const std::string port = std::to_string(other.port());
    kivtest::TempDir var("kivrun");
    int status = -1;
    // No build folder: the script must refuse before it needs any program of ours.
    const std::string out = kivtest::runCommand("KIV_PORT=" + port + " KIV_VAR='" + var.path() +
                                                    "' KIV_BIN=/nonexistent bash '" KIV_SOURCE_DIR
                                                    "/scripts/run-local' 2>&1",
                                                &status);
    EXPECT_NE(0, status) << out;
    EXPECT_NE(std::string::npos, out.find("port " + port + " is taken")) << out;
    EXPECT_EQ("", kivtest::readFile(var.path() + "/directory/nats-server.pid"));
}

// Nobody can guess where an answer or a credit goes: mailbox subjects end in 128 random bits.
TEST_F(BrokerTest, MailboxSubjectsEndInUnguessableKeys) {
    CabConnection::Options o;
    o.url = server.url();
    std::shared_ptr<CabConnection> conn;
    ASSERT_EQ(0, CabConnection::open(o, &conn));
    std::string keys[2];
    for (std::string& key : keys) {
        std::string subject;
        uint64_t token = 0;
        conn->openMailbox(&subject, &token);
        conn->closeMailbox(token);
        key = subject.substr(subject.rfind('.') + 1);
        EXPECT_EQ(32u, key.size()) << subject;
        EXPECT_EQ(std::string::npos, key.find_first_not_of("0123456789abcdef")) << subject;
    }
    EXPECT_NE(keys[0].substr(0, 16), keys[1].substr(0, 16))
        << "keys that differ only at their end are guessed from each other";
}
