// The settings of the directory connection under "Software\Kiv Foundry\Kiv\Config",
// read when asked (a change applies at the next read).
#pragma once

#include <string>

#include "cab/CabConnection.h"

namespace cabsettings {
int integer(const char* name, int fallback);
bool string(const char* name, std::string* value);

// The directory's servers as comma-separated NATS URLs. A list or a URL given
// to Connect is used as it is; a plain host ("host", "host:port") gives way
// to cabDirectory.servers. Empty or null: 127.0.0.1.
std::string directoryUrl(const char* host);
// The name of this host in host-scoped subjects: KIV_HOSTNAME when set, else
// the system's host name up to its first dot; "" when it is not a valid name.
std::string scopeHost();
// cabDirectory.hostScope: 1, "true" or "yes" also listens as "<name>@<host>".
bool hostScopeWanted();
// Fills in who we are (a user with a password or an nkey; the shared token
// only when no user is configured; what is already set wins) and the TLS files.
void readCredentials(CabConnection::Options* o);
}  // namespace cabsettings
