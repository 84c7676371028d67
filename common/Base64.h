// Base64 (RFC 4648, standard alphabet, with padding), for bytes that must
// travel inside JSON (byte arrays, non-UTF-8 strings and settings). Decoding is strict: it refuses characters outside
// the alphabet, whitespace and wrong padding instead of guessing.
#pragma once

#include <cstddef>
#include <string>

std::string Base64Encode(const void* data, size_t len);
// False (with *error) on malformed input.
bool Base64Decode(const std::string& text, std::string* out, std::string* error);
