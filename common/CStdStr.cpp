#include "common/CStdStr.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

inline char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
inline char upperAscii(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

void CStdStr::FormatV(const char* fmt, va_list args) {
    clear();
    AppendFormatV(fmt, args);
}

void CStdStr::Format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    FormatV(fmt, args);
    va_end(args);
}

void CStdStr::AppendFormatV(const char* fmt, va_list args) {
    if (!fmt) return;
    char stackBuf[512];
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(stackBuf, sizeof stackBuf, fmt, copy);
    va_end(copy);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof stackBuf) {
        append(stackBuf, static_cast<size_t>(n));
        return;
    }
    size_type old = size();
    resize(old + static_cast<size_t>(n) + 1);
    va_copy(copy, args);
    vsnprintf(&(*this)[old], static_cast<size_t>(n) + 1, fmt, copy);
    va_end(copy);
    resize(old + static_cast<size_t>(n));
}

void CStdStr::AppendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    AppendFormatV(fmt, args);
    va_end(args);
}

CStdStr CStdStr::Formatted(const char* fmt, ...) {
    CStdStr s;
    va_list args;
    va_start(args, fmt);
    s.AppendFormatV(fmt, args);
    va_end(args);
    return s;
}

int CStdStr::Replace(const std::string& from, const std::string& to) {
    if (from.empty()) return 0;
    int count = 0;
    size_type pos = 0;
    while ((pos = find(from, pos)) != npos) {
        replace(pos, from.size(), to);
        pos += to.size();
        ++count;
    }
    return count;
}

int CStdStr::Replace(char from, char to) {
    int count = 0;
    for (char& c : *this) {
        if (c == from) {
            c = to;
            ++count;
        }
    }
    return count;
}

CStdStr CStdStr::Tokenize(const char* delims, size_type& pos) const {
    if (pos == npos || pos >= size()) {
        pos = npos;
        return CStdStr();
    }
    size_type start = find_first_not_of(delims, pos);
    if (start == npos) {
        pos = npos;
        return CStdStr();
    }
    size_type end = find_first_of(delims, start);
    CStdStr tok = substr(start, end == npos ? npos : end - start);
    pos = (end == npos) ? size() : end + 1;
    return tok;
}

std::vector<CStdStr> CStdStr::Tokens(const char* delims) const {
    std::vector<CStdStr> out;
    size_type pos = 0;
    for (;;) {
        CStdStr t = Tokenize(delims, pos);
        if (pos == npos && t.empty()) break;
        out.push_back(std::move(t));
    }
    return out;
}

int CStdStr::CompareNoCase(const std::string& other) const {
    size_type n = std::min(size(), other.size());
    for (size_type i = 0; i < n; ++i) {
        unsigned char a = static_cast<unsigned char>(lowerAscii((*this)[i]));
        unsigned char b = static_cast<unsigned char>(lowerAscii(other[i]));
        if (a != b) return a < b ? -1 : 1;
    }
    if (size() == other.size()) return 0;
    return size() < other.size() ? -1 : 1;
}

CStdStr& CStdStr::MakeUpper() {
    for (char& c : *this) c = upperAscii(c);
    return *this;
}

CStdStr& CStdStr::MakeLower() {
    for (char& c : *this) c = lowerAscii(c);
    return *this;
}

int CStdStr::ReverseFind(char c) const {
    size_type p = rfind(c);
    return p == npos ? -1 : static_cast<int>(p);
}

int CStdStr::ReverseFind(const std::string& s) const {
    size_type p = rfind(s);
    return p == npos ? -1 : static_cast<int>(p);
}

int CStdStr::Find(char c, int start) const {
    if (start < 0) start = 0;
    size_type p = find(c, static_cast<size_type>(start));
    return p == npos ? -1 : static_cast<int>(p);
}

int CStdStr::Find(const std::string& s, int start) const {
    if (start < 0) start = 0;
    size_type p = find(s, static_cast<size_type>(start));
    return p == npos ? -1 : static_cast<int>(p);
}

CStdStr CStdStr::Left(int count) const {
    if (count <= 0) return CStdStr();
    return substr(0, static_cast<size_type>(count));
}

CStdStr CStdStr::Mid(int first) const {
    if (first < 0) first = 0;
    if (static_cast<size_type>(first) >= size()) return CStdStr();
    return substr(static_cast<size_type>(first));
}

CStdStr CStdStr::Mid(int first, int count) const {
    if (first < 0) first = 0;
    if (count <= 0 || static_cast<size_type>(first) >= size()) return CStdStr();
    return substr(static_cast<size_type>(first), static_cast<size_type>(count));
}

CStdStr CStdStr::Right(int count) const {
    if (count <= 0) return CStdStr();
    if (static_cast<size_type>(count) >= size()) return *this;
    return substr(size() - static_cast<size_type>(count));
}

CStdStr& CStdStr::TrimLeft(const char* chars) {
    erase(0, find_first_not_of(chars));
    return *this;
}

CStdStr& CStdStr::TrimRight(const char* chars) {
    size_type p = find_last_not_of(chars);
    erase(p == npos ? 0 : p + 1);
    return *this;
}

bool CStdStr::StartsWith(const std::string& prefix) const {
    return size() >= prefix.size() && compare(0, prefix.size(), prefix) == 0;
}

bool CStdStr::EndsWith(const std::string& suffix) const {
    return size() >= suffix.size() && compare(size() - suffix.size(), suffix.size(), suffix) == 0;
}
