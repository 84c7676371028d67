// The JSON form of an answer as kivctl prints it (call, multi): the form of
// docs/protocol.md, except that a DATE falling on a whole second always prints
// as its local time ("2026-11-25 16:37:34"). The proxy counts a date's days
// and its fraction apart, so a whole second is often one rounding step away
// from the number its text reads back to, and the exact form would print it
// as a number one time in four.
#pragma once

#include <nlohmann/json.hpp>

#include "value/Variant.h"

namespace kivctl {

nlohmann::json displayJson(const tagVARIANT& v);

}  // namespace kivctl
