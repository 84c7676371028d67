// The proxy under a service manager, as systemd runs it, without systemd: a
// datagram socket of the test's own is its NOTIFY_SOCKET. It must say READY=1
// with where it serves, keep the watchdog fed, say STOPPING=1 on SIGTERM, and
// tell its standard error (the journal) that it started, where it connected
// and why it stopped, while the log file keeps only errors (LogLevel 1).
#include <sys/socket.h>
#include <sys/un.h>

#include "tests/proxy/ProxyFixture.h"

namespace {

// The notification socket, as systemd listens on it.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path) : m_path(path) {
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        bound = m_fd >= 0 && bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        timeval safety = {60, 0};  // a missing message fails the test, it does not hang it
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &safety, sizeof safety);
    }
    ~NotifySocket() { close(m_fd); }
    // The next message holding `text`, counting the watchdog pings on the way; "" on time-out.
    std::string waitFor(const std::string& text) {
        char buf[4096];
        for (;;) {
            ssize_t n = recv(m_fd, buf, sizeof buf, 0);
            if (n < 0) return "";
            std::string m(buf, static_cast<size_t>(n));
            if (m == "WATCHDOG=1") ++pings;
            if (m.find(text) != std::string::npos) return m;
        }
    }
    bool bound = false;
    int pings = 0;

private:
    std::string m_path;
    int m_fd = -1;
};

}  // namespace

TEST_F(ProxyTest, TellsTheServiceManagerAndTheJournal) {
    ASSERT_TRUE(setting("LogLevel", 1, "Software\\Kiv Foundry\\Kiv"));
    NotifySocket manager(root + "/notify");
    ASSERT_TRUE(manager.bound);
    // A root of its own: the log file is this test's alone.
    const std::string own = root + "/service-manager";
    const std::map<std::string, std::string> env = {{"NOTIFY_SOCKET", root + "/notify"},
                                                    {"WATCHDOG_USEC", "200000"},
                                                    {"WATCHDOG_PID", ""},
                                                    {"KIV_ROOT", own}};

    // The directory is not there: no READY=1, a STATUS= saying so, status 0.
    const int port = server.port();
    server.stop();
    ASSERT_TRUE(proxy.start(env, root + "/proxy.out"));
    const std::string refused = manager.waitFor("STATUS=");
    EXPECT_EQ(proxy.wait(), 0);
    EXPECT_THAT(refused, testing::HasSubstr("directory unreachable"));
    EXPECT_THAT(refused, testing::Not(testing::HasSubstr("READY=1")));
    EXPECT_THAT(proxyOutput(), testing::HasSubstr("not serving: registering with the directory failed"));

    ASSERT_TRUE(server.restart());
    ASSERT_EQ(server.port(), port);
    ASSERT_TRUE(startProxy(env));
    const std::string serving = "serving 11 services on nats://" + hostPort() + " as VorpaMediaProxy";
    EXPECT_EQ(manager.waitFor("READY=1"), "READY=1\nSTATUS=" + serving);
    // Three pings: the watchdog thread keeps going while the run loop turns.
    while (manager.pings < 3 && !manager.waitFor("WATCHDOG=1").empty()) {
    }
    EXPECT_GE(manager.pings, 3);
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_EQ(manager.waitFor("STOPPING=1"), "STOPPING=1\nSTATUS=stopping (SIGTERM received)");

    const std::string journal = proxyOutput();
    for (const char* line : {"KivRequestProxy ", "Connected to the directory at nats://", serving.c_str(),
                             "stopping (SIGTERM received)", "\nstopped\n"})
        EXPECT_THAT(journal, testing::HasSubstr(line));
    const std::string log = kivtest::readFile(own + "/Library/Logs/KivFoundry/KivRequestProxy.log");
    EXPECT_THAT(log, testing::HasSubstr("[ERROR] - not serving")) << "the log file keeps errors";
    EXPECT_EQ(log.find("[INFO ]"), std::string::npos) << "LogLevel 1 keeps no INFO line";
}
