// CabAnswerSource: the CAB1 bytes of one answer, read on demand while the
// answer is sent. A variant answer keeps the variant and hands out ranges of
// its encoding; a file answer (a VT_ARRAY|VT_UI1 holding a byte range of an
// open file) reads each range from the file when it is sent, so its memory
// does not grow with the length asked for. Not thread-safe: one sender at a
// time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "value/Variant.h"

class CabAnswerSource {
public:
    virtual ~CabAnswerSource() = default;
    virtual uint64_t size() const = 0;
    // Writes bytes [offset, offset + len) into dst. False, with *error, when
    // they can no longer be read (the file shrank or failed).
    virtual bool read(uint64_t offset, char* dst, size_t len, std::string* error) = 0;
    // The bytes in place when they lie in one stretch of memory, else null.
    virtual const char* span(uint64_t, size_t) const { return nullptr; }
    // Memory the answer holds while it waits for its requester (bytes).
    virtual uint64_t heldBytes() const = 0;
};

// Takes ownership of *out (left VT_EMPTY). Null, with *error, when the value
// cannot be encoded.
std::unique_ptr<CabAnswerSource> cabVariantAnswer(tagVARIANT* out, std::string* error);
// Bytes [offset, offset + length) of the open file `fd` as a byte array;
// takes the descriptor and closes it. length is at most 0xFFFFFFFF.
// `window` is the memory the sender keeps for it (its parts in flight).
std::unique_ptr<CabAnswerSource> cabFileAnswer(int fd, uint64_t offset, uint32_t length, uint64_t window);
