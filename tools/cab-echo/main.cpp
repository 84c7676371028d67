// cab-echo: an echo satellite for tests and benchmarks of the broker library.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cab/CabProgram.h"
#include "tools/cab-echo/EchoSatellite.h"

static void usage(FILE* to) {
    fprintf(to,
            "usage: cab-echo [--server HOST:PORT] [--name NAME] [--token TOKEN] [--max-handlers N]\n"
            "Connects to the CAB directory as satellite NAME (default CabEcho) and serves\n"
            "Echo, Status, Throw, ThrowStd, ThrowOther, Blob, Nest and Sleep until SIGINT or\n"
            "SIGTERM. Prints \"ready\" once it serves.\n");
}

int main(int argc, char** argv) {
    std::string server = "127.0.0.1", name = "CabEcho", token;
    int maxHandlers = 0;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&](std::string* v) {
            if (i + 1 >= argc) return false;
            *v = argv[++i];
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--server" && next(&server)) {
        } else if (a == "--name" && next(&name)) {
        } else if (a == "--token" && next(&token)) {
        } else if (a == "--max-handlers" && next(&v)) {
            maxHandlers = atoi(v.c_str());
        } else {
            fprintf(stderr, "cab-echo: bad argument '%s'\n", a.c_str());
            usage(stderr);
            return 64;
        }
    }
    EchoSatellite sat;
    if (!token.empty()) sat.setToken(token);
    if (maxHandlers > 0) sat.setMaxHandlers(maxHandlers);
    return CabServeUntilSignal(sat, "cab-echo", server.c_str(), name.c_str());
}
