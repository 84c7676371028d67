// CabTransfers: sends the answers of one satellite. An answer that fits in one
// message goes at once. A larger one goes in parts under credit: the first
// window of parts is sent by the caller, the rest by a worker job each time
// the requester grants credit, so no thread waits for a slow or vanished
// requester. Promises:
// - a transfer with no credit for `creditTimeoutMs` is abandoned and its
//   memory (the answer, or the open file) freed; so is one whose requester
//   cancels it or whose connection is lost (then the requester gets an
//   empty part with CAB_E_CONNECTION_LOST through the next server);
// - a transfer whose requester trickles credit is ended too: in every period
//   of `creditTimeoutMs` the requester must take at least `minBytesPerSecond`
//   times the period (or the whole rest of the answer), else it gets an
//   empty part with CAB_E_TIMEOUT and the answer is freed (0: no such bound);
// - a transfer holds its answer's memory in the satellite's memory budget
//   (cab/CabMemoryBudget.h) from the reservation its handler made, grown to
//   what the answer holds while it waits; an answer that does not fit in the
//   budget or its caller's share is refused with CAB_E_BUSY;
// - abandonAll() (and the destructor) ends every transfer at once.
// Held by a shared pointer (its callbacks keep weak ones). All members are
// thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "cab/internal/CabAnswerSource.h"
#include "cab/CabConnection.h"
#include "cab/CabMemoryBudget.h"
#include "cab/internal/CabWorkerPool.h"
#include "host/PThread.h"

class CabTransfers : public std::enable_shared_from_this<CabTransfers> {
public:
    // Answers in parts go out on `parts` (every message of them, in order),
    // so that answers of one message never queue behind their bytes; null:
    // on `conn` too. Credit always comes in on `conn`.
    CabTransfers(std::shared_ptr<CabConnection> conn, std::shared_ptr<CabWorkerPool> pool, int creditTimeoutMs,
                 uint64_t minBytesPerSecond, std::shared_ptr<CabMemoryBudget> budget,
                 std::shared_ptr<CabConnection> parts = nullptr);
    ~CabTransfers();
    CabTransfers(const CabTransfers&) = delete;
    CabTransfers& operator=(const CabTransfers&) = delete;

    // Sends an answer to `replyTo`; `answer` may be null (no output). `held`
    // is what the handler reserved for it (freed once the answer is gone); an
    // unbound one stands for the calling thread's caller.
    void send(const std::string& replyTo, int status, const std::string& error, int errorCode,
              std::unique_ptr<CabAnswerSource> answer, CabMemoryBudget::Reservation held = {});
    // Ends every transfer still waiting for credit; logs `why` for each.
    void abandonAll(const char* why);

    // Transfers waiting for credit.
    size_t active();

private:
    struct Transfer;
    void pump(const std::shared_ptr<Transfer>& t);
    void onCredit(const std::shared_ptr<Transfer>& t, natsMsg* msg, int failure);
    // After our server was lost: tells the requester, through the next
    // server, that the answer ends with CAB_E_CONNECTION_LOST.
    void tellConnectionLost(const std::shared_ptr<Transfer>& t);
    // Removes t from the table (once) and frees what it holds. With a
    // `tellStatus`, the requester gets an empty part saying so and why.
    void finish(const std::shared_ptr<Transfer>& t, const std::string& why, int tellStatus = 0);
    void* sweep(void*);

    const std::shared_ptr<CabConnection> m_conn;
    const std::shared_ptr<CabConnection> m_parts;  // m_conn, or a connection of their own
    const std::weak_ptr<CabWorkerPool> m_pool;
    const int m_creditTimeoutMs;
    const uint64_t m_minBytesPerSecond;
    const std::shared_ptr<CabMemoryBudget> m_budget;

    PCondMutex m_lock;                                                              // guards the three below
    std::map<uint64_t, std::shared_ptr<Transfer>> m_active KIV_GUARDED_BY(m_lock);  // by mailbox token
    bool m_stopping KIV_GUARDED_BY(m_lock) = false;
    std::unique_ptr<PThread> m_sweeper KIV_GUARDED_BY(m_lock);  // started with the first transfer
};
