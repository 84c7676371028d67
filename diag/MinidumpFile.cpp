#include "diag/MinidumpFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace minidump {

MinidumpFile::~MinidumpFile() { close(); }

bool MinidumpFile::open(const char* path) {
    close();
    m_fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    m_end = 0;
    m_failed = m_fd < 0;
    return m_fd >= 0;
}

void MinidumpFile::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

uint32_t MinidumpFile::reserve(size_t size) {
    uint32_t at = m_end;
    uint64_t end = (static_cast<uint64_t>(m_end) + size + 7) & ~uint64_t(7);
    if (end > 0xffffffffu) {
        m_failed = true;
        return at;
    }
    m_end = static_cast<uint32_t>(end);
    return at;
}

bool MinidumpFile::writeAt(uint32_t rva, const void* data, size_t size) {
    if (m_fd < 0) return false;
    const char* p = static_cast<const char*>(data);
    off_t off = rva;
    while (size > 0) {
        ssize_t n = pwrite(m_fd, p, size, off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            m_failed = true;
            return false;
        }
        p += n;
        off += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

LocationDescriptor MinidumpFile::append(const void* data, size_t size) {
    LocationDescriptor loc{static_cast<uint32_t>(size), reserve(size)};
    writeAt(loc.rva, data, size);
    return loc;
}

uint32_t MinidumpFile::appendString(const char* utf8) {
    // Count UTF-16 units first, then write them in small batches.
    const unsigned char* s = reinterpret_cast<const unsigned char*>(utf8);
    uint16_t units[256];
    size_t count = 0;
    auto decode = [](const unsigned char*& p, uint32_t& cp) {
        unsigned c = *p++;
        int extra = c >= 0xf0 ? 3 : c >= 0xe0 ? 2 : c >= 0xc0 ? 1 : 0;
        cp = extra == 0 ? c : c & (0x3f >> extra);
        for (int i = 0; i < extra && (*p & 0xc0) == 0x80; ++i) cp = (cp << 6) | (*p++ & 0x3f);
        if (c >= 0x80 && c < 0xc0) cp = 0xfffd;
    };
    for (const unsigned char* p = s; *p;) {
        uint32_t cp;
        decode(p, cp);
        count += cp > 0xffff ? 2 : 1;
    }
    uint32_t bytes = static_cast<uint32_t>(count * 2);
    uint32_t rva = reserve(4 + bytes + 2);
    writeAt(rva, &bytes, 4);
    uint32_t at = rva + 4;
    size_t n = 0;
    for (const unsigned char* p = s; *p;) {
        uint32_t cp;
        decode(p, cp);
        if (cp > 0xffff) {
            cp -= 0x10000;
            units[n++] = static_cast<uint16_t>(0xd800 + (cp >> 10));
            units[n++] = static_cast<uint16_t>(0xdc00 + (cp & 0x3ff));
        } else {
            units[n++] = static_cast<uint16_t>(cp);
        }
        if (n >= 254) {
            writeAt(at, units, n * 2);
            at += static_cast<uint32_t>(n * 2);
            n = 0;
        }
    }
    units[n++] = 0;
    writeAt(at, units, n * 2);
    return rva;
}

LocationDescriptor MinidumpFile::appendFromFd(int from, size_t maxSize) {
    // The size of /proc files is unknown in advance: write at the end as we go.
    uint32_t start = m_end;
    uint32_t at = start;
    char buf[4096];
    size_t total = 0;
    while (maxSize == 0 || total < maxSize) {
        size_t want = sizeof buf;
        if (maxSize && maxSize - total < want) want = maxSize - total;
        ssize_t n = read(from, buf, want);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (!writeAt(at, buf, static_cast<size_t>(n))) break;
        at += static_cast<uint32_t>(n);
        total += static_cast<size_t>(n);
    }
    m_end = start;
    reserve(total);
    return LocationDescriptor{static_cast<uint32_t>(total), start};
}

}  // namespace minidump
