#include "cab/internal/CabWorkerPool.h"

#include "cab/internal/CabLog.h"

CabWorkerPool::CabWorkerPool(int cap) : m_cap(cap < 1 ? 1 : cap) {}

CabWorkerPool::~CabWorkerPool() { stop(); }

bool CabWorkerPool::submit(std::function<void()> job) {
    {
        PLockGuard guard(m_lock);
        if (m_stopping) return false;
        m_jobs.push_back(std::move(job));
        // Each waiting thread takes one queued job when it wakes. A thread that
        // was signalled but has not woken yet still counts as waiting, so compare
        // with the queue rather than with the waiting count alone.
        if (m_jobs.size() > (size_t)m_idle) return startThreadLocked();
    }
    // Signalled after unlocking, so the woken thread does not block on the lock at once.
    m_lock.signal();
    return true;
}

bool CabWorkerPool::startThreadLocked() {
    if (m_threads.startedLocked() >= m_cap) return true;  // the job queues
    // If none starts, the job stays queued for an existing worker, if any.
    if (m_threads.startLocked(new PThreadDelegateMember<CabWorkerPool>(this, &CabWorkerPool::run)) ||
        m_threads.startedLocked() > 0)
        return true;
    m_jobs.pop_back();
    return false;
}

void* CabWorkerPool::run(void*) {
    m_lock.lock();
    for (;;) {
        while (m_jobs.empty() && !m_stopping) {
            ++m_idle;
            m_lock.wait();
            --m_idle;
        }
        if (m_jobs.empty()) break;  // stopping and nothing left
        std::function<void()> job = std::move(m_jobs.front());
        m_jobs.pop_front();
        m_lock.unlock();
        try {
            job();
        } catch (...) {
            cablog::log(LOGLEVEL_ERROR, "Worker job threw; ignored");
        }
        m_lock.lock();
    }
    m_threads.endedLocked();
    m_lock.unlock();
    return nullptr;
}

void CabWorkerPool::stop() {
    struct timespec never = {0, 0};
    stopUntil(never);
}

bool CabWorkerPool::stopUntil(const struct timespec& deadline) {
    std::vector<std::unique_ptr<PThread>> threads;
    {
        PLockGuard guard(m_lock);
        m_stopping = true;
        m_lock.broadcast();
        // The busy ones finish on their own; the pool must outlive them.
        if (!m_threads.waitEndedLocked(deadline, &threads)) return false;
    }
    for (auto& t : threads) t->join();
    return true;
}

int CabWorkerPool::liveCount() {
    PLockGuard guard(m_lock);
    return m_threads.liveLocked();
}

int CabWorkerPool::idleCount() {
    PLockGuard guard(m_lock);
    return m_idle;
}

int CabWorkerPool::threadCount() {
    PLockGuard guard(m_lock);
    return m_threads.startedLocked();
}
