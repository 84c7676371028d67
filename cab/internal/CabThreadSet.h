// CabThreadSet: the threads of a pool. It starts them, counts those whose
// run() has not returned, and at stop waits for them until a deadline, then
// joins them, or lets the busy ones finish on their own (the pool must then
// outlive them) and starts no thread after that.
// Every member needs the owner's lock, which is also the condition a thread's
// end is signalled on.
#pragma once

#include <ctime>
#include <memory>
#include <vector>

#include "host/PThread.h"
#include "host/ThreadAnnotations.h"

class CabThreadSet {
public:
    // `what` names the threads in the log ("Service", "Worker").
    CabThreadSet(PCondMutex& lock, const char* what) : m_lock(lock), m_what(what) {}

    // Starts a thread running `run` (taken over). False, and logged, when it
    // cannot start or the set gave up at a stop.
    bool startLocked(PThreadDelegateGeneric* run);
    // The last thing a thread's run() does, under the lock.
    void endedLocked();
    // Waits, releasing the lock meanwhile, until every thread has ended or
    // `deadline` (CLOCK_REALTIME; {0,0}: none) has passed. When all ended,
    // hands them over in *toJoin (join them without the lock) and is true;
    // else forgets them unjoined (a PThread destroyed unjoined detaches its
    // thread) and is false.
    // (The analysis cannot tell that the caller holds m_lock: it knows the
    // lock by the owner's name; the owner's field is guarded by it instead.)
    bool waitEndedLocked(const struct timespec& deadline,
                         std::vector<std::unique_ptr<PThread>>* toJoin) KIV_NO_THREAD_SAFETY_ANALYSIS;

    int startedLocked() const { return (int)m_threads.size(); }
    int liveLocked() const { return m_live; }

private:
    PCondMutex& m_lock;
    const char* const m_what;
    // All three guarded by m_lock, the owner's.
    std::vector<std::unique_ptr<PThread>> m_threads;
    int m_live = 0;         // threads whose run() has not returned
    bool m_gaveUp = false;  // waitEndedLocked left threads running
};
