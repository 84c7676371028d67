// Random identifiers that nobody else can guess: subjects of mailboxes and
// transfers. Drawn from a generator the kernel seeds; thread-safe.
#pragma once

#include <string>

// `bytes` random bytes as 2*bytes lowercase hex digits.
std::string cabRandomHex(size_t bytes);
