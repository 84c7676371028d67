// Array creation, resizing, length and type checks.
#include "variant/VUtil.h"
#include "variant/VUtilErrors.h"

using VUtil::detail::contextPrefix;
using VUtil::detail::throwInvalid;

namespace {

// Bound record for a zero-based array of `count` elements; counts that do not
// fit the 32-bit record are refused by the caller.
bool zeroBased(unsigned long count, SAFEARRAYBOUND& bound) {
    if (count > 0xFFFFFFFFUL) return false;
    bound.cElements = static_cast<uint32_t>(count);
    bound.lLbound = 0;
    return true;
}

// Length of an array variant, refusing any lower bound but 0.
int measure(const tagVARIANT& v) {
    int32_t lower = 0;
    if (!v.parray || SafeArrayGetLBound(v.parray, 1, &lower) < 0)
        throwInvalid("SafeArrayGetLBound failed in VUtil::GetArrayLength");
    if (lower != 0) throwInvalid("Array is not zero indexed! (VUtil::GetArrayLength)");
    int32_t upper = 0;
    // An upper-bound failure reports the lower-bound text; callers match on it.
    if (SafeArrayGetUBound(v.parray, 1, &upper) < 0) throwInvalid("SafeArrayGetLBound failed in VUtil::GetArrayLength");
    return static_cast<int>(upper) + 1;
}

}  // namespace

namespace VUtil {

void CreateArray(tagVARIANT& v, VARTYPE elementType, unsigned long count) {
    SAFEARRAYBOUND bound;
    SAFEARRAY* array = zeroBased(count, bound) ? SafeArrayCreate(elementType, 1, &bound) : nullptr;
    if (!array) throwInvalid("Could not create safe array");
    v.vt = static_cast<VARTYPE>(elementType | VT_ARRAY);
    v.parray = array;
}

void RedimArray(tagVARIANT& v, unsigned long count) {
    SAFEARRAYBOUND bound;
    if (!(v.vt & VT_ARRAY) || !v.parray || !zeroBased(count, bound) || SafeArrayRedim(v.parray, &bound) != 0)
        throwInvalid("Could not redimension safe array");
}

int GetArrayLength(const tagVARIANT& v) {
    if (!(v.vt & VT_ARRAY)) throwInvalid("Variant passed to VUtil::GetArrayLength is not an array");
    return measure(v);
}

int GetArrayLengthEmpty(const tagVARIANT& v) {
    if (v.vt == VT_EMPTY) return 0;
    if (!(v.vt & VT_ARRAY)) throwInvalid("Variant passed to VUtil::GetArrayLengthEmpty is not an array");
    return measure(v);
}

void CheckType(const tagVARIANT& v, VARTYPE type, const char* context) {
    if (v.vt == type) return;
    throwInvalid("%scheckType failed, got %d, expected %d", contextPrefix(context).c_str(), v.vt, type);
}

int CheckArrayType(const tagVARIANT& v, VARTYPE elementType, int length, bool orMore, const char* context) {
    VARTYPE wanted = static_cast<VARTYPE>(elementType | VT_ARRAY);
    if (v.vt != wanted)
        throwInvalid("%scheckArrayType failed, got %d, expected %d", contextPrefix(context).c_str(), v.vt, wanted);
    int n = GetArrayLength(v);
    if (n >= length && (orMore || n <= length)) return n;
    throwInvalid("%scheckArrayType failed, got length %d, expect %d%s", contextPrefix(context).c_str(), n, length,
                 orMore ? "+" : "");
}

int CheckArrayType(const tagVARIANT& v, VARTYPE elementType, int length, const char* context) {
    return CheckArrayType(v, elementType, length, false, context);
}

}  // namespace VUtil
