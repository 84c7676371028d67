// CabMemoryBudget: one bound on the memory that a satellite's answers hold,
// shared fairly between the directory users it serves.
//
// Promises:
// - Everything reserved and not yet released stays within limit(): a
//   reservation that would pass it is refused, nothing changes and the
//   caller is told why (it answers CAB_E_BUSY). The one exception,
//   growAlone(), is for an answer already built that would be all the
//   budget holds.
// - A share per caller: a caller (CabCurrentCaller(), the directory user of
//   the request being served; all unknown callers are the one caller "") may
//   hold at most limit / (N + 1), where N counts the callers holding memory,
//   itself included. So a caller alone holds at most half, and however many
//   hold memory there is always room left for one more: one caller sending
//   requests it never takes cannot keep the others out. A caller whose share
//   shrinks because others arrived keeps what it holds but cannot grow until
//   it is back under its share.
// - Reservations free themselves (RAII) and may move from holder to holder.
//
// CabMemoryLedger collects what one served request reserves while its answer
// is built: on its own thread, in the inline calls it makes and on the helper
// threads working for it (CabLedgerScope). Its reservation is handed to the
// answer (CabTransfers) and freed when the answer is sent or abandoned, so an
// answer's memory is counted from before it is allocated until it is gone.
// Memory a handler frees early is counted on until then: the count errs on
// the safe side.
//
// Locks: CabMemoryBudget::m_lock guards its counts; a ledger's m_lock guards
// its reservation. A Reservation itself is not thread-safe: one holder at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "value/Variant.h"
#include "host/PThread.h"

class CabMemoryBudget : public std::enable_shared_from_this<CabMemoryBudget> {
public:
    class Reservation {
    public:
        Reservation() = default;
        Reservation(Reservation&& other) noexcept;
        Reservation& operator=(Reservation&& other) noexcept;
        ~Reservation() { release(); }
        Reservation(const Reservation&) = delete;
        Reservation& operator=(const Reservation&) = delete;

        // Adds `more` bytes when the budget and the caller's share allow it;
        // otherwise false with *why (may be null), and nothing changes.
        bool grow(uint64_t more, std::string* why);
        // As grow, but also granted past the limit and the share when this
        // reservation would be all the budget holds: for an answer already
        // built, which refusing would not keep from being allocated.
        bool growAlone(uint64_t more, std::string* why);
        // Gives back what is held above `bytes`.
        void shrinkTo(uint64_t bytes);
        void release() { shrinkTo(0); }
        uint64_t bytes() const { return m_bytes; }
        bool bound() const { return m_budget != nullptr; }

    private:
        friend class CabMemoryBudget;
        std::shared_ptr<CabMemoryBudget> m_budget;
        std::string m_caller;
        uint64_t m_bytes = 0;
    };

    explicit CabMemoryBudget(uint64_t limit) : m_limit(limit) {}
    CabMemoryBudget(const CabMemoryBudget&) = delete;
    CabMemoryBudget& operator=(const CabMemoryBudget&) = delete;

    // An empty reservation on behalf of the calling thread's caller.
    Reservation forCurrentCaller();
    void setLimit(uint64_t limit);
    uint64_t limit() const;
    uint64_t held() const;
    uint64_t heldBy(const std::string& caller) const;
    // The most held at once since the last resetPeak().
    uint64_t peak() const;
    void resetPeak();

private:
    // `alone`: granted anyway when the reservation already holding `own`
    // bytes holds everything held.
    bool take(const std::string& caller, uint64_t bytes, std::string* why, bool alone = false, uint64_t own = 0);
    void give(const std::string& caller, uint64_t bytes);

    mutable PMutex m_lock;  // guards the four below
    uint64_t m_limit KIV_GUARDED_BY(m_lock);
    uint64_t m_held KIV_GUARDED_BY(m_lock) = 0;
    uint64_t m_peak KIV_GUARDED_BY(m_lock) = 0;
    std::map<std::string, uint64_t> m_byCaller KIV_GUARDED_BY(m_lock);  // only callers holding memory
};

class CabMemoryLedger {
public:
    // A ledger of its own, for the calling thread's caller: it holds what is
    // reserved through it (and its children) until it goes or take() hands it on.
    explicit CabMemoryLedger(const std::shared_ptr<CabMemoryBudget>& budget);
    // A ledger of one call inside `parent`: reservations are held by the
    // parent, this one only counts them.
    explicit CabMemoryLedger(CabMemoryLedger* parent);
    CabMemoryLedger(const CabMemoryLedger&) = delete;
    CabMemoryLedger& operator=(const CabMemoryLedger&) = delete;

    // Thread-safe. False with *why when past the budget or the caller's share.
    bool reserve(uint64_t bytes, std::string* why);
    // Bytes reserved through this ledger and its children.
    uint64_t counted() const { return m_counted.load(); }
    // The reservation this ledger holds (an empty one for a child); the
    // ledger holds nothing afterwards.
    CabMemoryBudget::Reservation take();

private:
    CabMemoryLedger* const m_parent;
    std::atomic<uint64_t> m_counted{0};                          // lock-free: only ever added to
    PMutex m_lock;                                               // guards m_held
    CabMemoryBudget::Reservation m_held KIV_GUARDED_BY(m_lock);  // a ledger of its own only
};

// The ledger of the request the calling thread works for; null when none.
CabMemoryLedger* CabCurrentLedger();

// Sets the calling thread's ledger for the scope's lifetime (helper threads
// of a handler take over the handler thread's).
class CabLedgerScope {
public:
    explicit CabLedgerScope(CabMemoryLedger* ledger);
    ~CabLedgerScope();
    CabLedgerScope(const CabLedgerScope&) = delete;
    CabLedgerScope& operator=(const CabLedgerScope&) = delete;

private:
    CabMemoryLedger* m_saved;
};

// For handlers: reserves `bytes` for the answer of the request the calling
// thread serves, before allocating them. False with *why when that would pass
// the budget or the caller's share (then allocate nothing and answer
// CAB_E_BUSY). True, without counting, on a thread that serves no request.
bool CabReserveAnswerMemory(uint64_t bytes, std::string* why);

// The memory an answer of this value holds, as its CAB1 encoding counts it.
uint64_t cabAnswerBytes(const tagVARIANT& v);
