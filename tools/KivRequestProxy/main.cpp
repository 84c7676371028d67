// KivRequestProxy: the "VorpaMediaProxy" satellite process.
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/CStdStr.h"
#include "host/MemoryPolicy.h"
#include "tools/KivRequestProxy/KivModuleBase.h"

namespace {
const char* kUsage =
    "usage: KivRequestProxy [--help]\n"
    "\n"
    "Connects to the CAB directory as the satellite \"VorpaMediaProxy\" and serves\n"
    "its services until SIGINT or SIGTERM; then closes and exits with status 0.\n"
    "It exits with status 0 too when it cannot register with the directory; its\n"
    "service manager starts it again. Under systemd (NOTIFY_SOCKET) it reports\n"
    "READY=1 once it serves, STATUS= lines, STOPPING=1 and the watchdog.\n"
    "\n"
    "Settings (kivctl defaults read 'Software\\Kiv Foundry\\Kiv\\Config'):\n"
    "  cabDirectory.host   directory host (default 127.0.0.1)\n"
    "  cabDirectory.port   directory port (default 4222)\n"
    "  cabDirectory.servers  comma-separated server URLs of a cluster; wins over .host\n"
    "  cabDirectory.hostScope  1: also answer as VorpaMediaProxy@<host> (one proxy per host)\n"
    "  cabDirectory.user, cabDirectory.password  its directory user (VorpaMediaProxy)\n"
    "  cabDirectory.tls.ca, .cert, .key           TLS files (with a tls:// host)\n"
    "  cabDirectory.token  shared token, only for a directory without users\n"
    "  files.roots         folders whose files it serves, separated by ':' (besides\n"
    "                      its own logs, data folder and archives; read at start)\n"
    "  archive.diskReserveMB  space an archive must leave free in /tmp (default 512)\n"
    "Log level: the integer LogLevel under 'Software\\Kiv Foundry\\Kiv' (0-4, default 1).\n"
    "Logs go to /Library/Logs/KivFoundry/KivRequestProxy.log, under $KIV_ROOT when set;\n"
    "its start, its connection and its stop go to standard error whatever the level.\n";
}

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (argv[i] && (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h"))) {
            fputs(kUsage, stdout);
            return 0;
        }
    }
    // File chunks and archives pass through in blocks of megabytes, on many
    // threads: one pool keeps at most a couple of them for reuse, where every
    // further pool would keep its own.
    BoundAllocatorPools(1);
    std::vector<CStdStr> args;
    args.reserve(static_cast<size_t>(argc));
    for (int i = 0; i < argc; ++i) args.push_back(CStdStr(argv[i] ? argv[i] : ""));
    int rc = commonMain(args);
    return rc;
}
