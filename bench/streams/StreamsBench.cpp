// bench_streams: small requests beside large transfers. One directory
// (1 MiB messages), the proxy with its default settings, four requesters
// fetching a 1 GiB file with "GetFile" in 64 MiB requests in a loop, and two
// small requesters, each every 20 ms: the proxy's "my-KIV_GetVersion" and the
// "Echo" of a second satellite (cab-echo, a process of its own, carrying no
// transfer). Runs alternate with answers in parts on a connection of their own
// (B, the product's default) and on the proxy's one connection (A), in the
// order A B B A (repeated), and it reports per run p50 and p99 of both small
// requesters, the proxy's ratio to the second satellite, the transfers'
// throughput, their spread (slowest / fastest) and the machine's load; then
// the median, min and max of the B/A ratios of the pairs.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cab/CabSatellite.h"
#include "host/CRegistry.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProxyProcess.h"
#include "tests/support/TempDir.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

using Clock = std::chrono::steady_clock;
const char* const kConfig = "Software\\Kiv Foundry\\Kiv\\Config";

double loadAverage() {
    std::ifstream in("/proc/loadavg");
    double one = 0;
    in >> one;
    return one;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, (size_t)(v.size() * p))];
}

struct RunResult {
    double proxyP50 = 0, proxyP99 = 0, echoP50 = 0, echoP99 = 0;
    double mbPerS = 0, spread = 0, loadBefore = 0, loadAfter = 0;
    int failures = 0;
};

// A request with an array input: [path, offset, length] or nothing.
int ask(CabClient& c, const char* target, const char* service, const tagVARIANT& in, tagVARIANT* out) {
    CLocalVariant rc;
    int r = c.Request(target, service, in, out, 0, rc.ptr());
    return r != 0 ? r : CabRetcode(rc.get());
}

std::unique_ptr<CabClient> connect(const std::string& server, const char* name) {
    std::unique_ptr<CabClient> c(new CabClient);
    c->setRequestTimeoutMs(120000);
    if (c->Connect(server.c_str(), name) != 0) return nullptr;
    return c;
}

RunResult runOnce(const std::string& server, const std::string& file, long long fileBytes, int seconds,
                  bool ownConnection, const std::string& outFile) {
    RunResult r;
    CRegistry::getInstance()->WriteSettingImpl(kConfig, "cabDirectory.partsConnection", ownConnection ? 1 : 0);
    kivtest::ProxyProcess proxy;
    std::unique_ptr<CabClient> probe = connect(server, "StreamsProbe");
    if (!probe || !proxy.start({}, outFile) || !proxy.waitUntilServing(*probe)) {
        fprintf(stderr, "bench_streams: the proxy did not start; see %s\n", outFile.c_str());
        exit(2);
    }
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    const long long chunk = 64ll << 20;
    std::vector<long long> bytes(4, 0);
    std::vector<std::thread> bulk;
    for (int i = 0; i < 4; ++i)
        bulk.emplace_back([&, i] {
            std::unique_ptr<CabClient> c = connect(server, ("StreamsBulk" + std::to_string(i)).c_str());
            if (!c) {
                ++failures;
                return;
            }
            long long offset = (long long)i * chunk % fileBytes;
            while (!stop) {
                CLocalVariant in, out;
                VUtil::CreateArray(in.get(), VT_VARIANT, 3);
                VUtil::PutElement(in.get(), 0, file.c_str());
                VUtil::PutElement(in.get(), 1, offset);
                VUtil::PutElement(in.get(), 2, chunk);
                if (ask(*c, "VorpaMediaProxy", "GetFile", in.get(), out.ptr()) != 0 ||
                    out.vt() != (VT_ARRAY | VT_UI1)) {
                    ++failures;
                    continue;
                }
                if (!stop) bytes[i] += (long long)out.get().parray->rgsabound[0].cElements;
                offset = (offset + chunk) % fileBytes;
            }
        });
    auto small = [&](const char* target, const char* service, std::vector<double>* us) {
        std::unique_ptr<CabClient> c = connect(server, (std::string("StreamsSmall") + target).c_str());
        if (!c) {
            ++failures;
            return;
        }
        auto next = Clock::now();
        while (!stop) {
            next += std::chrono::milliseconds(20);
            std::this_thread::sleep_until(next);  // the pace of the small requester, not a synchronisation
            CLocalVariant in, out;
            auto t0 = Clock::now();
            if (ask(*c, target, service, in.get(), out.ptr()) != 0) ++failures;
            else us->push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
    };
    std::vector<double> proxyMs, echoMs;
    // The transfers get going before the small requests are measured.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    r.loadBefore = loadAverage();
    std::thread proxySmall(small, "VorpaMediaProxy", "my-KIV_GetVersion", &proxyMs);
    std::thread echoSmall(small, "EchoB", "Echo", &echoMs);
    std::vector<long long> startBytes = bytes;
    auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    std::vector<long long> endBytes = bytes;
    double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
    stop = true;
    proxySmall.join();
    echoSmall.join();
    for (auto& t : bulk) t.join();
    r.loadAfter = loadAverage();
    proxy.stop(SIGTERM);
    long long total = 0, least = -1, most = 0;
    for (int i = 0; i < 4; ++i) {
        long long got = endBytes[i] - startBytes[i];
        total += got;
        least = least < 0 ? got : std::min(least, got);
        most = std::max(most, got);
    }
    r.mbPerS = total / elapsed / 1e6;
    r.spread = most > 0 ? (double)least / most : 0;
    r.proxyP50 = percentile(proxyMs, 0.5);
    r.proxyP99 = percentile(proxyMs, 0.99);
    r.echoP50 = percentile(echoMs, 0.5);
    r.echoP99 = percentile(echoMs, 0.99);
    r.failures = failures;
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 10, rounds = 1;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) seconds = atoi(argv[++i]);
        else if (a == "--rounds" && i + 1 < argc) rounds = atoi(argv[++i]);
        else {
            printf(
                "usage: bench_streams [--seconds T (10)] [--rounds R (1)]\n"
                "Runs A B B A R times: A with answers in parts on the proxy's one connection,\n"
                "B on a connection of their own; see the top of StreamsBench.cpp.\n");
            return a == "--help" ? 0 : 64;
        }
    }
    if (seconds < 1 || rounds < 1) return 64;
    kivtest::TempDir work("kivstreams");
    setenv("KIV_ROOT", work.path().c_str(), 1);
    setenv("XDG_CONFIG_HOME", work.file("settings").c_str(), 1);
    kivtest::NatsServer server(1 << 20);
    if (!server.start()) {
        fprintf(stderr, "bench_streams: %s\n", server.error().c_str());
        return 2;
    }
    const long long fileBytes = 1ll << 30;
    const std::string file = work.file("film.bin");
    { std::ofstream f(file); }
    if (truncate(file.c_str(), fileBytes) != 0) return 2;
    auto registry = CRegistry::getInstance();
    registry->WriteSettingImpl(kConfig, "cabDirectory.host", CStdStr("127.0.0.1"));
    registry->WriteSettingImpl(kConfig, "cabDirectory.port", server.port());
    registry->WriteSettingImpl(kConfig, "files.roots", CStdStr(work.path()));
    const int echo = kivtest::startInBackground(KIV_BINARY_DIR "/bin/cab-echo --server " + server.hostPort() +
                                                    " --name EchoB",
                                                work.file("echo.out"), "ready");
    if (echo < 0) {
        fprintf(stderr, "bench_streams: cab-echo did not start\n");
        return 2;
    }
    printf("%-4s %9s %9s %9s %9s %7s %7s %8s %7s %11s %4s\n", "run", "proxy p50", "proxy p99", "echo p50", "echo p99",
           "x p50", "x p99", "MB/s", "spread", "load", "fail");
    std::vector<double> p50Ratios, p99Ratios, rateRatios;
    for (int round = 0; round < rounds; ++round) {
        RunResult a1, b1, b2, a2;
        RunResult* order[] = {&a1, &b1, &b2, &a2};
        const bool own[] = {false, true, true, false};
        for (int k = 0; k < 4; ++k) {
            *order[k] = runOnce(server.hostPort(), file, fileBytes, seconds, own[k],
                                work.file("proxy" + std::to_string(round * 4 + k) + ".out"));
            const RunResult& r = *order[k];
            printf("%-4s %9.2f %9.2f %9.2f %9.2f %7.2f %7.2f %8.0f %7.2f %5.2f-%5.2f %4d\n", own[k] ? "B" : "A",
                   r.proxyP50, r.proxyP99, r.echoP50, r.echoP99, r.proxyP50 / r.echoP50, r.proxyP99 / r.echoP99,
                   r.mbPerS, r.spread, r.loadBefore, r.loadAfter, r.failures);
            fflush(stdout);
        }
        for (auto pair : {std::make_pair(&a1, &b1), std::make_pair(&a2, &b2)}) {
            p50Ratios.push_back(pair.second->proxyP50 / pair.first->proxyP50);
            p99Ratios.push_back(pair.second->proxyP99 / pair.first->proxyP99);
            rateRatios.push_back(pair.second->mbPerS / pair.first->mbPerS);
        }
    }
    auto summary = [](const char* what, std::vector<double> v) {
        std::sort(v.begin(), v.end());
        printf("B/A %-22s median %.2f [%.2f-%.2f] over %zu pairs\n", what, v[v.size() / 2], v.front(), v.back(),
               v.size());
    };
    summary("proxy small p50", p50Ratios);
    summary("proxy small p99", p99Ratios);
    summary("transfer throughput", rateRatios);
    kill(echo, SIGTERM);
    waitpid(echo, nullptr, 0);
    return 0;
}
