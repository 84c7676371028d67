// Reading times: variant dates and the three fixed text layouts.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>

#include "cab/CabException.h"
#include "diag/CBBLog.h"
#include "variant/TimeUtils.h"
#include "variant/VUtil.h"

namespace {

// Character positions {start, length} of the six fields of one layout.
struct Layout {
    int year[2], month[2], day[2], hour[2], minute[2], second[2];
};

const Layout kSlashed = {{6, 4}, {0, 2}, {3, 2}, {11, 2}, {14, 2}, {17, 2}};  // MM/DD/YYYY hh:mm:ss
const Layout kDashed = {{0, 4}, {5, 2}, {8, 2}, {11, 2}, {14, 2}, {17, 2}};   // YYYY-MM-DD hh:mm:ss
const Layout kDigits = {{0, 4}, {4, 2}, {6, 2}, {8, 2}, {10, 2}, {12, 2}};    // YYYYMMDDhhmmss

// The current local time with the six fields replaced from `text`, through mktime.
long parse(const CStdStr& text, const Layout& at, const char* failText) {
    time_t now = time(nullptr);
    struct tm t;
    if (!localtime_r(&now, &t)) throw CabException(failText, -1);
    t.tm_year = TimeUtils::ParseInt(text, at.year[0], at.year[1]) - 1900;
    t.tm_mon = TimeUtils::ParseInt(text, at.month[0], at.month[1]) - 1;
    t.tm_mday = TimeUtils::ParseInt(text, at.day[0], at.day[1]);
    t.tm_hour = TimeUtils::ParseInt(text, at.hour[0], at.hour[1]);
    t.tm_min = TimeUtils::ParseInt(text, at.minute[0], at.minute[1]);
    t.tm_sec = TimeUtils::ParseInt(text, at.second[0], at.second[1]);
    return static_cast<long>(mktime(&t));
}

}  // namespace

namespace TimeUtils {

long GetTime(const tagVARIANT& v) {
    // Any of the three low bits passes, not only VT_DATE itself.
    if ((v.vt & 7) == 0) throw CabException("TimeUtils::GetTime: variant is not a VT_DATE", -1);
    return VUtil::DateToTime(v.date);
}

int ParseInt(const CStdStr& text, int start, int length) {
    if (start < 0) start = 0;
    if (length < 0) length = 0;
    if (static_cast<size_t>(start) >= text.size()) return 0;
    CStdStr piece = text.substr(static_cast<size_t>(start), static_cast<size_t>(length));
    // atoi, without its undefined behaviour on overflow.
    errno = 0;
    long value = strtol(piece.c_str(), nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

long GetTime(const CStdStr& text) { return parse(text, kSlashed, "GetTime: Localtime failed"); }

long GetTime2(const CStdStr& text) {
    long t = parse(text, kDashed, "GetTime2: Localtime failed");
    if (t == -1) CBBLog::error("******* Invalid KivMedia time: %s", text.c_str());
    return t;
}

long GetTime3(const CStdStr& text) {
    // A wrong length is reported, and the fixed positions are read all the same.
    if (text.size() != 14) CBBLog::error("******* Invalid DB time length: %s", text.c_str());
    long t = parse(text, kDigits, "GetTime3: Localtime failed");
    if (t == -1) CBBLog::error("******* Invalid DB time: %s", text.c_str());
    return t;
}

}  // namespace TimeUtils
