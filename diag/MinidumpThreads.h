// Thread capture for the minidump writer, run in the helper process: lists the
// crashed process's threads, stops each with ptrace (the crashed process must
// have allowed this helper as its tracer), reads registers into minidump
// contexts and lets the threads go again. Heap-free; x86-64 only (elsewhere
// the capture functions fail).
#pragma once

#include <sys/types.h>

#include "diag/MinidumpCrashInfo.h"
#include "diag/MinidumpFormat.h"

namespace minidump {

// Thread ids of `pid` from /proc/<pid>/task; returns how many were stored.
int listThreads(pid_t pid, pid_t* out, int max);
// Stops one thread of another process; true when it is stopped under our control.
bool attachThread(pid_t tid);
void detachThread(pid_t tid);
// Registers of a stopped, attached thread.
bool readThreadContext(pid_t tid, ContextAmd64& out);
// Registers recorded by the signal handler.
void contextFromCrash(const CrashInfo& crash, ContextAmd64& out);

}  // namespace minidump
