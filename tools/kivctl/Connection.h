// The directory options shared by the kivctl subcommands that talk to the
// CAB directory: --server URL[,URL...], --host NAME, --user USER,
// --password-file FILE, --token TOKEN, --timeout MS. Without them the
// settings apply (cabDirectory.servers / .host / .port / .user / .password /
// .token / .requestTimeoutMs). --host is read by ProxySession.
// connect() joins as a pure client named "kivctl-<pid>".
#pragma once

#include <string>

#include "cab/CabSatellite.h"
#include "tools/kivctl/Command.h"

namespace kivctl {

// Declares the options on `args`.
void declareConnectionOptions(Args& args);
// The usage lines of the options, for --help texts.
extern const char* const kConnectionUsage;

// The directory user kivctl connects as: --user, else the setting
// cabDirectory.user; "" for none (a token, or no credential).
std::string directoryUser(const Args& args);

// Connects `client`; on failure prints the reason and returns kFailure,
// kUsage for a bad --timeout; else kOk. *timeoutMs gets the request time-out.
int connect(const Args& args, CabClient& client, int* timeoutMs);

}  // namespace kivctl
