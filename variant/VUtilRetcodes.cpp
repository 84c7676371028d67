// Reading the status and the single string that a called service left in its output.
#include "cab/CabException.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"
#include "variant/VUtilErrors.h"

using VUtil::detail::contextPrefix;
using VUtil::detail::throwInvalid;

namespace VUtil {

void GetSingleOutParamString(const tagVARIANT& out, CStdStr& text) {
    CLocalVariant element;
    tagVARIANT fetched;
    VariantInit(&fetched);
    if (out.vt != (VT_ARRAY | VT_VARIANT) || detail::fetchElement(out, VT_VARIANT, 0, &fetched) < 0)
        throwInvalid("SafeArrayGetElement failed in VUtil::GetSingleOutParamString");
    element.get() = fetched;
    if (element.vt() != VT_BSTR) throwInvalid("outParam is not a BSTR in VUtil::GetSingleOutParamString");
    text = detail::readBstr(element.get().bstrVal);
}

long GetSingleRetcode(const tagVARIANT& out) {
    if (out.vt & VT_ARRAY) {
        try {
            return GetLongElement(out, 0);
        } catch (const CabException& e) {
            throwInvalid("safeArrayGetElement failed in VUtil::GetSingleRetcode : '%s'", e.getMessage());
        }
    }
    if (out.vt == VT_I4) return out.lVal;
    throwInvalid("VUtil::GetSingleRetcode wrong type");
}

void CheckSingleRetcode(const tagVARIANT& out, const char* context) {
    long status = 0;
    if (out.vt & VT_ARRAY) {
        try {
            status = GetLongElement(out, 0);
        } catch (const CabException& e) {
            throwInvalid("%ssafeArrayGetElement failed in VUtil::CheckSingleRetcode : '%s'",
                         contextPrefix(context).c_str(), e.getMessage());
        }
    } else if (out.vt == VT_I4) {
        status = out.lVal;
    } else {
        throwInvalid("%sVUtil::CheckSingleRetcode wrong type", contextPrefix(context).c_str());
    }
    // Statuses are 32-bit: the hexadecimal form shows their 32 bits.
    if (status < 0)
        throwInvalid("%sCab error detected in VUtil::CheckSingleRetcode : hr = %ld - 0x%lx",
                     contextPrefix(context).c_str(), status, static_cast<unsigned long>(static_cast<uint32_t>(status)));
}

}  // namespace VUtil
