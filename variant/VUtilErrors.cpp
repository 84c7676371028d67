#include "variant/VUtilErrors.h"

#include <cstdarg>

#include "cab/CabException.h"

namespace VUtil {
namespace detail {

void throwInvalid(const char* fmt, ...) {
    CStdStr text;
    va_list args;
    va_start(args, fmt);
    text.FormatV(fmt, args);
    va_end(args);
    throw CabInvalidParameterException(text.c_str());
}

CStdStr contextPrefix(const char* context) {
    if (!context) return CStdStr();
    return CStdStr::Formatted("%s: ", context);
}

HRESULT fetchElement(const tagVARIANT& v, VARTYPE elementType, int index, void* out) {
    if (!(v.vt & VT_ARRAY) || !v.parray || v.parray->vt != elementType) return E_INVALIDARG;
    int32_t idx = index;
    return SafeArrayGetElement(v.parray, &idx, out);
}

HRESULT storeElement(tagVARIANT& v, int index, const void* in) {
    if (!(v.vt & VT_ARRAY) || !v.parray) return E_INVALIDARG;
    int32_t idx = index;
    return SafeArrayPutElement(v.parray, &idx, in);
}

}  // namespace detail
}  // namespace VUtil
