#include "common/Base64.h"

#include <cstdint>

namespace {
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}
}  // namespace

std::string Base64Encode(const void* data, size_t len) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    std::string out;
    out.reserve((len + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= len; i += 3) {
        uint32_t n = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8 | p[i + 2];
        out += kAlphabet[n >> 18];
        out += kAlphabet[(n >> 12) & 63];
        out += kAlphabet[(n >> 6) & 63];
        out += kAlphabet[n & 63];
    }
    if (len - i == 1) {
        uint32_t n = uint32_t(p[i]) << 16;
        out += kAlphabet[n >> 18];
        out += kAlphabet[(n >> 12) & 63];
        out += "==";
    } else if (len - i == 2) {
        uint32_t n = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8;
        out += kAlphabet[n >> 18];
        out += kAlphabet[(n >> 12) & 63];
        out += kAlphabet[(n >> 6) & 63];
        out += '=';
    }
    return out;
}

bool Base64Decode(const std::string& text, std::string* out, std::string* error) {
    out->clear();
    if (text.size() % 4) {
        if (error) *error = "base64 length " + std::to_string(text.size()) + " is not a multiple of 4";
        return false;
    }
    out->reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int pad = last ? (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=') : 0;
        uint32_t n = 0;
        for (int k = 0; k < 4; ++k) {
            int d = k >= 4 - pad ? 0 : digit(text[i + k]);
            if (d < 0) {
                if (error) *error = "invalid base64 character at position " + std::to_string(i + k);
                return false;
            }
            n = n << 6 | uint32_t(d);
        }
        out->push_back(char(n >> 16));
        if (pad < 2) out->push_back(char(n >> 8));
        if (pad < 1) out->push_back(char(n));
        // Padding bits must be zero so that every byte string has one spelling.
        if ((pad == 1 && (n & 0xFF)) || (pad == 2 && (n & 0xFFFF))) {
            if (error) *error = "non-canonical base64 padding at position " + std::to_string(i);
            return false;
        }
    }
    return true;
}
