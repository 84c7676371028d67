// File services, in one run on one nats-server (8 MiB messages):
// - "GetFile" of a 1 GiB file in 4 MiB chunks through the running
//   KivRequestProxy, against `cat FILE > /dev/null` and against bare NATS
//   request/reply of 4 MiB answers (the same 1 GiB in 256 replies);
//   the proxy's peak memory during the transfer (VmHWM) over its idle size,
//   in chunks (goal: under 3).
// - BM_PairedGetFile: the same two transfers alternately, at least 14
//   pairs (KIV_BENCH_PAIRS), with the median, min and max of the speed
//   ratios (bench/files/PairedRuns.h), and the proxy's peak memory over idle
//   in every one of its runs (the peak is reset before each run).
// - GetFolderContent of a 100,000-file folder sorted by size, one page of
//   100 per request (in process, the listing and sort are redone each time).
// KIV_BENCH_GETFILE_MIB sets the file size in MiB (default 1024);
// KIV_BENCH_GETFILE_CHUNK the bytes per "GetFile" (default 4 MiB).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <nats/nats.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/files/PairedRuns.h"
#include "cab/CabSatellite.h"
#include "files/CFileTools.h"
#include "files/CKivFileManager.h"
#include "host/CRegistry.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProxyProcess.h"
#include "tests/support/TempDir.h"
#include "tools/kiv-media-catalog/CatalogSatellite.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

const long long kChunk = 4 << 20;  // the raw NATS reply size
long long g_getChunk = kChunk;     // bytes per "GetFile"
long long g_fileSize = 1ll << 30;
std::string g_file;
std::string g_folder;
natsConnection* g_rawServe;
natsConnection* g_rawClient;
std::string g_blob(kChunk, 'x');
CabClient* g_client;
kivtest::ProxyProcess g_proxy;
long g_idleKiB = 0;
int g_pairs = 14;

void onRawBlob(natsConnection* nc, natsSubscription*, natsMsg* m, void*) {
    natsConnection_Publish(nc, natsMsg_GetReply(m), g_blob.data(), (int)g_blob.size());
    natsMsg_Destroy(m);
}

// A field of /proc/<pid>/status in KiB, or -1.
long procStatusKiB(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, field.size() + 1, field + ":") == 0) return atol(line.c_str() + field.size() + 1);
    return -1;
}

// Starts a new peak (VmHWM) for `pid` at its current size; false when the
// kernel refuses.
bool resetPeak(pid_t pid) {
    FILE* f = fopen(("/proc/" + std::to_string(pid) + "/clear_refs").c_str(), "w");
    if (!f) return false;
    bool ok = fputs("5", f) >= 0;
    return fclose(f) == 0 && ok;
}

void BM_CatFile(benchmark::State& state) {
    std::string cmd = "cat '" + g_file + "' > /dev/null";
    for (auto _ : state)
        if (system(cmd.c_str()) != 0) state.SkipWithError("cat failed");
    state.SetBytesProcessed(state.iterations() * g_fileSize);
}

// The file's size in 4 MiB bare NATS replies.
bool rawTransfer() {
    const long long replies = g_fileSize / kChunk;
    for (long long i = 0; i < replies; ++i) {
        natsMsg* r = nullptr;
        if (natsConnection_RequestString(&r, g_rawClient, "raw.blob", "", 30000) != NATS_OK) return false;
        bool ok = natsMsg_GetDataLength(r) == kChunk;
        natsMsg_Destroy(r);
        if (!ok) return false;
    }
    return true;
}

// The whole file through the proxy's "GetFile", g_getChunk bytes at a time.
bool proxyTransfer() {
    for (long long offset = 0; offset < g_fileSize; offset += g_getChunk) {
        CLocalVariant in, out, rc;
        VUtil::CreateArray(in.get(), VT_VARIANT, 3);
        VUtil::PutElement(in.get(), 0, CStdStr(g_file));
        VUtil::PutElement(in.get(), 1, offset);
        VUtil::PutElement(in.get(), 2, g_getChunk);
        if (g_client->Request("VorpaMediaProxy", "GetFile", in.get(), out.ptr(), 0, rc.ptr()) != 0 ||
            CabRetcode(rc.get()) != 0 || out.vt() != (VT_ARRAY | VT_UI1) ||
            out.get().parray->rgsabound[0].cElements != (uint32_t)std::min(g_getChunk, g_fileSize - offset))
            return false;
    }
    return true;
}

void BM_RawNats4MiB(benchmark::State& state) {
    for (auto _ : state) {
        if (!rawTransfer()) {
            state.SkipWithError("raw request failed");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * (g_fileSize / kChunk) * kChunk);
}

void BM_ProxyGetFile4MiB(benchmark::State& state) {
    for (auto _ : state) {
        if (!proxyTransfer()) {
            state.SkipWithError("GetFile failed");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * g_fileSize);
    long peak = procStatusKiB(g_proxy.pid(), "VmHWM");
    state.counters["proxy_idle_MiB"] = g_idleKiB / 1024.0;
    state.counters["proxy_peak_MiB"] = peak / 1024.0;
    state.counters["peak_over_idle_chunks"] = (peak - g_idleKiB) / (double)(kChunk / 1024);
}

// Bare NATS (A) and the proxy (B) alternately. The proxy's peak memory is
// reset before each of its runs and read after it.
void BM_PairedGetFile(benchmark::State& state) {
    std::vector<double> peaks;  // chunks over idle, one per proxy run
    bool peakReset = true;
    auto proxySide = [&] {
        peakReset = resetPeak(g_proxy.pid()) && peakReset;
        bool ok = proxyTransfer();
        peaks.push_back((procStatusKiB(g_proxy.pid(), "VmHWM") - g_idleKiB) / (double)(kChunk / 1024));
        return ok;
    };
    for (auto _ : state) {
        paired::Times t;
        if (!paired::run(state, g_pairs, rawTransfer, proxySide, &t)) return;
        paired::report(state, t, "getfile_speed_vs_raw", true, "raw", "getfile", "ms", 1e3);
    }
    state.counters["proxy_idle_MiB"] = g_idleKiB / 1024.0;
    if (!peakReset || peaks.empty()) {
        state.counters["peak_over_idle_chunks_max"] = -1;  // no per-run peak: the kernel refused the reset
        return;
    }
    peaks.erase(peaks.begin());  // the warm-up run
    state.counters["peak_over_idle_chunks_median"] = paired::median(peaks);
    state.counters["peak_over_idle_chunks_max"] = *std::max_element(peaks.begin(), peaks.end());
}

void BM_FolderContent100kBySize(benchmark::State& state) {
    CKivFileManager manager(g_client);
    long first = 0;
    for (auto _ : state) {
        CLocalVariant in, out;
        VUtil::CreateArray(in.get(), VT_VARIANT, 8);
        VUtil::PutElement(in.get(), 0, "bench");
        VUtil::PutElement(in.get(), 1, CStdStr(g_folder));
        VUtil::PutElement(in.get(), 2, 3L);
        VUtil::PutElement(in.get(), 3, "");
        VUtil::PutElement(in.get(), 4, "title,size,dateModified,mediaType,mediumId");
        VUtil::PutElement(in.get(), 5, "size:desc");
        VUtil::PutElement(in.get(), 6, first);
        VUtil::PutElement(in.get(), 7, 100L);
        if (manager.CabServiceGetFolderContent("GetFolderContent", in.get(), out.ptr()) != 0) {
            state.SkipWithError("GetFolderContent failed");
            return;
        }
        first = (first + 7919 * 100) % 100000;  // pages all over the listing
    }
}

BENCHMARK(BM_CatFile)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_ProxyGetFile4MiB)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_RawNats4MiB)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_PairedGetFile)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_FolderContent100kBySize)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(5.0);

bool writeFile(const std::string& path, long long size) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    std::vector<uint64_t> block(kChunk / 8);
    uint64_t x = 88172645463325252ull;
    for (long long done = 0; done < size; done += kChunk) {
        for (uint64_t& w : block) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            w = x;
        }
        size_t n = (size_t)std::min<long long>(kChunk, size - done);
        if (fwrite(block.data(), 1, n, f) != n) {
            fclose(f);
            return false;
        }
    }
    return fclose(f) == 0;
}

bool makeFolder(const std::string& path, int files) {
    if (!CFileTools::CreateDirectory(path)) return false;
    const char* ext[] = {".mp3", ".jpg", ".txt", ".mkv", ".bin"};
    for (int i = 0; i < files; ++i) {
        std::string name = path + "/file" + std::to_string(i) + ext[i % 5];
        int fd = open(name.c_str(), O_CREAT | O_WRONLY, 0644);
        if (fd < 0) return false;
        if (ftruncate(fd, (i * 7919L) % 1000003) != 0) {
            close(fd);
            return false;
        }
        close(fd);
    }
    return true;
}

bool startProxy() { return g_proxy.start() && g_proxy.waitUntilServing(*g_client); }

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (const char* pairs = getenv("KIV_BENCH_PAIRS")) g_pairs = std::max(7, atoi(pairs));
    if (const char* mib = getenv("KIV_BENCH_GETFILE_MIB")) g_fileSize = atoll(mib) << 20;
    if (const char* chunk = getenv("KIV_BENCH_GETFILE_CHUNK")) g_getChunk = std::max(1ll, atoll(chunk));
    kivtest::TempDir sandbox("kivbench-files");
    setenv("KIV_ROOT", (sandbox.path() + "/root").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (sandbox.path() + "/config").c_str(), 1);
    g_file = sandbox.file("large.bin");
    g_folder = sandbox.file("folder100k");
    if (!writeFile(g_file, g_fileSize) || !makeFolder(g_folder, 100000)) {
        fprintf(stderr, "bench_fileservices: could not make the data\n");
        return 1;
    }
    kivtest::NatsServer server(8 << 20);
    if (!server.start()) {
        fprintf(stderr, "bench_fileservices: nats-server did not start: %s\n", server.error().c_str());
        return 1;
    }
    CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "cabDirectory.port",
                                               server.port());
    CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 1);
    CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "files.roots",
                                               CStdStr(sandbox.path()));

    natsOptions* opts = nullptr;
    natsOptions_Create(&opts);
    natsOptions_SetURL(opts, server.url().c_str());
    natsOptions_SetSendAsap(opts, true);  // the library's write policy
    natsConnection_Connect(&g_rawServe, opts);
    natsConnection_Connect(&g_rawClient, opts);
    natsOptions_Destroy(opts);
    natsSubscription* sub = nullptr;
    natsConnection_QueueSubscribe(&sub, g_rawServe, "raw.blob", "raw", onRawBlob, nullptr);
    natsConnection_Flush(g_rawServe);

    MediaCatalog catalog;
    for (const char* e : {".mp3", ".wav"}) catalog.addExtension("audio", e);
    catalog.addExtension("video", ".mkv");
    catalog.addExtension("photo", ".jpg");
    catalog.addExtension("document", ".txt");
    CatalogSatellite media(catalog);
    CabClient client;
    g_client = &client;
    if (media.Connect(server.hostPort().c_str(), "KivMediaV2") != 0 ||
        client.Connect(server.hostPort().c_str(), "FileServicesBench") != 0 || !startProxy()) {
        fprintf(stderr, "bench_fileservices: the proxy did not start\n");
        g_proxy.stop(SIGKILL);
        return 1;
    }
    g_idleKiB = procStatusKiB(g_proxy.pid(), "VmHWM");
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    g_proxy.stop(SIGTERM);
    client.Disconnect();
    media.Disconnect();
    natsSubscription_Destroy(sub);
    natsConnection_Destroy(g_rawClient);
    natsConnection_Destroy(g_rawServe);
    return 0;
}
