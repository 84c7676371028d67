// The machine's time-zone name, searched in this order; the first source that
// yields a non-empty name wins:
//   1. the environment variable TZ, exactly as set (a leading ":" stays);
//   2. the first line of /etc/timezone;
//   3. when /etc/localtime is a symbolic link: the part of its target after
//      the first "/zoneinfo/", or the whole target when it has no such part;
//   4. otherwise the path, relative to /usr/share/zoneinfo, of the first file
//      there (walked recursively, skipping "right", "posix", "posixrules" and
//      "localtime") whose contents equal /etc/localtime's.
// Returns "" when no source gives a name. A file-system error during the walk
// is thrown (boost::filesystem::filesystem_error) for the caller to report.
#pragma once

#include "common/CStdStr.h"

struct TimeZoneSources {
    const char* tzVariable = "TZ";
    CStdStr etcTimezone = "/etc/timezone";
    CStdStr localtime = "/etc/localtime";
    CStdStr zoneinfo = "/usr/share/zoneinfo";
};

CStdStr FindTimeZoneName(const TimeZoneSources& sources = TimeZoneSources());
