// Strict UTF-8 validation: no overlong forms, no surrogates, nothing above
// U+10FFFF, no truncated sequences. NUL bytes are valid characters.
#pragma once

#include <cstddef>
#include <string>

bool IsValidUtf8(const char* s, size_t n);
inline bool IsValidUtf8(const std::string& s) { return IsValidUtf8(s.data(), s.size()); }
