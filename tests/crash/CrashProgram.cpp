// A program that installs the crash handler and then crashes in the way its
// first argument names. Used by the crash tests as a child process.
//   crash_program MODE DUMP_DIR REPORTER [appData=TEXT] [arg1=TEXT arg2=TEXT] [name=TEXT]
// MODE: null, usr1, abort, throw, throw-int, overflow, overflow-thread, threads.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>

#include <boost/shared_ptr.hpp>

#include "diag/CBBLog.h"
#include "diag/MiniDumper.h"
#include "host/PThread.h"

namespace {

int* volatile g_null = nullptr;

extern "C" __attribute__((noinline, no_sanitize("undefined"))) void crashWithNullStore(int value) {
    *g_null = value;
    __asm__ volatile("" ::: "memory");
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winfinite-recursion"
__attribute__((noinline)) int recurseForever(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    int r = recurseForever(depth + 1) + frame[0];
    __asm__ volatile("" ::: "memory");
    return r;
}
#pragma GCC diagnostic pop

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_cond = PTHREAD_COND_INITIALIZER;
int g_waiting = 0;  // guarded by g_lock

void* parkedThread(void*) {
    pthread_mutex_lock(&g_lock);
    ++g_waiting;
    pthread_cond_broadcast(&g_cond);
    for (;;) pthread_cond_wait(&g_cond, &g_lock);
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 64;  // see the usage above
    std::string mode = argv[1];
    std::map<std::string, std::string> opt = {{"name", "CrashProgram"}};
    for (int i = 4; i < argc; ++i) {
        std::string a = argv[i];
        opt[a.substr(0, a.find('='))] = a.substr(a.find('=') + 1);
    }
    const std::string &name = opt["name"], &appData = opt["appData"], &arg1 = opt["arg1"], &arg2 = opt["arg2"];
    boost::shared_ptr<CBBLog> log(new CBBLog(name + ".log", false, 524288));
    log->initialize();
    CBBLog::setLogger(log);
    MiniDumper* dumper = arg1.empty() ? new MiniDumper(name.c_str())
                                      : new MiniDumper(name.c_str(), arg1.c_str(), arg2.c_str(), argv[2]);
    dumper->setDumpDirectory(argv[2]);
    dumper->SetCrashReporterPath(MiniDumper::escapeBlanks(argv[3]));  // taken as given: a shell word
    if (!appData.empty()) dumper->setAppData(appData);
    if (mode == "threads") {
        pthread_t t[3];
        for (auto& th : t) pthread_create(&th, nullptr, parkedThread, nullptr);
        pthread_mutex_lock(&g_lock);
        while (g_waiting < 3) pthread_cond_wait(&g_cond, &g_lock);
        pthread_mutex_unlock(&g_lock);
        crashWithNullStore(7);
    }
    if (mode == "null") crashWithNullStore(1);
    if (mode == "abort") abort();
    if (mode == "throw") throw std::runtime_error("nobody catches this");
    if (mode == "throw-int") throw 42;
    if (mode == "overflow") return recurseForever(0);
    if (mode == "usr1") {
        raise(SIGUSR1);
        for (;;) pause();  // the crash happens on the handler's new thread
    }
    if (mode == "overflow-thread") {
        // A thread started after the crash handler gets its own signal stack.
        PThread t;
        t.init(nullptr,
               new PThreadDelegateFunction([](void*) -> void* { return reinterpret_cast<void*>(recurseForever(0)); }),
               nullptr);
        t.join();
    }
    fprintf(stderr, "crash_program: unknown mode %s\n", mode.c_str());
    return 64;
}
