#include "cab/CabWorkerPool.h"

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
    if ((int)m_threads.size() >= m_cap) return true;  // the job queues
    std::unique_ptr<PThread> t(new PThread);
    try {
        ++m_live;  // before the thread can run (and end)
        t->init(nullptr, new PThreadDelegateMember<CabWorkerPool>(this, &CabWorkerPool::run), nullptr);
        m_threads.push_back(std::move(t));
    } catch (const std::exception& e) {
        --m_live;
        // The job stays queued; an existing worker picks it up.
        cablog::log(LOGLEVEL_ERROR, "Worker thread not started (%s); %d running", e.what(), (int)m_threads.size());
        if (m_threads.empty()) {
            m_jobs.pop_back();
            return false;
        }
    }
    return true;
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
    --m_live;
    m_lock.broadcast();  // stopUntil waits for the last one
    m_lock.unlock();
    return nullptr;
}

void CabWorkerPool::stop() {
    struct timespec never = {0, 0};
    stopUntil(never);
}

bool CabWorkerPool::stopUntil(const struct timespec& deadline) {
    bool forever = deadline.tv_sec == 0 && deadline.tv_nsec == 0;
    std::vector<std::unique_ptr<PThread>> threads;
    {
        PLockGuard guard(m_lock);
        m_stopping = true;
        m_lock.broadcast();
        while (m_live > 0) {
            if (forever) m_lock.wait();
            else if (!m_lock.waitUntil(deadline)) break;
        }
        if (m_live > 0) {
            // The busy ones finish on their own: a PThread destroyed unjoined
            // detaches its thread.
            m_threads.clear();
            return false;
        }
        threads.swap(m_threads);
    }
    for (auto& t : threads) t->join();
    return true;
}

int CabWorkerPool::liveCount() {
    PLockGuard guard(m_lock);
    return m_live;
}

int CabWorkerPool::idleCount() {
    PLockGuard guard(m_lock);
    return m_idle;
}

int CabWorkerPool::threadCount() {
    PLockGuard guard(m_lock);
    return (int)m_threads.size();
}
