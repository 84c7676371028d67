// bench_stress: many requesters at once against KivRequestProxy, every answer
// checked, and the proxy's memory before, at the peak and after. By default
// it starts a nats-server and a proxy of its own, as the other benchmarks do;
// with --server it attaches to a running directory and proxy.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/stress/MemoryAttack.h"
#include "bench/stress/StressClient.h"
#include "bench/stress/StressFileAttacks.h"
#include "bench/stress/StressReport.h"
#include "host/CRegistry.h"
#include "host/Preferences.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProxyProcess.h"
#include "tests/support/TempDir.h"
#include "tools/kivctl/Command.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const kUsage =
    "usage: bench_stress [options]\n"
    "\n"
    "Runs requesters at once against KivRequestProxy (\"VorpaMediaProxy\"), each\n"
    "with its own connection, looping over a mix of requests whose answers are\n"
    "all checked: \"GetFile\" chunks of a test file at random offsets and lengths\n"
    "(some large enough to travel in parts), compared byte for byte;\n"
    "\"QueryFileSize\"; \"my-KIV_GetVersion\"; a \"MultiRequest\" of a few\n"
    "\"MultiRequest\"s of a few \"my-KIV_GetVersion\" to the proxy itself; and\n"
    "\"CreateZip\", \"GetFile\" of the whole archive, `unzip -t` on it and\n"
    "\"DeleteTempFile\".\n"
    "\n"
    "It prints per service the requests, failures, p50 and p99 latency; the\n"
    "total of wrong bytes; and the proxy's resident memory (VmRSS) before the\n"
    "run, at its peak (sampled every 100 ms) and 5 s after the run.\n"
    "\n"
    "By default it starts its own nats-server (1 MiB messages) and proxy in a\n"
    "temporary folder, serving the test files (files.roots). With --server or\n"
    "--attach it uses a running directory and proxy instead; the proxy must\n"
    "serve this machine's temporary folder (TMPDIR or /tmp, in its files.roots),\n"
    "where the test files are written. Credentials come\n"
    "from the settings, as for kivctl; against `make run`:\n"
    "  XDG_CONFIG_HOME=var/settings/kivctl bench_stress --attach --pid PID\n"
    "\n"
    "With --mode memory it runs the memory attack instead (bench/stress/MemoryAttack.h):\n"
    "5 grouped requests of 100 inline \"GetFile\"s of a 10 MiB file and 130 whole-file\n"
    "\"GetFile\"s a second, none ever credited, while a victim fetches 4 MiB chunks;\n"
    "it passes when the proxy still answers and its peak RSS stayed within 1.5 GiB.\n"
    "\n"
    "Options:\n"
    "  --mode MODE          mix (the default) or memory\n"
    "  --requesters N       requesters at once (default 16)\n"
    "  --seconds T          how long they send requests (default 30)\n"
    "  --server URL         attach to the directory at nats://HOST:PORT (or HOST:PORT)\n"
    "  --attach             attach to the directory of the settings\n"
    "                       (cabDirectory.host and .port)\n"
    "  --pid PID            when attached: the proxy's process id, for its memory\n"
    "                       figures (without it they show n/a)\n"
    "  --token TOKEN        directory token (default: setting cabDirectory.token)\n"
    "  --timeout MS         request time-out in milliseconds (default 60000)\n"
    "  --file-mib M         size of the test file in MiB (default 32; memory: 10)\n"
    "  --max-chunk-mib C    largest \"GetFile\" length asked for, in MiB (default 16)\n"
    "  --attack files       also run attackers that ask for what must be neither\n"
    "                       served nor waited on: a FIFO, a socket, links out of\n"
    "                       the served folder, \"..\", paths outside, the settings\n"
    "                       file (\"GetFile\", \"my-KIV_TailLog\", \"QueryFileSize\");\n"
    "                       any answer but a missing file's is a failure\n"
    "  --attackers N        attackers at once with --attack (default 64)\n"
    "  --keep               keep the temporary folder (with our own proxy: its log)\n"
    "  --help               this text\n"
    "\n"
    "Exit status: 0 when every request succeeded and every byte was right, 1\n"
    "when not, 2 when the run could not start, 64 for a usage error.\n"
    "Ctrl-C ends the run early; the report is still printed.\n";

// Set by the signal thread on SIGINT or SIGTERM; read by the requesters.
std::atomic<bool> g_interrupted{false};

// A positive whole number option, or `fallback` when absent; -1 when malformed.
long long positive(const kivctl::Args& args, const char* name, long long fallback) {
    if (!args.has(name)) return fallback;
    const std::string text = args.get(name);
    char* end = nullptr;
    long long v = strtoll(text.c_str(), &end, 10);
    return end && !*end && v > 0 ? v : -1;
}

// Writes `size` bytes of xorshift noise (nothing compresses it) to `path`
// and keeps them in *bytes.
bool writeNoise(const std::string& path, long long size, unsigned pattern, std::string* bytes) {
    bytes->resize((size_t)size);
    uint64_t x = 0x2545F4914F6CDD1Dull ^ ((uint64_t)pattern << 32);
    for (long long i = 0; i < size; i += 8) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        for (int b = 0; b < 8 && i + b < size; ++b) (*bytes)[(size_t)(i + b)] = (char)(x >> (8 * b));
    }
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(bytes->data(), 1, bytes->size(), f) == bytes->size();
    return fclose(f) == 0 && ok;
}

// The test files: a large one and four small ones (the last compresses well).
bool makeData(const std::string& folder, long long fileBytes, stress::StressData* data) {
    data->file = folder + "/large file.bin";
    data->localFolder = folder + "/fetched";
    if (mkdir(data->localFolder.c_str(), 0700) != 0 || !writeNoise(data->file, fileBytes, 1, &data->bytes))
        return false;
    const long long sizes[] = {300000, 70000, 1, 500000};
    for (int i = 0; i < 4; ++i) {
        std::string path = folder + "/small " + std::to_string(i) + (i == 3 ? ".txt" : ".bin");
        std::string bytes;
        if (i == 3) {
            bytes.assign((size_t)sizes[i], 'k');
            FILE* f = fopen(path.c_str(), "wb");
            if (!f || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || fclose(f) != 0) return false;
        } else if (!writeNoise(path, sizes[i], 2 + i, &bytes)) {
            return false;
        }
        data->zipSources.push_back(path);
        data->zipSizes.push_back(sizes[i]);
    }
    return true;
}

// A thread that turns SIGINT and SIGTERM (blocked in every other thread) into g_interrupted.
void watchSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set] {
        for (;;) {
            int sig = 0;
            if (sigwait(&set, &sig) == 0) {
                if (g_interrupted.exchange(true)) _exit(130);  // the second one ends us at once
                fprintf(stderr, "bench_stress: interrupted, finishing the requests under way\n");
            }
        }
    }).detach();
}

}  // namespace

int main(int argc, char** argv) {
    kivctl::Args args;
    for (const char* v : {"requesters", "seconds", "server", "pid", "token", "timeout", "file-mib", "max-chunk-mib",
                          "mode", "attack", "attackers"})
        args.value(v);
    args.flag("keep");
    args.flag("attach");
    if (!args.parse(argc, argv, 1) || !args.positional().empty()) {
        fprintf(stderr, "bench_stress: %s\nTry 'bench_stress --help'.\n",
                args.error().empty() ? "unexpected arguments" : args.error().c_str());
        return 64;
    }
    if (args.help()) {
        fputs(kUsage, stdout);
        return 0;
    }
    const std::string mode = args.get("mode", "mix");
    if (mode != "mix" && mode != "memory") {
        fprintf(stderr, "bench_stress: --mode is mix or memory\n");
        return 64;
    }
    const long long requesters = positive(args, "requesters", 16), seconds = positive(args, "seconds", 30),
                    pidArg = positive(args, "pid", 0), timeoutMs = positive(args, "timeout", 60000),
                    fileMiB = positive(args, "file-mib", mode == "memory" ? 10 : 32),
                    chunkMiB = positive(args, "max-chunk-mib", 16),
                    attackers = args.has("attack") ? positive(args, "attackers", 64) : 0;
    if (args.has("attack") && args.get("attack") != "files") {
        fprintf(stderr, "bench_stress: --attack takes 'files'\n");
        return 64;
    }
    for (const char* name : {"requesters", "seconds", "pid", "timeout", "file-mib", "max-chunk-mib", "attackers"})
        if (positive(args, name, 1) < 0) {
            fprintf(stderr, "bench_stress: --%s needs a positive whole number\n", name);
            return 64;
        }
    if (requesters > 4096 || attackers > 4096 || pidArg > 0x7FFFFFFF || timeoutMs > 24ll * 3600 * 1000 ||
        fileMiB > 4096 || chunkMiB > 4095) {
        fprintf(stderr,
                "bench_stress: a value is out of range (requesters, attackers <= 4096, file-mib <= 4096,\n"
                "max-chunk-mib <= 4095, timeout <= one day)\n");
        return 64;
    }
    const bool attach = args.has("server") || args.has("attach");
    if (args.has("pid") && !attach) {
        fprintf(stderr, "bench_stress: --pid goes with --server or --attach (our own proxy's pid is known)\n");
        return 64;
    }

    kivtest::TempDir work("kivstress");
    if (args.has("keep")) work.keep();
    stress::StressData data;
    data.maxChunk = std::min(chunkMiB << 20, fileMiB << 20);
    if (attach) chmod(work.path().c_str(), 0755);  // a proxy of another user reads the test files
    if (!makeData(work.path(), fileMiB << 20, &data)) {
        fprintf(stderr, "bench_stress: cannot write the test files in %s\n", work.path().c_str());
        return 2;
    }

    stress::StressConnection connection;
    connection.token = args.get("token");
    connection.timeoutMs = (int)timeoutMs;
    std::unique_ptr<kivtest::NatsServer> server;
    kivtest::ProxyProcess proxy;
    pid_t proxyPid = (pid_t)pidArg;
    if (attach) {
        connection.server = args.get("server");
        if (connection.server.empty()) {
            // As kivctl does; Connect adds the port of the settings.
            CStdStr host;
            bool set = CRegistry::getInstance()->ReadSettingImpl(CStdStr("Software\\Kiv Foundry\\Kiv\\Config"),
                                                                 CStdStr("cabDirectory.host"), host);
            connection.server = set && !host.empty() ? std::string(host.c_str()) : "127.0.0.1";
        }
        watchSignals();
    } else {
        // Our own settings, logs and data folder, inside the work folder.
        setenv("KIV_ROOT", work.file("root").c_str(), 1);
        setenv("XDG_CONFIG_HOME", work.file("config").c_str(), 1);
        server.reset(new kivtest::NatsServer(1 << 20));
        if (!server->start()) {
            fprintf(stderr, "bench_stress: nats-server did not start: %s\n", server->error().c_str());
            return 2;
        }
        CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "cabDirectory.port",
                                                   server->port());
        CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", 1);
        CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "files.roots",
                                                   CStdStr(work.path()));
        connection.server = server->url();
        watchSignals();  // after nats-server, which must keep SIGTERM unblocked
        CabClient probe;
        if (!proxy.start({}, work.file("proxy.out")) || probe.Connect(connection.server.c_str(), "stress-probe") != 0 ||
            !proxy.waitUntilServing(probe)) {
            fprintf(stderr, "bench_stress: the proxy did not start; its output: %s\n", work.file("proxy.out").c_str());
            work.keep();
            return 2;
        }
        proxyPid = proxy.pid();
    }

    if (mode == "memory") {
        stress::MemoryAttack attack;
        attack.seconds = (int)seconds;
        const int rc = stress::runMemoryAttack(attack, connection, data, proxyPid);
        if (!attach) printf("proxy stopped with exit status %d\n", proxy.stop(SIGTERM));
        if (rc != 0 || args.has("keep")) work.keep();
        return rc;
    }

    // Outside the served folder: the attacks' links lead there.
    kivtest::TempDir outside("kivstress-outside");
    std::vector<std::string> targets;
    if (attackers > 0 &&
        !stress::makeFileAttackTargets(work.path(), outside.file("secrets"),
                                       Preferences::DomainFile("com.kiv-foundry.kiv.config"), &targets)) {
        fprintf(stderr, "bench_stress: cannot make the attack targets in %s\n", work.path().c_str());
        return 2;
    }
    std::vector<std::unique_ptr<stress::FileAttacker>> attackerClients;
    for (int i = 0; i < attackers; ++i) {
        attackerClients.emplace_back(new stress::FileAttacker(i, targets, connection));
        if (!attackerClients.back()->connect()) {
            fprintf(stderr, "bench_stress: an attacker cannot connect: %s\n", attackerClients.back()->error().c_str());
            return 2;
        }
    }

    std::vector<std::unique_ptr<stress::StressRequester>> clients;
    for (int i = 0; i < requesters; ++i) {
        clients.emplace_back(new stress::StressRequester(i, data, connection));
        if (!clients.back()->connect()) {
            fprintf(stderr, "bench_stress: cannot connect to %s: %s\n",
                    connection.server.empty() ? "the directory of the settings" : connection.server.c_str(),
                    clients.back()->error().c_str());
            return 2;
        }
    }

    printf(
        "bench_stress: %lld requesters and %lld file attackers for %lld s against %s proxy, directory %s\n"
        "test file %lld MiB, \"GetFile\" lengths up to %lld MiB\n",
        requesters, attackers, seconds, attach ? "the running" : "our own", connection.server.c_str(), fileMiB,
        data.maxChunk >> 20);
    fflush(stdout);
    const long rssBefore = proxyPid > 0 ? stress::rssKiB(proxyPid) : -1;
    stress::RssMonitor monitor(proxyPid);
    monitor.start();
    const auto start = Clock::now();
    const auto until = start + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    for (auto& c : clients) threads.emplace_back([&c, until] { c->run(until, g_interrupted); });
    for (auto& a : attackerClients) threads.emplace_back([&a, until] { a->run(until, g_interrupted); });
    for (auto& t : threads) t.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& c : clients) c->disconnect();
    for (auto& a : attackerClients) a->disconnect();

    stress::StressTally total;
    for (auto& c : clients) total.merge(c->tally());
    for (auto& a : attackerClients) total.merge(a->tally());
    // The memory a while after the load, once transfers and archives are done
    // with; the peak covers that wait too.
    long rssAfter = -1;
    if (proxyPid > 0) {
        std::this_thread::sleep_for(std::chrono::seconds(5));
        rssAfter = stress::rssKiB(proxyPid);
    }
    monitor.stop();

    printf("ran %.1f s\n", elapsed);
    total.print(stdout, elapsed);
    printf("proxy RSS: before %s, peak %s, 5 s after %s\n", stress::mibText(rssBefore).c_str(),
           stress::mibText(std::max(rssBefore, monitor.peakKiB())).c_str(), stress::mibText(rssAfter).c_str());
    if (rssBefore >= 0 && rssAfter >= 0)
        printf("proxy RSS after - before: %+.1f MiB (goal: at most +64 MiB)\n", (rssAfter - rssBefore) / 1024.0);

    const bool clean = total.failures() == 0 && total.wrongBytes() == 0;
    if (!attach) {
        auto t0 = Clock::now();
        int status = proxy.stop(SIGTERM);
        printf("proxy stopped with exit status %d in %.0f ms\n", status,
               std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    if (args.has("keep") || (!clean && !attach)) {
        work.keep();
        printf("kept %s%s\n", work.path().c_str(), attach ? "" : " (the proxy's log is under root/)");
    }
    printf("%s\n", clean ? "PASS: no failures, no wrong bytes" : "FAIL");
    return clean ? 0 : 1;
}
