// Name/value pairs, lookups over pair lists, string maps and CSV elements.
#include <cstdlib>

#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"
#include "variant/VUtilErrors.h"

using VUtil::detail::throwInvalid;

namespace {

bool isVariantArray(const tagVARIANT& v) { return v.vt == (VT_ARRAY | VT_VARIANT); }

// Builds the pair {name, value} and stores a copy of it at `index` of `v`.
void putPair(tagVARIANT& v, int index, const tagVARIANT& name, const tagVARIANT& value) {
    if (!isVariantArray(v)) throwInvalid("PutPair: the given variant is not an array of variants");
    SAFEARRAYBOUND bound{2, 0};
    SAFEARRAY* array = SafeArrayCreate(VT_VARIANT, 1, &bound);
    if (!array) throwInvalid("Could not create safe array in PutPair");
    CLocalVariant pair;
    pair.get().vt = static_cast<VARTYPE>(VT_ARRAY | VT_VARIANT);
    pair.get().parray = array;
    if (VUtil::detail::storeElement(pair.get(), 0, &name) != 0 ||
        VUtil::detail::storeElement(pair.get(), 1, &value) != 0 ||
        VUtil::detail::storeElement(v, index, &pair.get()) != 0)
        throwInvalid("PutPair failed");
}

void makeString(CLocalVariant& v, const CStdStr& text) {
    v.get().vt = VT_BSTR;
    v.get().bstrVal = SysAllocString(text.c_str());
}

// Walks the pair list comparing lower-cased names; the length is read once.
// On a match the pair is left in `found`.
bool findNoCase(const tagVARIANT& v, const CStdStr& name, CLocalVariant& found) {
    if (!isVariantArray(v)) throwInvalid("Variant passed to VUtil::FindPair is not an array");
    CStdStr wanted = name.ToLower();
    int n = VUtil::GetArrayLength(v);
    for (int i = 0; i < n; ++i) {
        CLocalVariant pair;
        VUtil::GetElement(v, i, pair.get());
        if (pair.vt() == VT_EMPTY) continue;
        if (VUtil::GetStringElementEmpty(pair.get(), 0).MakeLower() == wanted) {
            found.get() = pair.release();
            return true;
        }
    }
    return false;
}

VUtil::StringMap toMap(const tagVARIANT& v, bool lowerKeys) {
    // Both map functions report under the one name.
    if (!isVariantArray(v)) throwInvalid("Variant passed to VUtil::toStringAMap is not an array");
    VUtil::StringMap map;
    int n = VUtil::GetArrayLength(v);
    for (int i = 0; i < n; ++i) {
        CLocalVariant pair;
        VUtil::GetElement(v, i, pair.get());
        if (pair.vt() == VT_EMPTY) continue;
        CStdStr key = VUtil::GetStringElementEmpty(pair.get(), 0);
        if (lowerKeys) key.MakeLower();
        map[key] = VUtil::GetStringElementEmpty(pair.get(), 1);
    }
    return map;
}

}  // namespace

namespace VUtil {

void PutPair(tagVARIANT& v, int index, const CStdStr& name, const CStdStr& value) {
    CLocalVariant n, val;
    makeString(n, name);
    makeString(val, value);
    putPair(v, index, n.get(), val.get());
}

void PutPair(tagVARIANT& v, int index, const CStdStr& name, long value) {
    CLocalVariant n, val;
    makeString(n, name);
    val.get().vt = VT_I4;
    val.get().lVal = static_cast<int32_t>(value);
    putPair(v, index, n.get(), val.get());
}

void PutPair(tagVARIANT& v, int index, const CStdStr& name, const tagVARIANT& value) {
    CLocalVariant n;
    makeString(n, name);
    putPair(v, index, n.get(), value);
}

void GetPair(const tagVARIANT& v, int index, CStdStr& name, CStdStr& value) {
    if (!isVariantArray(v)) throwInvalid("Variant passed to VUtil::GetPair is not an array");
    CLocalVariant pair;
    tagVARIANT fetched;
    VariantInit(&fetched);
    if (detail::fetchElement(v, VT_VARIANT, index, &fetched) < 0)
        throwInvalid("SafeArrayGetElement failed in VUtil::GetPair");
    pair.get() = fetched;
    name = GetStringElementEmpty(pair.get(), 0);
    value = GetStringElementEmpty(pair.get(), 1);
}

bool FindPair(const tagVARIANT& v, const CStdStr& name, CStdStr& value) {
    if (!isVariantArray(v)) throwInvalid("Variant passed to VUtil::FindPair is not an array");
    for (int i = 0; i < GetArrayLength(v); ++i) {
        CLocalVariant pair;
        GetElement(v, i, pair.get());
        if (pair.vt() == VT_EMPTY) continue;
        if (GetStringElementEmpty(pair.get(), 0) == name) {
            value = GetStringElementEmpty(pair.get(), 1);
            return true;
        }
    }
    return false;
}

bool FindPairNoCase(const tagVARIANT& v, const CStdStr& name, CStdStr& value) {
    CLocalVariant pair;
    if (!findNoCase(v, name, pair)) return false;
    value = GetStringElementEmpty(pair.get(), 1);
    return true;
}

bool FindPairNoCase(const tagVARIANT& v, const CStdStr& name, tagVARIANT& value) {
    CLocalVariant pair;
    if (!findNoCase(v, name, pair)) return false;
    GetElement(pair.get(), 1, value);
    return true;
}

bool FindPairNoCase(const tagVARIANT& v, const CStdStr& name, int& value) {
    CLocalVariant pair;
    if (!findNoCase(v, name, pair)) return false;
    CLocalVariant element;
    GetElement(pair.get(), 1, element.get());
    if (element.vt() == VT_I4) {
        value = element.get().lVal;
    } else if (element.vt() == VT_BSTR) {
        value = atoi(detail::readBstr(element.get().bstrVal).c_str());
    } else {
        throwInvalid("the value in the pair is neither a string nor an int");
    }
    return true;
}

StringMap toStringMap(const tagVARIANT& v, bool lowerKeys) { return toMap(v, lowerKeys); }

StringMap toStringAMap(const tagVARIANT& v, bool lowerKeys) { return toMap(v, lowerKeys); }

std::vector<CStdStr> GetCSVElement(const tagVARIANT& v, int index) { return GetStringElement(v, index).Tokens(", "); }

}  // namespace VUtil
