// TCreateZipThreadData: one archive being written by its own thread, and the
// rules that decide who frees it.
//
// Ownership: a record has two holders from the moment it is created, the
// requester ("CreateZip" or "ZipLogs") and the building thread. Each lets go
// exactly once, under `completion`, with releaseArchiveJob(); the one that
// lets go last frees the record (tree included). Neither touches the record
// after letting go. A requester that wants to join the thread does so while
// it still holds the record, so `thread` is never used after it was freed.
//
// The satellite's job table (ArchiveJobTable) may point at a record only while
// its thread has not yet taken it out; the thread removes its own entries
// under the table's lock before it lets go, so an entry found under that lock
// is live.
#pragma once

#include <atomic>
#include <set>

#include "archive/CMyPathTree.h"
#include "common/CStdStr.h"
#include "host/PThread.h"

struct TCreateZipThreadData {
    TCreateZipThreadData(const CStdStr& path, CMyPathTree* files, bool storeEntries)
        : zipPath(path), tree(files), store(storeEntries) {}
    ~TCreateZipThreadData() { delete tree; }
    TCreateZipThreadData(const TCreateZipThreadData&) = delete;
    TCreateZipThreadData& operator=(const TCreateZipThreadData&) = delete;

    PThread thread;         // started by the requester; joined only while the requester holds the record
    PCondMutex completion;  // guards `done`, `error` and `holders`
    bool done KIV_GUARDED_BY(completion) =
        false;                                 // set by the building thread once the archive is written or has failed
    CStdStr error KIV_GUARDED_BY(completion);  // why the archive failed; empty when it is complete
    CStdStr zipPath;                           // fixed before the thread starts
    CMyPathTree* tree;                         // owned; only the building thread uses it once started
    bool store;                                // fixed before the thread starts
    std::set<CStdStr> refused;                 // fixed before the thread starts: inputs refused already, written empty
    long long budgeted = 0;  // fixed before the thread starts: counted in ArchiveBudget until the thread ends
    int holders KIV_GUARDED_BY(completion) = 2;  // requester + building thread
    std::atomic<bool> abandon{false};  // set by the job table (stop, deletion); the writer stops at its next block
};

// Lets go of `record` for one holder; frees it when that was the last one.
// After this call the caller must not touch the record.
void releaseArchiveJob(TCreateZipThreadData* record);
