// "MultiRequest" and requests of the proxy to itself, through the running process.
#include <atomic>

#include "cab/CabInline.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/proxy/ProxyFixture.h"
#include "tests/support/ProcStatus.h"

namespace {

using Clock = std::chrono::steady_clock;

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

// Samples a process's thread count every few milliseconds until stopped.
struct ThreadPeak {
    explicit ThreadPeak(pid_t pid) : sampler([this, pid] {
        for (; !done; usleep(2000)) peak = std::max<int>(peak, now = kivtest::statusKiB(pid, "Threads:"));
    }) {}
    ~ThreadPeak() { stop(); }
    int stop() {
        done = true;
        if (sampler.joinable()) sampler.join();
        return peak;
    }
    std::atomic<bool> done{false};
    std::atomic<int> now{0}, peak{0};
    std::thread sampler;
};

}  // namespace

TEST_F(ProxyTest, MultiRequestAnswersInInputOrderWithFailuresInPlaceAndAtMostTenThousand) {
    ASSERT_TRUE(startProxy()) << proxyOutput();
    CLocalVariant empty, out, many;
    EXPECT_EQ(call("MultiRequest", "[]", empty.ptr()), -1);
    EXPECT_EQ(empty.vt(), VT_EMPTY);

    // The first sub-request finishes last; answers ([status], out) still come in
    // input order. With fewer than three elements a sub-request answers two empty values.
    ASSERT_EQ(call("MultiRequest", R"([["EchoA","Sleep",300], ["EchoA","Echo","fast"],
        ["NoSuchSatellite","Echo",1], ["EchoA","Status",5], ["EchoA","Echo"]])", out.ptr()), 0);
    EXPECT_EQ(json(out.get()), "[[[0],300],[[0],\"fast\"],[[" + std::to_string(CAB_E_NO_SUCH_SERVICE) +
                                   "],null],[[5],null],[null,null]]");

    // More sub-requests than one group has threads, finishing in a scrambled
    // order: every answer stays in its place, and the threads stay bounded.
    std::string input = "[", expected = "[";
    for (int i = 0; i < 150; ++i) {
        input += std::string(i ? "," : "") + "[\"EchoA\",\"Sleep\"," + std::to_string(i * 37 % 50) + "]";
        expected += std::string(i ? "," : "") + "[[0]," + std::to_string(i * 37 % 50) + "]";
    }
    const int idle = static_cast<int>(kivtest::statusKiB(proxy.pid(), "Threads:"));
    ThreadPeak peak(proxy.pid());
    ASSERT_EQ(call("MultiRequest", input + "]", many.ptr()), 0);
    const int most = peak.stop();
    EXPECT_EQ(json(many.get()), expected + "]");
    printf("MultiRequest of 150: proxy threads %d idle, %d at most\n", idle, most);
    EXPECT_LE(most, idle + KivRequestProxySatellite::kMultiRequestThreadsPerGroup + 8);

    // More than 10000 are refused before anything is sent: one real sub-request
    // first, then empty ones (they keep the request small).
    CLocalVariant tooMany, atLimit;
    const std::string over = "[[\"EchoA\",\"Nest\",1]," + repeated("null", 10000).substr(1);
    EXPECT_EQ(call("MultiRequest", over, tooMany.ptr()), CAB_E_HANDLER_EXCEPTION);
    EXPECT_THAT(CabGetLastError(), HasSubstr("MultiRequest of 10001 sub-requests refused: at most 10000"));
    EXPECT_EQ(tooMany.vt(), VT_EMPTY);
    // Exactly the limit is served: every empty one answers with two empty values.
    ASSERT_EQ(call("MultiRequest", repeated("null", 10000), atLimit.ptr()), 0);
    EXPECT_EQ(json(atLimit.get()), repeated("[null,null]", 10000));
    EXPECT_EQ(stopProxy(), 0);
    EXPECT_THAT(proxyOutput(), HasSubstr("threadCabRequest exception"));
    EXPECT_THAT(proxyOutput(), HasSubstr("MultiRequest of 10001 sub-requests refused"));
    EXPECT_THAT(proxyOutput(), Not(HasSubstr("Request Nest...")));
}

TEST_F(ProxyTest, RequestsToItselfRunInlineAtMostSixteenDeep) {
    // The library's bound, seen through a satellite asking its own service.
    for (int depth : {kCabMaxInlineDepth, kCabMaxInlineDepth + 1}) {
        CLocalVariant out, rc;
        client->Request("EchoA", "Nest", JsonVariant(std::to_string(depth)).get(), out.ptr(), 0, rc.ptr());
        EXPECT_EQ(CabRetcode(rc.get()), depth > kCabMaxInlineDepth ? CAB_E_TOO_LARGE : 0) << depth;
        if (depth == kCabMaxInlineDepth) {
            EXPECT_EQ(json(out.get()), std::to_string(depth));
        }
    }
    // Grouped requests into the proxy itself: group k runs inside k - 1 inline
    // calls, so the 17th is the deepest served and the 18th is refused.
    ASSERT_TRUE(startProxy()) << proxyOutput();
    CLocalVariant deep, tooDeep;
    ASSERT_EQ(call("MultiRequest", nestedGroups(kCabMaxInlineDepth + 1), deep.ptr()), 0);
    EXPECT_THAT(json(deep.get()), HasSubstr("\"deep\""));
    EXPECT_THAT(json(deep.get()), Not(HasSubstr(std::to_string(CAB_E_TOO_LARGE))));
    ASSERT_EQ(call("MultiRequest", nestedGroups(kCabMaxInlineDepth + 2), tooDeep.ptr()), 0);
    EXPECT_THAT(json(tooDeep.get()), Not(HasSubstr("\"deep\"")));
    EXPECT_THAT(json(tooDeep.get()), HasSubstr(std::to_string(CAB_E_TOO_LARGE)));
}

TEST_F(ProxyTest, NestedGroupsToItselfNeverStarveOtherCallers) {
    // Few workers, so that handlers waiting on workers would starve at once.
    ASSERT_TRUE(setting("cabDirectory.maxHandlers", 8));
    ASSERT_TRUE(startProxy()) << proxyOutput();
    ASSERT_TRUE(setting("cabDirectory.maxHandlers", 0));  // the default again for later tests
    const int kOuter = 40, kGroups = 20, kEach = 20;
    const std::string inner = repeated("[\"VorpaMediaProxy\",\"my-KIV_GetVersion\",null]", kEach);
    JsonVariant in(repeated("[\"VorpaMediaProxy\",\"MultiRequest\"," + inner + "]", kGroups));
    CabClient other;
    other.setRequestTimeoutMs(60000);
    ASSERT_EQ(other.Connect(server.hostPort().c_str(), "ProxyOtherClient"), 0);

    const int idle = static_cast<int>(kivtest::statusKiB(proxy.pid(), "Threads:"));
    ThreadPeak peak(proxy.pid());
    std::atomic<int> served{0}, finished{0};  // answers with status 0, nested ones included
    std::vector<std::thread> callers;
    for (int t = 0; t < kOuter; ++t)
        callers.emplace_back([&] {
            CLocalVariant out;
            const std::string text = call("MultiRequest", in.get(), out.ptr()) == 0 ? json(out.get()) : "";
            for (size_t at = text.find("[[0],"); at != std::string::npos; at = text.find("[[0],", at + 1))
                ++served;
            ++finished;
        });
    // Once the groups are running, another caller asks something small.
    for (Clock::time_point limit = Clock::now() + std::chrono::seconds(30);
         peak.now < idle + 16 && finished == 0 && Clock::now() < limit;)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const Clock::time_point sent = Clock::now();
    CLocalVariant version, rc;
    other.Request("VorpaMediaProxy", "my-KIV_GetVersion", CLocalVariant().get(), version.ptr(), 0, rc.ptr());
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
    const int unfinished = kOuter - finished;
    for (std::thread& t : callers) t.join();
    printf("Small request beside %d nested groups: %.1f ms (%d of %d outer groups still running); "
           "proxy threads %d idle, %d at most\n",
           kOuter * kGroups, ms, unfinished, kOuter, idle, peak.stop());
    EXPECT_EQ(CabRetcode(rc.get()), 0);
    EXPECT_EQ(served, kOuter * kGroups * (kEach + 1));
    EXPECT_LT(ms, 20000.0);
    EXPECT_EQ(stopProxy(), 0);
}
