// Helpers shared by the archive tests: reading a zip back with unzip, and
// calling "CreateZip" style inputs.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "cab/Variant.h"

namespace archivetest {

// Entry name -> method column of `unzip -v` ("Stored", "Defl:X", ...); empty when unreadable.
std::map<std::string, std::string> zipMethods(const std::string& zip);
// True when `unzip -t` finds no error.
bool zipTestsOk(const std::string& zip);
// Writes `size` bytes of pseudo-random (barely compressible) data.
void writeRandomFile(const std::string& path, size_t size, unsigned pattern);
// A new folder `name`-PID outside /tmp, /var/tmp and TMPDIR (under the build,
// the source or the home folder), for files that must survive; empty when
// none of them is outside.
std::string outsideFolder(const std::string& name);
// ["ctx", file-browser id of each path] as "CreateZip" takes it.
void createZipInput(tagVARIANT& in, const std::vector<std::string>& paths);

}  // namespace archivetest
