// CStdStr: the narrow string of the whole program. A std::string (bytes, no
// encoding assumed) with printf-style formatting and the small set of helpers
// the services use: replace, tokenize, case-insensitive comparison (ASCII,
// classic locale), case changes, left/mid/right, trimming and find from the end.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

class CStdStr : public std::string {
public:
    CStdStr() = default;
    CStdStr(const char* s) : std::string(s ? s : "") {}
    CStdStr(const char* s, size_type n) : std::string(s, n) {}
    CStdStr(const std::string& s) : std::string(s) {}
    CStdStr(std::string&& s) : std::string(std::move(s)) {}
    CStdStr(size_type n, char c) : std::string(n, c) {}

    // Replaces the contents with the formatted text (any length).
    void Format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* fmt, va_list args);
    // Appends the formatted text (any length).
    void AppendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void AppendFormatV(const char* fmt, va_list args);
    // A new string with the formatted text.
    static CStdStr Formatted(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

    // Replaces every occurrence of `from` with `to`, scanning on after each
    // inserted text. Returns the number of replacements. An empty `from` does nothing.
    int Replace(const std::string& from, const std::string& to);
    int Replace(char from, char to);

    // The next token after `pos`, splitting at any character of `delims`.
    // Leading delimiters are skipped; `pos` moves past the token. Returns an
    // empty string and sets `pos` to npos when no token remains.
    CStdStr Tokenize(const char* delims, size_type& pos) const;
    // All non-empty tokens, in order.
    std::vector<CStdStr> Tokens(const char* delims) const;

    // Case-insensitive (ASCII) comparison: <0, 0, >0.
    int CompareNoCase(const std::string& other) const;
    bool EqualsNoCase(const std::string& other) const { return CompareNoCase(other) == 0; }

    CStdStr& MakeUpper();
    CStdStr& MakeLower();
    CStdStr ToUpper() const {
        CStdStr s(*this);
        return s.MakeUpper();
    }
    CStdStr ToLower() const {
        CStdStr s(*this);
        return s.MakeLower();
    }

    // Index of the last occurrence, or -1.
    int ReverseFind(char c) const;
    int ReverseFind(const std::string& s) const;
    // Index of the first occurrence at or after `start`, or -1.
    int Find(char c, int start = 0) const;
    int Find(const std::string& s, int start = 0) const;

    // Substrings clamped to the string: never throw.
    CStdStr Left(int count) const;
    CStdStr Mid(int first) const;
    CStdStr Mid(int first, int count) const;
    CStdStr Right(int count) const;

    // Trim white space (or the given characters) in place.
    CStdStr& TrimLeft(const char* chars = " \t\r\n\v\f");
    CStdStr& TrimRight(const char* chars = " \t\r\n\v\f");
    CStdStr& Trim(const char* chars = " \t\r\n\v\f") {
        TrimRight(chars);
        return TrimLeft(chars);
    }

    bool StartsWith(const std::string& prefix) const;
    bool EndsWith(const std::string& suffix) const;

    int GetLength() const { return static_cast<int>(size()); }
    bool IsEmpty() const { return empty(); }
};

struct CStdStrLessNoCase {
    bool operator()(const CStdStr& a, const CStdStr& b) const { return a.CompareNoCase(b) < 0; }
};
