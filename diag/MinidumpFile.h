// MinidumpFile: the output file of the minidump writer. Space is reserved
// front to back (every record 8-byte aligned) and filled at its offset, so
// a directory or list can be written after the records it points to.
// Usable after a crash: only system calls, no heap.
#pragma once

#include <cstddef>
#include <cstdint>

#include "diag/MinidumpFormat.h"

namespace minidump {

class MinidumpFile {
public:
    MinidumpFile() = default;
    ~MinidumpFile();
    MinidumpFile(const MinidumpFile&) = delete;
    MinidumpFile& operator=(const MinidumpFile&) = delete;

    // Creates (truncates) the file with mode 0600. False on failure.
    bool open(const char* path);
    void close();
    bool ok() const { return m_fd >= 0 && !m_failed; }

    // Reserves `size` bytes and returns their offset (rva); the bytes read as zero until written.
    uint32_t reserve(size_t size);
    bool writeAt(uint32_t rva, const void* data, size_t size);
    // reserve + writeAt.
    LocationDescriptor append(const void* data, size_t size);
    // A MINIDUMP_STRING (length, UTF-16 text, terminator) converted from UTF-8.
    uint32_t appendString(const char* utf8);
    // Copies `size` bytes from file descriptor `from` (read to its end when
    // size is 0) into a new record; returns the record's location.
    LocationDescriptor appendFromFd(int from, size_t maxSize);
    uint32_t position() const { return m_end; }

private:
    int m_fd = -1;
    uint32_t m_end = 0;
    bool m_failed = false;
};

}  // namespace minidump
