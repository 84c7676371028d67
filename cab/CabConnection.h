// CabConnection: one NATS connection to the directory, with
// - a mailbox multiplexer: one wildcard subscription on "<inbox>.*" routes
//   each message to the mailbox whose token ends its subject (answers to our
//   requests, credit for our transfers);
// - message subscriptions whose handlers get ownership of each message;
// - reconnection forever after a loss; on a loss every open mailbox fails with
//   CAB_E_CONNECTION_LOST, and the state listener hears of every change.
// Destruction closes the connection and returns only when no callback of it
// can run any more. All members are thread-safe.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nats/nats.h>

#include "host/PThread.h"

// Messages for one receiver. wait() hands out each message once (the caller
// destroys it), or reports the failure set by fail().
class CabMailbox {
public:
    ~CabMailbox();
    void push(natsMsg* msg);
    void fail(int status);
    // Null on time-out (*status = CAB_E_TIMEOUT) or failure (*status = the failure).
    natsMsg* wait(const struct timespec& deadline, int* status);

private:
    PCondMutex m_lock;             // guards the two below
    std::deque<natsMsg*> m_msgs;   // m_lock
    int m_failure = 0;             // m_lock
};

class CabConnection {
public:
    struct Options {
        std::string url;
        std::string name;
        std::string token;
    };
    typedef std::function<void(natsMsg*)> Handler;  // owns the message
    typedef std::function<void(int state)> StateListener;

    // Connects; 0 or CAB_E_CONNECT_FAILED (CabGetLastError() says why).
    static int open(const Options& options, std::shared_ptr<CabConnection>* out);
    ~CabConnection();
    CabConnection(const CabConnection&) = delete;
    CabConnection& operator=(const CabConnection&) = delete;

    // Closes the connection: later calls fail, open mailboxes fail with
    // CAB_E_NOT_CONNECTED, the state listener is dropped. Idempotent.
    void close();
    natsConnection* nc() const { return m_nc; }
    bool connected() const;
    int64_t maxPayload() const;
    void setStateListener(StateListener listener);

    // A new mailbox and the subject that reaches it.
    std::shared_ptr<CabMailbox> openMailbox(std::string* subject, uint64_t* token);
    void closeMailbox(uint64_t token);

    // Async subscription (queue may be empty); null on failure.
    natsSubscription* subscribe(const std::string& subject, const std::string& queue, Handler handler);
    void unsubscribe(natsSubscription* sub);
    // Stops the directory routing to these subscriptions and waits (at most
    // timeoutMs) until every message it routed before has reached its handler.
    void drain(const std::vector<natsSubscription*>& subs, int timeoutMs);

    // Publishes a message without headers; 0 or a negative status.
    int publish(const std::string& subject, const void* data, size_t len);
    int publishMsg(natsMsg* msg);

private:
    CabConnection() = default;
    struct SubRecord {
        CabConnection* owner;
        Handler handler;
        natsSubscription* sub = nullptr;
    };
    static void onMessage(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
    static void onInbox(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
    static void onSubComplete(void* closure);
    static void onDisconnected(natsConnection*, void* closure);
    static void onReconnected(natsConnection*, void* closure);
    static void onClosed(natsConnection*, void* closure);
    void notify(int state);
    void failAll(int status);
    natsSubscription* track(natsSubscription* sub);

    natsConnection* m_nc = nullptr;  // set in open(), destroyed in the destructor
    std::string m_inbox;             // "_INBOX.<nuid>", fixed after open()
    natsSubscription* m_inboxSub = nullptr;

    PMutex m_mailLock;                                        // guards the two below
    std::map<uint64_t, std::shared_ptr<CabMailbox>> m_mail;   // m_mailLock
    uint64_t m_nextToken = 1;                                 // m_mailLock

    PMutex m_subLock;                                         // guards m_subs
    std::vector<std::unique_ptr<SubRecord>> m_subs;           // m_subLock

    PMutex m_listenerLock;        // guards m_listener; held while it runs
    StateListener m_listener;     // m_listenerLock

    PCondMutex m_cbLock;          // guards the two below
    int m_liveSubs = 0;           // m_cbLock: subscriptions whose completion is pending
    bool m_closed = false;        // m_cbLock: the closed callback ran
};

// Absolute CLOCK_REALTIME deadline `ms` from now.
struct timespec cabDeadline(int64_t ms);
