#include "satellite/ArchiveThreads.h"

#include <atomic>
#include <map>

#include "diag/CBBLog.h"
#include "host/PThread.h"

namespace {

struct Bookkeeping {
    PCondMutex signal;                                        // guards running; broadcast on every finish
    std::map<const KivRequestProxySatellite*, int> running;  // threads per satellite
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

bool waitWhile(const std::function<bool()>& stillWaiting, const struct timespec& deadline) {
    Bookkeeping& b = book();
    PLockGuard lock(b.signal);
    while (stillWaiting()) {
        if (!b.signal.waitUntil(deadline)) return stillWaiting();
    }
    return false;
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
