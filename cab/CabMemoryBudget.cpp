#include "cab/CabMemoryBudget.h"

#include <utility>

#include "value/Cab1.h"
#include "cab/CabInline.h"

namespace {

// The request the current thread works for; owned by that thread alone.
thread_local CabMemoryLedger* t_ledger = nullptr;

std::string callerName(const std::string& caller) {
    return caller.empty() ? std::string("unknown callers") : "caller " + caller;
}

}  // namespace

// ---- reservations

CabMemoryBudget::Reservation::Reservation(Reservation&& other) noexcept
    : m_budget(std::move(other.m_budget)), m_caller(std::move(other.m_caller)), m_bytes(other.m_bytes) {
    other.m_bytes = 0;
    other.m_budget.reset();
}

CabMemoryBudget::Reservation& CabMemoryBudget::Reservation::operator=(Reservation&& other) noexcept {
    if (this != &other) {
        release();
        m_budget = std::move(other.m_budget);
        m_caller = std::move(other.m_caller);
        m_bytes = other.m_bytes;
        other.m_bytes = 0;
        other.m_budget.reset();
    }
    return *this;
}

bool CabMemoryBudget::Reservation::grow(uint64_t more, std::string* why) {
    if (!more) return true;
    if (!m_budget) {
        if (why) *why = "no memory budget";
        return false;
    }
    if (!m_budget->take(m_caller, more, why)) return false;
    m_bytes += more;
    return true;
}

bool CabMemoryBudget::Reservation::growAlone(uint64_t more, std::string* why) {
    if (!more) return true;
    if (!m_budget) return grow(more, why);
    if (!m_budget->take(m_caller, more, why, true, m_bytes)) return false;
    m_bytes += more;
    return true;
}

void CabMemoryBudget::Reservation::shrinkTo(uint64_t bytes) {
    if (bytes >= m_bytes) return;
    if (m_budget) m_budget->give(m_caller, m_bytes - bytes);
    m_bytes = bytes;
}

// ---- the budget

CabMemoryBudget::Reservation CabMemoryBudget::forCurrentCaller() {
    Reservation r;
    r.m_budget = shared_from_this();
    r.m_caller = CabCurrentCaller();
    return r;
}

void CabMemoryBudget::setLimit(uint64_t limit) {
    PLockGuard guard(m_lock);
    m_limit = limit;
}

uint64_t CabMemoryBudget::limit() const {
    PLockGuard guard(m_lock);
    return m_limit;
}

uint64_t CabMemoryBudget::held() const {
    PLockGuard guard(m_lock);
    return m_held;
}

uint64_t CabMemoryBudget::heldBy(const std::string& caller) const {
    PLockGuard guard(m_lock);
    auto it = m_byCaller.find(caller);
    return it == m_byCaller.end() ? 0 : it->second;
}

uint64_t CabMemoryBudget::peak() const {
    PLockGuard guard(m_lock);
    return m_peak;
}

void CabMemoryBudget::resetPeak() {
    PLockGuard guard(m_lock);
    m_peak = m_held;
}

bool CabMemoryBudget::take(const std::string& caller, uint64_t bytes, std::string* why, bool alone, uint64_t own) {
    PLockGuard guard(m_lock);
    auto it = m_byCaller.find(caller);
    const uint64_t mine = it == m_byCaller.end() ? 0 : it->second;
    const uint64_t holders = m_byCaller.size() + (it == m_byCaller.end() ? 1 : 0);
    const uint64_t share = m_limit / (holders + 1);
    // With `alone` and nothing else held, granted whatever the limit and the share.
    if (alone && m_held == own) {
    } else if (bytes > m_limit || m_held + bytes > m_limit) {
        if (why)
            *why = std::to_string(bytes) + " bytes more would pass the " + std::to_string(m_limit) +
                   " bytes that answers may hold (" + std::to_string(m_held) + " held)";
        return false;
    } else if (mine + bytes > share) {
        if (why)
            *why = std::to_string(bytes) + " bytes more would pass the share of " + callerName(caller) + ": " +
                   std::to_string(share) + " bytes while " + std::to_string(holders) + " hold memory (" +
                   std::to_string(mine) + " held)";
        return false;
    }
    m_byCaller[caller] = mine + bytes;
    m_held += bytes;
    if (m_held > m_peak) m_peak = m_held;
    return true;
}

void CabMemoryBudget::give(const std::string& caller, uint64_t bytes) {
    PLockGuard guard(m_lock);
    auto it = m_byCaller.find(caller);
    if (it == m_byCaller.end()) return;
    const uint64_t back = bytes < it->second ? bytes : it->second;
    it->second -= back;
    m_held -= back;
    if (!it->second) m_byCaller.erase(it);
}

// ---- ledgers

CabMemoryLedger::CabMemoryLedger(const std::shared_ptr<CabMemoryBudget>& budget)
    : m_parent(nullptr), m_held(budget->forCurrentCaller()) {}

CabMemoryLedger::CabMemoryLedger(CabMemoryLedger* parent) : m_parent(parent) {}

bool CabMemoryLedger::reserve(uint64_t bytes, std::string* why) {
    if (m_parent) {
        if (!m_parent->reserve(bytes, why)) return false;
    } else {
        PLockGuard guard(m_lock);
        if (!m_held.grow(bytes, why)) return false;
    }
    m_counted += bytes;
    return true;
}

CabMemoryBudget::Reservation CabMemoryLedger::take() {
    PLockGuard guard(m_lock);
    return std::move(m_held);
}

CabMemoryLedger* CabCurrentLedger() { return t_ledger; }

CabLedgerScope::CabLedgerScope(CabMemoryLedger* ledger) : m_saved(t_ledger) { t_ledger = ledger; }

CabLedgerScope::~CabLedgerScope() { t_ledger = m_saved; }

bool CabReserveAnswerMemory(uint64_t bytes, std::string* why) { return !t_ledger || t_ledger->reserve(bytes, why); }

uint64_t cabAnswerBytes(const tagVARIANT& v) {
    if (v.vt == VT_EMPTY) return 0;
    Cab1Encoding enc(v);
    return enc.ok() ? enc.size() : 0;
}
