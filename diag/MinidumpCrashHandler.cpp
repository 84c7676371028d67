#include "diag/MinidumpCrashHandler.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "diag/MinidumpCrashInfo.h"
#include "diag/MinidumpSafe.h"
#include "diag/MinidumpWriter.h"

namespace {

const int kSignals[6] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP};
constexpr size_t kAltStackSize = 256u << 10;
constexpr size_t kHelperStackSize = 1u << 20;

// The handler that catches crashes now; written by the thread that
// constructs or destroys a handler, read by the signal handler.
std::atomic<MinidumpCrashHandler*> s_current{nullptr};
// The thread that is handling a crash, 0 while none is; set once by the
// first crashing thread (compare-exchange).
std::atomic<pid_t> s_crashingTid{0};
// Filled by the crashing thread only (after winning s_crashingTid), read by
// the helper's copy of memory.
minidump::CrashInfo s_crash;

struct HelperArgs {
    int goFd;
    const char* path;
    const minidump::CrashInfo* crash;
};
HelperArgs s_helperArgs;  // owned by the crashing thread, like s_crash

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void resetCrashSignals() {
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int s : kSignals) sigaction(s, &dfl, nullptr);
}

int helperMain(void* raw) {
    HelperArgs* args = static_cast<HelperArgs*>(raw);
    // A crash of the helper must end the helper, not wait in our handler.
    resetCrashSignals();
    signal(SIGALRM, SIG_DFL);
    sigset_t all;
    sigemptyset(&all);
    sigaddset(&all, SIGALRM);
    for (int s : kSignals) sigaddset(&all, s);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    alarm(60);  // never leave the crashed process waiting forever
    char go = 0;
    while (read(args->goFd, &go, 1) < 0 && errno == EINTR) {
    }
    close(args->goFd);
    return minidump::writeMinidump(args->path, *args->crash) ? 0 : 1;
}

void makeUuid(char* out) {
    unsigned char b[16] = {};
    size_t got = 0;
    while (got < sizeof b) {
        ssize_t n = getrandom(b + got, sizeof b - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // No entropy source: fall back on time and ids, still unique enough per machine.
            struct timespec ts;
            clock_gettime(CLOCK_REALTIME, &ts);
            uint64_t mix[2] = {static_cast<uint64_t>(ts.tv_nsec) ^ (static_cast<uint64_t>(getpid()) << 32),
                               static_cast<uint64_t>(ts.tv_sec) ^ static_cast<uint64_t>(currentTid())};
            memcpy(b, mix, sizeof b);
            break;
        }
        got += static_cast<size_t>(n);
    }
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
    static const char hex[] = "0123456789abcdef";
    int o = 0;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out[o++] = '-';
        out[o++] = hex[b[i] >> 4];
        out[o++] = hex[b[i] & 15];
    }
    out[o] = '\0';
}

}  // namespace

MinidumpCrashHandler::MinidumpCrashHandler(const char* dumpDir, Callback callback, void* context, bool doInstall)
    : m_callback(callback), m_context(context) {
    m_id[0] = '\0';
    m_path[0] = '\0';
    setDumpDirectory(dumpDir);
    void* p = mmap(nullptr, kHelperStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1,
                   0);
    m_helperStack = p == MAP_FAILED ? nullptr : p;
    if (doInstall) install();
}

MinidumpCrashHandler::~MinidumpCrashHandler() {
    uninstall();
    if (m_helperStack) munmap(m_helperStack, kHelperStackSize);
}

void MinidumpCrashHandler::setDumpDirectory(const char* dumpDir) {
    m_dumpDir[0] = '\0';
    minidump::safeAppend(m_dumpDir, sizeof m_dumpDir, dumpDir ? dumpDir : "");
}

namespace {
bool hasAltStack() {
    stack_t current;
    return sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE) && current.ss_size >= kAltStackSize;
}
}  // namespace

bool MinidumpCrashHandler::installAltStackForThisThread() {
    // Kept for the life of the process: the token is never released.
    return hasAltStack() || enterThread() != nullptr;
}

void* MinidumpCrashHandler::enterThread() {
    if (hasAltStack()) return nullptr;  // already has one that is not ours to release
    long page = sysconf(_SC_PAGESIZE);
    size_t guard = page > 0 ? static_cast<size_t>(page) : 4096;
    void* p = mmap(nullptr, kAltStackSize + guard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    mprotect(p, guard, PROT_NONE);
    stack_t ss;
    memset(&ss, 0, sizeof ss);
    ss.ss_sp = static_cast<char*>(p) + guard;
    ss.ss_size = kAltStackSize;
    if (sigaltstack(&ss, nullptr) != 0) {
        munmap(p, kAltStackSize + guard);
        return nullptr;
    }
    return p;
}

void MinidumpCrashHandler::leaveThread(void* token) {
    if (!token) return;
    stack_t off;
    memset(&off, 0, sizeof off);
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
    long page = sysconf(_SC_PAGESIZE);
    size_t guard = page > 0 ? static_cast<size_t>(page) : 4096;
    munmap(token, kAltStackSize + guard);
}

void MinidumpCrashHandler::install() {
    installAltStackForThisThread();
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = signalHandler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&sa.sa_mask);
    // Keep the other crash signals deliverable inside the handler: a crash
    // there must end the process, not be held back.
    for (int i = 0; i < 6; ++i) sigaction(kSignals[i], &sa, &m_previous[i]);
    m_below = s_current.exchange(this);
    if (m_below) m_below->m_above = this;
    m_installed = true;
}

void MinidumpCrashHandler::uninstall() {
    if (!m_installed) return;
    if (m_above) {
        // Still covered by a newer handler: unlink, and hand it what we replaced.
        memcpy(m_above->m_previous, m_previous, sizeof m_previous);
        m_above->m_below = m_below;
        if (m_below) m_below->m_above = m_above;
    } else {
        s_current.store(m_below);
        if (m_below) m_below->m_above = nullptr;
        for (int i = 0; i < 6; ++i) sigaction(kSignals[i], &m_previous[i], nullptr);
    }
    m_below = m_above = nullptr;
    m_installed = false;
}

void MinidumpCrashHandler::signalHandler(int sig, siginfo_t* info, void* uc) {
    pid_t self = currentTid();
    pid_t expected = 0;
    if (!s_crashingTid.compare_exchange_strong(expected, self)) {
        if (expected != self) {
            // Another thread is writing the dump; the process ends when it is done.
            for (;;) pause();
        }
        // A crash inside the handler: die by the signal instead of looping.
        resetCrashSignals();
        if (info->si_code <= 0) syscall(SYS_tgkill, getpid(), self, sig);
        return;
    }
    MinidumpCrashHandler* h = s_current.load();
    if (h && h->handleCrash(sig, info, uc)) return;
    // Nobody took the crash: let the default action happen.
    resetCrashSignals();
    if (info->si_code <= 0) syscall(SYS_tgkill, getpid(), self, sig);
}

bool MinidumpCrashHandler::runHelper(minidump::CrashInfo& crash) {
    if (!m_helperStack) return false;
    makeUuid(m_id);
    m_path[0] = '\0';
    minidump::safeAppend(m_path, sizeof m_path, m_dumpDir);
    minidump::safeAppend(m_path, sizeof m_path, m_id);
    minidump::safeAppend(m_path, sizeof m_path, ".dmp");

    prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    s_helperArgs = HelperArgs{fds[0], m_path, &crash};
    char* top = static_cast<char*>(m_helperStack) + kHelperStackSize - 64;
    pid_t pid = clone(helperMain, top, CLONE_UNTRACED, &s_helperArgs);
    close(fds[0]);
    if (pid < 0) {
        close(fds[1]);
        return false;
    }
    // Allow the helper to trace us where the kernel restricts ptrace to
    // descendants; fails harmlessly where there is no such restriction.
    prctl(PR_SET_PTRACER, pid, 0, 0, 0);
    char go = 'g';
    while (write(fds[1], &go, 1) < 0 && errno == EINTR) {
    }
    close(fds[1]);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, __WALL);
        if (r == pid) break;
        if (r < 0 && errno != EINTR) return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool MinidumpCrashHandler::handleCrash(int sig, const siginfo_t* info, const void* uc) {
    minidump::CrashInfo& crash = s_crash;
    crash.pid = getpid();
    crash.tid = currentTid();
    crash.signal = sig;
    crash.code = info ? info->si_code : 0;
    crash.faultAddress = info ? reinterpret_cast<uint64_t>(info->si_addr) : 0;
    const ucontext_t* context = static_cast<const ucontext_t*>(uc);
    if (context) {
        memcpy(&crash.context, context, sizeof crash.context);
        if (context->uc_mcontext.fpregs) {
            memcpy(&crash.fpState, context->uc_mcontext.fpregs, sizeof crash.fpState);
            crash.hasFpState = true;
        }
    }
    bool ok = runHelper(crash);
    if (!m_callback) return false;
    return m_callback(m_dumpDir, m_id, m_context, ok);
}

bool MinidumpCrashHandler::writeDumpNow(char* idOut, size_t idSize) {
    minidump::CrashInfo* crash = static_cast<minidump::CrashInfo*>(
        mmap(nullptr, sizeof(minidump::CrashInfo), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (crash == MAP_FAILED) return false;
    crash->pid = getpid();
    crash->tid = currentTid();
    ucontext_t uc;
    getcontext(&uc);
    memcpy(&crash->context, &uc, sizeof uc);
    bool ok = runHelper(*crash);
    if (idOut && idSize) {
        idOut[0] = '\0';
        minidump::safeAppend(idOut, idSize, m_id);
    }
    munmap(crash, sizeof(minidump::CrashInfo));
    return ok;
}
