// Tools the minidump writer may use after a crash: no heap, no locks, only
// system calls. SafeArena hands out zeroed memory from one private mapping;
// the text helpers build short paths and numbers in caller-owned buffers.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace minidump {

class SafeArena {
public:
    explicit SafeArena(size_t size) {
        void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p != MAP_FAILED) {
            m_base = static_cast<char*>(p);
            m_size = size;
        }
    }
    ~SafeArena() {
        if (m_base) munmap(m_base, m_size);
    }
    SafeArena(const SafeArena&) = delete;
    SafeArena& operator=(const SafeArena&) = delete;

    // Zeroed memory aligned to 16 bytes, or nullptr when the arena is spent.
    void* alloc(size_t n) {
        size_t at = (m_used + 15) & ~size_t(15);
        if (!m_base || at + n > m_size) return nullptr;
        m_used = at + n;
        return m_base + at;
    }
    template <class T>
    T* allocArray(size_t n) {
        return static_cast<T*>(alloc(n * sizeof(T)));
    }

private:
    char* m_base = nullptr;
    size_t m_size = 0;
    size_t m_used = 0;
};

// Appends text to a zero-terminated buffer of `cap` bytes; truncates.
inline void safeAppend(char* buf, size_t cap, const char* text) {
    size_t len = strlen(buf);
    while (*text && len + 1 < cap) buf[len++] = *text++;
    buf[len] = '\0';
}

inline void safeAppendNumber(char* buf, size_t cap, uint64_t value) {
    char digits[24];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value);
    char text[24];
    for (int i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
    text[n] = '\0';
    safeAppend(buf, cap, text);
}

// "/proc/<pid>/<leaf>" into buf.
inline void procPath(char* buf, size_t cap, int pid, const char* leaf) {
    buf[0] = '\0';
    safeAppend(buf, cap, "/proc/");
    safeAppendNumber(buf, cap, static_cast<uint64_t>(pid));
    safeAppend(buf, cap, "/");
    safeAppend(buf, cap, leaf);
}

}  // namespace minidump
