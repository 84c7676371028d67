// The directory options shared by the kivctl subcommands that talk to the
// CAB directory: --server HOST:PORT, --token TOKEN, --timeout MS. Without
// them the proxy's own settings apply (cabDirectory.host / .port / .token /
// .requestTimeoutMs). connect() joins as a pure client named "kivctl-<pid>".
#pragma once

#include <string>

#include "cab/CabSatellite.h"
#include "tools/kivctl/Command.h"

namespace kivctl {

// Declares the three options on `args`.
void declareConnectionOptions(Args& args);
// The usage lines of the three options, for --help texts.
extern const char* const kConnectionUsage;

// Connects `client`; on failure prints the reason and returns kFailure,
// kUsage for a bad --timeout; else kOk. *timeoutMs gets the request time-out.
int connect(const Args& args, CabClient& client, int* timeoutMs);

}  // namespace kivctl
