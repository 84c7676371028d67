// "CreateZip" of 200 MiB through the running KivRequestProxy, against
// Debian's `zip -0` and `zip -9` on the same files, in one run.
// - ProxyCreateZip20Files: 20 x 10 MiB, stored; timed until the archive is
//   complete (a "GetFile" past its end waits for a pending archive).
// - ProxyCreateZipAndDownload: the same, then the archive fetched in 4 MiB
//   "GetFile" chunks, as `kivctl zip` does.
// - ProxyCreateZipOneFile: one 200 MiB file, which is always deflated (level 9).
// Data: text-like, compresses to about a third.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "cab/CabSatellite.h"
#include "files/CFileTools.h"
#include "host/CRegistry.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProxyProcess.h"
#include "tests/support/TempDir.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

const int kFiles = 20;
const size_t kFileSize = 10 << 20;  // 20 x 10 MiB = 200 MiB
const int64_t kTotal = static_cast<int64_t>(kFiles) * kFileSize;
std::string g_folder;
std::vector<std::string> g_files;
std::string g_single;  // the 20 parts in one file
CabClient* g_client;
kivtest::ProxyProcess g_proxy;

void createFiles() {
    std::mt19937 rng(42);
    std::vector<std::string> words;
    for (int w = 0; w < 1024; ++w) {
        std::string word;
        for (unsigned n = 2 + rng() % 8; n > 0; --n) word += static_cast<char>('a' + rng() % 26);
        words.push_back(word);
    }
    g_single = g_folder + "/all.txt";
    int all = open(g_single.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (int i = 0; i < kFiles; ++i) {
        std::string data;
        data.reserve(kFileSize + 32);
        while (data.size() < kFileSize) {
            unsigned r = rng();
            data += words[r % 1024];
            data += (r >> 10) % 11 == 0 ? '\n' : ' ';
            if ((r >> 14) % 7 == 0) data += std::to_string((r >> 17) % 1000);
        }
        data.resize(kFileSize);
        std::string path = g_folder + "/part" + std::to_string(i) + ".txt";
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) exit(2);
        if (all < 0 || write(all, data.data(), data.size()) != static_cast<ssize_t>(data.size())) exit(2);
        close(fd);
        g_files.push_back(path);
    }
    close(all);
}

int call(const char* service, const tagVARIANT& in, tagVARIANT* out) {
    CLocalVariant rc;
    g_client->Request("VorpaMediaProxy", service, in, out, 0, rc.ptr());
    return CabRetcode(rc.get());
}

// "CreateZip"; the archive's path, or "" on failure.
std::string createZip(const std::vector<std::string>& files) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, files.size() + 1);
    VUtil::PutElement(in.get(), 0, "bench");
    for (size_t i = 0; i < files.size(); ++i)
        VUtil::PutElement(in.get(), static_cast<int>(i + 1), CFileTools::PathToFileBrowserMediumId(CStdStr(files[i])));
    if (call("CreateZip", in.get(), out.ptr()) != 0) return std::string();
    return VUtil::GetStringElement(out.get(), 0);
}

// One "GetFile" chunk; the byte count, or -1 on failure. A read past the end
// returns 0 bytes once a pending archive is complete.
long long getChunk(const std::string& path, long long offset, long long length) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 3);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, offset);
    VUtil::PutElement(in.get(), 2, length);
    if (call("GetFile", in.get(), out.ptr()) != 0 || out.vt() != (VT_ARRAY | VT_UI1)) return -1;
    return out.get().parray->rgsabound[0].cElements;
}

void deleteTemp(const std::string& path) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 1);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    call("DeleteTempFile", in.get(), out.ptr());
}

void proxyZip(benchmark::State& state, const std::vector<std::string>& files, bool download) {
    for (auto _ : state) {
        std::string zip = createZip(files);
        if (zip.empty() || getChunk(zip, 1LL << 40, 1) != 0) {
            state.SkipWithError("CreateZip failed");
            break;
        }
        if (download) {
            long long offset = 0, got;
            while ((got = getChunk(zip, offset, 4 << 20)) > 0) offset += got;
            if (got < 0) {
                state.SkipWithError("GetFile failed");
                break;
            }
        }
        state.PauseTiming();
        state.counters["zipMiB"] = static_cast<double>(boost::filesystem::file_size(zip)) / (1 << 20);
        deleteTemp(zip);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kTotal);
}

void infoZip(benchmark::State& state, const char* level) {
    std::string zip = g_folder + "/infozip.zip";
    std::string command = std::string("zip -q -X -j ") + level + " '" + zip + "'";
    for (const std::string& f : g_files) command += " '" + f + "'";
    for (auto _ : state) {
        if (system(command.c_str()) != 0) {
            state.SkipWithError("zip failed");
            break;
        }
        state.PauseTiming();
        state.counters["zipMiB"] = static_cast<double>(boost::filesystem::file_size(zip)) / (1 << 20);
        boost::system::error_code ec;
        boost::filesystem::remove(zip, ec);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kTotal);
}

void BM_ProxyCreateZip20Files(benchmark::State& state) { proxyZip(state, g_files, false); }
void BM_ProxyCreateZipAndDownload(benchmark::State& state) { proxyZip(state, g_files, true); }
void BM_ZipMinus0(benchmark::State& state) { infoZip(state, "-0"); }
void BM_ProxyCreateZipOneFile(benchmark::State& state) { proxyZip(state, {g_single}, false); }
void BM_ZipMinus9(benchmark::State& state) { infoZip(state, "-9"); }

BENCHMARK(BM_ProxyCreateZip20Files)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ProxyCreateZipAndDownload)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_ZipMinus0)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ProxyCreateZipOneFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_ZipMinus9)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

bool startProxy() { return g_proxy.start() && g_proxy.waitUntilServing(*g_client); }

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    kivtest::TempDir sandbox("kivbench");
    setenv("KIV_ROOT", (sandbox.path() + "/root").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (sandbox.path() + "/config").c_str(), 1);
    g_folder = sandbox.path();
    createFiles();

    kivtest::NatsServer server(8 * 1024 * 1024);
    if (!server.start()) {
        fprintf(stderr, "bench_archives: nats-server did not start: %s\n", server.error().c_str());
        return 1;
    }
    const char* config = "Software\\Kiv Foundry\\Kiv\\Config";
    CRegistry::getInstance()->WriteSettingImpl(config, "cabDirectory.port", server.port());
    CRegistry::getInstance()->WriteSettingImpl(config, "cabDirectory.requestTimeoutMs", 600000);
    CRegistry::getInstance()->WriteSettingImpl(config, "files.roots", CStdStr(sandbox.path()));
    CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 1);

    CabClient client;
    g_client = &client;
    client.setRequestTimeoutMs(600000);
    if (client.Connect(server.hostPort().c_str(), "ArchiveBench") != 0 || !startProxy()) {
        fprintf(stderr, "bench_archives: the proxy did not start\n");
        g_proxy.stop(SIGKILL);
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    g_proxy.stop(SIGTERM);
    client.Disconnect();
    benchmark::Shutdown();
    return 0;
}
