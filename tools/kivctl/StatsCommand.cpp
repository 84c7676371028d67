// kivctl stats: request counts, errors and processing times per service,
// from the "$SRV.STATS" answers.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "tools/kivctl/Connection.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl stats [OPTIONS] [SATELLITE]\n"
    "Shows per-service request counts, error counts and processing times\n"
    "(as a table, or with --json the io.nats.micro.v1 stats answers).\n"
    "Options:\n"
    "  --json               print JSON\n"
    "  --wait MS            how long to collect answers (default 1000)\n";

const kivctl::Command kStats{"stats", "per-service request statistics", kUsageText, run};

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.flag("json");
    args.value("wait");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kStats, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().size() > 1) return kivctl::usageError(kStats, "at most one SATELLITE");
    int waitMs = atoi(args.get("wait", "1000").c_str());
    if (waitMs <= 0) return kivctl::usageError(kStats, "--wait needs a positive number of milliseconds");
    CabClient client;
    int timeoutMs = 0;
    int rc = kivctl::connect(args, client, &timeoutMs);
    if (rc != kivctl::kOk) return rc;
    std::vector<std::string> replies;
    const char* name = args.positional().empty() ? nullptr : args.positional()[0].c_str();
    if (client.Discover("STATS", name, waitMs, &replies) != 0) {
        fprintf(stderr, "kivctl stats: %s\n", CabGetLastError().c_str());
        return kivctl::kFailure;
    }
    nlohmann::json all = nlohmann::json::array();
    for (const auto& r : replies) {
        nlohmann::json j = nlohmann::json::parse(r, nullptr, false);
        if (!j.is_discarded()) all.push_back(j);
    }
    if (args.has("json")) {
        printf("%s\n", all.dump(2).c_str());
        return kivctl::kOk;
    }
    printf("%-24s %-32s %10s %8s %14s\n", "SATELLITE", "SERVICE", "REQUESTS", "ERRORS", "AVG_MS");
    for (const auto& j : all) {
        for (const auto& e : j.value("endpoints", nlohmann::json::array())) {
            double avgMs = e.value("average_processing_time", (int64_t)0) / 1e6;
            printf("%-24s %-32s %10lld %8lld %14.3f\n", j.value("name", "?").c_str(), e.value("name", "?").c_str(),
                   (long long)e.value("num_requests", (int64_t)0), (long long)e.value("num_errors", (int64_t)0),
                   avgMs);
        }
    }
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("stats", "per-service request statistics", kUsageText, run);
