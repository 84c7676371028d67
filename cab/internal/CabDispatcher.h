// CabDispatcher: serves the messages of synchronous subscriptions on threads
// of its own, leader/follower style. Each subscription has at most one thread
// (its leader) waiting for the next message; the thread that receives one
// first serves the message itself, so a request reaches its handler without a
// hop between threads. The waiting role passes to another thread (an idle
// one, or a new one) at once when more messages wait, else when the message
// takes longer than a millisecond: handlers of one subscription run
// concurrently, and a quick answer costs no thread wake-up.
// At most `cap` messages are served at once, whatever the number of
// subscriptions; beyond it messages wait in their subscriptions, in order, or
// (one taken by each subscription's leader) for a free slot, in the order
// they were taken. Threads are started as needed and stay for reuse.
//
// The dispatcher owns the subscriptions it is given and destroys each once it
// has ended (unsubscribed, drained, or its connection closed) and no thread
// uses it any more. All members are thread-safe.
#pragma once

#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include <nats/nats.h>

#include "cab/internal/CabThreadSet.h"
#include "host/PThread.h"

class CabDispatcher {
public:
    typedef std::function<void(natsMsg*)> Serve;  // owns the message

    explicit CabDispatcher(int cap);
    // Stops (see stop()) and destroys the subscriptions left.
    ~CabDispatcher();
    CabDispatcher(const CabDispatcher&) = delete;
    CabDispatcher& operator=(const CabDispatcher&) = delete;

    // Serves `sub`'s messages with `serve` from now on. False (and `sub`
    // destroyed) when the dispatcher is stopping or no thread can start.
    bool add(natsSubscription* sub, Serve serve);
    // Unsubscribes; messages not yet taken are dropped.
    void remove(natsSubscription* sub);
    // Stops the directory routing to these subscriptions and waits (at most
    // timeoutMs) until every message it routed before has been taken.
    // Subscriptions not drained by then keep their messages (see takePending).
    void drain(const std::vector<natsSubscription*>& subs, int timeoutMs);
    // Hands every message still waiting in a subscription, or taken and
    // waiting for a slot, to `take`.
    void takePending(const std::function<void(natsMsg*)>& take);

    // No new subscription is accepted; threads end once their subscriptions
    // have ended and their messages are served. True when every thread ended
    // before `deadline` (CLOCK_REALTIME; {0,0}: no deadline) and then joined
    // them; false when some were still busy or waiting (they end on their
    // own once their connection closes; the dispatcher must outlive them).
    bool stopUntil(const struct timespec& deadline);
    void stop();
    // Messages being served now.
    int busyCount();
    // Threads still running, busy, waiting for a message or idle.
    int liveCount();

private:
    struct Channel;
    void* run(void*);
    // The first channel that needs a leader and has had none for at least
    // `unledForNs`, while a message may still be served.
    Channel* needsLeaderLocked(int64_t unledForNs) KIV_REQUIRES(m_lock);
    // Makes sure a thread will take up a channel waiting for a leader at
    // once: an idle one is woken, else one is started below the thread limit.
    void appointLocked() KIV_REQUIRES(m_lock);
    // Makes sure the deputy (an idle thread that looks every millisecond for
    // channels left without a leader for that long) is looking.
    void deputeLocked() KIV_REQUIRES(m_lock);
    bool startThreadLocked() KIV_REQUIRES(m_lock);
    // Waits until `*msg` may be served within the cap: true then; false when
    // takePending took it meanwhile (`*msg` null).
    bool waitForSlotLocked(natsMsg** msg) KIV_REQUIRES(m_lock);
    // Unlinks channels that ended and that nobody uses; their subscriptions.
    std::vector<natsSubscription*> reapLocked() KIV_REQUIRES(m_lock);
    Channel* findLocked(natsSubscription* sub) KIV_REQUIRES(m_lock);
    // When `c` has ended: reapLocked(), destroying what it returns without
    // the lock (so `c` may be gone on return).
    void reapEndedLocked(Channel* c) KIV_REQUIRES(m_lock);

    const int m_cap;
    PCondMutex m_lock;  // guards everything below
    std::vector<std::unique_ptr<Channel>> m_channels KIV_GUARDED_BY(m_lock);
    CabThreadSet m_threads KIV_GUARDED_BY(m_lock){m_lock, "Service"};
    int m_busy KIV_GUARDED_BY(m_lock) = 0;
    std::deque<natsMsg**> m_held KIV_GUARDED_BY(m_lock);  // taken, waiting for a slot; oldest first
    int m_idle KIV_GUARDED_BY(m_lock) = 0;                // threads waiting for a role
    int m_woken KIV_GUARDED_BY(m_lock) = 0;               // idle threads signalled, not yet awake
    bool m_deputy KIV_GUARDED_BY(m_lock) = false;         // an idle thread is the deputy
    bool m_deputyAsleep KIV_GUARDED_BY(m_lock) = false;   // ...and waits without looking
    int64_t m_lastDeferredNs KIV_GUARDED_BY(m_lock) = 0;  // last message served without a new leader
    bool m_stopping KIV_GUARDED_BY(m_lock) = false;
};
