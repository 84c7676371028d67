// "MultiRequest" and requests of the proxy to itself, through the running process.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "cab/CabInline.h"
#include "cab/VariantJson.h"
#include "host/CRegistry.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/proxy/ProxyFixture.h"
#include "tests/support/ProcStatus.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

using Clock = std::chrono::steady_clock;

// Status of answer i of a grouped answer; its output goes to *value when given.
int statusAt(const tagVARIANT& group, int i, tagVARIANT* value = nullptr) {
    CLocalVariant pair, status;
    VUtil::GetElement(group, i, pair.get());
    if (VUtil::GetArrayLength(pair.get()) != 2) return CAB_E_MALFORMED;
    VUtil::GetElement(pair.get(), 0, status.get());
    if (value) VUtil::GetElement(pair.get(), 1, *value);
    return CabRetcode(status.get());
}

std::string repeated(const std::string& item, int count) {
    std::string text = "[";
    for (int i = 0; i < count; ++i) text += (i ? "," : "") + item;
    return text + "]";
}

// The input of a "MultiRequest" nested `levels` deep into the proxy itself,
// with one echo of "deep" at the bottom.
std::string nestedGroups(int levels) {
    if (levels <= 1) return "[[\"EchoA\",\"Echo\",\"deep\"]]";
    return "[[\"VorpaMediaProxy\",\"MultiRequest\"," + nestedGroups(levels - 1) + "]]";
}

int threadsOf(pid_t pid) { return static_cast<int>(kivtest::statusKiB(pid, "Threads:")); }

// Samples a process's thread count every few milliseconds until stopped.
class ThreadPeak {
public:
    explicit ThreadPeak(pid_t pid) : m_pid(pid), m_thread([this] {
        while (!m_stop) {
            m_now = threadsOf(m_pid);
            m_peak = std::max(m_peak.load(), m_now.load());
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }) {}
    ~ThreadPeak() { stop(); }
    int stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        return m_peak;
    }
    int now() const { return m_now; }

private:
    pid_t m_pid;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_now{0}, m_peak{0};
    std::thread m_thread;
};

// Sets "cabDirectory.maxHandlers" for one test; back to the default after it.
struct MaxHandlersSetting {
    explicit MaxHandlersSetting(int count) { write(count); }
    ~MaxHandlersSetting() { write(0); }
    static void write(int count) {
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                               "cabDirectory.maxHandlers", count));
    }
};

}  // namespace

TEST_F(ProxyTest, MultiRequestAnswersInInputOrderWithFailuresInPlace) {
    pid_t pid = startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();

    // Empty input: -1 and no output.
    CLocalVariant empty;
    EXPECT_EQ(call("MultiRequest", "[]", empty.ptr()), -1);
    EXPECT_EQ(empty.vt(), VT_EMPTY);

    // The first sub-request finishes last; answers still come in input order.
    CLocalVariant out;
    ASSERT_EQ(call("MultiRequest",
                   "[[\"EchoA\",\"Sleep\",300],"
                   " [\"EchoA\",\"Echo\",\"fast\"],"
                   " [\"NoSuchSatellite\",\"Echo\",1],"
                   " [\"EchoA\",\"Status\",5],"
                   " [\"EchoA\",\"Echo\"]]",
                   out.ptr()),
              0);
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 5);
    CLocalVariant v0, v1, v2;
    EXPECT_EQ(statusAt(out.get(), 0, v0.ptr()), 0);
    EXPECT_EQ(json(v0.get()), "300");
    EXPECT_EQ(statusAt(out.get(), 1, v1.ptr()), 0);
    EXPECT_EQ(json(v1.get()), "\"fast\"");
    EXPECT_EQ(statusAt(out.get(), 2, v2.ptr()), CAB_E_NO_SUCH_SERVICE);
    EXPECT_EQ(v2.vt(), VT_EMPTY);
    EXPECT_EQ(statusAt(out.get(), 3), 5);
    // Fewer than three elements: two empty values in its place.
    CLocalVariant last;
    VUtil::GetElement(out.get(), 4, last.get());
    EXPECT_EQ(json(last.get()), "[null,null]");

    // More sub-requests than one group has threads, finishing in a scrambled
    // order: every answer stays in its place, and the threads stay bounded.
    const int n = 150;
    std::string many = "[";
    for (int i = 0; i < n; ++i)
        many += std::string(i ? "," : "") + "[\"EchoA\",\"Sleep\"," + std::to_string(i * 37 % 50) + "]";
    many += "]";
    int idle = threadsOf(pid);
    ThreadPeak peak(pid);
    CLocalVariant outMany;
    ASSERT_EQ(call("MultiRequest", many, outMany.ptr()), 0);
    int most = peak.stop();
    ASSERT_EQ(VUtil::GetArrayLength(outMany.get()), n);
    for (int i = 0; i < n; ++i) {
        CLocalVariant v;
        EXPECT_EQ(statusAt(outMany.get(), i, v.ptr()), 0) << i;
        EXPECT_EQ(json(v.get()), std::to_string(i * 37 % 50)) << i;
    }
    printf("MultiRequest of %d: proxy threads %d idle, %d at most\n", n, idle, most);
    EXPECT_LE(most, idle + KivRequestProxySatellite::kMultiRequestThreadsPerGroup + 8);

    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_NE(proxyOutput().find("threadCabRequest exception"), std::string::npos);
}

TEST_F(ProxyTest, MultiRequestOfMoreThanTenThousandIsRefusedBeforeAnythingIsSent) {
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    // One real sub-request first, then empty ones (they keep the request small).
    std::string tooMany = "[[\"EchoA\",\"Sleep\",1]";
    for (int i = 0; i < 10000; ++i) tooMany += ",null";
    tooMany += "]";
    CLocalVariant out;
    EXPECT_EQ(call("MultiRequest", tooMany, out.ptr()), CAB_E_HANDLER_EXCEPTION);
    EXPECT_NE(CabGetLastError().find("MultiRequest of 10001 sub-requests refused: at most 10000"), std::string::npos)
        << CabGetLastError();
    EXPECT_EQ(out.vt(), VT_EMPTY);

    // Exactly the limit is served: every empty one answers with two empty values.
    std::string atLimit = repeated("null", 10000);
    CLocalVariant outLimit;
    ASSERT_EQ(call("MultiRequest", atLimit, outLimit.ptr()), 0);
    EXPECT_EQ(VUtil::GetArrayLength(outLimit.get()), 10000);

    EXPECT_EQ(stopProxy(SIGTERM), 0);
    std::string log = proxyOutput();
    EXPECT_NE(log.find("MultiRequest of 10001 sub-requests refused"), std::string::npos);
    EXPECT_EQ(log.find("Request Sleep..."), std::string::npos);
}

TEST_F(ProxyTest, RequestsToItselfRunInlineAtMostSixteenDeep) {
    // The library's bound, seen through a satellite asking its own service.
    auto nest = [&](int depth, int* value) {
        CLocalVariant in, out, rc;
        in.get().vt = VT_I4;
        in.get().lVal = depth;
        client->Request("EchoA", "Nest", in.get(), out.ptr(), 0, rc.ptr());
        *value = out.vt() == VT_I4 ? out.get().lVal : -1;
        return CabRetcode(rc.get());
    };
    int value = 0;
    EXPECT_EQ(nest(kCabMaxInlineDepth, &value), 0);
    EXPECT_EQ(value, kCabMaxInlineDepth);
    EXPECT_EQ(nest(kCabMaxInlineDepth + 1, &value), CAB_E_TOO_LARGE);

    // Grouped requests into the proxy itself: sixteen levels, then refused.
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    CLocalVariant deep, tooDeep;
    // Group k runs inside k - 1 inline calls: the 17th is the deepest served.
    ASSERT_EQ(call("MultiRequest", nestedGroups(kCabMaxInlineDepth + 1), deep.ptr()), 0);
    std::string text = json(deep.get());
    EXPECT_NE(text.find("\"deep\""), std::string::npos) << text;
    EXPECT_EQ(text.find(std::to_string(CAB_E_TOO_LARGE)), std::string::npos) << text;
    ASSERT_EQ(call("MultiRequest", nestedGroups(kCabMaxInlineDepth + 2), tooDeep.ptr()), 0);
    text = json(tooDeep.get());
    EXPECT_EQ(text.find("\"deep\""), std::string::npos) << text;
    EXPECT_NE(text.find(std::to_string(CAB_E_TOO_LARGE)), std::string::npos) << text;
    EXPECT_EQ(stopProxy(SIGTERM), 0);
}

TEST_F(ProxyTest, NestedGroupsToItselfNeverStarveOtherCallers) {
    // Few workers, so that handlers waiting on workers would starve at once.
    MaxHandlersSetting cap(8);
    pid_t pid = startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    const int kOuter = 40, kGroups = 20, kEach = 20;
    std::string inner = repeated("[\"VorpaMediaProxy\",\"my-KIV_GetVersion\",null]", kEach);
    std::string outer = repeated("[\"VorpaMediaProxy\",\"MultiRequest\"," + inner + "]", kGroups);
    CLocalVariant in;
    std::string error;
    ASSERT_TRUE(VariantFromJson(outer, in.ptr(), &error)) << error;
    CabClient other;
    other.setRequestTimeoutMs(60000);
    ASSERT_EQ(other.Connect(server.hostPort().c_str(), "ProxyOtherClient"), 0);

    int idle = threadsOf(pid);
    ThreadPeak peak(pid);
    std::atomic<int> goodGroups{0}, finished{0};
    std::vector<std::thread> attackers;
    for (int t = 0; t < kOuter; ++t) {
        attackers.emplace_back([&] {
            CLocalVariant out;
            if (call("MultiRequest", in.get(), out.ptr()) == 0 && VUtil::GetArrayLength(out.get()) == kGroups) {
                for (int g = 0; g < kGroups; ++g) {
                    CLocalVariant group;
                    if (statusAt(out.get(), g, group.ptr()) != 0 || VUtil::GetArrayLength(group.get()) != kEach)
                        continue;
                    bool all = true;
                    for (int i = 0; i < kEach; ++i) all = all && statusAt(group.get(), i) == 0;
                    if (all) ++goodGroups;
                }
            }
            ++finished;
        });
    }
    // Once the groups are running, another caller asks something small.
    Clock::time_point limit = Clock::now() + std::chrono::seconds(30);
    while (peak.now() < idle + 16 && finished == 0 && Clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Clock::time_point sent = Clock::now();
    CLocalVariant version, rc;
    other.Request("VorpaMediaProxy", "my-KIV_GetVersion", CLocalVariant().get(), version.ptr(), 0, rc.ptr());
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
    int unfinished = kOuter - finished;
    for (std::thread& t : attackers) t.join();
    int most = peak.stop();

    printf("Small request beside %d nested groups: %.1f ms (%d of %d outer groups still running); "
           "proxy threads %d idle, %d at most\n",
           kOuter * kGroups, ms, unfinished, kOuter, idle, most);
    EXPECT_EQ(CabRetcode(rc.get()), 0);
    EXPECT_EQ(goodGroups, kOuter * kGroups);
    EXPECT_LT(ms, 20000.0);
    EXPECT_EQ(stopProxy(SIGTERM), 0);
}
