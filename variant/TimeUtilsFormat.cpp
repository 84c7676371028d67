// Writing times as text, and the local time zone.
#include <ctime>
#include <exception>

#include "cab/CabException.h"
#include "diag/CBBLog.h"
#include "variant/TimeUtils.h"

namespace {

struct tm localOrThrow(long seconds, const char* failText) {
    time_t t = static_cast<time_t>(seconds);
    struct tm out;
    if (!localtime_r(&t, &out)) throw CabException(failText, -1);
    return out;
}

}  // namespace

namespace TimeUtils {

void FormatTime(CStdStr& out, long seconds) {
    struct tm t = localOrThrow(seconds, "FormatTime: Localtime failed");
    out.Format("%04d/%02d/%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min,
               t.tm_sec);
}

CStdStr FormatTime(long seconds) { return FormatTime3(seconds); }

CStdStr FormatTime(const tagVARIANT& v) {
    try {
        return FormatTime(GetTime(v));
    } catch (const std::exception&) {
        CBBLog::error("FormatTime(Variant) failed");
    }
    return CStdStr();
}

CStdStr FormatTime2(long seconds) {
    struct tm t = localOrThrow(seconds, "FormatTime2: Localtime failed");
    return CStdStr::Formatted("%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                              t.tm_min, t.tm_sec);
}

CStdStr FormatTime3(long seconds) {
    struct tm t = localOrThrow(seconds, "FormatTime3: Localtime failed");
    return CStdStr::Formatted("%04d%02d%02d%02d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                              t.tm_min, t.tm_sec);
}

CStdStr FormatTime4(long seconds) {
    struct tm t = localOrThrow(seconds, "FormatTime4: Localtime failed");
    return CStdStr::Formatted("%04d-%02d-%02d %02d:%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                              t.tm_min);
}

CStdStr FormatTimeAccess(long seconds) {
    CStdStr out;
    FormatTime(out, seconds);
    return out;
}

CStdStr FormatFilenameDate(long seconds) {
    struct tm t = localOrThrow(seconds, "FormatFilenameDate: Localtime failed");
    // Month first; the four-digit year fills its two-digit field.
    return CStdStr::Formatted("%02d-%02d-%02d %02d-%02d-%02d", t.tm_mon + 1, t.tm_mday, t.tm_year + 1900, t.tm_hour,
                              t.tm_min, t.tm_sec);
}

CStdStr FormatUniversal(long seconds) {
    // Reports under the FormatTime text and always writes the same zone suffix.
    struct tm t = localOrThrow(seconds, "FormatTime: Localtime failed");
    return CStdStr::Formatted("%04d-%02d-%02dT%02d:%02d:%02d.0000000-8:00", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                              t.tm_hour, t.tm_min, t.tm_sec);
}

int getTimeZone(long* minutesWest, bool* daylight) {
    // The kernel's zone record of gettimeofday is not kept up to date on Linux,
    // so the zone comes from the C library (TZ): the offset in effect now,
    // less the daylight-saving hour when it applies.
    time_t now = time(nullptr);
    struct tm t;
    long west = 0;
    bool dst = false;
    if (localtime_r(&now, &t)) {
        dst = t.tm_isdst > 0;
        west = -t.tm_gmtoff / 60 + (dst ? 60 : 0);
    }
    if (minutesWest) *minutesWest = west;
    if (daylight) *daylight = dst;
    return 0;
}

long getTimeZoneDifference() {
    long minutesWest = 0;
    bool daylight = false;
    getTimeZone(&minutesWest, &daylight);
    return minutesWest * 60 - (daylight ? 3600 : 0);
}

}  // namespace TimeUtils
