// Writes the minidump of a crashed process. Runs in a helper process that the
// crashed process started from its signal handler and allowed to trace it:
// stops every other thread with ptrace, writes system info, the exception,
// all threads with registers and stacks, the modules with their ids, the
// memory list and the Linux /proc streams, then lets the threads go again.
// Uses no heap and no locks of the crashed process.
#pragma once

#include "diag/MinidumpCrashInfo.h"

namespace minidump {

// True when the whole file was written.
bool writeMinidump(const char* path, const CrashInfo& crash);

}  // namespace minidump
