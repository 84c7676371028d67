// Reads a field of /proc/PID/status, such as "VmRSS:" or "VmHWM:".
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace kivtest {

// The field's value in KiB (or as a count, for "Threads:"); -1 when absent.
int64_t statusKiB(pid_t pid, const char* field);

}  // namespace kivtest
