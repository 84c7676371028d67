#include "tools/kivctl/Interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <thread>

namespace kivctl {

namespace {

// The registered description; guarded by g_lock.
std::mutex g_lock;
std::string (*g_describe)(void*) = nullptr;
void* g_context = nullptr;

void waitForSignal(sigset_t set) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) return;
    std::string text;
    {
        std::lock_guard<std::mutex> lock(g_lock);
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
    std::lock_guard<std::mutex> lock(g_lock);
    g_describe = describe;
    g_context = context;
}

}  // namespace kivctl
