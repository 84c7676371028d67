// Round trips through the running KivRequestProxy against the bare NATS
// client, on one nats-server in one run: a 64-byte raw echo, the proxy's
// "my-KIV_GetVersion", and a "MultiRequest" of eight "my-KIV_GetVersion".
// Reports the median (p50_us) and 99th percentile (p99_us) of each.
// BM_PairedGetVersion runs the raw echo and "my-KIV_GetVersion" alternately
// (at least 14 pairs, KIV_BENCH_PAIRS) and reports the median, min and max of
// the time ratios (bench/files/PairedRuns.h).
#include <benchmark/benchmark.h>
#include <nats/nats.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench/files/PairedRuns.h"
#include "cab/CabSatellite.h"
#include "host/CRegistry.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProxyProcess.h"
#include "tests/support/TempDir.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

kivtest::NatsServer* g_server;
natsConnection* g_rawServe;
natsConnection* g_rawClient;
CabClient* g_client;
kivtest::ProxyProcess g_proxy;
int g_pairs = 14;

void onRawEcho(natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
    natsConnection_Publish(nc, natsMsg_GetReply(m), natsMsg_GetData(m), natsMsg_GetDataLength(m));
    natsMsg_Destroy(m);
}

void report(benchmark::State& state, std::vector<double>& us) {
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    state.counters["p50_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
}

template <class F>
void timed(benchmark::State& state, F&& once) {
    std::vector<double> us;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        if (!once()) {
            state.SkipWithError("request failed");
            break;
        }
        us.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    }
    report(state, us);
}

void BM_RawNatsEcho64(benchmark::State& state) {
    std::string payload(64, 'p');
    timed(state, [&] {
        natsMsg* r = nullptr;
        if (natsConnection_Request(&r, g_rawClient, "raw.echo", payload.data(), 64, 10000) != NATS_OK) return false;
        natsMsg_Destroy(r);
        return true;
    });
}

void BM_ProxyGetVersion(benchmark::State& state) {
    timed(state, [&] {
        CLocalVariant in, out, rc;
        g_client->Request("VorpaMediaProxy", "my-KIV_GetVersion", in.get(), out.ptr(), 0, rc.ptr());
        return CabRetcode(rc.get()) == 0;
    });
}

void BM_ProxyMultiRequest8(benchmark::State& state) {
    CLocalVariant in;
    VUtil::CreateArray(in.get(), VT_VARIANT, 8);
    for (int i = 0; i < 8; ++i) {
        CLocalVariant sub;
        VUtil::CreateArray(sub.get(), VT_VARIANT, 3);
        VUtil::PutElement(sub.get(), 0, "VorpaMediaProxy");
        VUtil::PutElement(sub.get(), 1, "my-KIV_GetVersion");
        VUtil::PutElement(in.get(), i, sub.get());
    }
    timed(state, [&] {
        CLocalVariant out, rc;
        g_client->Request("VorpaMediaProxy", "MultiRequest", in.get(), out.ptr(), 0, rc.ptr());
        return CabRetcode(rc.get()) == 0;
    });
}

// 1000 round trips per side and pair.
void BM_PairedGetVersion(benchmark::State& state) {
    const int perRun = 1000;
    std::string payload(64, 'p');
    auto raw = [&] {
        for (int i = 0; i < perRun; ++i) {
            natsMsg* r = nullptr;
            if (natsConnection_Request(&r, g_rawClient, "raw.echo", payload.data(), 64, 10000) != NATS_OK) return false;
            natsMsg_Destroy(r);
        }
        return true;
    };
    auto version = [&] {
        for (int i = 0; i < perRun; ++i) {
            CLocalVariant in, out, rc;
            g_client->Request("VorpaMediaProxy", "my-KIV_GetVersion", in.get(), out.ptr(), 0, rc.ptr());
            if (CabRetcode(rc.get()) != 0) return false;
        }
        return true;
    };
    for (auto _ : state) {
        paired::Times t;
        if (!paired::run(state, g_pairs, raw, version, &t)) return;
        paired::report(state, t, "proxy_over_raw", false, "raw", "proxy", "us", 1e6 / perRun);
    }
}

BENCHMARK(BM_RawNatsEcho64)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_ProxyGetVersion)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_ProxyMultiRequest8)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_PairedGetVersion)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

bool startProxy() { return g_proxy.start() && g_proxy.waitUntilServing(*g_client); }

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (const char* pairs = getenv("KIV_BENCH_PAIRS")) g_pairs = std::max(7, atoi(pairs));
    kivtest::TempDir sandbox("kivbench");
    setenv("KIV_ROOT", (sandbox.path() + "/root").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (sandbox.path() + "/config").c_str(), 1);
    kivtest::NatsServer server(1024 * 1024);
    if (!server.start()) {
        fprintf(stderr, "bench_proxy: nats-server did not start: %s\n", server.error().c_str());
        return 1;
    }
    g_server = &server;
    CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "cabDirectory.port",
                                               server.port());
    CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 1);

    // Both sides send each message at once, as the broker library does;
    // the client's default buffering would add its flush delay to every echo.
    natsOptions* opts = nullptr;
    natsOptions_Create(&opts);
    natsOptions_SetURL(opts, server.url().c_str());
    natsOptions_SetSendAsap(opts, true);
    natsConnection_Connect(&g_rawServe, opts);
    natsConnection_Connect(&g_rawClient, opts);
    natsOptions_Destroy(opts);
    natsSubscription* sub = nullptr;
    natsConnection_Subscribe(&sub, g_rawServe, "raw.echo", onRawEcho, nullptr);
    natsConnection_Flush(g_rawServe);

    CabClient client;
    g_client = &client;
    if (client.Connect(server.hostPort().c_str(), "ProxyBench") != 0 || !startProxy()) {
        fprintf(stderr, "bench_proxy: the proxy did not start\n");
        g_proxy.stop(SIGKILL);
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    g_proxy.stop(SIGTERM);
    client.Disconnect();
    natsSubscription_Destroy(sub);
    natsConnection_Destroy(g_rawClient);
    natsConnection_Destroy(g_rawServe);
    return 0;
}
