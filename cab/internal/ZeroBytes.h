// A read-only stretch of zero bytes, for APIs that insist on copying from a
// source before the caller can write the real bytes in place.
#pragma once

#include <cstddef>

// At least `len` readable zero bytes, or null when `len` is above the limit
// (64 MiB, the largest message a NATS server carries) or the stretch cannot be
// mapped. The memory is shared, never written and never freed; it costs
// address space, not RAM. Thread-safe.
const char* cabZeroBytes(size_t len);
