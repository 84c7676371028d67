// The broker library against the bare NATS C client, on one nats-server:
// 64-byte echo round trips (one requester and eight), and 256 MiB fetched as
// 64 answers of 4 MiB (and, by the library alone, as 8 answers of 32 MiB). The server allows 8 MiB messages so that bare NATS
// carries each 4 MiB answer in one message.
#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/NatsServer.h"
#include "tools/cab-echo/EchoSatellite.h"

namespace {

kivtest::NatsServer* g_server;
EchoSatellite* g_echo;
CabClient* g_client;
natsConnection* g_rawServe;   // answers "raw.echo" and "raw.blob"
natsConnection* g_rawClient;
std::string g_blob(4u << 20, 'x');

const int64_t kBlob = 4 << 20;
const int kBlobsPerRound = 64;  // 256 MiB

void onRawEcho(natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
    natsConnection_Publish(nc, natsMsg_GetReply(m), natsMsg_GetData(m), natsMsg_GetDataLength(m));
    natsMsg_Destroy(m);
}

void onRawBlob(natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
    natsConnection_Publish(nc, natsMsg_GetReply(m), g_blob.data(), (int)g_blob.size());
    natsMsg_Destroy(m);
}

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

BENCHMARK(BM_RawEcho64)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_CabEcho64)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_RawEcho64)->Threads(8)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_CabEcho64)->Threads(8)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_RawBlob256MiB)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(2)->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_CabBlob256MiB)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(2)->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_CabBlobParts256MiB)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(2)->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
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
    natsConnection_Flush(g_rawServe);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    natsSubscription_Destroy(s1);
    natsSubscription_Destroy(s2);
    natsConnection_Destroy(g_rawClient);
    natsConnection_Destroy(g_rawServe);
    client.Disconnect();
    echo.Disconnect();
    return 0;
}
