// ArchiveLeftovers: a record, in the data folder, of the archives being
// written, so that a later start removes those that a killed run left behind.
//
// The file "PendingArchives" holds one line per archive: the writing
// process (pid and start time), the file's device and inode, and its path.
// It is replaced as a whole (a new file, mode 0600 from the start, renamed
// over it) under an flock of "PendingArchives.lock", so processes that share
// the data folder keep each other's lines. A record not owned by this user,
// or readable by others, is ignored. Failures are logged, never thrown:
// without a record, archives are still written.
#pragma once

#include "common/CStdStr.h"

namespace ArchiveLeftovers {

// An archive of this process is being written at `zipPath` (the file exists).
void add(const CStdStr& zipPath);
// It is complete, failed or deleted.
void remove(const CStdStr& zipPath);
// At start: deletes each listed archive whose writing process is gone, when
// the file is still the one recorded (a regular file with the same device,
// inode and owner, in a temporary folder), and drops those lines. Returns
// the number of files deleted.
int cleanUp();
// Where the record is; empty when the data folder cannot be had.
CStdStr recordPath();

}  // namespace ArchiveLeftovers
