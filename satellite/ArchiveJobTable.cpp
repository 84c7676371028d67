#include "satellite/ArchiveJobTable.h"

#include <algorithm>

#include "satellite/ArchiveJob.h"
#include "satellite/ArchiveLeftovers.h"
#include "satellite/ArchiveThreads.h"

ArchiveJobTable::ArchiveJobTable() { ArchiveLeftovers::cleanUp(); }

void ArchiveJobTable::forgetFailure(const CStdStr& path) {
    if (!m_failures.erase(path)) return;
    auto it = std::find(m_failureOrder.begin(), m_failureOrder.end(), path);
    if (it != m_failureOrder.end()) m_failureOrder.erase(it);
}

void ArchiveJobTable::forgetMade(const CStdStr& path) {
    if (!m_made.erase(path)) return;
    auto it = std::find(m_madeOrder.begin(), m_madeOrder.end(), path);
    if (it != m_madeOrder.end()) m_madeOrder.erase(it);
}

void ArchiveJobTable::add(TCreateZipThreadData* record) {
    PLockGuard lock(m_lock);
    if (m_stopping) record->abandon = true;
    m_running[record->zipPath] = record;
    // A path of a failed archive may be handed out again: the new one starts clean.
    forgetFailure(record->zipPath);
    forgetMade(record->zipPath);
}

void ArchiveJobTable::makePending(TCreateZipThreadData* record) {
    PLockGuard lock(m_lock);
    m_pending[record->zipPath] = record;
}

void ArchiveJobTable::complete(TCreateZipThreadData* record, const TempEntryId& made) {
    PLockGuard lock(m_lock);
    if (!m_made.count(record->zipPath)) m_madeOrder.push_back(record->zipPath);
    m_made[record->zipPath] = made;
    if (m_madeOrder.size() > kMaxMade) {
        m_made.erase(m_madeOrder.front());
        m_madeOrder.pop_front();
    }
}

void ArchiveJobTable::finish(TCreateZipThreadData* record, const CStdStr& error) {
    PLockGuard lock(m_lock);
    auto running = m_running.find(record->zipPath);
    if (running != m_running.end() && running->second == record) m_running.erase(running);
    auto pending = m_pending.find(record->zipPath);
    if (pending != m_pending.end() && pending->second == record) m_pending.erase(pending);
    if (error.empty() || m_failures.count(record->zipPath)) return;
    m_failures[record->zipPath] = error;
    m_failureOrder.push_back(record->zipPath);
    if (m_failureOrder.size() > kMaxFailures) {
        m_failures.erase(m_failureOrder.front());
        m_failureOrder.pop_front();
    }
}

bool ArchiveJobTable::pending(const CStdStr& path) const {
    PLockGuard lock(m_lock);
    return m_pending.count(path) != 0;
}

CStdStr ArchiveJobTable::failure(const CStdStr& path) const {
    PLockGuard lock(m_lock);
    auto it = m_failures.find(path);
    return it == m_failures.end() ? CStdStr() : it->second;
}

bool ArchiveJobTable::made(const CStdStr& path, TempEntryId* id) const {
    PLockGuard lock(m_lock);
    auto it = m_made.find(path);
    if (it == m_made.end()) return false;
    *id = it->second;
    return true;
}

bool ArchiveJobTable::stopping() const {
    PLockGuard lock(m_lock);
    return m_stopping;
}

bool ArchiveJobTable::discard(const CStdStr& path) {
    PLockGuard lock(m_lock);
    forgetFailure(path);
    forgetMade(path);
    auto it = m_running.find(path);
    if (it == m_running.end()) return false;
    // Still pending until its thread finishes: reads keep waiting, then see the failure.
    it->second->abandon = true;
    return true;
}

void ArchiveJobTable::abandonAll() {
    {
        PLockGuard lock(m_lock);
        m_stopping = true;
        for (auto& entry : m_running) entry.second->abandon = true;
    }
    // Readers waiting for an archive stop waiting (after m_lock: the lock order).
    ArchiveThreads::wakeWaiters();
}
