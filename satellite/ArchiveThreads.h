// Process-wide bookkeeping of archive threads: how many each satellite has
// running, and one condition broadcast whenever an archive is complete (used
// by waitForPendingArchive, which re-checks the satellite's job table after
// each wake-up instead of touching a record that may already be freed).
//
// Lock order: ArchiveThreads' mutex, then a satellite's job table lock; a
// record's `completion` may be held while taking the table's, never the reverse.
#pragma once

#include <ctime>
#include <functional>

class KivRequestProxySatellite;

namespace ArchiveThreads {

// A thread of `owner` is about to start / has stopped touching `owner`.
void started(const KivRequestProxySatellite* owner);
void finished(const KivRequestProxySatellite* owner);

// At most this many threads wait for pending archives at once, across the
// process: a reader beyond them is turned away at once, so readers of
// archives never hold more handlers than this.
const int kMaxWaiters = 4;

// Calls `stillWaiting()` with the bookkeeping mutex held, and waits for the
// next completion (or wakeWaiters) while it returns true, until the absolute
// CLOCK_REALTIME `deadline`. Returns the last answer of `stillWaiting`; when
// kMaxWaiters already wait, returns true at once and sets *turnedAway.
bool waitWhile(const std::function<bool()>& stillWaiting, const struct timespec& deadline, bool* turnedAway);
// Wakes every waiter to ask its `stillWaiting` again (the satellite stops).
void wakeWaiters();
// How many threads wait in waitWhile now; for tests.
int waiters();

// Blocks until no thread of `owner` is running; for the satellite's destructor.
void waitForAll(const KivRequestProxySatellite* owner);

// Tests only: when set, each archive thread calls it (with the zip path)
// before it writes the archive. Null in the product.
typedef void (*Hook)(const char* zipPath);
void setBeforeWriteHook(Hook hook);
Hook beforeWriteHook();

// How long "CreateZip" waits for its archive before it answers the estimate:
// 5000 ms; tests only may shorten it.
void setCreateZipWaitMs(int milliseconds);
int createZipWaitMs();

}  // namespace ArchiveThreads
