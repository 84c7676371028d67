// kivctl stats: request counts, errors and processing times per service,
// from the "$SRV.STATS" answers.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "tools/kivctl/Discovery.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl stats [OPTIONS] [SATELLITE]\n"
    "Shows per-service request counts, error counts and processing times\n"
    "(as a table, or with --json the io.nats.micro.v1 stats answers).\n"
    "Options:\n";

const kivctl::Command kStats{"stats", "per-service request statistics", kUsageText, run};

int run(int argc, char** argv) {
    kivctl::DiscoveryResult found;
    int rc = kivctl::discover(kStats, "STATS", argc, argv, &found);
    if (rc >= 0) return rc;
    const nlohmann::json& all = found.answers;
    if (found.json) {
        printf("%s\n", all.dump(2).c_str());
        return kivctl::kOk;
    }
    printf("%-24s %-32s %10s %8s %14s\n", "SATELLITE", "SERVICE", "REQUESTS", "ERRORS", "AVG_MS");
    for (const auto& j : all) {
        for (const auto& e : j.value("endpoints", nlohmann::json::array())) {
            double avgMs = e.value("average_processing_time", (int64_t)0) / 1e6;
            printf("%-24s %-32s %10lld %8lld %14.3f\n", j.value("name", "?").c_str(), e.value("name", "?").c_str(),
                   (long long)e.value("num_requests", (int64_t)0), (long long)e.value("num_errors", (int64_t)0), avgMs);
        }
    }
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("stats", "per-service request statistics", kUsageText, run);
