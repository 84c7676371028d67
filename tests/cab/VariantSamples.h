// Test helpers for variants: a deterministic generator of values of every
// type and nesting, a bit-for-bit comparison, and small builders.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "variant/CLocalVariant.h"

namespace kivtest {

// Makes a random variant: scalars of every type (with edge values such as
// NaN, -0.0, limits, embedded NULs, non-UTF-8 bytes, null strings) and arrays
// of every element type, nested up to `depth` arrays.
void RandomVariant(std::mt19937_64& rng, int depth, tagVARIANT* out);

// True when a and b hold the same type, the same bits and the same array
// bounds, recursively; *why (may be null) shows both.
bool IdenticalVariants(const tagVARIANT& a, const tagVARIANT& b, std::string* why = nullptr);

// Builders; the caller owns the result.
void MakeString(tagVARIANT* v, const std::string& s);
void MakeBytes(tagVARIANT* v, const std::string& bytes, int32_t lb = 0);
// An array of variants that takes ownership of the given elements.
void MakeVariantArray(tagVARIANT* v, std::vector<tagVARIANT> elements, int32_t lb = 0);

}  // namespace kivtest
