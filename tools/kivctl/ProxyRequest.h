// One request to the proxy ("VorpaMediaProxy") for the kivctl subcommands
// that ask it something. Connection options as in Connection.h.
#pragma once

#include <string>

#include "cab/CabSatellite.h"
#include "tools/kivctl/Command.h"

namespace kivctl {

// The satellite name of the proxy.
extern const char* const kProxyName;

// A connected client for repeated requests.
class ProxySession {
public:
    // Connects; ok() tells whether it worked (the reason is already printed).
    // With --host NAME the requests go to the proxy on that host only.
    explicit ProxySession(const Args& args);
    ~ProxySession();
    bool ok() const { return m_rc == kOk; }
    int failureExit() const { return m_rc; }
    // Sends `in` to `service`; returns the service's status or a negative
    // library code, and prints the library's error text for the latter with
    // what explainFailure (Explain.h) adds.
    // Nothing is printed for the status `unreported` (one the caller handles).
    int request(const char* service, const tagVARIANT& in, tagVARIANT* out, int unreported = 0);
    // explainFailure for a request of this session's client to `target`.
    std::string explain(const std::string& target, const std::string& service, int status);

private:
    CabClient m_client;
    int m_rc;
    std::string m_target;  // kProxyName, or "<kProxyName>@<host>" with --host
    std::string m_user;
};

// The exit status for a request status: 0, kStatus or kFailure.
int exitFor(int status);

}  // namespace kivctl
