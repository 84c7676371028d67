#include "cab/CabProgram.h"

#include <pthread.h>
#include <signal.h>

#include <cstdio>

int CabServeUntilSignal(CabSatellite& satellite, const char* program, const char* server, const char* name) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (satellite.Connect(server, name) != 0) {
        fprintf(stderr, "%s: %s\n", program, CabGetLastError().c_str());
        return 2;
    }
    printf("ready\n");
    fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
    satellite.Disconnect();
    return 0;
}
