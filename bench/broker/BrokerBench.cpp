// The broker library against the bare NATS C client, on one nats-server:
// 64-byte echo round trips (one requester and eight), and 256 MiB fetched as
// 64 answers of 4 MiB (and, by the library alone, as 8 answers of 32 MiB). The server allows 8 MiB messages so that bare NATS
// carries each 4 MiB answer in one message.
// The BM_Paired* benchmarks run the library and bare NATS alternately, at
// least 14 pairs in 7 blocks of opposite order, and report the median, min and
// max of the block ratios (bench/files/PairedRuns.h); KIV_BENCH_PAIRS sets
// the number of pairs.
// BM_PairedRawHandoff64, BM_PairedRawLeaderFollower64 and BM_PairedRawHeaders64
// show what the library's ways cost on bare NATS: answering through one hop
// to a worker thread (as the library does), by leader/follower on a sync
// subscription, and with a header on each message (a natsMsg created and
// destroyed per message, as the library does).
#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <deque>
#include <thread>
#include <vector>

#include "bench/files/PairedRuns.h"
#include "tests/support/NatsServer.h"
#include "tools/cab-echo/EchoSatellite.h"

namespace {

kivtest::NatsServer* g_server;
EchoSatellite* g_echo;
CabClient* g_client;
natsConnection* g_rawServe;  // answers "raw.echo" and "raw.blob"
natsConnection* g_rawClient;
std::string g_blob(4u << 20, 'x');

const int64_t kBlob = 4 << 20;
const int kBlobsPerRound = 64;  // 256 MiB
int g_pairs = 14;

void onRawEcho(natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
    natsConnection_Publish(nc, natsMsg_GetReply(m), natsMsg_GetData(m), natsMsg_GetDataLength(m));
    natsMsg_Destroy(m);
}

void onRawBlob(natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
    natsConnection_Publish(nc, natsMsg_GetReply(m), g_blob.data(), (int)g_blob.size());
    natsMsg_Destroy(m);
}

void answerEcho(natsConnection* nc, natsMsg* m) {
    natsConnection_Publish(nc, natsMsg_GetReply(m), natsMsg_GetData(m), natsMsg_GetDataLength(m));
    natsMsg_Destroy(m);
}

// Bare NATS with a header each way, as the library's messages carry: each
// message is a natsMsg of its own, created and destroyed.
void onRawHeaders(natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
    natsMsg* a = nullptr;
    if (natsMsg_Create(&a, natsMsg_GetReply(m), nullptr, natsMsg_GetData(m), natsMsg_GetDataLength(m)) == NATS_OK) {
        natsMsgHeader_Set(a, "Cab-Status", "0");
        natsConnection_PublishMsg(nc, a);
        natsMsg_Destroy(a);
    }
    natsMsg_Destroy(m);
}

// Bare NATS served the way the library dispatches today: the subscription's
// delivery thread hands each message to a worker thread, which answers.
class HandoffServer {
public:
    void start(natsConnection* nc, const char* subject) {
        m_nc = nc;
        m_worker = std::thread([this] {
            std::unique_lock<std::mutex> lk(m_lock);
            for (;;) {
                m_cv.wait(lk, [this] { return m_stop || !m_msgs.empty(); });
                if (m_msgs.empty()) return;
                natsMsg* m = m_msgs.front();
                m_msgs.pop_front();
                lk.unlock();
                answerEcho(m_nc, m);
                lk.lock();
            }
        });
        natsConnection_QueueSubscribe(&m_sub, nc, subject, "raw", &HandoffServer::onMsg, this);
    }
    void stop() {
        natsSubscription_Unsubscribe(m_sub);
        {
            std::lock_guard<std::mutex> lk(m_lock);
            m_stop = true;
        }
        m_cv.notify_all();
        m_worker.join();
        natsSubscription_Destroy(m_sub);
    }

private:
    static void onMsg(natsConnection*, natsSubscription*, natsMsg* m, void* closure) {
        HandoffServer* self = static_cast<HandoffServer*>(closure);
        {
            std::lock_guard<std::mutex> lk(self->m_lock);
            self->m_msgs.push_back(m);
        }
        self->m_cv.notify_one();
    }
    natsConnection* m_nc = nullptr;
    natsSubscription* m_sub = nullptr;
    std::thread m_worker;
    std::mutex m_lock;  // guards the two below
    std::condition_variable m_cv;
    std::deque<natsMsg*> m_msgs;  // m_lock
    bool m_stop = false;          // m_lock
};

// Bare NATS served by leader/follower: two threads take turns waiting in
// natsSubscription_NextMsg on a sync subscription; the one that receives a
// message hands the waiting role to the other, then answers it itself.
class LeaderFollowerServer {
public:
    void start(natsConnection* nc, const char* subject) {
        m_nc = nc;
        natsConnection_QueueSubscribeSync(&m_sub, nc, subject, "raw");
        natsSubscription_SetPendingLimits(m_sub, -1, -1);
        for (int i = 0; i < 2; ++i) m_threads.emplace_back([this, i] { run(i); });
    }
    void stop() {
        {
            std::lock_guard<std::mutex> lk(m_lock);
            m_stop = true;
        }
        m_cv.notify_all();
        for (auto& t : m_threads) t.join();
        natsSubscription_Destroy(m_sub);
    }

private:
    void run(int me) {
        for (;;) {
            {
                std::unique_lock<std::mutex> lk(m_lock);
                m_cv.wait(lk, [&] { return m_stop || m_leader == me; });
                if (m_stop) return;
            }
            natsMsg* m = nullptr;
            if (natsSubscription_NextMsg(&m, m_sub, 100) != NATS_OK) continue;  // still the leader
            {
                std::lock_guard<std::mutex> lk(m_lock);
                m_leader = 1 - me;
            }
            m_cv.notify_all();
            answerEcho(m_nc, m);
        }
    }
    natsConnection* m_nc = nullptr;
    natsSubscription* m_sub = nullptr;
    std::vector<std::thread> m_threads;
    std::mutex m_lock;  // guards the two below
    std::condition_variable m_cv;
    int m_leader = 0;     // m_lock: the thread waiting for the next message
    bool m_stop = false;  // m_lock
};

void BM_RawEcho64(benchmark::State& state) {
    std::string payload(64, 'p');
    for (auto _ : state) {
        natsMsg* r = nullptr;
        if (natsConnection_Request(&r, g_rawClient, "raw.echo", payload.data(), 64, 10000) != NATS_OK) {
            state.SkipWithError("raw request failed");
            break;
        }
        natsMsg_Destroy(r);
    }
}

void BM_CabEcho64(benchmark::State& state) {
    tagVARIANT in, out, rc;
    VariantInit(&in);
    VariantInit(&out);
    VariantInit(&rc);
    in.vt = VT_ARRAY | VT_UI1;
    SAFEARRAYBOUND b{64 - 8, 0};  // 8 bytes of CAB1 header + 56 bytes = a 64-byte payload
    in.parray = SafeArrayCreate(VT_UI1, 1, &b);
    for (auto _ : state) {
        if (g_client->Request("BenchEcho", "Echo", in, &out, 0, &rc) != 0) {
            state.SkipWithError(CabGetLastError().c_str());
            break;
        }
    }
    VariantClear(&in);
    VariantClear(&out);
    VariantClear(&rc);
}

void BM_RawBlob256MiB(benchmark::State& state) {
    for (auto _ : state) {
        for (int i = 0; i < kBlobsPerRound; ++i) {
            natsMsg* r = nullptr;
            if (natsConnection_RequestString(&r, g_rawClient, "raw.blob", "", 10000) != NATS_OK ||
                natsMsg_GetDataLength(r) != kBlob) {
                state.SkipWithError("raw blob failed");
                return;
            }
            natsMsg_Destroy(r);
        }
    }
    state.SetBytesProcessed(state.iterations() * kBlob * kBlobsPerRound);
}

void BM_CabBlob256MiB(benchmark::State& state) {
    tagVARIANT in, out, rc;
    VariantInit(&in);
    VariantInit(&out);
    VariantInit(&rc);
    in.vt = VT_I8;
    in.llVal = kBlob;
    for (auto _ : state) {
        for (int i = 0; i < kBlobsPerRound; ++i) {
            if (g_client->Request("BenchEcho", "Blob", in, &out, 0, &rc) != 0 || CabRetcode(rc) != 0) {
                state.SkipWithError(CabGetLastError().c_str());
                return;
            }
        }
    }
    VariantClear(&out);
    VariantClear(&rc);
    state.SetBytesProcessed(state.iterations() * kBlob * kBlobsPerRound);
}

// The same 256 MiB as 8 answers of 32 MiB: each travels in parts under
// credit (4 parts of 8 MiB here). Bare NATS cannot carry such an answer in
// one message; compare with BM_CabBlob256MiB to see what splitting costs.
void BM_CabBlobParts256MiB(benchmark::State& state) {
    const int64_t big = 32 << 20;
    const int count = (int)((kBlob * kBlobsPerRound) / big);
    tagVARIANT in, out, rc;
    VariantInit(&in);
    VariantInit(&out);
    VariantInit(&rc);
    in.vt = VT_I8;
    in.llVal = big;
    for (auto _ : state) {
        for (int i = 0; i < count; ++i) {
            if (g_client->Request("BenchEcho", "Blob", in, &out, 0, &rc) != 0 || CabRetcode(rc) != 0) {
                state.SkipWithError(CabGetLastError().c_str());
                return;
            }
        }
    }
    VariantClear(&out);
    VariantClear(&rc);
    state.SetBytesProcessed(state.iterations() * big * count);
}

// ---- paired runs: bare NATS (A) and the library (B) alternately

bool rawEcho(const std::string& payload) {
    natsMsg* r = nullptr;
    if (natsConnection_Request(&r, g_rawClient, "raw.echo", payload.data(), (int)payload.size(), 10000) != NATS_OK)
        return false;
    natsMsg_Destroy(r);
    return true;
}

// A 64-byte request payload for the library: 8 bytes of CAB1 header + 56.
struct CabEchoInput {
    tagVARIANT in;
    CabEchoInput() {
        VariantInit(&in);
        in.vt = VT_ARRAY | VT_UI1;
        SAFEARRAYBOUND b{64 - 8, 0};
        in.parray = SafeArrayCreate(VT_UI1, 1, &b);
    }
    ~CabEchoInput() { VariantClear(&in); }
};

bool cabEcho(const CabEchoInput& input) {
    tagVARIANT out, rc;
    VariantInit(&out);
    VariantInit(&rc);
    bool ok = g_client->Request("BenchEcho", "Echo", input.in, &out, 0, &rc) == 0 && CabRetcode(rc) == 0;
    VariantClear(&out);
    VariantClear(&rc);
    return ok;
}

// 64-byte echo, one requester: 2000 round trips per side and pair. Also the
// p50 and p99 of every round trip of each side.
void BM_PairedEcho64(benchmark::State& state) {
    const int perRun = 2000;
    std::string payload(64, 'p');
    CabEchoInput input;
    std::vector<double> rawUs, cabUs;
    auto timedLoop = [&](std::vector<double>* us, const std::function<bool()>& once) {
        for (int i = 0; i < perRun; ++i) {
            auto t0 = std::chrono::steady_clock::now();
            if (!once()) return false;
            us->push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
        }
        return true;
    };
    for (auto _ : state) {
        paired::Times t;
        if (!paired::run(
                state, g_pairs, [&] { return timedLoop(&rawUs, [&] { return rawEcho(payload); }); },
                [&] { return timedLoop(&cabUs, [&] { return cabEcho(input); }); }, &t))
            return;
        paired::report(state, t, "cab_over_raw", false, "raw", "cab", "us", 1e6 / perRun);
    }
    state.counters["raw_p50_us"] = paired::percentile(rawUs, 50);
    state.counters["cab_p50_us"] = paired::percentile(cabUs, 50);
    state.counters["raw_p99_us"] = paired::percentile(rawUs, 99);
    state.counters["cab_p99_us"] = paired::percentile(cabUs, 99);
    state.counters["p99_cab_over_raw"] = paired::percentile(cabUs, 99) / paired::percentile(rawUs, 99);
}

// 64-byte echo, 8 requesters at once on one connection each side: 500 round
// trips each per run; the time is per request (wall time / 4000).
void BM_PairedEcho64x8(benchmark::State& state) {
    const int threads = 8, perThread = 500;
    std::string payload(64, 'p');
    CabEchoInput input;
    auto concurrently = [&](const std::function<bool()>& once) {
        std::vector<std::thread> ts;
        std::vector<char> ok(threads, 1);
        for (int t = 0; t < threads; ++t)
            ts.emplace_back([&, t] {
                for (int i = 0; i < perThread && ok[t]; ++i) ok[t] = once();
            });
        for (auto& t : ts) t.join();
        return std::all_of(ok.begin(), ok.end(), [](char c) { return c != 0; });
    };
    for (auto _ : state) {
        paired::Times t;
        if (!paired::run(
                state, g_pairs, [&] { return concurrently([&] { return rawEcho(payload); }); },
                [&] { return concurrently([&] { return cabEcho(input); }); }, &t))
            return;
        paired::report(state, t, "cab_over_raw", false, "raw", "cab", "us_per_request", 1e6 / (threads * perThread));
    }
}

// 256 MiB: bare NATS as 64 answers of 4 MiB against the library as 8
// answers of 32 MiB, each sent in parts under credit.
void BM_PairedBlobParts256MiB(benchmark::State& state) {
    const int64_t big = 32 << 20;
    const int count = (int)((kBlob * kBlobsPerRound) / big);
    auto rawSide = [&] {
        for (int i = 0; i < kBlobsPerRound; ++i) {
            natsMsg* r = nullptr;
            if (natsConnection_RequestString(&r, g_rawClient, "raw.blob", "", 10000) != NATS_OK) return false;
            bool ok = natsMsg_GetDataLength(r) == kBlob;
            natsMsg_Destroy(r);
            if (!ok) return false;
        }
        return true;
    };
    auto cabSide = [&] {
        tagVARIANT in, out, rc;
        VariantInit(&in);
        VariantInit(&out);
        VariantInit(&rc);
        in.vt = VT_I8;
        in.llVal = big;
        bool ok = true;
        for (int i = 0; i < count && ok; ++i) {
            ok = g_client->Request("BenchEcho", "Blob", in, &out, 0, &rc) == 0 && CabRetcode(rc) == 0 &&
                 out.vt == (VT_ARRAY | VT_UI1) && out.parray->rgsabound[0].cElements == (uint32_t)big;
            VariantClear(&out);
            VariantClear(&rc);
        }
        return ok;
    };
    for (auto _ : state) {
        paired::Times t;
        if (!paired::run(state, g_pairs, rawSide, cabSide, &t)) return;
        paired::report(state, t, "cab_speed_vs_raw", true, "raw", "cab", "ms", 1e3);
    }
}

BENCHMARK(BM_PairedEcho64)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_PairedEcho64x8)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_PairedBlobParts256MiB)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

// Where the library's echo time goes: bare NATS answered on the delivery
// thread (A) against bare NATS served another way (B): "raw.handoff" (one
// hop to a worker, as the library dispatches), "raw.lf" (leader/follower).
void pairedRawVariant(benchmark::State& state, const char* subject) {
    const int perRun = 2000;
    std::string payload(64, 'p');
    bool headers = std::string(subject) == "raw.headers";
    auto loop = [&](const char* subj) {
        for (int i = 0; i < perRun; ++i) {
            natsMsg* r = nullptr;
            natsStatus s;
            if (headers && subj != std::string("raw.echo")) {
                natsMsg* q = nullptr;
                natsMsg_Create(&q, subj, nullptr, payload.data(), 64);
                natsMsgHeader_Set(q, "Cab-Proto", "1");
                s = natsConnection_RequestMsg(&r, g_rawClient, q, 10000);
                natsMsg_Destroy(q);
            } else {
                s = natsConnection_Request(&r, g_rawClient, subj, payload.data(), 64, 10000);
            }
            if (s != NATS_OK) return false;
            natsMsg_Destroy(r);
        }
        return true;
    };
    for (auto _ : state) {
        paired::Times t;
        if (!paired::run(
                state, g_pairs, [&] { return loop("raw.echo"); }, [&] { return loop(subject); }, &t))
            return;
        paired::report(state, t, "variant_over_raw", false, "raw", "variant", "us", 1e6 / perRun);
    }
}
void BM_PairedRawHandoff64(benchmark::State& state) { pairedRawVariant(state, "raw.handoff"); }
void BM_PairedRawLeaderFollower64(benchmark::State& state) { pairedRawVariant(state, "raw.lf"); }
void BM_PairedRawHeaders64(benchmark::State& state) { pairedRawVariant(state, "raw.headers"); }
// The control: bare NATS against itself; its ratios show what pairing alone gives.
void BM_PairedRawControl64(benchmark::State& state) { pairedRawVariant(state, "raw.echo"); }
BENCHMARK(BM_PairedRawHandoff64)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_PairedRawLeaderFollower64)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_PairedRawHeaders64)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_PairedRawControl64)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK(BM_RawEcho64)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_CabEcho64)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_RawEcho64)->Threads(8)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_CabEcho64)->Threads(8)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_RawBlob256MiB)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_CabBlob256MiB)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_CabBlobParts256MiB)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (const char* pairs = getenv("KIV_BENCH_PAIRS")) g_pairs = std::max(7, atoi(pairs));
    kivtest::NatsServer server(8 << 20);
    if (!server.start()) {
        fprintf(stderr, "nats-server: %s\n", server.error().c_str());
        return 2;
    }
    g_server = &server;
    EchoSatellite echo;
    if (echo.Connect(server.hostPort().c_str(), "BenchEcho") != 0) {
        fprintf(stderr, "%s\n", CabGetLastError().c_str());
        return 2;
    }
    g_echo = &echo;
    CabClient client;
    client.Connect(server.hostPort().c_str(), "BenchClient");
    g_client = &client;
    natsSubscription* s1 = nullptr;
    natsSubscription* s2 = nullptr;
    natsSubscription* s3 = nullptr;
    // Bare NATS with the same write policy as the library (send at once);
    // KIV_BENCH_RAW_BUFFERED=1 keeps the client's default buffered writes.
    natsOptions* opts = nullptr;
    natsOptions_Create(&opts);
    natsOptions_SetURL(opts, server.url().c_str());
    natsOptions_SetSendAsap(opts, getenv("KIV_BENCH_RAW_BUFFERED") == nullptr);
    natsConnection_Connect(&g_rawServe, opts);
    natsConnection_Connect(&g_rawClient, opts);
    natsOptions_Destroy(opts);
    natsConnection_QueueSubscribe(&s1, g_rawServe, "raw.echo", "raw", onRawEcho, nullptr);
    natsConnection_QueueSubscribe(&s2, g_rawServe, "raw.blob", "raw", onRawBlob, nullptr);
    natsConnection_QueueSubscribe(&s3, g_rawServe, "raw.headers", "raw", onRawHeaders, nullptr);
    HandoffServer handoff;
    handoff.start(g_rawServe, "raw.handoff");
    LeaderFollowerServer leaderFollower;
    leaderFollower.start(g_rawServe, "raw.lf");
    natsConnection_Flush(g_rawServe);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    natsSubscription_Destroy(s1);
    natsSubscription_Destroy(s2);
    natsSubscription_Destroy(s3);
    handoff.stop();
    leaderFollower.stop();
    natsConnection_Destroy(g_rawClient);
    natsConnection_Destroy(g_rawServe);
    client.Disconnect();
    echo.Disconnect();
    return 0;
}
