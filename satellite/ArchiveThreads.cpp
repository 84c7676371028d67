#include "satellite/ArchiveThreads.h"

#include <atomic>
#include <map>

#include "diag/CBBLog.h"
#include "host/PThread.h"

namespace {

struct Bookkeeping {
    PCondMutex signal;  // guards both below; broadcast on every finish
    std::map<const KivRequestProxySatellite*, int> running KIV_GUARDED_BY(signal);  // threads per satellite
    int waiters KIV_GUARDED_BY(signal) = 0;                                         // threads in waitWhile
};

// Never destroyed: an archive thread may still finish while the process exits.
Bookkeeping& book() {
    static Bookkeeping* b = new Bookkeeping;
    return *b;
}

std::atomic<ArchiveThreads::Hook> s_beforeWrite{nullptr};
std::atomic<int> s_createZipWaitMs{5000};

}  // namespace

namespace ArchiveThreads {

void started(const KivRequestProxySatellite* owner) {
    PLockGuard lock(book().signal);
    ++book().running[owner];
}

void finished(const KivRequestProxySatellite* owner) {
    Bookkeeping& b = book();
    PLockGuard lock(b.signal);
    auto it = b.running.find(owner);
    if (it != b.running.end() && --it->second <= 0) b.running.erase(it);
    b.signal.broadcast();
}

bool waitWhile(const std::function<bool()>& stillWaiting, const struct timespec& deadline, bool* turnedAway) {
    Bookkeeping& b = book();
    PLockGuard lock(b.signal);
    *turnedAway = false;
    if (!stillWaiting()) return false;
    if (b.waiters >= kMaxWaiters) {
        *turnedAway = true;
        return true;
    }
    ++b.waiters;
    bool waiting = true;
    while ((waiting = stillWaiting())) {
        if (!b.signal.waitUntil(deadline)) {
            waiting = stillWaiting();
            break;
        }
    }
    --b.waiters;
    return waiting;
}

void wakeWaiters() {
    Bookkeeping& b = book();
    PLockGuard lock(b.signal);
    b.signal.broadcast();
}

int waiters() {
    Bookkeeping& b = book();
    PLockGuard lock(b.signal);
    return b.waiters;
}

void waitForAll(const KivRequestProxySatellite* owner) {
    Bookkeeping& b = book();
    PLockGuard lock(b.signal);
    auto it = b.running.find(owner);
    if (it == b.running.end()) return;
    CBBLog::info("Waiting for %d archives being written", it->second);
    while (b.running.count(owner)) b.signal.wait();
}

void setBeforeWriteHook(Hook hook) { s_beforeWrite.store(hook); }
Hook beforeWriteHook() { return s_beforeWrite.load(); }
void setCreateZipWaitMs(int milliseconds) { s_createZipWaitMs.store(milliseconds); }
int createZipWaitMs() { return s_createZipWaitMs.load(); }

}  // namespace ArchiveThreads
