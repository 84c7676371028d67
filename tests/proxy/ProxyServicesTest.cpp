// The real process: start and stop under a service manager, the service table it publishes, the version report, the
// diagnostic services, and "MultiRequest" with the requests of the proxy to itself.
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <nlohmann/json.hpp>

#include "cab/CabInline.h"
#include "satellite/KivRequestProxySatellite.h"
#include "satellite/TimeZoneName.h"
#include "tests/support/ProxyFixture.h"
#include "tests/support/ProcStatus.h"
#include "variant/VUtil.h"

namespace {

// The notification socket, as systemd listens on it.
struct NotifySocket {
    explicit NotifySocket(const std::string& path) {
        sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        timeval safety = {60, 0};  // a missing message fails the test, it does not hang it
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &safety, sizeof safety);
    }
    ~NotifySocket() { close(fd); }
    // The next message holding `text`, counting the watchdog pings on the way; "" on time-out.
    std::string waitFor(const std::string& text) {
        char buf[4096];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) >= 0;) {
            const std::string m(buf, static_cast<size_t>(n));
            pings += m == "WATCHDOG=1";
            if (m.find(text) != std::string::npos) return m;
        }
        return "";
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool bound = false;
    int pings = 0;
};

}  // namespace

// Under a service manager (a datagram socket of the test's own is its NOTIFY_SOCKET):
// without a directory no READY=1 and exit 0; then READY=1, the watchdog fed, the services
// published in order, STOPPING=1 and exit 0 on SIGTERM and on SIGINT (with a request in flight).
TEST_F(ProxyTest, StartsServesAndStopsAsTheServiceManagerExpects) {
    ASSERT_TRUE(setting("LogLevel", 1, "Software\\Kiv Foundry\\Kiv"));
    NotifySocket manager(root + "/notify");
    ASSERT_TRUE(manager.bound);
    const std::string own = root + "/service-manager";  // a root of its own: the log file is this test's alone
    const std::map<std::string, std::string> env = {{"NOTIFY_SOCKET", root + "/notify"},
                                                    {"WATCHDOG_USEC", "200000"},
                                                    {"WATCHDOG_PID", ""},
                                                    {"KIV_ROOT", own}};
    const int port = server.port();
    server.stop();
    ASSERT_TRUE(proxy.start(env, root + "/proxy.out"));
    const std::string refused = manager.waitFor("STATUS=");
    EXPECT_EQ(proxy.wait(), 0);
    EXPECT_THAT(refused, HasSubstr("directory unreachable"));
    EXPECT_THAT(refused, Not(HasSubstr("READY=1")));
    EXPECT_THAT(proxyOutput(), HasSubstr("not serving: registering with the directory failed"));

    ASSERT_TRUE(server.restart());
    ASSERT_EQ(server.port(), port);
    ASSERT_TRUE(startProxy(env));
    const std::string serving = "serving 11 services on nats://" + hostPort() + " as VorpaMediaProxy";
    EXPECT_EQ(manager.waitFor("READY=1"), "READY=1\nSTATUS=" + serving);
    while (manager.pings < 3 && !manager.waitFor("WATCHDOG=1").empty()) {
    }
    EXPECT_GE(manager.pings, 3) << "the watchdog thread keeps going while the run loop turns";
    std::vector<std::string> replies;
    ASSERT_EQ(client->Discover("INFO", "VorpaMediaProxy", 3000, &replies), 0);
    ASSERT_EQ(replies.size(), 1u);
    const nlohmann::json info = nlohmann::json::parse(replies[0]);
    EXPECT_EQ(info["name"], "VorpaMediaProxy");
    std::string published;  // name=description; each, in order
    for (const auto& e : info["endpoints"]) {
        published += e["name"].get<std::string>() + "=" + e["metadata"]["description"].get<std::string>() + "; ";
        EXPECT_EQ(e["subject"], "cab.VorpaMediaProxy." + e["name"].get<std::string>());
    }
    EXPECT_EQ(published,
              "QueryFileSize=Get file size; GetFile=Download a file; my-KIV_GetVersion=Get Kiv version; "
              "my-KIV_TailLog=; MultiRequest=; CreateZip=; DeleteTempFile=; GetKivDataFolder=; GetKivConfig=; "
              "GenerateCrash=; ZipLogs=Inparams: none; Outparams = (string)zipPath; ");
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_EQ(manager.waitFor("STOPPING=1"), "STOPPING=1\nSTATUS=stopping (SIGTERM received)");
    const std::string journal = proxyOutput();
    for (const char* line : {"KivRequestProxy ", "Connected to the directory at nats://", serving.c_str(),
                             "stopping (SIGTERM received)", "\nstopped\n"})
        EXPECT_THAT(journal, HasSubstr(line));
    const std::string log = kivtest::readFile(own + "/Library/Logs/KivFoundry/KivRequestProxy.log");
    EXPECT_THAT(log, HasSubstr("[ERROR] - not serving")) << "the log file keeps errors";
    EXPECT_EQ(log.find("[INFO ]"), std::string::npos) << "LogLevel 1 keeps no INFO line";

    // SIGINT with a slow request in flight: the proxy ends within the grace, the request cancelled.
    ASSERT_TRUE(setting("LogLevel", 4, "Software\\Kiv Foundry\\Kiv"));
    ASSERT_TRUE(setting("cabDirectory.shutdownGraceMs", 1000));
    ASSERT_TRUE(startProxy()) << proxyOutput();
    int status = 0;
    std::thread requester([&] {
        CLocalVariant out;
        status = call("MultiRequest", R"([["EchoA", "Sleep", 20000]])", out.ptr());
    });
    kivtest::eventually([&] { return proxyOutput().find("Request Sleep...") != std::string::npos; });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(stopProxy(SIGINT), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(12));
    requester.join();
    EXPECT_EQ(status, CAB_E_CANCELLED) << proxyOutput();
}

// The version report (its zone from TZ, else the machine's), the tail of a log, the
// configuration sorted with its credentials masked, and the data folder.
TEST_F(ProxyTest, SupportServicesReportVersionTailConfigAndDataFolder) {
    ASSERT_TRUE(setting("Version", CStdStr("7.1.2"), "Software\\Kiv Foundry\\Kiv"));
    ASSERT_TRUE(setting("kiv.streaming.performanceIndex", CStdStr("42")));
    // Credentials by the end of their name, in any case; a near miss is shown.
    const std::map<std::string, std::string> secrets = {{"mail.apiToken", "Secret-1"},
                                                        {"mail.ADMINPASSWORD", "Secret-2"},
                                                        {"backup.nkeySeed", "Secret-3"},
                                                        {"backup.nkeyseedfile", "Secret-4"}};
    for (const auto& s : secrets) ASSERT_TRUE(setting(s.first.c_str(), CStdStr(s.second)));
    for (const char* name : {"zeta", "alpha", "mail.tokenLimit"}) ASSERT_TRUE(setting(name, CStdStr(name)));
    // Credentials inside server URLs: masked wherever the value goes, the logs included.
    const std::string servers = "nats://proxy:Secret-5@" + hostPort() + ",nats://Secret-6@" + hostPort();
    ASSERT_TRUE(setting("cabDirectory.servers", CStdStr(servers)));
    ASSERT_TRUE(startProxy({{"TZ", ":Europe/Paris"}})) << proxyOutput();
    CLocalVariant out, noTz, config, folder, none;
    const time_t before = time(nullptr);
    ASSERT_EQ(call("my-KIV_GetVersion", "null", out.ptr()), 0);
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 6);
    EXPECT_LE(std::labs(VUtil::GetDateElement(out.get(), 2) - static_cast<long>(before)), 5);
    VUtil::PutElement(out.get(), 2, 0);  // the date is checked: the rest as JSON; the zone exactly as set
    EXPECT_EQ(json(out.get()), R"([null,"7.1.2",0,":Europe/Paris","42","linux"])");

    // The tail of a log: the last bytes, at most 5000000, and all of a file shorter than asked for.
    kivtest::writeFile(data.file("small.txt"), "abcd");
    kivtest::writeFile(data.file("big.txt"), std::string(5000095, 'x') + "TAIL!");
    const std::string bigTail = "[5000100,5000000,\"" + std::string(4999995, 'x') + "TAIL!\"]";
    const std::tuple<const char*, const char*, std::string> tails[] = {{"small.txt", "10", "[4,4,\"abcd\"]"},
                                                                       {"big.txt", "-1", bigTail},
                                                                       {"big.txt", "6000000", bigTail}};
    for (const auto& [file, count, expected] : tails) {
        CLocalVariant tail;
        ASSERT_EQ(call("my-KIV_TailLog", "[\"" + data.file(file) + "\", " + count + "]", tail.ptr()), 0);
        EXPECT_EQ(json(tail.get()), expected) << file << " " << count;
    }
    ASSERT_EQ(call("GetKivConfig", "null", config.ptr()), 0);
    ASSERT_GE(VUtil::GetArrayLength(config.get()), 9);  // the credentials and names above, the host and port
    std::map<std::string, std::string> shown;
    for (int i = 0; i < VUtil::GetArrayLength(config.get()); ++i) {  // sorted pairs of strings
        CLocalVariant pair;
        VUtil::GetElement(config.get(), i, pair.get());
        ASSERT_EQ(pair.vt(), VT_ARRAY | VT_BSTR);
        const std::string name = VUtil::GetStringElement(pair.get(), 0);
        EXPECT_TRUE(shown.empty() || shown.rbegin()->first < name) << name << " is out of order";
        shown[name] = VUtil::GetStringElement(pair.get(), 1);
    }
    EXPECT_EQ(*shown.begin(), (std::pair<const std::string, std::string>("alpha", "alpha")));
    EXPECT_EQ(shown["mail.tokenLimit"], "mail.tokenLimit");
    for (const auto& s : secrets) EXPECT_EQ(shown[s.first], "********") << s.first;
    EXPECT_EQ(shown["cabDirectory.servers"], "nats://proxy:********@" + hostPort() + ",nats://********@" + hostPort());
    EXPECT_TRUE(waitForLog("Connecting to nats://proxy:********@"));

    ASSERT_EQ(call("GetKivDataFolder", "null", folder.ptr()), 0);
    const std::string dataFolder = root + "/Library/KivFoundry";
    EXPECT_TRUE(std::filesystem::is_directory(dataFolder));
    // A data folder that cannot be made reaches the caller as the handler's exception, with its text.
    std::filesystem::rename(dataFolder, dataFolder + ".away");
    std::filesystem::create_symlink(dataFolder + ".nowhere/x", dataFolder);
    EXPECT_EQ(call("GetKivDataFolder", "null", none.ptr()), CAB_E_HANDLER_EXCEPTION);
    EXPECT_THAT(CabGetLastError(), HasSubstr("Failed to create Kiv data folder"));
    std::filesystem::remove(dataFolder);  // the binary's later tests share this root
    std::filesystem::rename(dataFolder + ".away", dataFolder);
    EXPECT_EQ(stopProxy(), 0);
    EXPECT_THAT(proxyOutput() + proxyLog(), Not(HasSubstr("Secret-")));

    // Without TZ the machine's own sources answer, as this process finds them.
    ASSERT_TRUE(startProxy({{"TZ", ""}})) << proxyOutput();
    ASSERT_EQ(call("my-KIV_GetVersion", "null", noTz.ptr()), 0);
    TimeZoneSources sources;
    sources.tzVariable = "KIV_TEST_NO_SUCH_VARIABLE";
    const std::string expected = FindTimeZoneName(sources);
    const nlohmann::json zone = nlohmann::json::parse(json(noTz.get()))[3];
    EXPECT_EQ(zone, expected.empty() ? nullptr : nlohmann::json(expected));
}

namespace {

std::string repeated(const std::string& item, int count) {
    std::string text = "[";
    for (int i = 0; i < count; ++i) text += (i ? "," : "") + item;
    return text + "]";
}

// A "MultiRequest" input nested `levels` deep into the proxy itself, one echo of "deep" at the bottom.
std::string nestedGroups(int levels) {
    if (levels <= 1) return "[[\"EchoA\",\"Echo\",\"deep\"]]";
    return "[[\"VorpaMediaProxy\",\"MultiRequest\"," + nestedGroups(levels - 1) + "]]";
}

}  // namespace

TEST_F(ProxyTest, MultiRequestAnswersInInputOrderWithFailuresInPlaceAtMostTenThousandAndSixteenDeep) {
    ASSERT_TRUE(startProxy()) << proxyOutput();
    CLocalVariant out, many;
    // The first sub-request finishes last; answers ([status], out) still come in
    // input order. With fewer than three elements a sub-request answers two empty values.
    // The support services never run for a grouped request, at any depth.
    ASSERT_EQ(call("MultiRequest", R"([["EchoA","Sleep",300], ["EchoA","Echo","fast"],
        ["NoSuchSatellite","Echo",1], ["EchoA","Status",5], ["EchoA","Echo"],
        ["VorpaMediaProxy","GenerateCrash",null], ["VorpaMediaProxy","MultiRequest",
        [["VorpaMediaProxy","GetKivConfig",null], ["VorpaMediaProxy","my-KIV_TailLog",["/etc/hostname",9]]]]])",
                   out.ptr()),
              0);
    const std::string denied = "[[" + std::to_string(CAB_E_PERMISSION_DENIED) + "],null]";
    EXPECT_EQ(json(out.get()), "[[[0],300],[[0],\"fast\"],[[" + std::to_string(CAB_E_NO_SUCH_SERVICE) +
                                   "],null],[[5],null],[null,null]," + denied + ",[[0],[" + denied + "," + denied +
                                   "]]]");

    // More sub-requests than one group has threads, finishing in a scrambled
    // order: every answer stays in its place, and the threads stay bounded.
    std::string input = "[", expected = "[";
    for (int i = 0; i < 150; ++i) {
        input += std::string(i ? "," : "") + "[\"EchoA\",\"Sleep\"," + std::to_string(i * 37 % 50) + "]";
        expected += std::string(i ? "," : "") + "[[0]," + std::to_string(i * 37 % 50) + "]";
    }
    const int idle = static_cast<int>(kivtest::statusKiB(proxy.pid(), "Threads:"));
    std::atomic<bool> done{false};
    int most = 0;  // the thread count, sampled every few milliseconds while the group runs
    std::thread sampler([&] {
        for (; !done; usleep(2000)) most = std::max<int>(most, kivtest::statusKiB(proxy.pid(), "Threads:"));
    });
    EXPECT_EQ(call("MultiRequest", input + "]", many.ptr()), 0);
    done = true;
    sampler.join();
    EXPECT_EQ(json(many.get()), expected + "]");
    EXPECT_LE(most, idle + KivRequestProxySatellite::kMultiRequestThreadsPerGroup + 8) << idle << " threads idle";

    // More than 10000 are refused before anything is sent (the first would be logged).
    CLocalVariant tooMany, atLimit;
    const std::string over = "[[\"EchoA\",\"Nest\",1]," + repeated("null", 10000).substr(1);
    EXPECT_EQ(call("MultiRequest", over, tooMany.ptr()), CAB_E_HANDLER_EXCEPTION);
    EXPECT_THAT(CabGetLastError(), HasSubstr("MultiRequest of 10001 sub-requests refused: at most 10000"));
    EXPECT_EQ(tooMany.vt(), VT_EMPTY);
    // Exactly the limit is served: every empty one answers with two empty values.
    ASSERT_EQ(call("MultiRequest", repeated("null", 10000), atLimit.ptr()), 0);
    EXPECT_EQ(json(atLimit.get()), repeated("[null,null]", 10000));

    // Grouped requests into the proxy itself: group k runs inside k - 1 inline
    // calls, so the 17th is the deepest served and the 18th is refused.
    CLocalVariant deep, tooDeep;
    ASSERT_EQ(call("MultiRequest", nestedGroups(kCabMaxInlineDepth + 1), deep.ptr()), 0);
    EXPECT_THAT(json(deep.get()), HasSubstr("\"deep\""));
    EXPECT_THAT(json(deep.get()), Not(HasSubstr(std::to_string(CAB_E_TOO_LARGE))));
    ASSERT_EQ(call("MultiRequest", nestedGroups(kCabMaxInlineDepth + 2), tooDeep.ptr()), 0);
    EXPECT_THAT(json(tooDeep.get()), Not(HasSubstr("\"deep\"")));
    EXPECT_THAT(json(tooDeep.get()), HasSubstr(std::to_string(CAB_E_TOO_LARGE)));
    EXPECT_EQ(stopProxy(), 0);
    EXPECT_THAT(proxyOutput(),
                testing::AllOf(HasSubstr("threadCabRequest exception"), Not(HasSubstr("Request Nest...")),
                               HasSubstr("MultiRequest of 10001 sub-requests refused")));
}
