// KIV_SANITIZED: AddressSanitizer or ThreadSanitizer is built in; tests skip or loosen memory bounds.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KIV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KIV_SANITIZED 1
#endif
#endif
