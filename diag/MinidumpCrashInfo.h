// What the crash signal handler records about a crash before it starts the
// dump-writing helper: which thread crashed, with which signal, and that
// thread's full register state at the fault. Plain data, filled without heap.
#pragma once

#include <sys/types.h>
#include <sys/ucontext.h>

#include <cstdint>

namespace minidump {

struct CrashInfo {
    pid_t pid = 0;  // the crashed process
    pid_t tid = 0;  // the thread that received the signal
    int signal = 0;
    int code = 0;               // si_code
    uint64_t faultAddress = 0;  // si_addr
    ucontext_t context{};       // general registers at the fault
    bool hasFpState = false;
    struct _libc_fpstate fpState {};  // FXSAVE image at the fault
};

}  // namespace minidump
