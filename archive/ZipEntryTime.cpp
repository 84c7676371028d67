#include "archive/ZipEntryTime.h"

#include <cstdint>
#include <cstring>

namespace {

const unsigned kExtendedTimestampTag = 0x5455;
const unsigned char kModificationTimePresent = 1;

}  // namespace

ZipEntryTime::ZipEntryTime(time_t mtime) {
    memset(&info, 0, sizeof info);
    struct tm local;
    memset(&local, 0, sizeof local);
    if (!localtime_r(&mtime, &local)) local.tm_year = 80;
    if (local.tm_year < 80) {  // before 1980: the earliest DOS date
        local.tm_year = 80;
        local.tm_mon = 0;
        local.tm_mday = 1;
        local.tm_hour = local.tm_min = local.tm_sec = 0;
    } else if (local.tm_year > 207) {  // after 2107: the latest
        local.tm_year = 207;
        local.tm_mon = 11;
        local.tm_mday = 31;
        local.tm_hour = 23;
        local.tm_min = 59;
        local.tm_sec = 58;
    }
    info.tmz_date.tm_sec = static_cast<uInt>(local.tm_sec > 59 ? 59 : local.tm_sec);
    info.tmz_date.tm_min = static_cast<uInt>(local.tm_min);
    info.tmz_date.tm_hour = static_cast<uInt>(local.tm_hour);
    info.tmz_date.tm_mday = static_cast<uInt>(local.tm_mday);
    info.tmz_date.tm_mon = static_cast<uInt>(local.tm_mon);
    info.tmz_date.tm_year = static_cast<uInt>(local.tm_year + 1900);

    long long seconds = static_cast<long long>(mtime);
    if (seconds < INT32_MIN) seconds = INT32_MIN;
    if (seconds > INT32_MAX) seconds = INT32_MAX;
    const uint32_t utc = static_cast<uint32_t>(static_cast<int32_t>(seconds));
    extra[0] = kExtendedTimestampTag & 0xff;
    extra[1] = kExtendedTimestampTag >> 8;
    extra[2] = 5;  // data size: flags + mtime
    extra[3] = 0;
    extra[4] = kModificationTimePresent;
    for (int i = 0; i < 4; ++i) extra[5 + i] = static_cast<unsigned char>(utc >> (8 * i));
}
