// MinidumpCrashHandler: catches the crash signals (SIGSEGV, SIGBUS, SIGILL,
// SIGFPE, SIGABRT, SIGTRAP) of the whole process, writes a minidump into the
// dump folder and calls the callback with the folder and the dump's id (a
// random UUID text; the file is folder + id + ".dmp").
//
// Promises:
// - The handler runs on an alternate signal stack, so a stack overflow still
//   dumps. Signal stacks are per thread: the constructing thread gets one;
//   any other thread that may overflow its stack must call
//   installAltStackForThisThread() itself (threads do not inherit it).
// - A crash is handled once: a second crash inside the handler ends the
//   process with the default action; other threads crashing meanwhile wait.
// - No heap is touched until the callback: the dump is written by a helper
//   process (its stack reserved at construction) that stops the threads with
//   ptrace while the crashed thread waits for it.
// - At most one handler is active per process: the newest one. Destroying it
//   makes the one before it active again (and restores the signal actions
//   from before the first); handlers may be destroyed in any order. Create and
//   destroy handlers from one thread at a time.
#pragma once

#include <limits.h>
#include <stddef.h>
#include <signal.h>

namespace minidump {
struct CrashInfo;
}

class MinidumpCrashHandler {
public:
    // Called on the crashed thread after the dump attempt. Returning false
    // lets the crash take its default course (the process dies by the signal).
    typedef bool (*Callback)(const char* dumpDir, const char* minidumpId, void* context, bool succeeded);

    // dumpDir must end with "/". When install is false nothing is caught.
    MinidumpCrashHandler(const char* dumpDir, Callback callback, void* context, bool install);
    ~MinidumpCrashHandler();
    MinidumpCrashHandler(const MinidumpCrashHandler&) = delete;
    MinidumpCrashHandler& operator=(const MinidumpCrashHandler&) = delete;

    void setDumpDirectory(const char* dumpDir);
    const char* dumpDirectory() const { return m_dumpDir; }

    // Gives the calling thread an alternate signal stack large enough for the
    // handler, unless it already has one. The stack lives as long as the process.
    static bool installAltStackForThisThread();
    // For threads that come and go: enterThread gives the calling thread its
    // own alternate signal stack (unless it has one) and returns a token;
    // leaveThread, on the same thread before it ends, releases that stack.
    static void* enterThread();
    static void leaveThread(void* token);

    // Writes a dump of the calling process now, without a crash (the calling
    // thread's registers are those of this call). For tools and tests.
    bool writeDumpNow(char* idOut, size_t idSize);

private:
    static void signalHandler(int sig, siginfo_t* info, void* uc);
    bool handleCrash(int sig, const siginfo_t* info, const void* uc);
    bool runHelper(minidump::CrashInfo& crash);
    void install();
    void uninstall();

    char m_dumpDir[PATH_MAX];
    char m_id[40];
    char m_path[PATH_MAX + 48];
    Callback m_callback;
    void* m_context;
    bool m_installed = false;
    void* m_helperStack = nullptr;  // reserved for the dump helper, never touched before a crash
    struct sigaction m_previous[6];
    MinidumpCrashHandler* m_below = nullptr;  // installed before this one
    MinidumpCrashHandler* m_above = nullptr;  // installed after this one
};
