// Reads a field of /proc/PID/status, such as "VmRSS:" or "VmHWM:".
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

namespace kivtest {

// The field's value in KiB (or as a count, for "Threads:"); -1 when absent.
inline int64_t statusKiB(pid_t pid, const std::string& field) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(f, line);)
        if (line.rfind(field, 0) == 0) return atoll(line.c_str() + field.size() + 1);
    return -1;
}

}  // namespace kivtest
