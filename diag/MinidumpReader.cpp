#include "diag/MinidumpReader.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <cstdio>
#include <set>
#include <sstream>

using namespace minidump;

namespace {

template <class T>
bool readAt(const std::vector<uint8_t>& bytes, uint64_t offset, T& out) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
    memcpy(&out, bytes.data() + offset, sizeof(T));
    return true;
}

std::string hex(const uint8_t* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

}  // namespace

bool MinidumpReader::fail(const std::string& why) {
    m_error = why;
    return false;
}

bool MinidumpReader::load(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    if (!f) return fail("cannot open " + path);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    return parse(std::move(bytes));
}

bool MinidumpReader::located(const LocationDescriptor& loc) const {
    return loc.rva <= m_bytes.size() && m_bytes.size() - loc.rva >= loc.dataSize;
}

bool MinidumpReader::parse(std::vector<uint8_t> bytes) {
    *this = MinidumpReader();
    m_bytes = std::move(bytes);
    Header h;
    if (!readAt(m_bytes, 0, h)) return fail("file too short for a minidump header");
    if (h.signature != kSignature) return fail("not a minidump (bad signature)");
    if ((h.version & 0xffff) != kVersion) return fail("unknown minidump version");
    if (h.numberOfStreams > 4096) return fail("implausible stream count");
    bool haveSystem = false;
    for (uint32_t i = 0; i < h.numberOfStreams; ++i) {
        Directory d;
        if (!readAt(m_bytes, uint64_t(h.streamDirectoryRva) + uint64_t(i) * sizeof d, d))
            return fail("stream directory runs past the end of the file");
        if (!located(d.location))
            return fail("stream " + std::to_string(d.streamType) + " runs past the end of the file");
        switch (d.streamType) {
        case kSystemInfoStream:
            if (!readAt(m_bytes, d.location.rva, m_system)) return fail("short system info");
            haveSystem = true;
            break;
        case kThreadListStream:
            if (!parseThreads(d.location)) return false;
            break;
        case kModuleListStream:
            if (!parseModules(d.location)) return false;
            break;
        case kMemoryListStream:
            if (!parseMemory(d.location)) return false;
            break;
        case kExceptionStream:
            if (!parseException(d.location)) return false;
            break;
        default:
            if (d.streamType >= kLinuxCpuInfo && d.streamType <= kLinuxDsoDebug) m_linux[d.streamType] = d.location;
            break;
        }
    }
    if (!haveSystem) return fail("no system info stream");
    if (m_system.processorArchitecture != kCpuArchitectureAmd64) return fail("not an x86-64 minidump");
    return true;
}

bool MinidumpReader::readContext(const LocationDescriptor& loc, ContextAmd64& out) const {
    if (loc.dataSize < sizeof(ContextAmd64) || !located(loc)) return false;
    return readAt(m_bytes, loc.rva, out) && (out.contextFlags & kContextAmd64);
}

bool MinidumpReader::readString(uint32_t rva, std::string& out) const {
    uint32_t bytes;
    if (!readAt(m_bytes, rva, bytes) || bytes % 2 || uint64_t(rva) + 4 + bytes > m_bytes.size()) return false;
    out.clear();
    const uint8_t* p = m_bytes.data() + rva + 4;
    for (uint32_t i = 0; i + 1 < bytes; i += 2) {
        uint32_t c = p[i] | (uint32_t(p[i + 1]) << 8);
        if (c >= 0xd800 && c < 0xdc00 && i + 3 < bytes) {
            uint32_t lo = p[i + 2] | (uint32_t(p[i + 3]) << 8);
            c = 0x10000 + ((c - 0xd800) << 10) + (lo - 0xdc00);
            i += 2;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xc0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3f));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xe0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
            out += static_cast<char>(0x80 | (c & 0x3f));
        } else {
            out += static_cast<char>(0xf0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3f));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
            out += static_cast<char>(0x80 | (c & 0x3f));
        }
    }
    return true;
}

bool MinidumpReader::parseThreads(const LocationDescriptor& loc) {
    uint32_t count;
    if (!readAt(m_bytes, loc.rva, count)) return fail("short thread list");
    if (uint64_t(count) * sizeof(Thread) + 4 > loc.dataSize) return fail("thread list larger than its stream");
    for (uint32_t i = 0; i < count; ++i) {
        Thread t{};
        readAt(m_bytes, uint64_t(loc.rva) + 4 + uint64_t(i) * sizeof t, t);
        ThreadInfo info;
        info.id = t.threadId;
        info.hasContext = readContext(t.threadContext, info.context);
        if (located(t.stack.memory)) {
            info.stackStart = t.stack.startOfMemoryRange;
            info.stackSize = t.stack.memory.dataSize;
        }
        m_threads.push_back(info);
    }
    return true;
}

bool MinidumpReader::parseModules(const LocationDescriptor& loc) {
    uint32_t count;
    if (!readAt(m_bytes, loc.rva, count)) return fail("short module list");
    if (uint64_t(count) * sizeof(Module) + 4 > loc.dataSize) return fail("module list larger than its stream");
    for (uint32_t i = 0; i < count; ++i) {
        Module m{};
        readAt(m_bytes, uint64_t(loc.rva) + 4 + uint64_t(i) * sizeof m, m);
        ModuleInfo info;
        info.base = m.baseOfImage;
        info.size = m.sizeOfImage;
        if (!readString(m.moduleNameRva, info.name)) return fail("bad module name");
        uint32_t sig;
        if (m.cvRecord.dataSize >= 4 && located(m.cvRecord) && readAt(m_bytes, m.cvRecord.rva, sig)) {
            const uint8_t* p = m_bytes.data() + m.cvRecord.rva;
            if (sig == kCvSignatureElf) {
                info.id = hex(p + 4, m.cvRecord.dataSize - 4);
                info.isBuildId = true;
            } else if (sig == kCvSignaturePdb70 && m.cvRecord.dataSize >= sizeof(CvInfoPdb70Head)) {
                info.id = hex(p + 4, 16);
            }
        }
        m_modules.push_back(info);
    }
    return true;
}

bool MinidumpReader::parseMemory(const LocationDescriptor& loc) {
    uint32_t count;
    if (!readAt(m_bytes, loc.rva, count)) return fail("short memory list");
    if (uint64_t(count) * sizeof(MemoryDescriptor) + 4 > loc.dataSize)
        return fail("memory list larger than its stream");
    for (uint32_t i = 0; i < count; ++i) {
        MemoryDescriptor d{};
        readAt(m_bytes, uint64_t(loc.rva) + 4 + uint64_t(i) * sizeof d, d);
        if (!located(d.memory)) return fail("memory range runs past the end of the file");
        m_memory.push_back(d);
    }
    return true;
}

bool MinidumpReader::parseException(const LocationDescriptor& loc) {
    ExceptionStream e;
    if (loc.dataSize < sizeof e || !readAt(m_bytes, loc.rva, e)) return fail("short exception stream");
    m_hasException = true;
    m_exception.threadId = e.threadId;
    m_exception.signal = e.exceptionRecord.exceptionCode;
    m_exception.code = e.exceptionRecord.exceptionFlags;
    m_exception.address = e.exceptionRecord.exceptionAddress;
    m_exception.hasContext = readContext(e.threadContext, m_exception.context);
    return true;
}

std::string MinidumpReader::linuxStream(uint32_t type) const {
    auto it = m_linux.find(type);
    if (it == m_linux.end()) return std::string();
    return std::string(reinterpret_cast<const char*>(m_bytes.data()) + it->second.rva, it->second.dataSize);
}

const MinidumpReader::ModuleInfo* MinidumpReader::moduleAt(uint64_t address) const {
    for (const ModuleInfo& m : m_modules)
        if (address >= m.base && address - m.base < m.size) return &m;
    return nullptr;
}

bool MinidumpReader::readMemory(uint64_t address, size_t size, void* out) const {
    for (const MemoryDescriptor& d : m_memory) {
        uint64_t start = d.startOfMemoryRange;
        if (address >= start && address - start <= d.memory.dataSize && d.memory.dataSize - (address - start) >= size) {
            memcpy(out, m_bytes.data() + d.memory.rva + (address - start), size);
            return true;
        }
    }
    return false;
}

uint64_t MinidumpReader::crashInstructionPointer() const {
    return m_hasException && m_exception.hasContext ? m_exception.context.rip : 0;
}

std::vector<std::string> MinidumpReader::crashModules() const {
    std::vector<std::string> names;
    std::set<std::string> seen;
    // Code ranges from the saved memory map: stack words that point at data are no return addresses.
    std::vector<std::pair<uint64_t, uint64_t>> code;
    std::istringstream maps(linuxStream(kLinuxMaps));
    std::string line;
    while (std::getline(maps, line)) {
        unsigned long long from = 0, to = 0;
        char perms[8] = {};
        if (sscanf(line.c_str(), "%llx-%llx %7s", &from, &to, perms) == 3 && perms[2] == 'x')
            code.emplace_back(from, to);
    }
    auto add = [&](uint64_t address) {
        if (!code.empty()) {
            bool inCode = false;
            for (const auto& r : code) inCode |= address >= r.first && address < r.second;
            if (!inCode) return;
        }
        const ModuleInfo* m = moduleAt(address);
        if (m && seen.insert(m->name).second) names.push_back(m->name);
    };
    if (!m_hasException || !m_exception.hasContext) return names;
    add(m_exception.context.rip);
    // Scan the crashing thread's saved stack for addresses inside modules.
    uint64_t sp = m_exception.context.rsp;
    for (const ThreadInfo& t : m_threads) {
        if (t.id != m_exception.threadId || !t.stackSize) continue;
        uint64_t from = sp > t.stackStart ? sp : t.stackStart;
        from = (from + 7) & ~uint64_t(7);
        for (uint64_t a = from; a + 8 <= t.stackStart + t.stackSize; a += 8) {
            uint64_t word;
            if (readMemory(a, 8, &word)) add(word);
        }
    }
    return names;
}
