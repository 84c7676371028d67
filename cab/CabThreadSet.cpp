#include "cab/internal/CabThreadSet.h"

#include "cab/internal/CabLog.h"

bool CabThreadSet::startLocked(PThreadDelegateGeneric* run) {
    if (m_gaveUp) {
        delete run;
        return false;
    }
    std::unique_ptr<PThread> t(new PThread);
    try {
        ++m_live;  // before the thread can run (and end)
        t->init(nullptr, run, nullptr);
        m_threads.push_back(std::move(t));
    } catch (const std::exception& e) {
        --m_live;
        cablog::log(LOGLEVEL_ERROR, "%s thread not started (%s); %d running", m_what, e.what(), (int)m_threads.size());
        return false;
    }
    return true;
}

void CabThreadSet::endedLocked() {
    --m_live;
    m_lock.broadcast();  // waitEndedLocked waits for the last one
}

bool CabThreadSet::waitEndedLocked(const struct timespec& deadline, std::vector<std::unique_ptr<PThread>>* toJoin) {
    bool forever = deadline.tv_sec == 0 && deadline.tv_nsec == 0;
    while (m_live > 0) {
        if (forever) m_lock.wait();
        else if (!m_lock.waitUntil(deadline)) break;
    }
    if (m_live > 0) {
        m_threads.clear();
        m_gaveUp = true;
        return false;
    }
    toJoin->swap(m_threads);
    return true;
}
