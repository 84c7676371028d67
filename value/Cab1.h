// CAB1: the byte encoding of a variant between processes (little-endian).
// See docs/protocol.md for the grammar.
//
// Cab1Encoding measures a variant once and then hands out any byte range of
// its encoding; large byte arrays are copied straight from the variant into
// the destination, never through an intermediate buffer. The variant must
// stay unchanged while the encoding is in use.
//
// Cab1Decode refuses every malformed input with a message naming the byte
// offset, and never allocates more than the input could describe.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "value/Variant.h"

class Cab1Encoding {
public:
    explicit Cab1Encoding(const tagVARIANT& v);
    ~Cab1Encoding();
    Cab1Encoding(const Cab1Encoding&) = delete;
    Cab1Encoding& operator=(const Cab1Encoding&) = delete;

    // False when the variant holds something CAB1 cannot carry (error() says what).
    bool ok() const;
    const std::string& error() const;
    size_t size() const;
    // Copies bytes [offset, offset + len) of the encoding into dst; returns the
    // number copied (less than len only at the end).
    size_t copy(size_t offset, void* dst, size_t len) const;
    // Bytes [offset, offset + len) in place when they lie in one stretch of
    // memory (inside a string or numeric array of the variant), else null.
    const char* span(size_t offset, size_t len) const;
    // The whole encoding as one string.
    std::string str() const;

private:
    struct Impl;
    Impl* m_impl;
};

// Decodes exactly `len` bytes into `out` (which the caller has VariantInit'ed
// and owns). An empty input decodes to VT_EMPTY. On failure returns false,
// leaves `out` VT_EMPTY and sets *error (may be null).
bool Cab1Decode(const void* data, size_t len, tagVARIANT* out, std::string* error);

// As Cab1Decode, but an encoding that is one numeric array of at least
// kCab1LendMin bytes, with its elements aligned in `data`, decodes to an
// array over `data` itself instead of a copy; the array then owns the input
// and calls release(owner) when it goes. *lent says whether that happened;
// when it did not, the input stays the caller's.
const size_t kCab1LendMin = 64 * 1024;
bool Cab1DecodeLending(void* data, size_t len, void (*release)(void*), void* owner, tagVARIANT* out, bool* lent,
                       std::string* error);

// One byte range of an encoding that arrived in several.
struct Cab1Piece {
    const void* data;
    size_t len;
};
// As Cab1Decode, over the concatenation of `count` ranges, without first
// gathering them into one buffer. Byte offsets in errors count from the
// start of the first range.
bool Cab1DecodePieces(const Cab1Piece* pieces, size_t count, tagVARIANT* out, std::string* error);
