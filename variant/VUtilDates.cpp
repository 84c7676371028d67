// Conversions between variant dates (days) and seconds since 1970.
#include <cmath>

#include "variant/VUtil.h"

namespace {
const long kEpochDay = 25569;  // 1 January 1970 in variant days
const long kDaySeconds = 86400;
const double kMaxDays = 1e9;  // far beyond any real date, well inside long
}  // namespace

namespace VUtil {

long DateToTime(double date) {
    if (!std::isfinite(date) || std::fabs(date) > kMaxDays) return -1;
    long days = static_cast<long>(date);  // toward zero
    long secondsOfDay = static_cast<long>((date - static_cast<double>(days)) * kDaySeconds + 0.5);
    return secondsOfDay + (days - kEpochDay) * kDaySeconds;
}

double TimeToDate(long seconds) {
    return static_cast<double>(seconds % kDaySeconds) / static_cast<double>(kDaySeconds) +
           static_cast<double>(seconds / kDaySeconds + kEpochDay);
}

}  // namespace VUtil
