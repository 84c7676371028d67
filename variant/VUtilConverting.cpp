// Converting readers: the typed array, or an array of variants whose element
// has the right type.
#include <cfloat>
#include <cmath>

#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"
#include "variant/VUtilErrors.h"

using VUtil::detail::throwInvalid;

namespace {

// Double to float; values beyond the float range become infinities.
float narrow(double value) {
    if (value > FLT_MAX) return HUGE_VALF;
    if (value < -FLT_MAX) return -HUGE_VALF;
    return static_cast<float>(value);
}

bool isVariantArray(const tagVARIANT& v) { return v.vt == (VT_ARRAY | VT_VARIANT); }
bool isTypedArray(const tagVARIANT& v, VARTYPE elementType) { return v.vt == (VT_ARRAY | elementType); }

// Reads a 32-bit element as a long; `emptyIsZero` accepts VT_EMPTY as 0.
long readLong(const tagVARIANT& v, int index, bool emptyIsZero) {
    if (isTypedArray(v, VT_I4)) {
        long value = 0;
        VUtil::GetElement(v, index, value);
        return value;
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or long");
    CLocalVariant element;
    VUtil::GetElement(v, index, element.get());
    if (element.vt() == VT_I4) return element.get().lVal;
    if (emptyIsZero && element.vt() == VT_EMPTY) return 0;
    throwInvalid("Element is not a long");
}

CStdStr readString(const tagVARIANT& v, int index) {
    if (isTypedArray(v, VT_BSTR)) {
        CStdStr value;
        VUtil::GetElement(v, index, value);
        return value;
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or string");
    CLocalVariant element;
    VUtil::GetElement(v, index, element.get());
    if (element.vt() == VT_BSTR) return VUtil::detail::readBstr(element.get().bstrVal);
    if (element.vt() == VT_EMPTY) return CStdStr();
    throwInvalid("Element is not a string");
}

// `lenient` also takes 16/32-bit integers (non-zero is true), VT_NULL and VT_EMPTY.
bool readBool(const tagVARIANT& v, int index, bool lenient) {
    if (isTypedArray(v, VT_BOOL)) {
        // Typed bool arrays go to the short reader, which refuses them:
        // booleans travel in arrays of variants.
        short value = 0;
        VUtil::GetElement(v, index, value);
        return value != 0;
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or bool");
    CLocalVariant element;
    VUtil::GetElement(v, index, element.get());
    const tagVARIANT& e = element.get();
    if (e.vt == VT_BOOL) return e.boolVal != 0;
    if (lenient) {
        switch (e.vt) {
        case VT_I2:
        case VT_UI2: return e.uiVal != 0;
        case VT_I4:
        case VT_UI4: return e.ulVal != 0;
        case VT_NULL:
        case VT_EMPTY: return false;
        default: break;
        }
    }
    throwInvalid("Element is not a bool");
}

}  // namespace

namespace VUtil {

int GetIntElement(const tagVARIANT& v, int index) {
    if (isTypedArray(v, VT_I4)) {
        int value = 0;
        GetElement(v, index, value);
        return value;
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or int");
    CLocalVariant element;
    GetElement(v, index, element.get());
    if (element.vt() != VT_I4) throwInvalid("Element is not an int");
    return element.get().lVal;
}

long GetLongElement(const tagVARIANT& v, int index) { return readLong(v, index, false); }

long GetLongElementEmpty(const tagVARIANT& v, int index) { return readLong(v, index, true); }

short GetShortElement(const tagVARIANT& v, int index) {
    if (isTypedArray(v, VT_I2)) {
        short value = 0;
        GetElement(v, index, value);
        return value;
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or short");
    CLocalVariant element;
    GetElement(v, index, element.get());
    if (element.vt() != VT_I2) throwInvalid("Element is not a short");
    return element.get().iVal;
}

unsigned short GetUnsignedShortElement(const tagVARIANT& v, int index) {
    if (isTypedArray(v, VT_UI2)) {
        unsigned short value = 0;
        GetElement(v, index, value);
        return value;
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or unsigned short");
    CLocalVariant element;
    GetElement(v, index, element.get());
    if (element.vt() != VT_UI2) throwInvalid("Element is not an unsigned short");
    return element.get().uiVal;
}

double GetDoubleElement(const tagVARIANT& v, int index) {
    if (isTypedArray(v, VT_R8)) {
        double value = 0;
        GetElement(v, index, value);
        return value;
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or double");
    CLocalVariant element;
    GetElement(v, index, element.get());
    if (element.vt() != VT_R8) throwInvalid("Element is not a double");
    return element.get().dblVal;
}

float GetFloatElement(const tagVARIANT& v, int index) {
    if (isTypedArray(v, VT_R4)) {
        float value = 0;
        GetElement(v, index, value);
        return value;
    }
    if (isTypedArray(v, VT_R8)) {
        double value = 0;
        GetElement(v, index, value);
        return narrow(value);
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant, float or double");
    CLocalVariant element;
    GetElement(v, index, element.get());
    if (element.vt() == VT_R4) return element.get().fltVal;
    if (element.vt() == VT_R8) return narrow(element.get().dblVal);
    throwInvalid("Element is not a float or a double");
}

CStdStr GetStringElement(const tagVARIANT& v, int index) { return readString(v, index); }

CStdStr GetStringElementEmpty(const tagVARIANT& v, int index) { return readString(v, index); }

bool GetBoolElement(const tagVARIANT& v, int index) { return readBool(v, index, false); }

bool GetBoolElementEmpty(const tagVARIANT& v, int index) { return readBool(v, index, true); }

long GetDateElement(const tagVARIANT& v, int index) {
    if (isTypedArray(v, VT_DATE)) {
        double date = 0;
        if (detail::fetchElement(v, VT_DATE, index, &date) < 0)
            throwInvalid("SafeArrayGetElement failed in VUtil::GetDateElement");
        return DateToTime(date);
    }
    if (!isVariantArray(v)) throwInvalid("Not an array of variant or date");
    CLocalVariant element;
    GetElement(v, index, element.get());
    if (element.vt() != VT_DATE) throwInvalid("Element is not a date");
    return DateToTime(element.get().date);
}

}  // namespace VUtil
