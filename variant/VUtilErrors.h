// Internal helpers of the VUtil files: the exception thrower, the context
// prefix of the check messages, and a guarded element fetch. Not for callers
// outside variant/.
#pragma once

#include "value/Variant.h"
#include "common/CStdStr.h"

namespace VUtil {
namespace detail {

// Throws CabInvalidParameterException with the formatted text.
[[noreturn]] void throwInvalid(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// "<context>: " or "" for a null context.
CStdStr contextPrefix(const char* context);
// Copies element `index` of the array held by `v` into `out`. A negative
// status when `v` holds no array or its elements are not of `elementType`,
// so that `out` never receives more bytes than that type has.
HRESULT fetchElement(const tagVARIANT& v, VARTYPE elementType, int index, void* out);
// Stores `in` at `index` of the array held by `v`; non-zero on failure.
HRESULT storeElement(tagVARIANT& v, int index, const void* in);
// A string element read up to its first NUL; null gives "".
inline CStdStr readBstr(BSTR s) { return CStdStr(s ? s : ""); }

}  // namespace detail
}  // namespace VUtil
