// Strict readers: exactly one typed array, the element copied as it is.
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"
#include "variant/VUtilErrors.h"

using VUtil::detail::fetchElement;
using VUtil::detail::throwInvalid;

namespace {

// Fetches element `index` of a VT_ARRAY|elementType array into `out`, which
// must be exactly as wide as the element.
void strictGet(const tagVARIANT& v, VARTYPE elementType, int index, void* out, const char* notArrayText) {
    if (v.vt != (VT_ARRAY | elementType)) throwInvalid("%s", notArrayText);
    if (fetchElement(v, elementType, index, out) < 0) throwInvalid("SafeArrayGetElement failed in VUtil::GetElement");
}

}  // namespace

namespace VUtil {

void GetElement(const tagVARIANT& v, int index, tagVARIANT& out) {
    tagVARIANT copy;
    VariantInit(&copy);
    strictGet(v, VT_VARIANT, index, &copy, "Variant passed to VUtil::GetElement is not a variant array");
    out = copy;
}

void GetElement(const tagVARIANT& v, int index, long& out) {
    int32_t value = 0;
    strictGet(v, VT_I4, index, &value, "Variant passed to VUtil::GetElement is not a long array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, int& out) {
    int32_t value = 0;
    strictGet(v, VT_I4, index, &value, "Variant passed to VUtil::GetElement is not an int array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, short& out) {
    int16_t value = 0;
    strictGet(v, VT_I2, index, &value, "Variant passed to VUtil::GetElement is not a short array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, unsigned short& out) {
    uint16_t value = 0;
    strictGet(v, VT_UI2, index, &value, "Variant passed to VUtil::GetElement is not a unsigned short array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, unsigned long& out) {
    uint32_t value = 0;
    strictGet(v, VT_UI4, index, &value, "Variant passed to VUtil::GetElement is not a unsigned long array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, long long& out) {
    int64_t value = 0;
    strictGet(v, VT_I8, index, &value, "Variant passed to VUtil::GetElement is not a int64 array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, unsigned long long& out) {
    uint64_t value = 0;
    strictGet(v, VT_UI8, index, &value, "Variant passed to VUtil::GetElement is not a unsigned int64 array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, float& out) {
    float value = 0;
    strictGet(v, VT_R4, index, &value, "Variant passed to VUtil::GetElement is not a float array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, double& out) {
    double value = 0;
    strictGet(v, VT_R8, index, &value, "Variant passed to VUtil::GetElement is not a double array");
    out = value;
}

void GetElement(const tagVARIANT& v, int index, bool& out) {
    VARIANT_BOOL value = 0;
    // The bool reader reports "short" in its message; callers match on that text.
    strictGet(v, VT_BOOL, index, &value, "Variant passed to VUtil::GetElement is not a short array");
    out = value != 0;
}

void GetElement(const tagVARIANT& v, int index, CStdStr& out) {
    CLocalBstr text;
    strictGet(v, VT_BSTR, index, text.out(), "Variant passed to VUtil::GetElement is not a string array");
    out = detail::readBstr(text.get());
}

}  // namespace VUtil
