// CabWorkerPool: runs jobs on worker threads. A job never waits for a free
// thread while fewer than `cap` threads exist: the pool starts a new one when
// none is idle; beyond the cap jobs queue in order. Idle threads stay for
// reuse. stop() lets running and queued jobs finish, then joins every thread;
// stopUntil() does the same but gives up at a deadline, leaving the threads
// still busy to finish on their own (the pool must then outlive them);
// submit() after either refuses the job (returns false).
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "cab/internal/CabThreadSet.h"
#include "host/PThread.h"

class CabWorkerPool {
public:
    explicit CabWorkerPool(int cap);
    ~CabWorkerPool();
    CabWorkerPool(const CabWorkerPool&) = delete;
    CabWorkerPool& operator=(const CabWorkerPool&) = delete;

    bool submit(std::function<void()> job);
    void stop();
    // True when every thread ended before `deadline` (CLOCK_REALTIME), and
    // then joined them; false when some were still busy.
    bool stopUntil(const struct timespec& deadline);
    // Threads still running (busy or idle).
    int liveCount();
    int threadCount();
    // Threads waiting for work.
    int idleCount();

private:
    void* run(void*);
    // Starts one more thread unless the cap is reached; false when the job
    // just queued can never run (no thread at all).
    bool startThreadLocked() KIV_REQUIRES(m_lock);

    const int m_cap;
    PCondMutex m_lock;  // guards everything below
    std::deque<std::function<void()>> m_jobs KIV_GUARDED_BY(m_lock);
    CabThreadSet m_threads KIV_GUARDED_BY(m_lock){m_lock, "Worker"};
    int m_idle KIV_GUARDED_BY(m_lock) = 0;
    bool m_stopping KIV_GUARDED_BY(m_lock) = false;
};
