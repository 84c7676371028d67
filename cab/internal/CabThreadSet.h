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
    bool waitEndedLocked(const struct timespec& deadline, std::vector<std::unique_ptr<PThread>>* toJoin);

    int startedLocked() const { return (int)m_threads.size(); }
    int liveLocked() const { return m_live; }

private:
    PCondMutex& m_lock;
    const char* const m_what;
    std::vector<std::unique_ptr<PThread>> m_threads;  // m_lock
    int m_live = 0;                                   // m_lock: threads whose run() has not returned
    bool m_gaveUp = false;                            // m_lock: waitEndedLocked left threads running
};
