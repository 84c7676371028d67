#include "value/VariantJson.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "common/Base64.h"
#include "common/Utf8.h"

using json = nlohmann::json;

namespace {

const int kMaxArrayDepth = 64;
// Day 25569 is 1 January 1970.
const double kUnixEpochDays = 25569.0;

struct TypeEntry {
    VARTYPE vt;
    const char* name;
};
const TypeEntry kTypes[] = {
    {VT_EMPTY, "EMPTY"}, {VT_NULL, "NULL"}, {VT_I1, "I1"},     {VT_UI1, "UI1"},         {VT_I2, "I2"}, {VT_UI2, "UI2"},
    {VT_I4, "I4"},       {VT_UI4, "UI4"},   {VT_I8, "I8"},     {VT_UI8, "UI8"},         {VT_R4, "R4"}, {VT_R8, "R8"},
    {VT_DATE, "DATE"},   {VT_BSTR, "BSTR"}, {VT_BOOL, "BOOL"}, {VT_VARIANT, "VARIANT"},
};

const char* shortName(VARTYPE vt) {
    for (const auto& t : kTypes)
        if (t.vt == vt) return t.name;
    return nullptr;
}

bool typeFromName(const std::string& name, VARTYPE* vt) {
    for (const auto& t : kTypes)
        if (name == t.name) {
            *vt = t.vt;
            return true;
        }
    return false;
}

bool isArrayElementType(VARTYPE t) { return t != VT_EMPTY && t != VT_NULL && SafeArrayElementSize(t) != 0; }

std::string hexBits(uint64_t bits, int digits) {
    char buf[24];
    snprintf(buf, sizeof buf, "%0*" PRIx64, digits, bits);
    return buf;
}

// ---- dates (local time, whole seconds) ----------------------------------------

bool textToDate(const std::string& text, double* days) {
    int y, mo, d, h = 0, mi = 0, s = 0, used = 0;
    if (sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &used) != 6 ||
        used != int(text.size())) {
        used = 0;
        if (sscanf(text.c_str(), "%4d-%2d-%2d%n", &y, &mo, &d, &used) != 3 || used != int(text.size())) return false;
        h = mi = s = 0;
    }
    if (y < 1 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59) return false;
    struct tm tm = {};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    // mktime normalises impossible dates (31 February) and skipped local hours; refuse those.
    if (tm.tm_year != y - 1900 || tm.tm_mon != mo - 1 || tm.tm_mday != d || tm.tm_hour != h || tm.tm_min != mi ||
        tm.tm_sec != s)
        return false;
    *days = double(t) / 86400.0 + kUnixEpochDays;
    return true;
}

// The text of a date, only when reading it back gives the same double.
bool dateToText(double days, std::string* text) {
    if (!std::isfinite(days)) return false;
    double secs = (days - kUnixEpochDays) * 86400.0;
    if (std::fabs(secs) > 400000000000.0) return false;  // far outside years 1..9999
    time_t t = time_t(std::llround(secs));
    struct tm tm;
    if (!localtime_r(&t, &tm) || tm.tm_year + 1900 < 1 || tm.tm_year + 1900 > 9999) return false;
    char buf[40];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
             tm.tm_min, tm.tm_sec);
    double back;
    if (!textToDate(buf, &back) || memcmp(&back, &days, sizeof back) != 0) return false;
    *text = buf;
    return true;
}

// ---- writer ----------------------------------------------------------------------

json objectForm(const char* name, json element) {
    json o = json::object();
    o["$vt"] = name;
    if (element.is_object()) {
        for (auto& kv : element.items()) o[kv.key()] = kv.value();
    } else {
        o["v"] = std::move(element);
    }
    return o;
}

json writeFloating(double d, uint64_t bits, int bitDigits, uint64_t nan, uint64_t inf, uint64_t negInf) {
    if (std::isfinite(d)) return json(d);
    if (bits == nan) return "NaN";
    if (bits == inf) return "Infinity";
    if (bits == negInf) return "-Infinity";
    return json{{"bits", hexBits(bits, bitDigits)}};
}

json writeVariant(const tagVARIANT& v);

json writeString(BSTR s) {
    if (!s) return nullptr;
    uint32_t n = SysStringLen(s);
    if (IsValidUtf8(s, n)) return std::string(s, n);
    return json{{"base64", Base64Encode(s, n)}};
}

// The value of one element (or of a scalar's "v"), in the form its type implies.
json writeElement(VARTYPE t, const void* p) {
    switch (t) {
    case VT_I1: return *static_cast<const int8_t*>(p);
    case VT_UI1: return *static_cast<const uint8_t*>(p);
    case VT_I2: return *static_cast<const int16_t*>(p);
    case VT_UI2: return *static_cast<const uint16_t*>(p);
    case VT_I4: return *static_cast<const int32_t*>(p);
    case VT_UI4: return *static_cast<const uint32_t*>(p);
    case VT_I8: return *static_cast<const int64_t*>(p);
    case VT_UI8: return *static_cast<const uint64_t*>(p);
    case VT_BOOL: {
        int16_t b = *static_cast<const int16_t*>(p);
        if (b == VARIANT_TRUE) return true;
        if (b == VARIANT_FALSE) return false;
        return b;
    }
    case VT_R4: {
        float f;
        uint32_t bits;
        memcpy(&f, p, 4);
        memcpy(&bits, p, 4);
        return writeFloating(double(f), bits, 8, 0x7FC00000u, 0x7F800000u, 0xFF800000u);
    }
    case VT_R8:
    case VT_DATE: {
        double d;
        uint64_t bits;
        memcpy(&d, p, 8);
        memcpy(&bits, p, 8);
        std::string text;
        if (t == VT_DATE && dateToText(d, &text)) return text;
        return writeFloating(d, bits, 16, 0x7FF8000000000000ull, 0x7FF0000000000000ull, 0xFFF0000000000000ull);
    }
    case VT_BSTR: return writeString(*static_cast<const BSTR*>(p));
    case VT_VARIANT: return writeVariant(*static_cast<const tagVARIANT*>(p));
    default: return nullptr;
    }
}

json unknown(VARTYPE vt) { return json{{"$vt", "?"}, {"type", vt}}; }

json writeArray(const tagVARIANT& v) {
    VARTYPE et = VARTYPE(v.vt & ~VT_ARRAY);
    const SAFEARRAY* psa = v.parray;
    if (!isArrayElementType(et) || (psa && (psa->cDims != 1 || psa->vt != et))) return unknown(v.vt);
    uint32_t n = psa ? psa->rgsabound[0].cElements : 0;
    int32_t lb = psa ? psa->rgsabound[0].lLbound : 0;
    const char* data = psa ? static_cast<const char*>(psa->pvData) : nullptr;
    uint32_t cb = SafeArrayElementSize(et);
    json items = json::array();
    if (et != VT_UI1) {
        items.get_ref<json::array_t&>().reserve(n);
        for (uint32_t i = 0; i < n; ++i) items.push_back(writeElement(et, data + size_t(i) * cb));
    }
    if (et == VT_VARIANT && lb == 0) return items;
    json o = json::object();
    o["$vt"] = std::string(shortName(et)) + "[]";
    if (lb != 0) o["lb"] = lb;
    if (et == VT_UI1) o["base64"] = Base64Encode(data, n);
    else o["v"] = std::move(items);
    return o;
}

json writeVariant(const tagVARIANT& v) {
    VARTYPE vt = v.vt;
    if (vt & VT_BYREF) return unknown(vt);
    if (vt & VT_ARRAY) return writeArray(v);
    switch (vt) {
    case VT_EMPTY: return nullptr;
    case VT_NULL: return json{{"$vt", "NULL"}};
    case VT_I4: return v.lVal;
    case VT_BOOL:
        if (v.boolVal == VARIANT_TRUE) return true;
        if (v.boolVal == VARIANT_FALSE) return false;
        break;
    case VT_I8:
        if (v.llVal < INT32_MIN || v.llVal > INT32_MAX) return v.llVal;
        break;
    case VT_UI8:
        if (v.ullVal > uint64_t(INT64_MAX)) return v.ullVal;
        break;
    case VT_R8:
        if (std::isfinite(v.dblVal)) return v.dblVal;  // always printed with a '.' or an exponent
        break;
    case VT_BSTR:
        if (v.bstrVal && IsValidUtf8(v.bstrVal, SysStringLen(v.bstrVal))) return writeString(v.bstrVal);
        break;
    default: break;
    }
    const char* name = shortName(vt);
    if (!name || vt == VT_VARIANT) return unknown(vt);
    return objectForm(name, writeElement(vt, &v.llVal));
}

// ---- reader ----------------------------------------------------------------------

class Reader {
public:
    const std::string& error() const { return m_error; }

    bool fail(const std::string& path, const std::string& what) {
        if (m_error.empty()) m_error = "JSON path " + (path.empty() ? std::string("/") : path) + ": " + what;
        return false;
    }

    // Reads j into *out, which must be empty; on failure *out stays empty.
    bool variant(const json& j, const std::string& path, int depth, tagVARIANT* out) {
        switch (j.type()) {
        case json::value_t::null: out->vt = VT_EMPTY; return true;
        case json::value_t::boolean:
            out->vt = VT_BOOL;
            out->boolVal = j.get<bool>() ? VARIANT_TRUE : VARIANT_FALSE;
            return true;
        case json::value_t::number_integer: {
            int64_t n = j.get<int64_t>();
            if (n >= INT32_MIN && n <= INT32_MAX) {
                out->vt = VT_I4;
                out->lVal = int32_t(n);
            } else {
                out->vt = VT_I8;
                out->llVal = n;
            }
            return true;
        }
        case json::value_t::number_unsigned: {
            uint64_t n = j.get<uint64_t>();
            if (n <= uint64_t(INT32_MAX)) {
                out->vt = VT_I4;
                out->lVal = int32_t(n);
            } else if (n <= uint64_t(INT64_MAX)) {
                out->vt = VT_I8;
                out->llVal = int64_t(n);
            } else {
                out->vt = VT_UI8;
                out->ullVal = n;
            }
            return true;
        }
        case json::value_t::number_float:
            out->vt = VT_R8;
            out->dblVal = j.get<double>();
            return true;
        case json::value_t::string: {
            const std::string& s = j.get_ref<const std::string&>();
            return string(s, path, &out->bstrVal) && (out->vt = VT_BSTR, true);
        }
        case json::value_t::array: return array(VT_VARIANT, j, 0, path, depth, out);
        case json::value_t::object: return object(j, path, depth, out);
        default: return fail(path, "unsupported JSON value");
        }
    }

private:
    bool string(const std::string& s, const std::string& path, BSTR* out) {
        if (s.size() >= 0xFFFFFFFFu) return fail(path, "string too long");
        *out = SysAllocStringLen(s.data(), uint32_t(s.size()));
        return *out ? true : fail(path, "out of memory");
    }

    bool object(const json& j, const std::string& path, int depth, tagVARIANT* out) {
        auto vtIt = j.find("$vt");
        if (vtIt == j.end() || !vtIt->is_string()) return fail(path, "an object must name its type with \"$vt\"");
        std::string name = vtIt->get<std::string>();
        bool isArray = name.size() > 2 && name.compare(name.size() - 2, 2, "[]") == 0;
        VARTYPE t;
        if (!typeFromName(isArray ? name.substr(0, name.size() - 2) : name, &t) ||
            (isArray ? !isArrayElementType(t) : t == VT_VARIANT))
            return fail(path + "/$vt", "unknown type \"" + name + "\"");
        for (auto& kv : j.items()) {
            const std::string& k = kv.key();
            bool allowed = k == "$vt" || (k == "v" && t != VT_EMPTY && t != VT_NULL) || (isArray && k == "lb") ||
                           (k == "base64" && (t == VT_BSTR || (isArray && t == VT_UI1))) ||
                           (!isArray && k == "bits" && (t == VT_R4 || t == VT_R8 || t == VT_DATE));
            if (!allowed) return fail(path + "/" + k, "unexpected key \"" + k + "\" for type \"" + name + "\"");
        }
        if (isArray) {
            int32_t lb = 0;
            auto lbIt = j.find("lb");
            if (lbIt != j.end()) {
                if (!lbIt->is_number_integer() || lbIt->get<int64_t>() < INT32_MIN || lbIt->get<int64_t>() > INT32_MAX)
                    return fail(path + "/lb", "lower bound must be a 32-bit integer");
                lb = int32_t(lbIt->get<int64_t>());
            }
            return array(t, j, lb, path, depth, out);
        }
        if (t == VT_EMPTY || t == VT_NULL) {
            out->vt = t;
            return true;
        }
        const json* element;
        std::string elementPath = path;
        json rest;
        if (j.contains("v")) {
            if (j.size() != 2) return fail(path, "\"v\" cannot be combined with another value key");
            element = &j["v"];
            elementPath += "/v";
        } else if (j.size() == 2) {
            rest = j;
            rest.erase("$vt");
            element = &rest;
        } else {
            return fail(path, "type \"" + name + "\" needs a value (\"v\")");
        }
        if (!this->element(t, *element, elementPath, depth, &out->llVal)) return false;
        out->vt = t;
        return true;
    }

    bool array(VARTYPE et, const json& j, int32_t lb, const std::string& path, int depth, tagVARIANT* out) {
        if (depth + 1 > kMaxArrayDepth) return fail(path, "arrays nested deeper than 64");
        std::string bytes;
        const json* items = &j;
        std::string itemsPath = path;
        if (j.is_object()) {
            auto b64 = j.find("base64");
            auto v = j.find("v");
            if (b64 != j.end() && v != j.end()) return fail(path, "give either \"v\" or \"base64\", not both");
            if (b64 != j.end()) {
                std::string why;
                if (!b64->is_string()) return fail(path + "/base64", "base64 must be a string");
                if (!Base64Decode(b64->get<std::string>(), &bytes, &why)) return fail(path + "/base64", why);
                if (bytes.size() > 0xFFFFFFFFu) return fail(path + "/base64", "too many bytes for one array");
                items = nullptr;
            } else if (v != j.end()) {
                items = &*v;
                itemsPath += "/v";
                if (!items->is_array()) return fail(itemsPath, "must be an array");
            } else {
                return fail(path, "an array needs \"v\" (or \"base64\" for UI1[])");
            }
        }
        size_t n = items ? items->size() : bytes.size();
        if (n > 0xFFFFFFFFu) return fail(path, "too many elements for one array");
        SAFEARRAYBOUND bound{uint32_t(n), lb};
        SAFEARRAY* psa = SafeArrayCreate(et, 1, &bound);
        if (!psa) return fail(path, "cannot create an array of " + std::to_string(n) + " elements");
        char* data = static_cast<char*>(psa->pvData);
        if (!items) {
            if (n) memcpy(data, bytes.data(), n);
        } else {
            for (size_t i = 0; i < n; ++i) {
                if (!element(et, (*items)[i], itemsPath + "/" + std::to_string(i), depth + 1,
                             data + i * psa->cbElements)) {
                    SafeArrayDestroy(psa);
                    return false;
                }
            }
        }
        out->vt = VARTYPE(VT_ARRAY | et);
        out->parray = psa;
        return true;
    }

    template <class T>
    bool integer(const json& e, const std::string& path, const char* typeName, void* slot) {
        T value;
        if (e.is_number_unsigned()) {
            uint64_t u = e.get<uint64_t>();
            if (u > uint64_t(std::numeric_limits<T>::max()))
                return fail(path, std::to_string(u) + " is out of range for " + typeName);
            value = T(u);
        } else if (e.is_number_integer()) {
            int64_t s = e.get<int64_t>();
            if (s < int64_t(std::numeric_limits<T>::min()) ||
                (s > 0 && uint64_t(s) > uint64_t(std::numeric_limits<T>::max())))
                return fail(path, std::to_string(s) + " is out of range for " + typeName);
            value = T(s);
        } else {
            return fail(path, std::string("expected an integer for ") + typeName + ", got " + e.dump());
        }
        memcpy(slot, &value, sizeof value);
        return true;
    }

    bool floating(VARTYPE t, const json& e, const std::string& path, void* slot) {
        bool isFloat = t == VT_R4;
        double d = 0;
        if (e.is_number()) {
            d = e.get<double>();
        } else if (e.is_string()) {
            const std::string& s = e.get_ref<const std::string&>();
            if (s == "NaN") d = std::numeric_limits<double>::quiet_NaN();
            else if (s == "Infinity") d = std::numeric_limits<double>::infinity();
            else if (s == "-Infinity") d = -std::numeric_limits<double>::infinity();
            else if (t != VT_DATE || !textToDate(s, &d))
                return fail(path, "\"" + s + "\" is not " +
                                      (t == VT_DATE ? "a date (YYYY-MM-DD HH:MM:SS, local time)"
                                                    : "a number, \"NaN\", \"Infinity\" or \"-Infinity\""));
        } else if (e.is_object() && e.size() == 1 && e.contains("bits") && e["bits"].is_string()) {
            const std::string& s = e["bits"].get_ref<const std::string&>();
            size_t digits = isFloat ? 8 : 16;
            char* end = nullptr;
            unsigned long long bits = strtoull(s.c_str(), &end, 16);
            if (s.size() != digits || *end || s.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
                return fail(path + "/bits", "expected " + std::to_string(digits) + " hex digits");
            if (isFloat) {
                uint32_t b = uint32_t(bits);
                memcpy(slot, &b, 4);
            } else memcpy(slot, &bits, 8);
            return true;
        } else {
            return fail(path, "expected a number, got " + e.dump());
        }
        if (isFloat) {
            float f = float(d);
            if (std::isinf(f) && !std::isinf(d)) return fail(path, e.dump() + " is out of range for R4");
            memcpy(slot, &f, 4);
        } else {
            memcpy(slot, &d, 8);
        }
        return true;
    }

    bool element(VARTYPE t, const json& e, const std::string& path, int depth, void* slot) {
        switch (t) {
        case VT_I1: return integer<int8_t>(e, path, "I1", slot);
        case VT_UI1: return integer<uint8_t>(e, path, "UI1", slot);
        case VT_I2: return integer<int16_t>(e, path, "I2", slot);
        case VT_UI2: return integer<uint16_t>(e, path, "UI2", slot);
        case VT_I4: return integer<int32_t>(e, path, "I4", slot);
        case VT_UI4: return integer<uint32_t>(e, path, "UI4", slot);
        case VT_I8: return integer<int64_t>(e, path, "I8", slot);
        case VT_UI8: return integer<uint64_t>(e, path, "UI8", slot);
        case VT_BOOL:
            if (e.is_boolean()) {
                int16_t b = e.get<bool>() ? VARIANT_TRUE : VARIANT_FALSE;
                memcpy(slot, &b, 2);
                return true;
            }
            return integer<int16_t>(e, path, "BOOL", slot);
        case VT_R4:
        case VT_R8:
        case VT_DATE: return floating(t, e, path, slot);
        case VT_BSTR: {
            BSTR s = nullptr;
            if (e.is_string()) {
                if (!string(e.get_ref<const std::string&>(), path, &s)) return false;
            } else if (e.is_object() && e.size() == 1 && e.contains("base64")) {
                std::string bytes, why;
                if (!e["base64"].is_string()) return fail(path + "/base64", "base64 must be a string");
                if (!Base64Decode(e["base64"].get<std::string>(), &bytes, &why)) return fail(path + "/base64", why);
                if (!string(bytes, path, &s)) return false;
            } else if (!e.is_null()) {
                return fail(path, "expected a string, null or {\"base64\":...}, got " + e.dump());
            }
            memcpy(slot, &s, sizeof s);
            return true;
        }
        case VT_VARIANT: return variant(e, path, depth, static_cast<tagVARIANT*>(slot));
        default: return fail(path, "unsupported element type");
        }
    }

    std::string m_error;
};

// ---- text rendering for logs ----------------------------------------------------

const size_t kTextMaxString = 200;
const size_t kTextMaxBytes = 64;
const uint32_t kTextMaxElements = 100;

void quoted(const char* s, size_t n, std::string* out) {
    size_t shown = n < kTextMaxString ? n : kTextMaxString;
    *out += '"';
    for (size_t i = 0; i < shown; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            *out += '\\';
            *out += char(c);
        } else if (c == '\n') *out += "\\n";
        else if (c < 0x20 || c == 0x7F) {
            char b[8];
            snprintf(b, sizeof b, "\\x%02x", c);
            *out += b;
        } else *out += char(c);
    }
    *out += '"';
    if (shown < n) *out += "... (" + std::to_string(n) + " bytes)";
}

void scalarText(VARTYPE t, const void* p, std::string* out) {
    char buf[64];
    switch (t) {
    case VT_I1: snprintf(buf, sizeof buf, "%d", *static_cast<const int8_t*>(p)); break;
    case VT_UI1: snprintf(buf, sizeof buf, "%u", *static_cast<const uint8_t*>(p)); break;
    case VT_I2: snprintf(buf, sizeof buf, "%d", *static_cast<const int16_t*>(p)); break;
    case VT_UI2: snprintf(buf, sizeof buf, "%u", *static_cast<const uint16_t*>(p)); break;
    case VT_I4: snprintf(buf, sizeof buf, "%" PRId32, *static_cast<const int32_t*>(p)); break;
    case VT_UI4: snprintf(buf, sizeof buf, "%" PRIu32, *static_cast<const uint32_t*>(p)); break;
    case VT_I8: snprintf(buf, sizeof buf, "%" PRId64, *static_cast<const int64_t*>(p)); break;
    case VT_UI8: snprintf(buf, sizeof buf, "%" PRIu64, *static_cast<const uint64_t*>(p)); break;
    case VT_BOOL: {
        int16_t b = *static_cast<const int16_t*>(p);
        if (b == VARIANT_TRUE) snprintf(buf, sizeof buf, "true");
        else if (b == VARIANT_FALSE) snprintf(buf, sizeof buf, "false");
        else snprintf(buf, sizeof buf, "%d", b);
        break;
    }
    case VT_R4: {
        float f;
        memcpy(&f, p, 4);
        snprintf(buf, sizeof buf, "%.9g", double(f));
        break;
    }
    case VT_R8: {
        double d;
        memcpy(&d, p, 8);
        snprintf(buf, sizeof buf, "%.17g", d);
        break;
    }
    case VT_DATE: {
        double d;
        memcpy(&d, p, 8);
        std::string text;
        if (dateToText(d, &text)) snprintf(buf, sizeof buf, "%s (%.17g)", text.c_str(), d);
        else snprintf(buf, sizeof buf, "%.17g", d);
        break;
    }
    case VT_BSTR: {
        BSTR s = *static_cast<const BSTR*>(p);
        if (!s) *out += "(null)";
        else quoted(s, SysStringLen(s), out);
        return;
    }
    default: buf[0] = '\0'; break;
    }
    *out += buf;
}

void renderText(const tagVARIANT& v, int indent, std::string* out) {
    *out += VariantTypeName(v.vt);
    if (v.vt & VT_BYREF) return;
    if (!(v.vt & VT_ARRAY)) {
        if (v.vt != VT_EMPTY && v.vt != VT_NULL && shortName(v.vt)) {
            *out += ' ';
            scalarText(v.vt, &v.llVal, out);
        }
        return;
    }
    const SAFEARRAY* psa = v.parray;
    if (!psa) {
        *out += " (no array)";
        return;
    }
    if (psa->cDims != 1) {
        *out += " (" + std::to_string(psa->cDims) + " dimensions)";
        return;
    }
    uint32_t n = psa->rgsabound[0].cElements;
    *out += " [" + std::to_string(n) + "]";
    if (psa->rgsabound[0].lLbound) *out += " lb=" + std::to_string(psa->rgsabound[0].lLbound);
    const char* data = static_cast<const char*>(psa->pvData);
    if (psa->vt == VT_UI1 || psa->vt == VT_I1) {
        size_t shown = n < kTextMaxBytes ? n : kTextMaxBytes;
        for (size_t i = 0; i < shown; ++i) {
            char b[4];
            snprintf(b, sizeof b, " %02x", static_cast<unsigned char>(data[i]));
            *out += b;
        }
        if (shown < n) *out += " ...";
        return;
    }
    uint32_t shown = n < kTextMaxElements ? n : kTextMaxElements;
    std::string pad(size_t(indent + 1) * 2, ' ');
    for (uint32_t i = 0; i < shown; ++i) {
        *out += '\n' + pad + '[' + std::to_string(int64_t(psa->rgsabound[0].lLbound) + i) + "] ";
        const void* slot = data + size_t(i) * psa->cbElements;
        if (psa->vt == VT_VARIANT) renderText(*static_cast<const tagVARIANT*>(slot), indent + 1, out);
        else scalarText(psa->vt, slot, out);
    }
    if (shown < n) *out += '\n' + pad + "... " + std::to_string(n - shown) + " more";
}

}  // namespace

bool VariantFromJsonValue(const nlohmann::json& j, tagVARIANT* out, std::string* error) {
    VariantInit(out);
    Reader r;
    tagVARIANT v;
    VariantInit(&v);
    if (!r.variant(j, "", 0, &v)) {
        if (error) *error = r.error();
        return false;
    }
    *out = v;
    return true;
}

bool VariantFromJson(const std::string& text, tagVARIANT* out, std::string* error) {
    VariantInit(out);
    json j;
    try {
        j = json::parse(text);
    } catch (const json::exception& e) {
        if (error) *error = std::string("JSON parse error: ") + e.what();
        return false;
    }
    return VariantFromJsonValue(j, out, error);
}

nlohmann::json VariantToJsonValue(const tagVARIANT& v) { return writeVariant(v); }

std::string VariantToJson(const tagVARIANT& v, int indent) { return writeVariant(v).dump(indent); }

std::string VariantToText(const tagVARIANT& v) {
    std::string out;
    renderText(v, 0, &out);
    return out;
}

std::string VariantTypeName(VARTYPE vt) {
    std::string prefix;
    if (vt & VT_BYREF) prefix += "VT_BYREF|";
    if (vt & VT_ARRAY) prefix += "VT_ARRAY|";
    VARTYPE base = VARTYPE(vt & ~(VT_BYREF | VT_ARRAY));
    const char* name = shortName(base);
    if (!name) return prefix.empty() ? std::to_string(vt) : prefix + std::to_string(base);
    return prefix + "VT_" + name;
}
