// JSON given to kivctl on the command line or standard input, read as a
// variant. Text that is not JSON is explained by place (line and column, the
// line with a caret under the spot) and a hint for the usual slips (single
// quotes, a word without quotes, a comma before a closing bracket, a text
// that ends early); errors of the variant form keep their path-named text.
#pragma once

#include <string>

#include "value/Variant.h"

namespace kivctl {

// Reads `text` into `out` (overwritten, not cleared); false with *message.
bool readJsonArgument(const std::string& text, tagVARIANT* out, std::string* message);

}  // namespace kivctl
