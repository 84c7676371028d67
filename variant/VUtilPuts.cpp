// Writers: into the typed array, or wrapped in a variant for an array of variants.
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"
#include "variant/VUtilErrors.h"

using VUtil::detail::storeElement;
using VUtil::detail::throwInvalid;

namespace {

// Stores `typed` (the element's bytes, or the string pointer for VT_BSTR) into
// a VT_ARRAY|type array, or `wrapped` into an array of variants.
void putValue(tagVARIANT& v, int index, VARTYPE type, const void* typed, const tagVARIANT& wrapped,
              const char* neitherText) {
    if (v.vt == (VT_ARRAY | type)) {
        // The descriptor must agree, so that the runtime reads no more bytes than `typed` has.
        if (!v.parray || v.parray->vt != type || storeElement(v, index, typed) != 0)
            throwInvalid("SafeArrayPutElement failed");
        return;
    }
    if (v.vt == (VT_ARRAY | VT_VARIANT)) {
        if (storeElement(v, index, &wrapped) != 0) throwInvalid("SafeArrayPutElement failed");
        return;
    }
    throwInvalid("%s", neitherText);
}

tagVARIANT make(VARTYPE type) {
    tagVARIANT v;
    VariantInit(&v);
    v.vt = type;
    return v;
}

}  // namespace

namespace VUtil {

void PutElement(tagVARIANT& v, int index, long value) {
    int32_t stored = static_cast<int32_t>(value);
    tagVARIANT w = make(VT_I4);
    w.lVal = stored;
    putValue(v, index, VT_I4, &stored, w, "PutElement failed: not an array of I4 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, int value) { PutElement(v, index, static_cast<long>(value)); }

void PutElement(tagVARIANT& v, int index, short value) {
    tagVARIANT w = make(VT_I2);
    w.iVal = value;
    putValue(v, index, VT_I2, &w.iVal, w, "PutElement failed: not an array of I2 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, unsigned short value) {
    tagVARIANT w = make(VT_UI2);
    w.uiVal = value;
    putValue(v, index, VT_UI2, &w.uiVal, w, "PutElement failed: not an array of UI2 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, unsigned char value) {
    tagVARIANT w = make(VT_UI1);
    w.bVal = value;
    putValue(v, index, VT_UI1, &w.bVal, w, "PutElement failed: not an array of UI1 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, long long value) {
    tagVARIANT w = make(VT_I8);
    w.llVal = value;
    putValue(v, index, VT_I8, &w.llVal, w, "PutElement failed: not an array of I8 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, unsigned long long value) {
    tagVARIANT w = make(VT_UI8);
    w.ullVal = value;
    putValue(v, index, VT_UI8, &w.ullVal, w, "PutElement failed: not an array of UI8 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, float value) {
    tagVARIANT w = make(VT_R4);
    w.fltVal = value;
    putValue(v, index, VT_R4, &w.fltVal, w, "PutElement failed: not an array of R4 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, double value) {
    tagVARIANT w = make(VT_R8);
    w.dblVal = value;
    putValue(v, index, VT_R8, &w.dblVal, w, "PutElement failed: not an array of R8 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, const char* value) {
    // One library string serves both paths; the array keeps its own copy.
    CLocalVariant w;
    w.get().vt = VT_BSTR;
    w.get().bstrVal = SysAllocString(value ? value : "");
    putValue(v, index, VT_BSTR, w.get().bstrVal, w.get(), "PutElement failed: not an array of BSTR nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, const CStdStr& value) { PutElement(v, index, value.c_str()); }

void PutElement(tagVARIANT& v, int index, const void* value) {
    bool isStringArray = (v.vt & VT_ARRAY) && v.parray && v.parray->vt == VT_BSTR;
    if (!value && !isStringArray) throwInvalid("SafeArrayPutElement failed");
    if (storeElement(v, index, value) != 0) throwInvalid("SafeArrayPutElement failed");
}

void PutElement(tagVARIANT& v, int index, const tagVARIANT& value) {
    PutElement(v, index, static_cast<const void*>(&value));
}

void PutBoolElement(tagVARIANT& v, int index, bool value) {
    // The typed array gets 1 for true, an element variant the usual -1.
    VARIANT_BOOL typed = value ? 1 : 0;
    tagVARIANT w = make(VT_BOOL);
    w.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    putValue(v, index, VT_BOOL, &typed, w, "PutElement failed: not an array of BOOL nor VARIANT");
}

void PutDateElement(tagVARIANT& v, int index, long seconds) {
    tagVARIANT w = make(VT_DATE);
    w.date = TimeToDate(seconds);
    putValue(v, index, VT_DATE, &w.date, w, "PutElement failed: not an array of DATE nor VARIANT");
}

}  // namespace VUtil
