// The directory as a cluster: three nats-server processes on loopback joined by routes, with the real proxy: failover
// after SIGKILL of the proxy's server, and one proxy per host addressed by host name.
#include <signal.h>

#include <chrono>
#include <set>
#include <thread>

#include "host/CRegistry.h"
#include "value/Cab1.h"
#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/ProxyProcess.h"
#include "tests/support/RawNats.h"

namespace {

using Clock = std::chrono::steady_clock;
using kivtest::eventually;
using kivtest::msSince;
const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";
const char* const kProxy = "VorpaMediaProxy";

// A proxy process with a KIV_ROOT of its own and, optionally, a host name.
struct Proxy {
    kivtest::TempDir root{"kivproxy"};
    kivtest::ProxyProcess process;
    bool start(const std::string& hostName = "") {
        return process.start({{"KIV_ROOT", root.path()}, {"KIV_HOSTNAME", hostName}}, root.file("out"));
    }
    std::string log() const { return kivtest::readFile(root.path() + "/Library/Logs/KivFoundry/KivRequestProxy.log"); }
    // The URL after the last "<what> " in the log, up to a blank; "" if none.
    std::string urlAfter(const std::string& what) const {
        std::string l = log();
        size_t at = l.rfind(what + " nats://");
        if (at == std::string::npos) return "";
        at += what.size() + 1;
        return l.substr(at, l.find_first_of(" \r\n", at) - at);
    }
};

void configure(const std::string& servers, int hostScope) {
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.servers", CStdStr(servers)));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.hostScope", hostScope));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 4));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.partsConnection", 1));
}

// The data folder of whichever proxy answers `target`; "" on failure.
std::string dataFolderOf(CabSatellite& client, const std::string& target) {
    CLocalVariant out;
    if (request(client, target, "GetKivDataFolder", "null", out.ptr()) != 0 || out.vt() != VT_BSTR) return "";
    return out.get().bstrVal;
}

// Three servers on ports of their choosing, each routed to those started before it.
class ClusterTest : public testing::Test {
protected:
    void SetUp() override {
        std::string routes;
        for (int i = 0; i < 3; ++i) {
            servers.emplace_back(
                new kivtest::NatsServer(1 << 20, "cluster {\n  name: kiv\n  listen: 127.0.0.1:-1\n  routes: [" +
                                                     routes + "]\n}\n"));
            ASSERT_TRUE(servers.back()->start()) << servers.back()->error();
            routes += (i ? ", " : "") + std::string("nats-route://127.0.0.1:") +
                      std::to_string(servers.back()->clusterPort());
        }
    }
    void TearDown() override { configure("", 0); }
    std::string urls() const {
        std::string u;
        for (auto& s : servers) u += (u.empty() ? "" : ",") + s->url();
        return u;
    }
    int indexOf(const std::string& url) const {
        for (size_t i = 0; i < servers.size(); ++i)
            if (url == servers[i]->url()) return (int)i;
        return -1;
    }
    std::vector<std::unique_ptr<kivtest::NatsServer>> servers;
};

}  // namespace

TEST_F(ClusterTest, SigkillOfTheProxysServerFailsItsRequestsFastAndTheProxyServesOnElsewhere) {
    configure(urls(), 0);
    // Answers in parts on the proxy's one connection: a second one may pick
    // another server, and then the held transfer below never loses its own.
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.partsConnection", 0));
    Proxy proxy;
    ASSERT_TRUE(proxy.start());
    std::unique_ptr<CabClient> probe = connectClient(servers[0]->url(), "ClusterProbe", nullptr, nullptr, 1000);
    ASSERT_TRUE(proxy.process.waitUntilServing(*probe)) << proxy.log();
    int a = indexOf(proxy.urlAfter("Connected to the directory at"));
    ASSERT_GE(a, 0) << proxy.log();
    int b = (a + 1) % 3, c = (a + 2) % 3;
    GateSatellite echo;
    ASSERT_EQ(0, echo.Connect(servers[b]->url().c_str(), "EchoA")) << CabGetLastError();
    std::unique_ptr<CabClient> onA = connectClient(servers[a]->url(), "ClientOnA");
    std::unique_ptr<CabClient> onB = connectClient(servers[b]->url(), "ClientOnB");
    std::unique_ptr<CabClient> onC = connectClient(servers[c]->url(), "ClientOnC", nullptr, nullptr, 250);
    ASSERT_TRUE(proxy.process.waitUntilServing(*onA));
    ASSERT_TRUE(proxy.process.waitUntilServing(*onB));

    // Two requests held in the proxy's handlers: one sent through the proxy's own server, one through another.
    const std::string group = "[[\"EchoA\",\"Hold\",0]]";
    struct Outcome {
        int status = 1;
        Clock::time_point end;
        std::string json;
    } viaA, viaB;
    auto send = [&](CabClient* cl, Outcome* o) {
        CLocalVariant out;
        o->status = request(*cl, kProxy, "MultiRequest", group, out.ptr());
        o->end = Clock::now();
        o->json = VariantToJson(out.get());
    };
    std::thread ta(send, onA.get(), &viaA), tb(send, onB.get(), &viaB);
    if (!echo.waitHolding(2)) {
        echo.openAndWaitEmpty();  // the threads end instead of waiting for the gate
        ta.join(), tb.join();
        FAIL() << "the proxy's handlers did not both hold";
    }
    // And a 24 MiB answer to a raw requester on B that grants no credit: the proxy sends its window and waits.
    const std::string path = proxy.root.file("Library/KivFoundry/pattern.bin");
    kivtest::writeFile(path, kivtest::patternBytes(24u << 20, 13));
    kivtest::RawInbox held(servers[b]->url(), "held.reply");
    ASSERT_TRUE(held.ok());
    Cab1Encoding input(JsonVariant(listOf(path)).get());
    ASSERT_EQ(NATS_OK,
              kivtest::publish(held.nc, "cab.VorpaMediaProxy.GetFile.-", "Cab-Proto", "1", input.str(), "held.reply"));
    kivtest::Msg first = held.next(30000);
    EXPECT_EQ("25", kivtest::header(first.get(), "Cab-Parts"));
    // The whole window arrives before the kill: none of it goes down with the server.
    const int window = atoi(kivtest::header(first.get(), "Cab-Window").c_str());
    EXPECT_GT(window, 1);
    int partsBefore = 1;
    while (partsBefore < window && held.next(30000)) ++partsBefore;

    auto t0 = Clock::now();
    ASSERT_EQ(0, kill(servers[a]->pid(), SIGKILL));
    // Serving again, asked through a server that stayed up.
    ASSERT_TRUE(eventually([&] { return !dataFolderOf(*onC, kProxy).empty(); }, 30000)) << proxy.log();
    int64_t failoverMs = msSince(t0);
    ta.join();
    tb.join();
    EXPECT_LT(failoverMs, 20000);  // bounds far below the 60 s request time-out
    // The requester on the dead server hears of it at once.
    EXPECT_EQ(CAB_E_CONNECTION_LOST, viaA.status) << CabStatusName(viaA.status);
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(viaA.end - t0).count(), 20000);
    // The handler whose own request was cut answers after the move, through the new server.
    EXPECT_EQ(0, viaB.status) << CabStatusName(viaB.status);
    EXPECT_NE(std::string::npos, viaB.json.find(std::to_string(CAB_E_CONNECTION_LOST))) << viaB.json;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(viaB.end - t0).count(), 20000);
    // The held transfer ends with an empty part that says why, numbered
    // after every part that arrived (a requester waits for one of those).
    std::string notice;
    int noticePart = -1;
    for (kivtest::Msg m(nullptr, &natsMsg_Destroy); notice.empty() && (m = held.next(5000));) {
        if (natsMsg_GetDataLength(m.get()) > 0) ++partsBefore;
        else if (!(notice = kivtest::header(m.get(), "Cab-Status")).empty())
            noticePart = atoi(kivtest::header(m.get(), "Cab-Part").c_str());
    }
    EXPECT_EQ(std::to_string(CAB_E_CONNECTION_LOST), notice) << proxy.log();
    EXPECT_GE(noticePart, partsBefore);
    std::string now = proxy.urlAfter("reconnected to");
    EXPECT_TRUE(indexOf(now) == b || indexOf(now) == c) << proxy.log();
}

TEST_F(ClusterTest, EachHostIsAddressedByItsNameAndThePlainNameReachesEither) {
    configure(urls(), 1);
    Proxy alpha, beta;
    ASSERT_TRUE(alpha.start("Alpha"));  // host names are lower-cased
    ASSERT_TRUE(beta.start("beta"));
    std::unique_ptr<CabClient> c0 = connectClient(servers[0]->url(), "HostClient0");
    std::unique_ptr<CabClient> c2 = connectClient(servers[2]->url(), "HostClient2");
    std::string folderA, folderB;
    ASSERT_TRUE(eventually([&] { return !(folderA = dataFolderOf(*c0, "VorpaMediaProxy@alpha")).empty(); }))
        << alpha.log();
    ASSERT_TRUE(eventually([&] { return !(folderB = dataFolderOf(*c2, "VorpaMediaProxy@beta")).empty(); }))
        << beta.log();
    EXPECT_EQ(0u, folderA.rfind(alpha.root.path(), 0)) << folderA;
    EXPECT_EQ(0u, folderB.rfind(beta.root.path(), 0)) << folderB;
    EXPECT_EQ(folderA, dataFolderOf(*c2, "VorpaMediaProxy@ALPHA"));
    EXPECT_EQ(folderB, dataFolderOf(*c0, "VorpaMediaProxy@beta"));

    // The plain name is one queue group of both.
    std::set<std::string> seen;
    for (int i = 0; i < 64 && seen.size() < 2; ++i) seen.insert(dataFolderOf(i % 2 ? *c0 : *c2, kProxy));
    EXPECT_EQ((std::set<std::string>{folderA, folderB}), seen);

    // Requests to its own host-scoped name run inline, as to its plain name: refused past 16
    // nested calls instead of taking a worker each.
    std::string nested = "[[\"VorpaMediaProxy@alpha\",\"GetKivDataFolder\",null]]";
    for (int i = 0; i < 18; ++i) nested = "[[\"VorpaMediaProxy@Alpha\",\"MultiRequest\"," + nested + "]]";
    CLocalVariant out;
    ASSERT_EQ(0, request(*c0, "VorpaMediaProxy@alpha", "MultiRequest", nested, out.ptr())) << CabGetLastError();
    EXPECT_NE(std::string::npos, VariantToJson(out.get()).find(std::to_string(CAB_E_TOO_LARGE)));

    EXPECT_EQ(CAB_E_NO_SUCH_SERVICE, request(*c0, "VorpaMediaProxy@gamma", "GetKivDataFolder", "null", out.ptr()));
    for (const char* bad : {"VorpaMediaProxy@a@b", "@alpha", "VorpaMediaProxy@", "VorpaMediaProxy@al.pha"})
        EXPECT_EQ(CAB_E_INVALID_NAME, request(*c0, bad, "GetKivDataFolder", "null", out.ptr())) << bad;
    CabClient named;
    EXPECT_EQ(CAB_E_INVALID_NAME, named.Connect(servers[0]->url().c_str(), "Vorpa@alpha"));
}
