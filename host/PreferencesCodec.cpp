#include "host/PreferencesCodec.h"

#include <cstdint>
#include <limits>

namespace PreferencesCodec {

namespace {
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kBytesKey[] = "$bytes";

int alphabetIndex(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}
}  // namespace

bool isValidUtf8(const std::string& s) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
    size_t n = s.size();
    size_t i = 0;
    while (i < n) {
        unsigned char c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t len;
        uint32_t cp;
        if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

std::string base64Encode(const std::string& bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t v = (p[i] << 16) | (p[i + 1] << 8) | p[i + 2];
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    size_t rest = bytes.size() - i;
    if (rest == 1) {
        uint32_t v = p[i] << 16;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += "==";
    } else if (rest == 2) {
        uint32_t v = (p[i] << 16) | (p[i + 1] << 8);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

bool base64Decode(const std::string& text, std::string& bytes) {
    if (text.size() % 4 != 0) return false;
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int a = alphabetIndex(text[i]);
        int b = alphabetIndex(text[i + 1]);
        if (a < 0 || b < 0) return false;
        int c = -1, d = -1;
        if (last && text[i + 2] == '=') {
            if (text[i + 3] != '=') return false;
        } else {
            c = alphabetIndex(text[i + 2]);
            if (c < 0) return false;
            if (!(last && text[i + 3] == '=')) {
                d = alphabetIndex(text[i + 3]);
                if (d < 0) return false;
            }
        }
        uint32_t v = (a << 18) | (b << 12) | ((c < 0 ? 0 : c) << 6) | (d < 0 ? 0 : d);
        out += static_cast<char>((v >> 16) & 0xFF);
        if (c >= 0) out += static_cast<char>((v >> 8) & 0xFF);
        if (d >= 0) out += static_cast<char>(v & 0xFF);
    }
    bytes.swap(out);
    return true;
}

nlohmann::json encodeValue(const Preferences::Value& value) {
    switch (value.type) {
        case Preferences::Value::Bool:
            return nlohmann::json(value.b);
        case Preferences::Value::Int:
            return nlohmann::json(static_cast<int64_t>(value.i));
        case Preferences::Value::String:
            break;
    }
    if (isValidUtf8(value.s)) return nlohmann::json(value.s);
    nlohmann::json j = nlohmann::json::object();
    j[kBytesKey] = base64Encode(value.s);
    return j;
}

bool decodeValue(const nlohmann::json& j, Preferences::Value& value) {
    if (j.is_boolean()) {
        value = Preferences::Value::ofBool(j.get<bool>());
        return true;
    }
    if (j.is_number_integer()) {
        if (j.is_number_unsigned()) {
            uint64_t u = j.get<uint64_t>();
            if (u > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return false;
            value = Preferences::Value::ofInt(static_cast<int32_t>(u));
            return true;
        }
        int64_t v = j.get<int64_t>();
        if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max()) return false;
        value = Preferences::Value::ofInt(static_cast<int32_t>(v));
        return true;
    }
    if (j.is_string()) {
        value = Preferences::Value::ofString(j.get<std::string>());
        return true;
    }
    if (j.is_object() && j.size() == 1 && j.contains(kBytesKey) && j[kBytesKey].is_string()) {
        std::string bytes;
        if (!base64Decode(j[kBytesKey].get<std::string>(), bytes)) return false;
        value = Preferences::Value::ofString(bytes);
        return true;
    }
    return false;
}

}  // namespace PreferencesCodec
