#include "bench/stress/MemoryAttack.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include <nats/nats.h>
#include <nlohmann/json.hpp>

#include "bench/stress/StressReport.h"
#include "value/Cab1.h"
#include "host/CRegistry.h"
#include "tests/support/JsonVariant.h"
#include "variant/CLocalVariant.h"

namespace stress {

namespace {

using Clock = std::chrono::steady_clock;

const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";

std::string settingText(const char* name) {
    CStdStr value;
    return CRegistry::getInstance()->ReadSettingImpl(CStdStr(kConfigKey), CStdStr(name), value) ? value.c_str() : "";
}

// What the attacker saw come back: the first message of each answer.
struct AttackerTally {
    std::atomic<long long> answers{0}, busy{0}, messages{0}, bytes{0};
};

void onAnswer(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    AttackerTally& tally = *static_cast<AttackerTally*>(closure);
    ++tally.messages;
    tally.bytes += natsMsg_GetDataLength(msg);
    const char* part = nullptr;
    const char* status = nullptr;
    const bool first = natsMsgHeader_Get(msg, "Cab-Part", &part) != NATS_OK || (part && std::string(part) == "0");
    if (first) {
        ++tally.answers;
        if (natsMsgHeader_Get(msg, "Cab-Status", &status) == NATS_OK && status && atoi(status) == CAB_E_BUSY)
            ++tally.busy;
    }
    natsMsg_Destroy(msg);
}

// A plain NATS connection that asks and never grants credit.
class Attacker {
public:
    explicit Attacker(const StressConnection& connection) {
        std::string url = connection.server;
        if (url.find("://") == std::string::npos) url = "nats://" + url;
        if (url.find(':', url.find("://") + 3) == std::string::npos) {
            const std::string port = settingText("cabDirectory.port");
            url += ":" + (port.empty() ? std::string("4222") : port);
        }
        const std::string user = settingText("cabDirectory.user"), password = settingText("cabDirectory.password");
        const std::string token = connection.token.empty() ? settingText("cabDirectory.token") : connection.token;
        m_caller = user.empty() ? std::string("-") : user;  // the name its requests go under
        m_inbox = (user.empty() ? std::string("_INBOX") : "_INBOX_" + user) + ".memory-attack-" +
                  std::to_string(getpid());
        natsOptions* o = nullptr;
        natsOptions_Create(&o);
        natsOptions_SetURL(o, url.c_str());
        if (!user.empty()) natsOptions_SetUserInfo(o, user.c_str(), password.c_str());
        else if (!token.empty()) natsOptions_SetToken(o, token.c_str());
        natsStatus s = natsConnection_Connect(&m_nc, o);
        natsOptions_Destroy(o);
        if (s != NATS_OK) {
            m_error = std::string("attacker: ") + natsStatus_GetText(s);
            return;
        }
        s = natsConnection_Subscribe(&m_sub, m_nc, (m_inbox + ".>").c_str(), &onAnswer, &m_tally);
        if (s == NATS_OK) s = natsSubscription_SetPendingLimits(m_sub, -1, -1);
        if (s != NATS_OK) m_error = std::string("attacker inbox: ") + natsStatus_GetText(s);
    }
    ~Attacker() {
        natsSubscription_Destroy(m_sub);
        natsConnection_Destroy(m_nc);
    }
    const std::string& error() const { return m_error; }
    const AttackerTally& tally() const { return m_tally; }
    long long sentBytes() const { return m_sent.load(); }

    // Sends `in` to the proxy's `service` with an answer subject nobody credits.
    void ask(const char* service, const tagVARIANT& in) {
        const std::string payload = Cab1Encoding(in).str();
        natsMsg* m = nullptr;
        const std::string reply = m_inbox + "." + std::to_string(++m_asked);
        if (natsMsg_Create(&m, ("cab.VorpaMediaProxy." + std::string(service) + "." + m_caller).c_str(), reply.c_str(),
                           payload.data(), (int)payload.size()) != NATS_OK)
            return;
        natsMsgHeader_Set(m, "Cab-Proto", "1");
        if (natsConnection_PublishMsg(m_nc, m) == NATS_OK) m_sent += (long long)payload.size();
        natsMsg_Destroy(m);
    }

private:
    natsConnection* m_nc = nullptr;
    natsSubscription* m_sub = nullptr;
    std::string m_inbox;
    std::string m_caller;
    std::string m_error;
    AttackerTally m_tally;
    std::atomic<long long> m_asked{0}, m_sent{0};
};

}  // namespace

int runMemoryAttack(const MemoryAttack& attack, const StressConnection& connection, const StressData& data,
                    pid_t proxyPid) {
    Attacker attacker(connection);
    if (!attacker.error().empty()) {
        fprintf(stderr, "bench_stress: %s\n", attacker.error().c_str());
        return 2;
    }
    CabClient victim;
    if (!connection.token.empty()) victim.setToken(connection.token);
    victim.setRequestTimeoutMs(connection.timeoutMs > 0 ? connection.timeoutMs : 60000);
    if (victim.Connect(connection.server.c_str(), ("stress-victim-" + std::to_string(getpid())).c_str()) != 0) {
        fprintf(stderr, "bench_stress: the victim cannot connect: %s\n", CabGetLastError().c_str());
        return 2;
    }
    printf(
        "memory attack: %d grouped requests of %d inline \"GetFile\"s of %lld MiB, never credited, and %d\n"
        "uncredited \"GetFile\"s of the whole file a second for %d s; a victim fetches 4 MiB chunks\n",
        attack.groups, attack.perGroup, (long long)data.bytes.size() >> 20, attack.perSecond, attack.seconds);
    fflush(stdout);

    const long rssBefore = proxyPid > 0 ? rssKiB(proxyPid) : -1;
    RssMonitor monitor(proxyPid);
    monitor.start();
    const auto until = Clock::now() + std::chrono::seconds(attack.seconds);

    nlohmann::json group = nlohmann::json::array();
    for (int i = 0; i < attack.perGroup; ++i) group.push_back({"VorpaMediaProxy", "GetFile", {data.file}});
    JsonVariant groupIn(group.dump()), fileIn(nlohmann::json::array({data.file}).dump());
    for (int g = 0; g < attack.groups; ++g) attacker.ask("MultiRequest", groupIn.get());
    std::thread flood([&] {
        const auto step = std::chrono::microseconds(1000000 / std::max(1, attack.perSecond));
        for (auto next = Clock::now(); next < until; next += step) {
            std::this_thread::sleep_until(next);  // pacing, not synchronisation
            attacker.ask("GetFile", fileIn.get());
        }
    });

    long long answered = 0, busy = 0, failed = 0;
    double worstMs = 0;
    JsonVariant chunkIn(nlohmann::json::array({data.file, 0, 4 << 20}).dump());
    while (Clock::now() < until) {
        const auto start = Clock::now();
        CLocalVariant out, rc;
        int status = victim.Request("VorpaMediaProxy", "GetFile", chunkIn.get(), out.ptr(), 0, rc.ptr());
        if (status == 0) status = CabRetcode(rc.get());
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        worstMs = std::max(worstMs, ms);
        if (status == 0 && out.vt() == (VT_ARRAY | VT_UI1)) ++answered;
        else if (status == CAB_E_BUSY) {
            ++busy;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));  // tries again later, as told
        } else {
            ++failed;
        }
    }
    flood.join();
    // Alive: the process is there and answers.
    CLocalVariant none, version, rc;
    const bool answers = victim.Request("VorpaMediaProxy", "my-KIV_GetVersion", none.get(), version.ptr(), 0,
                                        rc.ptr()) == 0 &&
                         CabRetcode(rc.get()) == 0;
    const bool alive = (proxyPid <= 0 || kill(proxyPid, 0) == 0) && answers;
    monitor.stop();
    const long peak = std::max(rssBefore, monitor.peakKiB());

    const AttackerTally& t = attacker.tally();
    printf(
        "attacker: %lld bytes of requests sent; %lld answers began (%lld CAB_E_BUSY), %lld messages, %.1f MiB "
        "received\n",
        attacker.sentBytes(), t.answers.load(), t.busy.load(), t.messages.load(), t.bytes.load() / 1048576.0);
    printf("victim: %lld chunks answered, %lld CAB_E_BUSY, %lld other failures, slowest %.0f ms\n", answered, busy,
           failed, worstMs);
    printf("proxy: %s; RSS before %s, peak %s (goal: at most %s)\n", alive ? "alive and answering" : "NOT ANSWERING",
           mibText(rssBefore).c_str(), mibText(peak).c_str(), mibText((long)attack.goalKiB).c_str());
    const bool pass = alive && (peak < 0 || peak <= attack.goalKiB);
    printf("%s\n", pass ? "PASS: the proxy lived within its memory goal" : "FAIL");
    return pass ? 0 : 1;
}

}  // namespace stress
