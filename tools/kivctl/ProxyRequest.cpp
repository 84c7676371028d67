#include "tools/kivctl/ProxyRequest.h"

#include <cstdio>

#include "tools/kivctl/Connection.h"
#include "tools/kivctl/Explain.h"

namespace kivctl {

const char* const kProxyName = "VorpaMediaProxy";

ProxySession::ProxySession(const Args& args) : m_target(kProxyName), m_user(directoryUser(args)) {
    if (args.has("host")) m_target += "@" + args.get("host");
    int timeoutMs = 0;
    m_rc = connect(args, m_client, &timeoutMs);
}

ProxySession::~ProxySession() { m_client.Disconnect(); }

int ProxySession::request(const char* service, const tagVARIANT& in, tagVARIANT* out, int unreported) {
    tagVARIANT codes;
    VariantInit(&codes);
    m_client.Request(m_target.c_str(), service, in, out, 0, &codes);
    int status = CabRetcode(codes);
    VariantClear(&codes);
    if (CabIsLibraryStatus(status) && status != unreported) {
        fprintf(stderr, "kivctl: %s: %s\n", service, CabGetLastError().c_str());
        const std::string why = explain(m_target, service, status);
        if (!why.empty()) fprintf(stderr, "kivctl: %s\n", why.c_str());
    }
    return status;
}

std::string ProxySession::explain(const std::string& target, const std::string& service, int status) {
    return explainFailure(m_client, target, service, status, m_user);
}

int exitFor(int status) {
    if (status == 0) return kOk;
    return CabIsLibraryStatus(status) ? kFailure : kStatus;
}

}  // namespace kivctl
