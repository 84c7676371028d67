#include "tools/kivctl/Connection.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "host/CRegistry.h"

namespace {

bool readFirstLine(const std::string& path, std::string* line) {
    FILE* f = fopen(path.c_str(), "r");
    if (!f) return false;
    char buf[1024];
    bool ok = fgets(buf, sizeof buf, f) != nullptr;
    fclose(f);
    if (!ok) return false;
    *line = buf;
    while (!line->empty() && (line->back() == '\n' || line->back() == '\r')) line->pop_back();
    return true;
}

}  // namespace

namespace kivctl {

const char* const kConnectionUsage =
    "  --server URL[,URL..] the CAB directory: HOST, HOST:PORT or nats:// and tls:// URLs,\n"
    "                       comma-separated for a cluster (default: settings\n"
    "                       cabDirectory.servers, else cabDirectory.host/.port)\n"
    "  --host NAME          ask the proxy on host NAME (its cabDirectory.hostScope name)\n"
    "  --user USER          directory user (default: setting cabDirectory.user)\n"
    "  --password-file FILE the user's password, the first line of FILE\n"
    "                       (default: setting cabDirectory.password)\n"
    "  --token TOKEN        shared directory token, when the directory has no users\n"
    "                       (default: setting cabDirectory.token)\n"
    "  --timeout MS         request time-out in milliseconds (default: cabDirectory.requestTimeoutMs)\n";

namespace {
const char* const kCredentialHelp =
    "kivctl: the directory refused the credential. kivctl uses --user with\n"
    "  --password-file (or --token); without them the settings cabDirectory.user\n"
    "  and .password (or .token) in $XDG_CONFIG_HOME/kivfoundry/com.kiv-foundry.kiv.config.json.\n"
    "  Under make run, use var/kivctl (it carries the run's own password, new on\n"
    "  every run); on an installed system, see \"A credential for kivctl\" in README.md\n"
    "  (the password is in /etc/kivfoundry/kivctl.password).\n";
}  // namespace

void declareConnectionOptions(Args& args) {
    args.value("server");
    args.value("host");
    args.value("token");
    args.value("user");
    args.value("password-file");
    args.value("timeout");
}

std::string directoryUser(const Args& args) {
    if (args.has("user")) return args.get("user");
    CStdStr user;
    CRegistry::getInstance()->ReadSettingImpl(CStdStr("Software\\Kiv Foundry\\Kiv\\Config"),
                                              CStdStr("cabDirectory.user"), user);
    return user;
}

int connect(const Args& args, CabClient& client, int* timeoutMs) {
    std::string server = args.get("server");
    if (!server.empty() && server.find("://") == std::string::npos && server.find(',') == std::string::npos) {
        // One HOST[:PORT] given here wins over the setting cabDirectory.servers.
        if (server.find(':') == std::string::npos) {
            int port = 4222;
            CRegistry::getInstance()->ReadSettingImpl(CStdStr("Software\\Kiv Foundry\\Kiv\\Config"),
                                                      CStdStr("cabDirectory.port"), port);
            server += ":" + std::to_string(port);
        }
        server = "nats://" + server;
    }
    if (server.empty()) {
        CStdStr host;
        if (!CRegistry::getInstance()->ReadSettingImpl(CStdStr("Software\\Kiv Foundry\\Kiv\\Config"),
                                                       CStdStr("cabDirectory.host"), host))
            host = "127.0.0.1";
        server = host;
    }
    if (args.has("token")) client.setToken(args.get("token"));
    if (args.has("password-file") && !args.has("user")) {
        fprintf(stderr, "kivctl: --password-file needs --user\n");
        return kUsage;
    }
    if (args.has("user")) {
        // Never on the command line, where every local user can read it.
        std::string password;
        if (args.has("password-file") && !readFirstLine(args.get("password-file"), &password)) {
            fprintf(stderr, "kivctl: cannot read the password from %s\n", args.get("password-file").c_str());
            return kFailure;
        }
        client.setUser(args.get("user"), password);
    }
    *timeoutMs = 0;
    if (args.has("timeout")) {
        const std::string text = args.get("timeout");  // outlives `end`
        char* end = nullptr;
        long ms = strtol(text.c_str(), &end, 10);
        if (!end || *end || ms <= 0 || ms > 24 * 3600 * 1000) {
            fprintf(stderr, "kivctl: --timeout needs a positive number of milliseconds\n");
            return kUsage;
        }
        client.setRequestTimeoutMs((int)ms);
        *timeoutMs = (int)ms;
    }
    std::string name = "kivctl-" + std::to_string(getpid());
    if (client.Connect(server.c_str(), name.c_str()) != 0) {
        // The library has already printed the reason on stderr (kivctl installs
        // no logger for it); what is added here is what to do about it.
        const std::string error = CabGetLastError();
        if (error.find("CAB_E_CONNECT_FAILED") != std::string::npos && error.find("Violation") == std::string::npos)
            fprintf(stderr,
                    "kivctl: no directory answers at %s; start one (make run), or name it with\n"
                    "  --server HOST:PORT or the settings cabDirectory.host and .port\n",
                    server.c_str());
        if (error.find("Authorization Violation") != std::string::npos ||
            error.find("Authentication") != std::string::npos || error.find("authorization") != std::string::npos)
            fprintf(stderr, "%s", kCredentialHelp);
        return kFailure;
    }
    return kOk;
}

}  // namespace kivctl
