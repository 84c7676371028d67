#include "cab/internal/CabTransfers.h"

#include <time.h>

#include <algorithm>
#include <vector>

#include "cab/internal/CabLog.h"
#include "cab/CabStatus.h"
#include "cab/internal/CabWire.h"
#include "cab/internal/ZeroBytes.h"

namespace {

int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Header values cannot hold line breaks.
std::string headerSafe(const std::string& s) {
    std::string r = s;
    for (char& c : r)
        if (c == '\r' || c == '\n') c = ' ';
    return r;
}

natsMsg* makeMsg(const std::string& subject, const char* data, size_t len) {
    natsMsg* m = nullptr;
    if (natsMsg_Create(&m, subject.c_str(), nullptr, data, (int)len) != NATS_OK) return nullptr;
    return m;
}

// A message carrying bytes [offset, offset + len) of the answer. A range in
// one stretch of memory goes straight from there; any other is read into the
// new message's own payload, so no buffer of the range is allocated on the
// side. Null with *error when the bytes cannot be read.
natsMsg* makeMsg(const std::string& subject, CabAnswerSource* src, uint64_t offset, size_t len, std::string* error) {
    if (!len) return makeMsg(subject, "", 0);
    if (const char* in = src->span(offset, len)) return makeMsg(subject, in, len);
    const char* zeros = cabZeroBytes(len);
    if (!zeros) {
        std::unique_ptr<char[]> buf(new char[len]);  // not zero-filled: every byte is overwritten
        if (!src->read(offset, buf.get(), len, error)) return nullptr;
        return makeMsg(subject, buf.get(), len);
    }
    natsMsg* m = makeMsg(subject, zeros, len);
    // The payload is the message's own block, written before it is published.
    if (m && !src->read(offset, const_cast<char*>(natsMsg_GetData(m)), len, error)) {
        cabwire::destroy(m);
        return nullptr;
    }
    if (!m) *error = "message not created";
    return m;
}

void setStatusHeaders(natsMsg* m, int status, const std::string& error, int errorCode) {
    natsMsgHeader_Set(m, cabwire::kStatus, std::to_string(status).c_str());
    if (!error.empty()) natsMsgHeader_Set(m, cabwire::kError, headerSafe(error).c_str());
    if (status == CAB_E_HANDLER_EXCEPTION) natsMsgHeader_Set(m, cabwire::kErrorCode, std::to_string(errorCode).c_str());
}

// The status of an answer whose bytes could not be read after the handler
// succeeded (a file that shrank): the handler's own "failed" status.
const int kUnreadableAnswer = 1;

}  // namespace

struct CabTransfers::Transfer {
    std::string replyTo;
    std::string creditTo;
    uint64_t token = 0;
    std::unique_ptr<CabAnswerSource> src;  // read only by the one pump running (see `pumping`)
    uint64_t total = 0;
    uint64_t part = 0;
    uint64_t parts = 0;
    int64_t window = 0;
    CabMemoryBudget::Reservation held;  // touched by send() before the transfer is shared, then by finish() once
    int status = 0;
    std::string error;
    int errorCode = 0;

    PMutex lock;                                            // guards the seven below
    uint64_t next KIV_GUARDED_BY(lock) = 0;                 // the next part to send
    uint64_t received KIV_GUARDED_BY(lock) = 0;             // parts the requester has consumed
    bool pumping KIV_GUARDED_BY(lock) = false;              // a pump is sending parts
    bool done KIV_GUARDED_BY(lock) = false;                 // finished, cancelled or abandoned
    int64_t idleSinceMs KIV_GUARDED_BY(lock) = 0;           // when it last sent or got credit
    int64_t periodStartMs KIV_GUARDED_BY(lock) = 0;         // when the current period of the rate bound began
    uint64_t periodStartReceived KIV_GUARDED_BY(lock) = 0;  // `received` then
};

CabTransfers::CabTransfers(std::shared_ptr<CabConnection> conn, std::shared_ptr<CabWorkerPool> pool,
                           int creditTimeoutMs, uint64_t minBytesPerSecond, std::shared_ptr<CabMemoryBudget> budget,
                           std::shared_ptr<CabConnection> parts)
    : m_conn(std::move(conn)),
      m_parts(parts ? std::move(parts) : m_conn),
      m_pool(pool),
      m_creditTimeoutMs(creditTimeoutMs > 0 ? creditTimeoutMs : 30000),
      m_minBytesPerSecond(minBytesPerSecond),
      m_budget(std::move(budget)) {}

CabTransfers::~CabTransfers() {
    abandonAll("the satellite is leaving");
    std::unique_ptr<PThread> sweeper;
    {
        PLockGuard guard(m_lock);
        sweeper.swap(m_sweeper);
    }
    if (sweeper) sweeper->join();
}

size_t CabTransfers::active() {
    PLockGuard guard(m_lock);
    return m_active.size();
}

void CabTransfers::send(const std::string& replyTo, int status, const std::string& errorIn, int errorCode,
                        std::unique_ptr<CabAnswerSource> answer, CabMemoryBudget::Reservation held) {
    std::string error = errorIn;
    uint64_t total = answer ? answer->size() : 0;
    if (total > cabwire::kMaxReply) {
        status = CAB_E_TOO_LARGE;
        error = "answer of " + std::to_string(total) + " bytes is larger than 4 GiB";
        cablog::log(LOGLEVEL_ERROR, "Answer to %s refused: %s", replyTo.c_str(), error.c_str());
        answer.reset();
        total = 0;
    }
    if (total <= cabwire::messageRoom(m_conn->maxPayload())) {
        std::string why;
        natsMsg* m = answer ? makeMsg(replyTo, answer.get(), 0, (size_t)total, &why) : makeMsg(replyTo, "", 0);
        if (!m && answer) {
            cablog::log(LOGLEVEL_ERROR, "Answer to %s failed: %s", replyTo.c_str(), why.c_str());
            status = kUnreadableAnswer;
            error = why;
            m = makeMsg(replyTo, "", 0);
        }
        if (!m) return;
        setStatusHeaders(m, status, error, errorCode);
        if (m_conn->publishMsg(m) != 0)
            cablog::log(LOGLEVEL_WARN, "Answer to %s not sent: %s", replyTo.c_str(), CabGetLastError().c_str());
        cabwire::destroy(m);
        return;
    }

    auto t = std::make_shared<Transfer>();
    t->replyTo = replyTo;
    t->total = total;
    t->part = cabwire::partSize(m_conn->maxPayload());
    t->parts = (total + t->part - 1) / t->part;
    t->part = (t->total + t->parts - 1) / t->parts;  // equal parts: no small tail message
    t->window = cabwire::windowParts((size_t)t->part);
    t->src = std::move(answer);
    t->status = status;
    t->error = error;
    t->errorCode = errorCode;
    {
        PLockGuard fresh(t->lock);  // nobody else sees t yet: taken for the check's sake
        t->idleSinceMs = nowMs();
        t->periodStartMs = t->idleSinceMs;
    }

    std::string refusal;
    int refusalStatus = 0;
    {
        PLockGuard guard(m_lock);
        if (m_stopping) {
            refusalStatus = CAB_E_CANCELLED;
            refusal = "the satellite is leaving";
        }
    }
    if (!refusalStatus) {
        // What the answer holds while it waits: more than its handler
        // reserved must fit in the budget; less gives the rest back. An
        // answer that would be all the budget holds always goes, so that one
        // answer of up to 4 GiB can be sent whatever the limit.
        if (!held.bound() && m_budget) held = m_budget->forCurrentCaller();
        const uint64_t want = t->src->heldBytes();
        std::string why;
        if (held.bytes() >= want) {
            held.shrinkTo(want);
        } else if (!held.growAlone(want - held.bytes(), &why)) {
            refusalStatus = CAB_E_BUSY;
            refusal = "an answer of " + std::to_string(total) + " bytes does not fit: " + why;
        }
        t->held = std::move(held);
    }
    if (refusalStatus) {
        cablog::log(LOGLEVEL_WARN, "Answer to %s refused: %s", replyTo.c_str(), refusal.c_str());
        t->src.reset();
        t->held.release();
        send(replyTo, refusalStatus, refusal, 0, nullptr);
        return;
    }

    std::weak_ptr<CabTransfers> wself = shared_from_this();
    m_conn->openMailbox(&t->creditTo, &t->token, std::string(), [wself, t](natsMsg* msg, int failure) {
        std::shared_ptr<CabTransfers> self = wself.lock();
        if (self) {
            self->onCredit(t, msg, failure);
        } else if (msg) {
            cabwire::destroy(msg);
        }
    });
    {
        PLockGuard guard(m_lock);
        m_active[t->token] = t;
        if (!m_sweeper) {
            m_sweeper.reset(new PThread);
            try {
                m_sweeper->init(nullptr, new PThreadDelegateMember<CabTransfers>(this, &CabTransfers::sweep), nullptr);
            } catch (const std::exception& e) {
                // Transfers still end when they complete, are cancelled or the satellite leaves.
                cablog::log(LOGLEVEL_ERROR, "Transfer time-outs not watched: %s", e.what());
                m_sweeper.reset();
            }
        }
    }
    pump(t);
}

void CabTransfers::pump(const std::shared_ptr<Transfer>& t) {
    {
        PLockGuard guard(t->lock);
        if (t->pumping || t->done) return;
        t->pumping = true;
    }
    bool complete = false;
    for (;;) {
        uint64_t i;
        {
            PLockGuard guard(t->lock);
            if (t->done || t->next >= t->parts || (int64_t)(t->next - t->received) >= t->window) {
                t->pumping = false;
                t->idleSinceMs = nowMs();
                complete = !t->done && t->next >= t->parts;
                break;
            }
            i = t->next++;
        }
        uint64_t off = i * t->part;
        size_t len = (size_t)std::min<uint64_t>(t->part, t->total - off);
        std::string why;
        natsMsg* m = makeMsg(t->replyTo, t->src.get(), off, len, &why);
        if (!m) {
            // The requester would otherwise wait out its time-out: an empty
            // part tells it at once that the answer ends here.
            m = makeMsg(t->replyTo, "", 0);
            if (m) {
                setStatusHeaders(m, kUnreadableAnswer, why, 0);
                natsMsgHeader_Set(m, cabwire::kPart, std::to_string(i).c_str());
                m_parts->publishMsg(m);
                cabwire::destroy(m);
            }
            {
                PLockGuard guard(t->lock);
                t->pumping = false;
            }
            finish(t, "stopped at part " + std::to_string(i) + ": " + why);
            return;
        }
        if (i == 0) {
            setStatusHeaders(m, t->status, t->error, t->errorCode);
            natsMsgHeader_Set(m, cabwire::kSize, std::to_string(t->total).c_str());
            natsMsgHeader_Set(m, cabwire::kParts, std::to_string(t->parts).c_str());
            natsMsgHeader_Set(m, cabwire::kCreditTo, t->creditTo.c_str());
            natsMsgHeader_Set(m, cabwire::kWindow, std::to_string(t->window).c_str());
        }
        natsMsgHeader_Set(m, cabwire::kPart, std::to_string(i).c_str());
        int rc = m_parts->publishMsg(m);
        cabwire::destroy(m);
        if (rc != 0) {
            {
                PLockGuard guard(t->lock);
                t->pumping = false;
            }
            // A write that failed because our server went away: the loss of
            // the connection, reported a moment later, ends the transfer and
            // tells the requester (onCredit); the credit time-out is the net.
            if (rc == CAB_E_CONNECTION_LOST) return;
            finish(t, "stopped at part " + std::to_string(i) + ": " + CabGetLastError());
            return;
        }
    }
    if (complete) finish(t, std::string());
}

void CabTransfers::onCredit(const std::shared_ptr<Transfer>& t, natsMsg* msg, int failure) {
    if (!msg) {
        if (failure == CAB_E_CONNECTION_LOST) tellConnectionLost(t);
        finish(t, std::string("connection: ") + CabStatusText(failure));
        return;
    }
    bool cancel = !cabwire::header(msg, cabwire::kCancel).empty();
    int64_t r = 0;
    bool credit = !cancel && cabwire::headerInt(msg, cabwire::kReceived, 0, (int64_t)t->parts, &r);
    cabwire::destroy(msg);
    if (cancel) {
        finish(t, "cancelled by the requester");
        return;
    }
    if (!credit) return;  // a message that is neither: ignored
    bool kick;
    {
        PLockGuard guard(t->lock);
        if ((uint64_t)r > t->received) {
            t->received = (uint64_t)r;
            t->idleSinceMs = nowMs();
        }
        kick = !t->pumping && !t->done && t->next < t->parts && (int64_t)(t->next - t->received) < t->window;
    }
    if (!kick) return;
    // Parts are read and sent on a worker, never on the connection's delivery thread.
    std::shared_ptr<CabWorkerPool> pool = m_pool.lock();
    std::weak_ptr<CabTransfers> wself = shared_from_this();
    bool queued = pool && pool->submit([wself, t]() {
        if (std::shared_ptr<CabTransfers> self = wself.lock()) self->pump(t);
    });
    if (!queued) finish(t, "the satellite is leaving");
}

void CabTransfers::tellConnectionLost(const std::shared_ptr<Transfer>& t) {
    uint64_t next;
    {
        PLockGuard guard(t->lock);
        if (t->done || t->next >= t->parts) return;
        next = t->next;
    }
    // The requester may sit on another server of the cluster, waiting for
    // parts that went down with ours. The client library keeps what is
    // published while it moves and sends it from the new server: an empty
    // part there, numbered after every part we sent, ends the wait.
    natsMsg* m = makeMsg(t->replyTo, "", 0);
    if (!m) return;
    setStatusHeaders(m, CAB_E_CONNECTION_LOST, "the responder lost its directory server", 0);
    natsMsgHeader_Set(m, cabwire::kPart, std::to_string(next).c_str());
    m_parts->publishMsg(m);
    cabwire::destroy(m);
}

void CabTransfers::finish(const std::shared_ptr<Transfer>& t, const std::string& why, int tellStatus) {
    uint64_t next, parts;
    {
        PLockGuard guard(t->lock);
        if (t->done) return;
        t->done = true;
        next = t->next;
        parts = t->parts;
    }
    if (tellStatus && next < parts) {
        // Numbered after every part sent (a pump may still be publishing the
        // last of them): the requester ends its wait with our status.
        if (natsMsg* m = makeMsg(t->replyTo, "", 0)) {
            setStatusHeaders(m, tellStatus, why, 0);
            natsMsgHeader_Set(m, cabwire::kPart, std::to_string(next).c_str());
            m_parts->publishMsg(m);
            cabwire::destroy(m);
        }
    }
    {
        PLockGuard guard(m_lock);
        m_active.erase(t->token);
    }
    t->held.release();
    // Late credit for it is dropped from now on; the answer itself goes with
    // the last reference (a pump still reading it keeps one).
    m_conn->closeMailbox(t->token);
    if (!why.empty())
        cablog::log(LOGLEVEL_WARN, "Transfer of %llu bytes to %s abandoned after %llu of %llu parts: %s",
                    (unsigned long long)t->total, t->replyTo.c_str(), (unsigned long long)next,
                    (unsigned long long)parts, why.c_str());
}

void CabTransfers::abandonAll(const char* why) {
    std::vector<std::shared_ptr<Transfer>> all;
    {
        PLockGuard guard(m_lock);
        m_stopping = true;
        for (auto& kv : m_active) all.push_back(kv.second);
        m_lock.broadcast();
    }
    for (auto& t : all) finish(t, why);
}

void* CabTransfers::sweep(void*) {
    // Looks a few times per time-out, at most once a second.
    int64_t period = std::max<int64_t>(20, std::min<int64_t>(1000, m_creditTimeoutMs / 4));
    // The rate bound: what a requester must take in each period of the credit time-out.
    const uint64_t perPeriod = m_minBytesPerSecond * (uint64_t)m_creditTimeoutMs / 1000;
    for (;;) {
        std::vector<std::shared_ptr<Transfer>> expired;
        std::vector<std::pair<std::shared_ptr<Transfer>, std::string>> slow;
        {
            PLockGuard guard(m_lock);
            if (m_stopping) break;
            m_lock.waitUntil(cabDeadline(period));
            if (m_stopping) break;
            int64_t now = nowMs();
            for (auto& kv : m_active) {
                Transfer& t = *kv.second;
                PLockGuard tg(t.lock);
                if (t.done) continue;
                if (!t.pumping && now - t.idleSinceMs >= m_creditTimeoutMs) {
                    expired.push_back(kv.second);
                } else if (perPeriod && now - t.periodStartMs >= m_creditTimeoutMs) {
                    const uint64_t before = std::min(t.total, t.periodStartReceived * t.part);
                    const uint64_t took = std::min(t.total, t.received * t.part) - before;
                    const uint64_t need = std::min(perPeriod, t.total - before);
                    if (took < need) {
                        slow.emplace_back(kv.second, "the requester took " + std::to_string(took) + " bytes in " +
                                                         std::to_string(now - t.periodStartMs) +
                                                         " ms; an answer must go at least " +
                                                         std::to_string(m_minBytesPerSecond) + " bytes a second");
                    } else {
                        t.periodStartMs = now;
                        t.periodStartReceived = t.received;
                    }
                }
            }
        }
        for (auto& t : expired) finish(t, "no credit for " + std::to_string(m_creditTimeoutMs) + " ms");
        for (auto& s : slow) finish(s.first, s.second, CAB_E_TIMEOUT);
    }
    return nullptr;
}
