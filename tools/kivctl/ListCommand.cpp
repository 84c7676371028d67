// kivctl list: satellites and their services, from the "$SRV.INFO" answers.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "tools/kivctl/Discovery.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl list [OPTIONS] [SATELLITE]\n"
    "Lists the satellites on the directory and their services with descriptions,\n"
    "as a table, or with --json as an array of the io.nats.micro.v1 info answers.\n"
    "Options:\n";

const kivctl::Command kList{"list", "list satellites and services", kUsageText, run};

int run(int argc, char** argv) {
    kivctl::DiscoveryResult found;
    int rc = kivctl::discover(kList, "INFO", argc, argv, &found);
    if (rc >= 0) return rc;
    const nlohmann::json& all = found.answers;
    if (found.json) {
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
