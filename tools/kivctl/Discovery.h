// The shared part of the kivctl commands that read the directory's discovery
// answers ("$SRV.INFO", "$SRV.STATS"): options [--json] [--wait MS]
// [SATELLITE] plus the connection options, then one discovery round.
#pragma once

#include <nlohmann/json.hpp>

#include "tools/kivctl/Command.h"

namespace kivctl {

struct DiscoveryResult {
    nlohmann::json answers = nlohmann::json::array();  // one object per satellite instance
    bool json = false;                                 // --json was given
};

// Parses argv, connects and collects the answers to "$SRV.<verb>[.<name>]".
// Returns -1 when the caller should print `result`, else the exit status
// (help printed, usage error, connection or discovery failure).
int discover(const Command& command, const char* verb, int argc, char** argv, DiscoveryResult* result);

// The options text for the usage of such commands.
extern const char* const kDiscoveryUsage;

}  // namespace kivctl
