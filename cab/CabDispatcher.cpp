#include "cab/internal/CabDispatcher.h"

#include "cab/CabConnection.h"
#include "cab/internal/CabLog.h"

#include <time.h>

#include <chrono>

namespace {
// A leader waits this long before looking again; a subscription that ends
// (unsubscribed, drained, connection closed) wakes it at once.
const int64_t kWaitMs = 60000;
// A subscription whose leader serves a message with none waiting behind it
// gets a new leader only when the message takes longer than this: most
// answers are sent sooner, and the same thread then waits again, with no
// thread woken at all. The deputy looks this often...
const int64_t kDeputyPollNs = 1000000;
// ...for as long as messages came this recently; then it sleeps until woken.
const int64_t kDeputyAwakeNs = 1000000000;

int64_t monotonicNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

struct timespec realtimeIn(int64_t ns) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ns += ts.tv_nsec;
    ts.tv_sec += ns / 1000000000;
    ts.tv_nsec = ns % 1000000000;
    return ts;
}
}  // namespace

struct CabDispatcher::Channel {
    natsSubscription* sub = nullptr;
    Serve serve;
    bool led = false;          // a thread waits for its next message
    int64_t unledSinceNs = 0;  // when its last leader took a message
    bool slow = false;         // its handlers take longer than the deputy's look: messages waiting
                               // behind one get a new leader at once
    bool ended = false;        // its subscription reported its end
    int pins = 0;              // calls using `sub` or `serve` outside the lock
};

CabDispatcher::CabDispatcher(int cap) : m_cap(cap < 1 ? 1 : cap) {}

CabDispatcher::~CabDispatcher() {
    std::vector<Channel*> open;
    {
        PLockGuard guard(m_lock);
        m_stopping = true;
        for (auto& c : m_channels)
            if (!c->ended) {
                ++c->pins;
                open.push_back(c.get());
            }
    }
    // Waiting leaders wake when their subscriptions close.
    for (Channel* c : open) natsSubscription_Unsubscribe(c->sub);
    {
        PLockGuard guard(m_lock);
        for (Channel* c : open) --c->pins;
    }
    stop();
    for (auto& c : m_channels) natsSubscription_Destroy(c->sub);
}

bool CabDispatcher::add(natsSubscription* sub, Serve serve) {
    {
        PLockGuard guard(m_lock);
        if (!m_stopping) {
            std::unique_ptr<Channel> c(new Channel);
            c->sub = sub;
            c->serve = std::move(serve);
            m_channels.push_back(std::move(c));
            appointLocked();
            if (m_threads.startedLocked() > 0) return true;
            m_channels.pop_back();
        }
    }
    natsSubscription_Destroy(sub);
    return false;
}

CabDispatcher::Channel* CabDispatcher::findLocked(natsSubscription* sub) {
    for (auto& c : m_channels)
        if (c->sub == sub) return c.get();
    return nullptr;
}

void CabDispatcher::remove(natsSubscription* sub) {
    Channel* c;
    {
        PLockGuard guard(m_lock);
        c = findLocked(sub);
        if (!c || c->ended) return;
        ++c->pins;
    }
    natsSubscription_Unsubscribe(sub);
    std::vector<natsSubscription*> dead;
    {
        PLockGuard guard(m_lock);
        --c->pins;
        dead = reapLocked();
    }
    for (natsSubscription* s : dead) natsSubscription_Destroy(s);
}

void CabDispatcher::drain(const std::vector<natsSubscription*>& subs, int timeoutMs) {
    std::vector<Channel*> draining;
    {
        PLockGuard guard(m_lock);
        for (natsSubscription* sub : subs) {
            Channel* c = findLocked(sub);
            if (!c || c->ended) continue;
            ++c->pins;
            draining.push_back(c);
        }
    }
    std::vector<Channel*> started;
    for (Channel* c : draining) {
        // No time limit of the client's own: at the limit it would close the
        // subscription and drop what waits there, unanswered.
        natsStatus s = natsSubscription_DrainTimeout(c->sub, 0);
        if (s == NATS_OK) {
            started.push_back(c);
        } else {
            cablog::log(LOGLEVEL_WARN, "Drain of %s failed (%s); unsubscribing", natsSubscription_GetSubject(c->sub),
                        natsStatus_GetText(s));
            natsSubscription_Unsubscribe(c->sub);
        }
    }
    // One deadline for all: a drain held up by busy handlers must not wait
    // its whole time once per subscription.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (Channel* c : started) {
        natsStatus s = natsSubscription_WaitForDrainCompletion(c->sub, remainingMs(end));
        if (s != NATS_OK)
            cablog::log(LOGLEVEL_WARN, "Drain of %s did not complete: %s", natsSubscription_GetSubject(c->sub),
                        natsStatus_GetText(s));
    }
    std::vector<natsSubscription*> dead;
    {
        PLockGuard guard(m_lock);
        for (Channel* c : draining) --c->pins;
        dead = reapLocked();
    }
    for (natsSubscription* s : dead) natsSubscription_Destroy(s);
}

void CabDispatcher::takePending(const std::function<void(natsMsg*)>& take) {
    std::vector<Channel*> open;
    {
        PLockGuard guard(m_lock);
        for (auto& c : m_channels)
            if (!c->ended) {
                ++c->pins;
                open.push_back(c.get());
            }
    }
    for (Channel* c : open) {
        natsMsg* msg = nullptr;
        while (natsSubscription_NextMsg(&msg, c->sub, 0) == NATS_OK) take(msg);
    }
    std::vector<natsMsg*> held;
    {
        PLockGuard guard(m_lock);
        for (Channel* c : open) --c->pins;
        for (natsMsg** m : m_held) {
            held.push_back(*m);
            *m = nullptr;
        }
        m_held.clear();
        m_lock.broadcast();
    }
    for (natsMsg* msg : held) take(msg);
}

bool CabDispatcher::waitForSlotLocked(natsMsg** msg) {
    if (m_busy < m_cap && m_held.empty()) return true;
    // Every subscription has its leader, so several can take a message at
    // the cap: the later ones wait here, first come first served.
    m_held.push_back(msg);
    while (*msg && (m_busy >= m_cap || m_held.front() != msg)) m_lock.wait();
    if (!*msg) return false;
    m_held.pop_front();
    if (!m_held.empty() && m_busy + 1 < m_cap) m_lock.broadcast();
    return true;
}

CabDispatcher::Channel* CabDispatcher::needsLeaderLocked(int64_t unledForNs) {
    // Messages held for a slot have a claim on the next free ones: no leader
    // takes another until a slot is free for it too.
    if (m_busy + (int)m_held.size() >= m_cap) return nullptr;
    int64_t now = unledForNs > 0 ? monotonicNs() : 0;
    for (auto& c : m_channels)
        if (!c->led && !c->ended && (unledForNs <= 0 || now - c->unledSinceNs >= unledForNs)) return c.get();
    return nullptr;
}

void CabDispatcher::appointLocked() {
    if (!needsLeaderLocked(0)) return;
    if (m_idle > m_woken) {
        ++m_woken;
        m_lock.signal();
    } else {
        startThreadLocked();
    }
}

void CabDispatcher::deputeLocked() {
    m_lastDeferredNs = monotonicNs();
    if (m_deputy && !m_deputyAsleep) return;  // it is looking already
    if (m_idle > 0) {
        m_lock.broadcast();  // the deputy, or an idle thread that becomes one
    } else {
        startThreadLocked();
    }
}

bool CabDispatcher::startThreadLocked() {
    // Leaders plus the threads serving messages.
    if (m_threads.startedLocked() >= m_cap + (int)m_channels.size()) return false;
    return m_threads.startLocked(new PThreadDelegateMember<CabDispatcher>(this, &CabDispatcher::run));
}

std::vector<natsSubscription*> CabDispatcher::reapLocked() {
    std::vector<natsSubscription*> dead;
    for (auto it = m_channels.begin(); it != m_channels.end();) {
        if ((*it)->ended && !(*it)->led && (*it)->pins == 0) {
            dead.push_back((*it)->sub);
            it = m_channels.erase(it);
        } else {
            ++it;
        }
    }
    return dead;
}

void CabDispatcher::reapEndedLocked(Channel* c) {
    if (!c->ended) return;
    std::vector<natsSubscription*> dead = reapLocked();
    if (dead.empty()) return;
    m_lock.unlock();
    for (natsSubscription* sub : dead) natsSubscription_Destroy(sub);
    m_lock.lock();
}

void* CabDispatcher::run(void*) {
    bool deputy = false;  // this thread looks for subscriptions left without a leader
    bool woken = false;   // signalled to take up a subscription at once
    m_lock.lock();
    for (;;) {
        Channel* c = needsLeaderLocked(deputy && !woken ? kDeputyPollNs : 0);
        bool signalled = woken;
        woken = false;
        if (!c) {
            if (m_stopping) break;
            if (!m_deputy) m_deputy = deputy = true;
            ++m_idle;
            if (deputy && monotonicNs() - m_lastDeferredNs < kDeputyAwakeNs) {
                m_lock.waitUntil(realtimeIn(kDeputyPollNs));
            } else {
                m_deputyAsleep = deputy;
                m_lock.wait();
                m_deputyAsleep = false;
            }
            --m_idle;
            woken = m_woken > 0;
            if (woken) --m_woken;
            continue;
        }
        if (deputy) {
            m_deputy = deputy = false;
            if (!signalled) c->slow = true;  // its last handler outlasted the deputy's look
        }
        c->led = true;
        m_lock.unlock();
        natsMsg* msg = nullptr;
        natsStatus s = natsSubscription_NextMsg(&msg, c->sub, kWaitMs);
        int pending = 0;
        if (s == NATS_OK) natsSubscription_GetPending(c->sub, &pending, nullptr);
        m_lock.lock();
        c->led = false;
        if (s == NATS_OK) {
            ++c->pins;
            if (!waitForSlotLocked(&msg)) {  // taken at shutdown
                --c->pins;
                reapEndedLocked(c);
                continue;
            }
            ++m_busy;
            // The subscription needs its next leader while this thread serves:
            // at once when messages wait behind slow handlers, else only if
            // this one takes long.
            int64_t start = monotonicNs();
            c->unledSinceNs = start;
            if (pending > 0 && c->slow) appointLocked();
            else deputeLocked();
            m_lock.unlock();
            try {
                c->serve(msg);
            } catch (...) {
                cablog::log(LOGLEVEL_ERROR, "Serving a message threw; ignored");
            }
            bool quick = monotonicNs() - start < kDeputyPollNs;
            m_lock.lock();
            if (quick) c->slow = false;
            --c->pins;
            --m_busy;
            if (!m_held.empty()) m_lock.broadcast();  // the first held message may go
            reapEndedLocked(c);
            continue;
        }
        // A time-out also ends a drain; the next call then reports the end.
        if (s == NATS_TIMEOUT || s == NATS_SLOW_CONSUMER) continue;
        c->ended = true;
        reapEndedLocked(c);
    }
    if (deputy) m_deputy = false;
    m_threads.endedLocked();
    m_lock.unlock();
    return nullptr;
}

void CabDispatcher::stop() {
    struct timespec never = {0, 0};
    stopUntil(never);
}

bool CabDispatcher::stopUntil(const struct timespec& deadline) {
    std::vector<std::unique_ptr<PThread>> threads;
    {
        PLockGuard guard(m_lock);
        m_stopping = true;
        m_lock.broadcast();
        // Threads left running end on their own; the dispatcher must outlive them.
        if (!m_threads.waitEndedLocked(deadline, &threads)) return false;
    }
    for (auto& t : threads) t->join();
    return true;
}

int CabDispatcher::busyCount() {
    PLockGuard guard(m_lock);
    return m_busy;
}

int CabDispatcher::liveCount() {
    PLockGuard guard(m_lock);
    return m_threads.liveLocked();
}
