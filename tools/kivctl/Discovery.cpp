#include "tools/kivctl/Discovery.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/kivctl/Connection.h"

namespace kivctl {

const char* const kDiscoveryUsage =
    "  --json               print JSON\n"
    "  --wait MS            how long to collect answers (default 1000)\n";

int discover(const Command& command, const char* verb, int argc, char** argv, DiscoveryResult* result) {
    Args args;
    declareConnectionOptions(args);
    args.flag("json");
    args.value("wait");
    if (!args.parse(argc, argv, 1)) return usageError(command, args.error());
    if (args.help()) {
        printf("%s%s%s", command.usage, kDiscoveryUsage, kConnectionUsage);
        return kOk;
    }
    if (args.positional().size() > 1) return usageError(command, "at most one SATELLITE");
    int waitMs = atoi(args.get("wait", "1000").c_str());
    if (waitMs <= 0) return usageError(command, "--wait needs a positive number of milliseconds");
    CabClient client;
    int timeoutMs = 0;
    int rc = connect(args, client, &timeoutMs);
    if (rc != kOk) return rc;
    std::vector<std::string> replies;
    const char* name = args.positional().empty() ? nullptr : args.positional()[0].c_str();
    if (client.Discover(verb, name, waitMs, &replies) != 0) {
        fprintf(stderr, "kivctl %s: %s\n", command.name, CabGetLastError().c_str());
        return kFailure;
    }
    for (const auto& r : replies) {
        nlohmann::json j = nlohmann::json::parse(r, nullptr, false);
        if (j.is_discarded()) {
            fprintf(stderr, "kivctl %s: ignored an answer that is not JSON\n", command.name);
            continue;
        }
        result->answers.push_back(j);
    }
    result->json = args.has("json");
    return -1;
}

}  // namespace kivctl
