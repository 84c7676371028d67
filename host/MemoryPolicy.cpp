#include "host/MemoryPolicy.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

bool ReturnLargeBlocksToSystem(size_t bytes) {
#if defined(__GLIBC__)
    // A fixed threshold also stops glibc from raising it after the first
    // large free, which would move later chunks into the retained heap.
    return mallopt(M_MMAP_THRESHOLD, static_cast<int>(bytes)) == 1;
#else
    (void)bytes;
    return false;
#endif
}
