// The system-information stream and the Linux text streams of a minidump
// (CPU info, process status, release, command line, environment, auxiliary
// vector, memory map), copied from /proc of the crashed process. Heap-free.
#pragma once

#include <sys/types.h>

#include "diag/MinidumpFile.h"

namespace minidump {

// Appends the system-information record (x86-64, Linux, kernel version text).
LocationDescriptor appendSystemInfo(MinidumpFile& file);

// Appends the contents of one file as a stream record; the location has size 0
// when the file cannot be read.
LocationDescriptor appendFileStream(MinidumpFile& file, const char* path);

// Appends /proc/<pid>/<leaf>.
LocationDescriptor appendProcStream(MinidumpFile& file, pid_t pid, const char* leaf);

}  // namespace minidump
