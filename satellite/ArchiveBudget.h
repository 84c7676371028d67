// ArchiveBudget: whether one more archive may be written now, across the
// process. At most kMaxAtOnce archives are written at once, and an archive is
// refused when the file system of the temporary folder ("/tmp", where
// archives are made) would keep less than the reserve, the setting
// "archive.diskReserveMB" (default 512; 0 turns the check off), once it and
// the archives already being written are complete, each counted by its
// estimate (the sum of its inputs' sizes and headers).
// One lock, the budget's own mutex, guards the count and the bytes promised.
#pragma once

#include "common/CStdStr.h"

namespace ArchiveBudget {

const int kMaxAtOnce = 8;
const int kDefaultReserveMB = 512;

// True when an archive of `estimate` bytes may be written; it is then counted
// until release(estimate). False with the reason (for the log and the answer).
bool admit(long long estimate, CStdStr* why);
void release(long long estimate);

}  // namespace ArchiveBudget
