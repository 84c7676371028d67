// TimeUtils: the text forms of times and the local time zone.
//
// Promises:
// - Times are seconds since 1 January 1970 (long), read and written in local
//   time as the C library sees it (TZ); variant dates go through
//   VUtil::DateToTime / VUtil::TimeToDate.
// - Failures throw CabException with code -1 and a fixed text (never
//   CabInvalidParameterException).
// - The parsers never throw for bad text: they take fixed character positions
//   (separators are not checked), keep the fields they do not parse (such as
//   daylight saving) from the current time, and return what mktime returns,
//   -1 for an impossible date. GetTime2 and GetTime3 log refused texts at
//   ERROR level; GetTime (text) never logs.
// - All functions are safe to call from any thread.
#pragma once

#include "value/Variant.h"
#include "common/CStdStr.h"

namespace TimeUtils {

// A variant date read as seconds. Any type code with one of its three low bits
// set is read as a date (so VT_I4 and VT_R8 value bits pass as dates); others
// throw "TimeUtils::GetTime: variant is not a VT_DATE".
long GetTime(const tagVARIANT& v);
// "MM/DD/YYYY hh:mm:ss".
long GetTime(const CStdStr& text);
// "YYYY-MM-DD hh:mm:ss" (media time).
long GetTime2(const CStdStr& text);
// "YYYYMMDDhhmmss" (database time); another length is logged and parsed all the same.
long GetTime3(const CStdStr& text);
// atoi of at most `length` characters from `start` (negatives clamp to 0; 0
// for an empty or non-numeric piece).
int ParseInt(const CStdStr& text, int start, int length);

// "YYYY/MM/DD hh:mm:ss".
void FormatTime(CStdStr& out, long seconds);
// "YYYYMMDDhhmmss".
CStdStr FormatTime(long seconds);
// GetTime (variant) then FormatTime (seconds); a failure is logged and gives "".
CStdStr FormatTime(const tagVARIANT& v);
CStdStr FormatTime2(long seconds);         // "YYYY-MM-DD hh:mm:ss"
CStdStr FormatTime3(long seconds);         // "YYYYMMDDhhmmss"
CStdStr FormatTime4(long seconds);         // "YYYY-MM-DD hh:mm"
CStdStr FormatTimeAccess(long seconds);    // "YYYY/MM/DD hh:mm:ss"
CStdStr FormatFilenameDate(long seconds);  // "MM-DD-YYYY hh-mm-ss"
// Local time as "YYYY-MM-DDThh:mm:ss.0000000-8:00": the suffix is fixed,
// whatever the zone.
CStdStr FormatUniversal(long seconds);

// Minutes west of Greenwich of the zone's standard time, and whether daylight
// saving is in effect now. Returns 0.
int getTimeZone(long* minutesWest, bool* daylight);
// Seconds west of UTC now (minutes west x 60, less 3600 in daylight saving).
long getTimeZoneDifference();

}  // namespace TimeUtils
