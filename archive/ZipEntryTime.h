// The date of a zip entry, from the file's modification time: the DOS date
// and time in local time (clamped to 1980-01-01 .. 2107-12-31, the range the
// format can hold), and the extended timestamp extra field 0x5455 with the
// UTC modification time in seconds (clamped to a signed 32-bit count).
#pragma once

#include <zip.h>

#include <ctime>

struct ZipEntryTime {
    static const int kExtraSize = 9;  // tag, size, flags, mtime

    explicit ZipEntryTime(time_t mtime);

    zip_fileinfo info;                // tmz_date set, dosDate 0, no attributes
    unsigned char extra[kExtraSize];  // the same bytes serve the local and the central header
};
