#include "diag/MinidumpLinuxStreams.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>

#include "diag/MinidumpSafe.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace minidump {

namespace {
constexpr size_t kMaxStreamSize = 4u << 20;
}

LocationDescriptor appendSystemInfo(MinidumpFile& file) {
    SystemInfo info{};
    info.processorArchitecture = kCpuArchitectureAmd64;
    info.platformId = kOsLinux;
    cpu_set_t cpus;
    if (sched_getaffinity(0, sizeof cpus, &cpus) == 0) {
        int n = CPU_COUNT(&cpus);
        info.numberOfProcessors = static_cast<uint8_t>(n > 255 ? 255 : n);
    }
#if defined(__x86_64__)
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(0, &a, &b, &c, &d)) {
        info.vendorId[0] = b;
        info.vendorId[1] = d;
        info.vendorId[2] = c;
    }
    if (__get_cpuid(1, &a, &b, &c, &d)) {
        info.versionInformation = a;
        info.featureInformation = d;
        info.processorLevel = static_cast<uint16_t>((a >> 8) & 0xf);
        info.processorRevision = static_cast<uint16_t>(((a >> 4) & 0xf) << 8 | (a & 0xf));
    }
#endif
    char version[512] = "";
    struct utsname u;
    if (uname(&u) == 0) {
        // Kernel release "6.1.0-18-amd64" -> major 6, minor 1, build 0.
        const char* p = u.release;
        uint32_t parts[3] = {0, 0, 0};
        for (int i = 0; i < 3 && *p; ++i) {
            while (*p >= '0' && *p <= '9') parts[i] = parts[i] * 10 + static_cast<uint32_t>(*p++ - '0');
            if (*p == '.') ++p;
            else break;
        }
        info.majorVersion = parts[0];
        info.minorVersion = parts[1];
        info.buildNumber = parts[2];
        safeAppend(version, sizeof version, u.sysname);
        safeAppend(version, sizeof version, " ");
        safeAppend(version, sizeof version, u.release);
        safeAppend(version, sizeof version, " ");
        safeAppend(version, sizeof version, u.version);
        safeAppend(version, sizeof version, " ");
        safeAppend(version, sizeof version, u.machine);
    }
    info.csdVersionRva = file.appendString(version);
    return file.append(&info, sizeof info);
}

LocationDescriptor appendFileStream(MinidumpFile& file, const char* path) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return LocationDescriptor{0, file.position()};
    LocationDescriptor loc = file.appendFromFd(fd, kMaxStreamSize);
    close(fd);
    return loc;
}

LocationDescriptor appendProcStream(MinidumpFile& file, pid_t pid, const char* leaf) {
    char path[64];
    procPath(path, sizeof path, pid, leaf);
    return appendFileStream(file, path);
}

}  // namespace minidump
