// ArchiveJobTable: the satellite's archives being written, the ones whose
// requester stopped waiting ("pending"), and why recent archives failed.
//
// Promises:
// - Constructing the table (the satellite's start) removes the archives that
//   a killed earlier run left unfinished (ArchiveLeftovers).
// - A path is pending from makePending until its thread calls finish.
// - The failure of an archive is remembered from finish until the path is
//   discarded or used again for a new archive (at most kMaxFailures kept,
//   the oldest forgotten first), so later reads of it are refused.
// - A complete archive is known as made here (its path and which file it is)
//   from complete until the path is discarded or used again (at most
//   kMaxMade kept, the oldest forgotten first): only those are served.
// - After abandonAll every archive being written, and every one added later,
//   is asked to stop at its next block, and stopping() is true.
// - Records found in the table are live (ArchiveJob.h): the thread leaves the
//   table in finish before it lets go of its record.
// One lock, m_lock, guards all of it. Lock order: a record's `completion`,
// then m_lock; ArchiveThreads' mutex, then m_lock. Never the reverse.
#pragma once

#include <deque>
#include <map>

#include "common/CStdStr.h"
#include "host/PThread.h"
#include "satellite/ArchiveTempPath.h"

struct TCreateZipThreadData;

class ArchiveJobTable {
public:
    static const size_t kMaxFailures = 1024;
    static const size_t kMaxMade = 4096;

    ArchiveJobTable();
    ArchiveJobTable(const ArchiveJobTable&) = delete;
    ArchiveJobTable& operator=(const ArchiveJobTable&) = delete;

    // An archive is about to be written.
    void add(TCreateZipThreadData* record);
    // Its requester stopped waiting; call under the record's `completion`
    // while the archive is not done, so that finish is certain to find it.
    void makePending(TCreateZipThreadData* record);
    // The archive is complete and `made` is its file: from now on it is served.
    // Called before its requester learns that it is done.
    void complete(TCreateZipThreadData* record, const TempEntryId& made);
    // The thread is done with the archive; `error` is empty when complete.
    void finish(TCreateZipThreadData* record, const CStdStr& error);

    bool pending(const CStdStr& path) const;
    // Why the archive at `path` failed; empty when it did not (or is unknown).
    CStdStr failure(const CStdStr& path) const;
    // Whether a complete archive made here is at `path`, and which file it is.
    bool made(const CStdStr& path, TempEntryId* id) const;
    bool stopping() const;

    // "DeleteTempFile": forgets the path's failure; when the archive is still
    // being written, asks it to stop and returns true (its thread removes the
    // file, and the path stays pending until then).
    bool discard(const CStdStr& path);

    // The satellite stops: every archive being written is abandoned.
    void abandonAll();

private:
    void forgetFailure(const CStdStr& path) KIV_REQUIRES(m_lock);
    void forgetMade(const CStdStr& path) KIV_REQUIRES(m_lock);

    mutable PMutex m_lock;                                                      // guards everything below
    std::map<CStdStr, TCreateZipThreadData*> m_running KIV_GUARDED_BY(m_lock);  // every archive being written, by path
    std::map<CStdStr, TCreateZipThreadData*> m_pending KIV_GUARDED_BY(m_lock);  // those whose requester stopped waiting
    std::map<CStdStr, CStdStr> m_failures KIV_GUARDED_BY(m_lock);               // path -> reason
    std::deque<CStdStr> m_failureOrder KIV_GUARDED_BY(m_lock);                  // oldest first, to bound m_failures
    std::map<CStdStr, TempEntryId> m_made KIV_GUARDED_BY(m_lock);               // complete archives, by path
    std::deque<CStdStr> m_madeOrder KIV_GUARDED_BY(m_lock);                     // oldest first, to bound m_made
    bool m_stopping KIV_GUARDED_BY(m_lock) = false;
};
