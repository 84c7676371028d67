#include "diag/MinidumpThreads.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "diag/MinidumpSafe.h"

namespace minidump {

int listThreads(pid_t pid, pid_t* out, int max) {
    char path[64];
    procPath(path, sizeof path, pid, "task");
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return 0;
    int count = 0;
    alignas(8) char buf[4096];
    for (;;) {
        long n = syscall(SYS_getdents64, fd, buf, sizeof buf);
        if (n <= 0) break;
        for (long off = 0; off < n;) {
            struct dirent64* d = reinterpret_cast<struct dirent64*>(buf + off);
            off += d->d_reclen;
            const char* name = d->d_name;
            if (name[0] < '0' || name[0] > '9') continue;
            long tid = 0;
            for (const char* p = name; *p >= '0' && *p <= '9'; ++p) tid = tid * 10 + (*p - '0');
            if (count < max) out[count++] = static_cast<pid_t>(tid);
        }
    }
    close(fd);
    return count;
}

bool attachThread(pid_t tid) {
    if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) return false;
    if (ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) != 0) {
        ptrace(PTRACE_DETACH, tid, nullptr, nullptr);
        return false;
    }
    for (;;) {
        int status = 0;
        pid_t r = waitpid(tid, &status, __WALL);
        if (r < 0 && errno == EINTR) continue;
        if (r != tid) return false;
        if (WIFSTOPPED(status)) return true;
        return false;  // the thread ended meanwhile
    }
}

void detachThread(pid_t tid) { ptrace(PTRACE_DETACH, tid, nullptr, nullptr); }

#if defined(__x86_64__)

bool readThreadContext(pid_t tid, ContextAmd64& c) {
    struct user_regs_struct r;
    if (ptrace(PTRACE_GETREGS, tid, nullptr, &r) != 0) return false;
    memset(&c, 0, sizeof c);
    c.contextFlags = kContextAmd64Full | kContextAmd64Segments;
    c.cs = static_cast<uint16_t>(r.cs);
    c.ds = static_cast<uint16_t>(r.ds);
    c.es = static_cast<uint16_t>(r.es);
    c.fs = static_cast<uint16_t>(r.fs);
    c.gs = static_cast<uint16_t>(r.gs);
    c.ss = static_cast<uint16_t>(r.ss);
    c.eflags = static_cast<uint32_t>(r.eflags);
    c.rax = r.rax;
    c.rcx = r.rcx;
    c.rdx = r.rdx;
    c.rbx = r.rbx;
    c.rsp = r.rsp;
    c.rbp = r.rbp;
    c.rsi = r.rsi;
    c.rdi = r.rdi;
    c.r8 = r.r8;
    c.r9 = r.r9;
    c.r10 = r.r10;
    c.r11 = r.r11;
    c.r12 = r.r12;
    c.r13 = r.r13;
    c.r14 = r.r14;
    c.r15 = r.r15;
    c.rip = r.rip;
    struct user_fpregs_struct fp;
    static_assert(sizeof fp == sizeof c.fltSave, "fxsave image");
    if (ptrace(PTRACE_GETFPREGS, tid, nullptr, &fp) == 0) {
        memcpy(c.fltSave, &fp, sizeof fp);
        c.mxCsr = fp.mxcsr;
    }
    return true;
}

void contextFromCrash(const CrashInfo& crash, ContextAmd64& c) {
    const greg_t* g = crash.context.uc_mcontext.gregs;
    memset(&c, 0, sizeof c);
    c.contextFlags = kContextAmd64Full;
    uint64_t csgsfs = static_cast<uint64_t>(g[REG_CSGSFS]);
    c.cs = static_cast<uint16_t>(csgsfs & 0xffff);
    c.gs = static_cast<uint16_t>((csgsfs >> 16) & 0xffff);
    c.fs = static_cast<uint16_t>((csgsfs >> 32) & 0xffff);
    c.eflags = static_cast<uint32_t>(g[REG_EFL]);
    c.rax = static_cast<uint64_t>(g[REG_RAX]);
    c.rcx = static_cast<uint64_t>(g[REG_RCX]);
    c.rdx = static_cast<uint64_t>(g[REG_RDX]);
    c.rbx = static_cast<uint64_t>(g[REG_RBX]);
    c.rsp = static_cast<uint64_t>(g[REG_RSP]);
    c.rbp = static_cast<uint64_t>(g[REG_RBP]);
    c.rsi = static_cast<uint64_t>(g[REG_RSI]);
    c.rdi = static_cast<uint64_t>(g[REG_RDI]);
    c.r8 = static_cast<uint64_t>(g[REG_R8]);
    c.r9 = static_cast<uint64_t>(g[REG_R9]);
    c.r10 = static_cast<uint64_t>(g[REG_R10]);
    c.r11 = static_cast<uint64_t>(g[REG_R11]);
    c.r12 = static_cast<uint64_t>(g[REG_R12]);
    c.r13 = static_cast<uint64_t>(g[REG_R13]);
    c.r14 = static_cast<uint64_t>(g[REG_R14]);
    c.r15 = static_cast<uint64_t>(g[REG_R15]);
    c.rip = static_cast<uint64_t>(g[REG_RIP]);
    if (crash.hasFpState) {
        static_assert(sizeof crash.fpState == sizeof c.fltSave, "fxsave image");
        memcpy(c.fltSave, &crash.fpState, sizeof c.fltSave);
        c.mxCsr = crash.fpState.mxcsr;
    }
}

#else

bool readThreadContext(pid_t, ContextAmd64&) { return false; }
void contextFromCrash(const CrashInfo&, ContextAmd64& c) { memset(&c, 0, sizeof c); }

#endif

}  // namespace minidump
