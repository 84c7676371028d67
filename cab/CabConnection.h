// CabConnection: one NATS connection to the directory, with
// - a mailbox multiplexer: one wildcard subscription on "<inbox>.*" routes
//   each message to the mailbox whose token ends its subject (answers to our
//   requests, credit for our transfers);
// - message subscriptions whose handlers get ownership of each message;
// - reconnection forever after a loss, to any server of the cluster; on a
//   loss every open mailbox fails with CAB_E_CONNECTION_LOST, and the state
//   listener hears of every change;
// - a publish the directory refuses to our user fails the requests sent to
//   that subject at once with CAB_E_PERMISSION_DENIED and the server's text.
// Destruction closes the connection and returns only when no callback of it
// can run any more. All members are thread-safe.
#pragma once

#include <chrono>

#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <nats/nats.h>

#include "host/PThread.h"

// Messages for one receiver. A queue mailbox hands out each message once
// through wait() (the caller destroys it) or reports the failure set by
// fail(). A handler mailbox passes each message (and a failure, as a null
// message) to its handler on the connection's delivery thread instead.
class CabMailbox {
public:
    // Owns the message; (nullptr, status) reports a failure.
    typedef std::function<void(natsMsg* msg, int failure)> Handler;
    CabMailbox() = default;
    explicit CabMailbox(Handler handler) : m_handler(std::move(handler)) {}
    ~CabMailbox();
    void push(natsMsg* msg);
    void fail(int status, const std::string& text = std::string());
    // Null on time-out (*status = CAB_E_TIMEOUT) or failure (*status = the
    // failure, *text = what the directory said when it said anything).
    natsMsg* wait(const struct timespec& deadline, int* status, std::string* text = nullptr);

private:
    const Handler m_handler;  // fixed at construction
    PCondMutex m_lock;        // guards the three below
    std::deque<natsMsg*> m_msgs KIV_GUARDED_BY(m_lock);
    int m_failure KIV_GUARDED_BY(m_lock) = 0;
    std::string m_failureText KIV_GUARDED_BY(m_lock);
};

class CabConnection {
public:
    struct Options {
        // nats://host:port or tls://host:port; several, comma-separated, for
        // a cluster (the client also learns the members the servers announce,
        // tries them in random order and moves to another one on a loss).
        std::string url;
        std::string name;
        // A NATS user: `user` with `password`, or an nkey (its public key
        // "U..." and the file holding its private key). The user also names
        // the inbox prefix "_INBOX_<user>", the only one the directory lets
        // it read.
        std::string user;
        std::string password;
        std::string nkey;
        std::string nkeyFile;
        std::string token;  // the single shared token; only when no user is set
        // PEM files. A tls:// URL or any of them turns TLS on; the CA file
        // replaces the system's trusted roots.
        std::string tlsCa;
        std::string tlsCert;
        std::string tlsKey;
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
    // The name this connection's requests carry: its user, or cabwire::kAnonymous.
    const std::string& caller() const { return m_caller; }
    bool connected() const;
    int64_t maxPayload() const;
    void setStateListener(StateListener listener);

    // A new mailbox and the subject that reaches it: "<inbox>.<128 random
    // bits>", so nobody can guess it. `requestSubject` names where the request
    // answered here went (see failRequestsTo). With a handler, messages go to
    // it instead of a queue.
    std::shared_ptr<CabMailbox> openMailbox(std::string* subject, uint64_t* token,
                                            const std::string& requestSubject = std::string(),
                                            CabMailbox::Handler handler = nullptr);
    void closeMailbox(uint64_t token);
    // Fails every mailbox waiting for an answer from `subject` (the directory
    // refused the request, for one).
    void failRequestsTo(const std::string& subject, int status, const std::string& text);
    // Fails every open mailbox with `status`.
    void failAll(int status);

    // After a flush: the directory's text when it refused one of `subjects`
    // to this connection's user (a permission violation), else "".
    std::string subscriptionDenied(const std::vector<std::string>& subjects) const;

    // Async subscription (queue may be empty); null on failure.
    natsSubscription* subscribe(const std::string& subject, const std::string& queue, Handler handler);
    void unsubscribe(natsSubscription* sub);
    // Synchronous queue subscription without pending limits, for the caller
    // to read with natsSubscription_NextMsg and to destroy; null on failure.
    natsSubscription* subscribeSync(const std::string& subject, const std::string& queue);
    // Stops the directory routing to these subscriptions and waits (at most
    // timeoutMs) until every message it routed before has reached its handler.
    void drain(const std::vector<natsSubscription*>& subs, int timeoutMs);

    // Publishes a message without headers; 0 or a negative status.
    int publish(const std::string& subject, const void* data, size_t len);
    int publishMsg(natsMsg* msg);

private:
    CabConnection() = default;
    // Marks a connection that open() could not complete as closed.
    void markClosed() KIV_EXCLUDES(m_cbLock);
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
    // The directory's asynchronous errors: a refused publish fails the
    // requests sent to that subject, a refused subscription is remembered.
    static void onError(natsConnection*, natsSubscription*, natsStatus err, void* closure);
    void notify(int state);
    natsSubscription* track(natsSubscription* sub);

    natsConnection* m_nc = nullptr;  // set in open(), destroyed in the destructor
    std::string m_inbox;             // "_INBOX[_<user>].<nuid>", fixed after open()
    std::string m_caller;            // the user or "-", fixed after open()
    natsSubscription* m_inboxSub = nullptr;

    struct MailEntry {
        std::shared_ptr<CabMailbox> box;
        std::string key;             // the random last token of its subject
        std::string requestSubject;  // where the request went, or ""
    };
    PMutex m_mailLock;  // guards the three below
    std::map<uint64_t, MailEntry> m_mail KIV_GUARDED_BY(m_mailLock);
    std::unordered_map<std::string, uint64_t> m_mailByKey KIV_GUARDED_BY(m_mailLock);
    uint64_t m_nextToken KIV_GUARDED_BY(m_mailLock) = 1;

    mutable PMutex m_deniedLock;                                               // guards m_denied
    std::map<std::string, std::string> m_denied KIV_GUARDED_BY(m_deniedLock);  // refused subscription -> text

    PMutex m_subLock;  // guards m_subs
    std::vector<std::unique_ptr<SubRecord>> m_subs KIV_GUARDED_BY(m_subLock);

    PMutex m_listenerLock;  // guards m_listener; held while it runs
    StateListener m_listener KIV_GUARDED_BY(m_listenerLock);

    PCondMutex m_cbLock;                             // guards the two below
    int m_liveSubs KIV_GUARDED_BY(m_cbLock) = 0;     // subscriptions whose completion is pending
    bool m_closed KIV_GUARDED_BY(m_cbLock) = false;  // the closed callback ran
};

// Absolute CLOCK_REALTIME deadline `ms` from now.
struct timespec cabDeadline(int64_t ms);
// Milliseconds left until `end`, at least 1 (the client reads 0 as "no limit").
int64_t remainingMs(std::chrono::steady_clock::time_point end);
