// KIV_SANITIZED is defined when AddressSanitizer or ThreadSanitizer is built
// in: tests that bound memory or address space skip or loosen those bounds.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KIV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KIV_SANITIZED 1
#endif
#endif
