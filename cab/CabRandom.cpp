#include "cab/internal/CabRandom.h"

#include <openssl/rand.h>
#include <sys/random.h>

#include <cerrno>
#include <random>
#include <vector>

namespace {

// Fills `buf` with unpredictable bytes (the platform call of this file).
// OpenSSL's generator is seeded from the kernel and reseeds itself (also
// after a fork); drawing from it costs no system call per identifier.
bool systemRandom(unsigned char* buf, size_t len) {
    if (RAND_bytes(buf, (int)len) == 1) return true;
    size_t got = 0;
    while (got < len) {
        ssize_t n = getrandom(buf + got, len - got, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        got += (size_t)n;
    }
    return true;
}

}  // namespace

std::string cabRandomHex(size_t bytes) {
    std::vector<unsigned char> buf(bytes);
    if (!systemRandom(buf.data(), bytes)) {
        // Only without getrandom (very old kernels): std::random_device reads the same source.
        std::random_device rd;
        for (unsigned char& b : buf) b = (unsigned char)rd();
    }
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(bytes * 2);
    for (unsigned char b : buf) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}
