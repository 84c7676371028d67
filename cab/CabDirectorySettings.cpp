// How a satellite reaches the directory: the connection settings under
// "Software\Kiv Foundry\Kiv\Config", the servers' URLs, the host scope
// and the credentials.
#include "cab/internal/CabDirectorySettings.h"

#include <cstdlib>

#include <unistd.h>

#include "cab/internal/CabWire.h"
#include "host/CRegistry.h"

namespace {

const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";

// "host", "host:port" or "nats://..." -> a NATS URL.
std::string serverUrl(const std::string& h) {
    if (h.find("://") != std::string::npos) return h;
    if (h.find(':') != std::string::npos) return "nats://" + h;
    int port = cabsettings::integer("cabDirectory.port", 4222);
    return "nats://" + h + ":" + std::to_string(port);
}

}  // namespace

int cabsettings::integer(const char* name, int fallback) {
    int value = fallback;
    if (!CRegistry::getInstance()->ReadSettingImpl(CStdStr(kConfigKey), CStdStr(name), value)) return fallback;
    return value;
}

bool cabsettings::string(const char* name, std::string* value) {
    CStdStr v;
    if (!CRegistry::getInstance()->ReadSettingImpl(CStdStr(kConfigKey), CStdStr(name), v)) return false;
    *value = v;
    return true;
}

// The directory's servers, comma-separated URLs. A list or a URL given to
// Connect is used as it is; a plain host (what Register reads from
// cabDirectory.host) gives way to the setting cabDirectory.servers.
std::string cabsettings::directoryUrl(const char* host) {
    std::string h = host && *host ? host : "127.0.0.1";
    std::string servers;
    if (h.find("://") == std::string::npos && h.find(',') == std::string::npos &&
        cabsettings::string("cabDirectory.servers", &servers) && servers.find_first_not_of(" \t,") != std::string::npos)
        h = servers;
    std::string urls;
    for (const std::string& one : cabwire::splitList(h)) urls += (urls.empty() ? "" : ",") + serverUrl(one);
    return urls;
}

// The name of this host in host-scoped subjects: KIV_HOSTNAME when set (a
// test runs several "hosts" on one machine), else the system's host name up
// to its first dot. "" when it is not a valid name.
std::string cabsettings::scopeHost() {
    std::string h;
    const char* env = getenv("KIV_HOSTNAME");
    if (env && *env) {
        h = env;
    } else {
        char buf[256] = "";
        if (gethostname(buf, sizeof buf - 1) == 0) h = buf;
        h = h.substr(0, h.find('.'));
    }
    h = cabwire::hostToken(h);
    return cabwire::validName(h.c_str()) ? h : std::string();
}

// cabDirectory.hostScope: 1 or "true" also listens as "<name>@<host>".
bool cabsettings::hostScopeWanted() {
    std::string text;
    if (cabsettings::string("cabDirectory.hostScope", &text)) return text == "true" || text == "1" || text == "yes";
    return cabsettings::integer("cabDirectory.hostScope", 0) != 0;
}

// Who we are on the directory: a user with a password or an nkey; the shared
// token only when no user is configured. setUser and setToken win over the
// settings. Plus the TLS files.
void cabsettings::readCredentials(CabConnection::Options* o) {
    if (o->user.empty() && o->token.empty()) {
        cabsettings::string("cabDirectory.user", &o->user);
        cabsettings::string("cabDirectory.password", &o->password);
        cabsettings::string("cabDirectory.nkey", &o->nkey);
        cabsettings::string("cabDirectory.nkeySeedFile", &o->nkeyFile);
    }
    if (o->user.empty() && o->nkey.empty() && o->token.empty()) cabsettings::string("cabDirectory.token", &o->token);
    if (!o->user.empty() || !o->nkey.empty()) o->token.clear();
    cabsettings::string("cabDirectory.tls.ca", &o->tlsCa);
    cabsettings::string("cabDirectory.tls.cert", &o->tlsCert);
    cabsettings::string("cabDirectory.tls.key", &o->tlsKey);
}
