#include "host/MemoryPolicy.h"

#include <cstdlib>  // defines __GLIBC__ where the C library is glibc

#if defined(__GLIBC__)
#include <malloc.h>
#endif

bool BoundAllocatorPools(int arenas) {
#if defined(__GLIBC__)
    return mallopt(M_ARENA_MAX, arenas) == 1;
#else
    (void)arenas;
    return false;
#endif
}
