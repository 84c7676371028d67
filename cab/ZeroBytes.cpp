#include "cab/internal/ZeroBytes.h"

#include <sys/mman.h>

namespace {

const size_t kZeroBytes = 64u << 20;

// Untouched private anonymous pages all read as the kernel's shared zero
// page, so the mapping never takes memory of its own.
const char* mapZeros() {
    void* p = mmap(nullptr, kZeroBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return p == MAP_FAILED ? nullptr : static_cast<const char*>(p);
}

}  // namespace

const char* cabZeroBytes(size_t len) {
    static const char* const zeros = mapZeros();
    return len <= kZeroBytes ? zeros : nullptr;
}
