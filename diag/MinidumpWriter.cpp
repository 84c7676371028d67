#include "diag/MinidumpWriter.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "diag/MinidumpFile.h"
#include "diag/MinidumpLinuxStreams.h"
#include "diag/MinidumpModules.h"
#include "diag/MinidumpSafe.h"
#include "diag/MinidumpThreads.h"

namespace minidump {

namespace {

constexpr int kMaxThreads = 4096;
constexpr int kMaxMappings = 32768;
constexpr int kMaxModules = 2048;
constexpr size_t kMapsTextSize = 8u << 20;
constexpr uint64_t kMaxStackBytes = 512u << 10;
constexpr uint64_t kRedZone = 128;
constexpr int kStreamCount = 12;

struct ThreadRecord {
    pid_t tid;
    bool attached;
    bool hasContext;
    ContextAmd64 context;
    uint64_t stackStart;
    uint64_t stackSize;
    MemoryDescriptor stack;
    LocationDescriptor contextLoc;
};

size_t readWholeFile(const char* path, char* buf, size_t cap) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    size_t used = 0;
    while (used + 1 < cap) {
        ssize_t n = read(fd, buf + used, cap - 1 - used);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        used += static_cast<size_t>(n);
    }
    buf[used] = '\0';
    close(fd);
    return used;
}

// The part of a thread's stack worth saving: from just below the stack
// pointer up to the end of its mapping, at most kMaxStackBytes.
void chooseStack(const Mapping* maps, int mapCount, uint64_t sp, uint64_t& start, uint64_t& size) {
    start = size = 0;
    const Mapping* m = findMapping(maps, mapCount, sp);
    if (!m || !m->readable) {
        // An overflowed stack: the pointer sits in the guard page below the stack.
        m = nullptr;
        for (int i = 0; i < mapCount; ++i)
            if (maps[i].readable && maps[i].start > sp && maps[i].start - sp <= 65536) {
                m = &maps[i];
                break;
            }
        if (!m) return;
        start = m->start;
    } else {
        start = sp >= m->start + kRedZone ? (sp - kRedZone) & ~uint64_t(15) : m->start;
    }
    size = m->end - start;
    if (size > kMaxStackBytes) size = kMaxStackBytes;
}

// Copies memory of `pid` into the file; unreadable pages become zeros.
MemoryDescriptor appendMemory(MinidumpFile& file, pid_t pid, uint64_t start, uint64_t size, char* chunk,
                              size_t chunkSize) {
    MemoryDescriptor d{start, {static_cast<uint32_t>(size), file.reserve(size)}};
    for (uint64_t done = 0; done < size;) {
        size_t n = size - done < chunkSize ? static_cast<size_t>(size - done) : chunkSize;
        struct iovec local = {chunk, n};
        struct iovec remote = {reinterpret_cast<void*>(start + done), n};
        ssize_t got = process_vm_readv(pid, &local, 1, &remote, 1, 0);
        if (got < 0) got = 0;
        if (static_cast<size_t>(got) < n) memset(chunk + got, 0, n - static_cast<size_t>(got));
        file.writeAt(static_cast<uint32_t>(d.memory.rva + done), chunk, n);
        done += n;
    }
    return d;
}

LocationDescriptor appendCvRecord(MinidumpFile& file, const ModuleInfo& m) {
    uint8_t buf[sizeof(CvInfoPdb70Head) + 64];
    if (m.isBuildId) {
        CvInfoElfHead head{kCvSignatureElf};
        memcpy(buf, &head, sizeof head);
        memcpy(buf + sizeof head, m.id, m.idSize);
        return file.append(buf, sizeof head + m.idSize);
    }
    // No build id: a PDB 7.0 record whose GUID is the text hash, age 0.
    CvInfoPdb70Head head{};
    head.cvSignature = kCvSignaturePdb70;
    memcpy(head.signature, m.id, m.idSize < 16 ? m.idSize : 16);
    uint32_t rva = file.reserve(sizeof head + strlen(m.path) + 1);
    file.writeAt(rva, &head, sizeof head);
    file.writeAt(rva + static_cast<uint32_t>(sizeof head), m.path, strlen(m.path) + 1);
    return LocationDescriptor{static_cast<uint32_t>(sizeof head + strlen(m.path) + 1), rva};
}

}  // namespace

bool writeMinidump(const char* path, const CrashInfo& crash) {
    SafeArena arena(kMapsTextSize + sizeof(Mapping) * kMaxMappings + sizeof(ModuleInfo) * kMaxModules +
                    sizeof(ThreadRecord) * kMaxThreads + sizeof(pid_t) * kMaxThreads + (1u << 20));
    char* mapsText = static_cast<char*>(arena.alloc(kMapsTextSize));
    Mapping* maps = arena.allocArray<Mapping>(kMaxMappings);
    ModuleInfo* modules = arena.allocArray<ModuleInfo>(kMaxModules);
    ThreadRecord* threads = arena.allocArray<ThreadRecord>(kMaxThreads);
    pid_t* tids = arena.allocArray<pid_t>(kMaxThreads);
    const size_t chunkSize = 64u << 10;
    char* chunk = static_cast<char*>(arena.alloc(chunkSize));
    if (!mapsText || !maps || !modules || !threads || !tids || !chunk) return false;

    MinidumpFile file;
    if (!file.open(path)) return false;
    uint32_t headerRva = file.reserve(sizeof(Header));
    uint32_t dirRva = file.reserve(sizeof(Directory) * kStreamCount);
    Directory dir[kStreamCount];
    memset(dir, 0, sizeof dir);
    int streams = 0;

    // Stop the other threads first, so their registers and stacks agree.
    int tidCount = listThreads(crash.pid, tids, kMaxThreads);
    int threadCount = 0;
    threads[threadCount].tid = crash.tid;
    threads[threadCount].hasContext = true;
    contextFromCrash(crash, threads[threadCount].context);
    ++threadCount;
    for (int i = 0; i < tidCount && threadCount < kMaxThreads; ++i) {
        if (tids[i] == crash.tid) continue;
        ThreadRecord& t = threads[threadCount++];
        t.tid = tids[i];
        t.attached = attachThread(t.tid);
        t.hasContext = t.attached && readThreadContext(t.tid, t.context);
    }

    char mapsPath[64];
    procPath(mapsPath, sizeof mapsPath, crash.pid, "maps");
    readWholeFile(mapsPath, mapsText, kMapsTextSize);
    int mapCount = parseMaps(mapsText, maps, kMaxMappings);

    dir[streams++] = {kSystemInfoStream, appendSystemInfo(file)};

    // Threads: the record list, then each context and stack.
    size_t listSize = 4 + sizeof(Thread) * static_cast<size_t>(threadCount);
    uint32_t threadListRva = file.reserve(listSize);
    uint32_t count32 = static_cast<uint32_t>(threadCount);
    file.writeAt(threadListRva, &count32, 4);
    for (int i = 0; i < threadCount; ++i) {
        ThreadRecord& t = threads[i];
        Thread rec{};
        rec.threadId = static_cast<uint32_t>(t.tid);
        if (t.hasContext) {
            t.contextLoc = file.append(&t.context, sizeof t.context);
            chooseStack(maps, mapCount, t.context.rsp, t.stackStart, t.stackSize);
            if (t.stackSize) t.stack = appendMemory(file, crash.pid, t.stackStart, t.stackSize, chunk, chunkSize);
        }
        rec.threadContext = t.contextLoc;
        rec.stack = t.stack;
        file.writeAt(threadListRva + 4 + static_cast<uint32_t>(sizeof(Thread)) * static_cast<uint32_t>(i), &rec,
                     sizeof rec);
    }
    dir[streams++] = {kThreadListStream, {static_cast<uint32_t>(listSize), threadListRva}};

    ExceptionStream ex{};
    ex.threadId = static_cast<uint32_t>(crash.tid);
    ex.exceptionRecord.exceptionCode = static_cast<uint32_t>(crash.signal);
    ex.exceptionRecord.exceptionFlags = static_cast<uint32_t>(crash.code);
    ex.exceptionRecord.exceptionAddress = crash.faultAddress;
    ex.threadContext = threads[0].contextLoc;
    dir[streams++] = {kExceptionStream, file.append(&ex, sizeof ex)};

    int moduleCount = collectModules(maps, mapCount, modules, kMaxModules);
    listSize = 4 + sizeof(Module) * static_cast<size_t>(moduleCount);
    uint32_t moduleListRva = file.reserve(listSize);
    count32 = static_cast<uint32_t>(moduleCount);
    file.writeAt(moduleListRva, &count32, 4);
    for (int i = 0; i < moduleCount; ++i) {
        const ModuleInfo& m = modules[i];
        Module rec{};
        rec.baseOfImage = m.base;
        rec.sizeOfImage = static_cast<uint32_t>(m.size);
        rec.moduleNameRva = file.appendString(m.path);
        if (m.idSize) rec.cvRecord = appendCvRecord(file, m);
        file.writeAt(moduleListRva + 4 + static_cast<uint32_t>(sizeof(Module)) * static_cast<uint32_t>(i), &rec,
                     sizeof rec);
    }
    dir[streams++] = {kModuleListStream, {static_cast<uint32_t>(listSize), moduleListRva}};

    // Memory list: every saved stack.
    uint32_t memCount = 0;
    for (int i = 0; i < threadCount; ++i)
        if (threads[i].stackSize) ++memCount;
    listSize = 4 + sizeof(MemoryDescriptor) * memCount;
    uint32_t memListRva = file.reserve(listSize);
    file.writeAt(memListRva, &memCount, 4);
    uint32_t at = memListRva + 4;
    for (int i = 0; i < threadCount; ++i) {
        if (!threads[i].stackSize) continue;
        file.writeAt(at, &threads[i].stack, sizeof(MemoryDescriptor));
        at += sizeof(MemoryDescriptor);
    }
    dir[streams++] = {kMemoryListStream, {static_cast<uint32_t>(listSize), memListRva}};

    // Let the other threads go; the process is about to end anyway.
    for (int i = 1; i < threadCount; ++i)
        if (threads[i].attached) detachThread(threads[i].tid);

    dir[streams++] = {kLinuxCpuInfo, appendFileStream(file, "/proc/cpuinfo")};
    dir[streams++] = {kLinuxProcStatus, appendProcStream(file, crash.pid, "status")};
    LocationDescriptor lsb = appendFileStream(file, "/etc/lsb-release");
    if (lsb.dataSize == 0) lsb = appendFileStream(file, "/etc/os-release");
    dir[streams++] = {kLinuxLsbRelease, lsb};
    dir[streams++] = {kLinuxCmdLine, appendProcStream(file, crash.pid, "cmdline")};
    dir[streams++] = {kLinuxEnviron, appendProcStream(file, crash.pid, "environ")};
    dir[streams++] = {kLinuxAuxv, appendProcStream(file, crash.pid, "auxv")};
    dir[streams++] = {kLinuxMaps, appendProcStream(file, crash.pid, "maps")};

    Header header{};
    header.signature = kSignature;
    header.version = kVersion;
    header.numberOfStreams = static_cast<uint32_t>(streams);
    header.streamDirectoryRva = dirRva;
    header.timeDateStamp = static_cast<uint32_t>(time(nullptr));
    file.writeAt(dirRva, dir, sizeof(Directory) * static_cast<size_t>(streams));
    file.writeAt(headerRva, &header, sizeof header);
    bool ok = file.ok();
    file.close();
    return ok;
}

}  // namespace minidump
