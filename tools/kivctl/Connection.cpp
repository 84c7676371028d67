#include "tools/kivctl/Connection.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "host/CRegistry.h"

namespace kivctl {

const char* const kConnectionUsage =
    "  --server HOST:PORT   the CAB directory (default: settings cabDirectory.host/.port)\n"
    "  --token TOKEN        directory token (default: setting cabDirectory.token)\n"
    "  --timeout MS         request time-out in milliseconds (default: cabDirectory.requestTimeoutMs)\n";

void declareConnectionOptions(Args& args) {
    args.value("server");
    args.value("token");
    args.value("timeout");
}

int connect(const Args& args, CabClient& client, int* timeoutMs) {
    std::string server = args.get("server");
    if (server.empty()) {
        CStdStr host;
        if (!CRegistry::getInstance()->ReadSettingImpl(CStdStr("Software\\Kiv Foundry\\Kiv\\Config"),
                                                       CStdStr("cabDirectory.host"), host))
            host = "127.0.0.1";
        server = host;
    }
    if (args.has("token")) client.setToken(args.get("token"));
    *timeoutMs = 0;
    if (args.has("timeout")) {
        char* end = nullptr;
        long ms = strtol(args.get("timeout").c_str(), &end, 10);
        if (!end || *end || ms <= 0 || ms > 24 * 3600 * 1000) {
            fprintf(stderr, "kivctl: --timeout needs a positive number of milliseconds\n");
            return kUsage;
        }
        client.setRequestTimeoutMs((int)ms);
        *timeoutMs = (int)ms;
    }
    std::string name = "kivctl-" + std::to_string(getpid());
    if (client.Connect(server.c_str(), name.c_str()) != 0) {
        fprintf(stderr, "kivctl: %s\n", CabGetLastError().c_str());
        return kFailure;
    }
    return kOk;
}

}  // namespace kivctl
