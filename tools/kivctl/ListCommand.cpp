// kivctl list: satellites and their services, from the "$SRV.INFO" answers.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "tools/kivctl/Connection.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl list [OPTIONS] [SATELLITE]\n"
    "Lists the satellites on the directory and their services with descriptions,\n"
    "as a table, or with --json as an array of the io.nats.micro.v1 info answers.\n"
    "Options:\n"
    "  --json               print JSON\n"
    "  --wait MS            how long to collect answers (default 1000)\n";

const kivctl::Command kList{"list", "list satellites and services", kUsageText, run};

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.flag("json");
    args.value("wait");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kList, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().size() > 1) return kivctl::usageError(kList, "at most one SATELLITE");
    int waitMs = atoi(args.get("wait", "1000").c_str());
    if (waitMs <= 0) return kivctl::usageError(kList, "--wait needs a positive number of milliseconds");
    CabClient client;
    int timeoutMs = 0;
    int rc = kivctl::connect(args, client, &timeoutMs);
    if (rc != kivctl::kOk) return rc;
    std::vector<std::string> replies;
    const char* name = args.positional().empty() ? nullptr : args.positional()[0].c_str();
    if (client.Discover("INFO", name, waitMs, &replies) != 0) {
        fprintf(stderr, "kivctl list: %s\n", CabGetLastError().c_str());
        return kivctl::kFailure;
    }
    nlohmann::json all = nlohmann::json::array();
    for (const auto& r : replies) {
        nlohmann::json j = nlohmann::json::parse(r, nullptr, false);
        if (j.is_discarded()) {
            fprintf(stderr, "kivctl list: ignored an answer that is not JSON\n");
            continue;
        }
        all.push_back(j);
    }
    if (args.has("json")) {
        printf("%s\n", all.dump(2).c_str());
        return kivctl::kOk;
    }
    printf("%-24s %-32s %s\n", "SATELLITE", "SERVICE", "DESCRIPTION");
    for (const auto& j : all) {
        std::string sat = j.value("name", "?") + " (" + j.value("id", "?") + ")";
        const auto eps = j.value("endpoints", nlohmann::json::array());
        if (eps.empty()) printf("%-24s\n", sat.c_str());
        for (const auto& e : eps) {
            std::string desc;
            if (e.contains("metadata") && e["metadata"].is_object()) desc = e["metadata"].value("description", "");
            printf("%-24s %-32s %s\n", j.value("name", "?").c_str(), e.value("name", "?").c_str(), desc.c_str());
        }
    }
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("list", "list satellites and services", kUsageText, run);
