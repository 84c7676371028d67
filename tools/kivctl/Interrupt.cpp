#include "tools/kivctl/Interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "host/PThread.h"

namespace kivctl {

namespace {

// The registered description.
PMutex g_lock;
std::string (*g_describe)(void*) KIV_GUARDED_BY(g_lock) = nullptr;
void* g_context KIV_GUARDED_BY(g_lock) = nullptr;

void waitForSignal(sigset_t set) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) return;
    std::string text;
    {
        PLockGuard lock(g_lock);
        if (g_describe) text = g_describe(g_context);
    }
    fflush(stdout);
    fprintf(stderr, "\nkivctl: interrupted%s%s\n", text.empty() ? "" : "; ", text.c_str());
    _exit(128 + sig);
}

}  // namespace

void handleInterrupts() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread(waitForSignal, set).detach();
}

void onInterrupt(std::string (*describe)(void* context), void* context) {
    PLockGuard lock(g_lock);
    g_describe = describe;
    g_context = context;
}

}  // namespace kivctl
