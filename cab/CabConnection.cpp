#include "cab/CabConnection.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cab/internal/CabLog.h"
#include "cab/internal/CabRandom.h"
#include "cab/CabSatellite.h"
#include "cab/CabStatus.h"
#include "cab/internal/CabWire.h"
#include "host/SettingsSecrets.h"

namespace {
const int kCloseFlushMs = 2000;  // a safety net: the round trip takes a millisecond
}  // namespace

int64_t remainingMs(std::chrono::steady_clock::time_point end) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    return left < 1 ? 1 : left;
}

struct timespec cabDeadline(int64_t ms) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    if (ms < 0) ms = 0;
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += (ms % 1000) * 1000000;
    if (ts.tv_nsec >= 1000000000) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000;
    }
    return ts;
}

// ---- CabMailbox

CabMailbox::~CabMailbox() {
    for (natsMsg* m : m_msgs) cabwire::destroy(m);
}

void CabMailbox::push(natsMsg* msg) {
    if (m_handler) {
        m_handler(msg, 0);
        return;
    }
    PLockGuard guard(m_lock);
    m_msgs.push_back(msg);
    m_lock.signal();
}

void CabMailbox::fail(int status, const std::string& text) {
    {
        PLockGuard guard(m_lock);
        if (m_failure) return;
        m_failure = status;
        m_failureText = text;
        m_lock.broadcast();
    }
    if (m_handler) m_handler(nullptr, status);
}

natsMsg* CabMailbox::wait(const struct timespec& deadline, int* status, std::string* text) {
    PLockGuard guard(m_lock);
    for (;;) {
        if (!m_msgs.empty()) {
            natsMsg* m = m_msgs.front();
            m_msgs.pop_front();
            return m;
        }
        if (m_failure) {
            *status = m_failure;
            if (text) *text = m_failureText;
            return nullptr;
        }
        if (!m_lock.waitUntil(deadline) && m_msgs.empty() && !m_failure) {
            *status = CAB_E_TIMEOUT;
            return nullptr;
        }
    }
}

// ---- CabConnection

void CabConnection::markClosed() {
    PLockGuard closed(m_cbLock);  // not yet shared when open() fails: taken for the lock check's sake
    m_closed = true;
}

int CabConnection::open(const Options& o, std::shared_ptr<CabConnection>* out) {
    std::shared_ptr<CabConnection> c(new CabConnection);
    std::vector<std::string> urls = cabwire::splitList(o.url);
    if (urls.empty()) {
        c->markClosed();
        return CabFail(CAB_E_CONNECT_FAILED, "no directory server given");
    }
    std::vector<const char*> urlPtrs;
    bool tlsUrl = false;
    for (const std::string& u : urls) {
        urlPtrs.push_back(u.c_str());
        tlsUrl = tlsUrl || u.compare(0, 6, "tls://") == 0;
    }
    natsOptions* opts = nullptr;
    natsStatus s = natsOptions_Create(&opts);
    // Every server given, plus the members the cluster announces; the order
    // is shuffled (the client's default) so that clients spread over them.
    if (s == NATS_OK) s = natsOptions_SetServers(opts, urlPtrs.data(), (int)urlPtrs.size());
    if (s == NATS_OK && !o.name.empty()) s = natsOptions_SetName(opts, o.name.c_str());
    if (s == NATS_OK && !o.nkey.empty() && !o.nkeyFile.empty()) {
        s = natsOptions_SetNKeyFromSeed(opts, o.nkey.c_str(), o.nkeyFile.c_str());
    } else if (s == NATS_OK && !o.user.empty()) {
        s = natsOptions_SetUserInfo(opts, o.user.c_str(), o.password.c_str());
    } else if (s == NATS_OK && !o.token.empty()) {
        s = natsOptions_SetToken(opts, o.token.c_str());
    }
    bool tls = tlsUrl || !o.tlsCa.empty() || !o.tlsCert.empty() || !o.tlsKey.empty();
    if (s == NATS_OK && tls) s = natsOptions_SetSecure(opts, true);
    if (s == NATS_OK && !o.tlsCa.empty()) s = natsOptions_LoadCATrustedCertificates(opts, o.tlsCa.c_str());
    if (s == NATS_OK && (!o.tlsCert.empty() || !o.tlsKey.empty()))
        s = natsOptions_LoadCertificatesChain(opts, o.tlsCert.c_str(), o.tlsKey.c_str());
    if (s != NATS_OK && tls) {
        // Name the file that could not be used, not just "SSL error".
        std::string why = nats_GetLastError(nullptr) ? nats_GetLastError(nullptr) : natsStatus_GetText(s);
        natsOptions_Destroy(opts);
        c->markClosed();
        return CabFail(CAB_E_CONNECT_FAILED, SettingsSecrets::MaskUrlCredentials(o.url) + ": TLS set-up: " + why);
    }
    if (s == NATS_OK) s = natsOptions_SetErrorHandler(opts, &CabConnection::onError, c.get());
    if (s == NATS_OK) s = natsOptions_SetTimeout(opts, 5000);
    // Write every message at once: request/answer latency matters more than batching.
    if (s == NATS_OK) s = natsOptions_SetSendAsap(opts, true);
    if (s == NATS_OK) s = natsOptions_SetAllowReconnect(opts, true);
    if (s == NATS_OK) s = natsOptions_SetMaxReconnect(opts, -1);
    if (s == NATS_OK) s = natsOptions_SetReconnectWait(opts, 100);
    if (s == NATS_OK) s = natsOptions_SetReconnectJitter(opts, 50, 50);
    // What is published while moving to another server waits here: room for
    // a whole window of an answer in parts (8 MiB) and the small answers
    // around it, so handlers that end during the move still answer.
    if (s == NATS_OK) s = natsOptions_SetReconnectBufSize(opts, 16 << 20);
    if (s == NATS_OK) s = natsOptions_SetDisconnectedCB(opts, &CabConnection::onDisconnected, c.get());
    if (s == NATS_OK) s = natsOptions_SetReconnectedCB(opts, &CabConnection::onReconnected, c.get());
    if (s == NATS_OK) s = natsOptions_SetClosedCB(opts, &CabConnection::onClosed, c.get());
    if (s == NATS_OK) s = natsConnection_Connect(&c->m_nc, opts);
    natsOptions_Destroy(opts);
    if (s != NATS_OK) {
        c->m_nc = nullptr;
        c->markClosed();
        return CabFail(CAB_E_CONNECT_FAILED, SettingsSecrets::MaskUrlCredentials(o.url) + ": " + natsStatus_GetText(s));
    }
    char* inbox = nullptr;
    if (natsInbox_Create(&inbox) != NATS_OK) return CabFail(CAB_E_INTERNAL, "no inbox");
    // A user reads only its own inbox prefix: "_INBOX_<user>.<nuid>".
    c->m_inbox = o.user.empty() ? std::string(inbox) : "_INBOX_" + o.user + (inbox + strlen("_INBOX"));
    c->m_caller = o.user.empty() ? std::string(cabwire::kAnonymous) : o.user;
    natsInbox_Destroy(inbox);
    natsSubscription* sub = nullptr;
    {
        PLockGuard guard(c->m_cbLock);
        ++c->m_liveSubs;
    }
    s = natsConnection_Subscribe(&sub, c->m_nc, (c->m_inbox + ".*").c_str(), &CabConnection::onInbox, c.get());
    if (s == NATS_OK) s = natsSubscription_SetPendingLimits(sub, -1, -1);
    if (s == NATS_OK) s = natsSubscription_SetOnCompleteCB(sub, &CabConnection::onSubComplete, c.get());
    if (s != NATS_OK) {
        if (!sub) {
            PLockGuard guard(c->m_cbLock);
            --c->m_liveSubs;
        }
        c->m_inboxSub = sub;
        return CabFail(CAB_E_INTERNAL, std::string("inbox subscription: ") + natsStatus_GetText(s));
    }
    c->m_inboxSub = sub;
    *out = c;
    return 0;
}

void CabConnection::close() {
    setStateListener(nullptr);
    // A round trip first: the directory then holds every answer we published.
    // Closing a socket that still has unread input resets it, and whatever of
    // ours the kernel had not yet sent would be lost.
    if (connected()) natsConnection_FlushTimeout(m_nc, kCloseFlushMs);
    if (m_nc) natsConnection_Close(m_nc);
    failAll(CAB_E_NOT_CONNECTED);
}

CabConnection::~CabConnection() {
    close();
    {
        // Wait until no callback of the connection can run any more.
        PLockGuard guard(m_cbLock);
        struct timespec deadline = cabDeadline(10000);
        while ((m_liveSubs > 0 || !m_closed) && m_nc) {
            if (!m_cbLock.waitUntil(deadline)) {
                cablog::log(LOGLEVEL_ERROR, "Connection close: callbacks did not finish; leaking the connection");
                return;
            }
        }
    }
    if (m_inboxSub) natsSubscription_Destroy(m_inboxSub);
    for (auto& r : m_subs)
        if (r->sub) natsSubscription_Destroy(r->sub);
    if (m_nc) natsConnection_Destroy(m_nc);
}

bool CabConnection::connected() const { return m_nc && natsConnection_Status(m_nc) == NATS_CONN_STATUS_CONNECTED; }

int64_t CabConnection::maxPayload() const { return m_nc ? natsConnection_GetMaxPayload(m_nc) : 0; }

void CabConnection::setStateListener(StateListener listener) {
    PLockGuard guard(m_listenerLock);
    m_listener = std::move(listener);
}

std::shared_ptr<CabMailbox> CabConnection::openMailbox(std::string* subject, uint64_t* token,
                                                       const std::string& requestSubject, CabMailbox::Handler handler) {
    std::shared_ptr<CabMailbox> box = handler ? std::make_shared<CabMailbox>(std::move(handler))
                                              : std::make_shared<CabMailbox>();
    std::string key = cabRandomHex(16);
    PLockGuard guard(m_mailLock);
    uint64_t t = m_nextToken++;
    m_mail[t] = MailEntry{box, key, requestSubject};
    m_mailByKey[key] = t;
    *token = t;
    *subject = m_inbox + "." + key;
    return box;
}

void CabConnection::closeMailbox(uint64_t token) {
    std::shared_ptr<CabMailbox> box;  // released after the lock: it may free messages
    PLockGuard guard(m_mailLock);
    auto it = m_mail.find(token);
    if (it == m_mail.end()) return;
    box = it->second.box;
    m_mailByKey.erase(it->second.key);
    m_mail.erase(it);
}

void CabConnection::failAll(int status) {
    std::vector<std::shared_ptr<CabMailbox>> boxes;
    {
        PLockGuard guard(m_mailLock);
        for (auto& kv : m_mail) boxes.push_back(kv.second.box);
    }
    // Outside the lock: a handler mailbox may close itself.
    for (auto& b : boxes) b->fail(status);
}

void CabConnection::failRequestsTo(const std::string& subject, int status, const std::string& text) {
    std::vector<std::shared_ptr<CabMailbox>> boxes;
    {
        PLockGuard guard(m_mailLock);
        for (auto& kv : m_mail)
            if (!subject.empty() && kv.second.requestSubject == subject) boxes.push_back(kv.second.box);
    }
    for (auto& b : boxes) b->fail(status, text);
}

natsSubscription* CabConnection::subscribe(const std::string& subject, const std::string& queue, Handler handler) {
    if (!m_nc) return nullptr;
    std::unique_ptr<SubRecord> rec(new SubRecord);
    rec->owner = this;
    rec->handler = std::move(handler);
    natsSubscription* sub = nullptr;
    {
        PLockGuard guard(m_cbLock);
        ++m_liveSubs;
    }
    natsStatus s;
    if (queue.empty()) s = natsConnection_Subscribe(&sub, m_nc, subject.c_str(), &CabConnection::onMessage, rec.get());
    else
        s = natsConnection_QueueSubscribe(&sub, m_nc, subject.c_str(), queue.c_str(), &CabConnection::onMessage,
                                          rec.get());
    if (s == NATS_OK) s = natsSubscription_SetPendingLimits(sub, -1, -1);
    if (s == NATS_OK) s = natsSubscription_SetOnCompleteCB(sub, &CabConnection::onSubComplete, this);
    if (s != NATS_OK) {
        cablog::log(LOGLEVEL_ERROR, "Subscribing to %s failed: %s", subject.c_str(), natsStatus_GetText(s));
        if (sub) {
            natsSubscription_Unsubscribe(sub);  // its completion still comes
            natsSubscription_Destroy(sub);
        } else {
            PLockGuard guard(m_cbLock);
            --m_liveSubs;
        }
        // The record may still be referenced by a last callback: keep it.
        PLockGuard guard(m_subLock);
        m_subs.push_back(std::move(rec));
        return nullptr;
    }
    rec->sub = sub;
    PLockGuard guard(m_subLock);
    m_subs.push_back(std::move(rec));
    return sub;
}

natsSubscription* CabConnection::subscribeSync(const std::string& subject, const std::string& queue) {
    if (!m_nc) return nullptr;
    natsSubscription* sub = nullptr;
    natsStatus s = natsConnection_QueueSubscribeSync(&sub, m_nc, subject.c_str(), queue.c_str());
    if (s == NATS_OK) s = natsSubscription_SetPendingLimits(sub, -1, -1);
    if (s == NATS_OK) return sub;
    cablog::log(LOGLEVEL_ERROR, "Subscribing to %s failed: %s", subject.c_str(), natsStatus_GetText(s));
    natsSubscription_Destroy(sub);
    return nullptr;
}

void CabConnection::unsubscribe(natsSubscription* sub) {
    if (sub) natsSubscription_Unsubscribe(sub);
}

void CabConnection::drain(const std::vector<natsSubscription*>& subs, int timeoutMs) {
    std::vector<natsSubscription*> draining;
    for (natsSubscription* sub : subs) {
        if (!sub) continue;
        natsStatus s = natsSubscription_DrainTimeout(sub, timeoutMs);
        if (s == NATS_OK) {
            draining.push_back(sub);
        } else {
            cablog::log(LOGLEVEL_WARN, "Drain of %s failed (%s); unsubscribing", natsSubscription_GetSubject(sub),
                        natsStatus_GetText(s));
            natsSubscription_Unsubscribe(sub);
        }
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (natsSubscription* sub : draining) {
        natsStatus s = natsSubscription_WaitForDrainCompletion(sub, remainingMs(end));
        if (s != NATS_OK)
            cablog::log(LOGLEVEL_WARN, "Drain of %s did not complete: %s", natsSubscription_GetSubject(sub),
                        natsStatus_GetText(s));
    }
}

int CabConnection::publish(const std::string& subject, const void* data, size_t len) {
    natsStatus s = natsConnection_Publish(m_nc, subject.c_str(), data, (int)len);
    if (s == NATS_OK) return 0;
    return CabFail(s == NATS_CONNECTION_CLOSED || s == NATS_CONNECTION_DISCONNECTED ? CAB_E_NOT_CONNECTED
                                                                                    : CAB_E_INTERNAL,
                   natsStatus_GetText(s));
}

int CabConnection::publishMsg(natsMsg* msg) {
    natsStatus s = natsConnection_PublishMsg(m_nc, msg);
    if (s == NATS_OK) return 0;
    if (s == NATS_MAX_PAYLOAD) return CabFail(CAB_E_TOO_LARGE, natsStatus_GetText(s));
    // The server went away under the write; the client is moving to another.
    if (s == NATS_IO_ERROR) return CabFail(CAB_E_CONNECTION_LOST, natsStatus_GetText(s));
    return CabFail(s == NATS_CONNECTION_CLOSED || s == NATS_CONNECTION_DISCONNECTED ? CAB_E_NOT_CONNECTED
                                                                                    : CAB_E_INTERNAL,
                   natsStatus_GetText(s));
}

void CabConnection::onMessage(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    SubRecord* rec = static_cast<SubRecord*>(closure);
    rec->handler(msg);
}

void CabConnection::onInbox(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    CabConnection* self = static_cast<CabConnection*>(closure);
    const char* subject = natsMsg_GetSubject(msg);
    const char* dot = subject ? strrchr(subject, '.') : nullptr;
    std::shared_ptr<CabMailbox> box;
    if (dot) {
        PLockGuard guard(self->m_mailLock);
        auto k = self->m_mailByKey.find(dot + 1);
        if (k != self->m_mailByKey.end()) {
            auto it = self->m_mail.find(k->second);
            if (it != self->m_mail.end()) box = it->second.box;
        }
    }
    if (box) {
        box->push(msg);
    } else {
        // A late answer to a request that already gave up, or a guess.
        cabwire::destroy(msg);
    }
}

void CabConnection::onSubComplete(void* closure) {
    CabConnection* self = static_cast<CabConnection*>(closure);
    PLockGuard guard(self->m_cbLock);
    --self->m_liveSubs;
    self->m_cbLock.broadcast();
}

void CabConnection::notify(int state) {
    PLockGuard guard(m_listenerLock);
    if (m_listener) m_listener(state);
}

void CabConnection::onDisconnected(natsConnection*, void* closure) {
    CabConnection* self = static_cast<CabConnection*>(closure);
    self->failAll(CAB_E_CONNECTION_LOST);
    self->notify(CAB_STATE_DISCONNECTED);
}

void CabConnection::onReconnected(natsConnection* nc, void* closure) {
    // The client has resent every subscription (services, discovery, the
    // inbox) before this runs; say where we are now.
    char url[256] = "";
    if (natsConnection_GetConnectedUrl(nc, url, sizeof url) != NATS_OK || !*url) snprintf(url, sizeof url, "(unknown)");
    cablog::log(LOGLEVEL_INFO, "reconnected to %s", url);
    static_cast<CabConnection*>(closure)->notify(CAB_STATE_RECONNECTED);
}

void CabConnection::onClosed(natsConnection*, void* closure) {
    CabConnection* self = static_cast<CabConnection*>(closure);
    self->notify(CAB_STATE_CLOSED);
    PLockGuard guard(self->m_cbLock);
    self->m_closed = true;
    self->m_cbLock.broadcast();
}

namespace {

// The subject inside `text` after `what` ("Publish to", "Subscription to"),
// from a directory error like: Permissions Violation for Publish to "cab.X.Y".
bool violationSubject(const std::string& text, const char* what, std::string* subject) {
    if (text.find("Permissions Violation") == std::string::npos) return false;
    size_t at = text.find(what);
    if (at == std::string::npos) return false;
    size_t open = text.find('"', at);
    size_t close = open == std::string::npos ? open : text.find('"', open + 1);
    if (close == std::string::npos) return false;
    *subject = text.substr(open + 1, close - open - 1);
    return true;
}

}  // namespace

void CabConnection::onError(natsConnection*, natsSubscription* sub, natsStatus err, void* closure) {
    CabConnection* self = static_cast<CabConnection*>(closure);
    if (err != NATS_NOT_PERMITTED) {
        cablog::log(LOGLEVEL_WARN, "Directory error on %s: %s", sub ? natsSubscription_GetSubject(sub) : "connection",
                    natsStatus_GetText(err));
        return;
    }
    // The client library hands each error callback the server's text as the
    // thread's own last error; the connection's last error is shared with the
    // reading thread, which may be writing the next one.
    natsStatus status = NATS_OK;
    const char* last = nats_GetLastError(&status);
    std::string text = status == NATS_NOT_PERMITTED && last ? last : "permissions violation";
    std::string subject;
    if (violationSubject(text, "Publish to", &subject)) {
        cablog::log(LOGLEVEL_WARN, "The directory refused a publish: %s", text.c_str());
        self->failRequestsTo(subject, CAB_E_PERMISSION_DENIED, text);
    } else if (violationSubject(text, "Subscription to", &subject)) {
        {
            PLockGuard guard(self->m_deniedLock);
            if (!self->m_denied.emplace(subject, text).second) return;
        }
        cablog::log(LOGLEVEL_ERROR, "The directory refused a subscription: %s", text.c_str());
    } else {
        cablog::log(LOGLEVEL_WARN, "The directory refused an operation: %s", text.c_str());
    }
}

std::string CabConnection::subscriptionDenied(const std::vector<std::string>& subjects) const {
    // The error callback runs later on its own thread, but the client library
    // records the text before it reads the flush's answer: look at both. (No
    // error can be written meanwhile but one caused by another thread.)
    std::string last, subject;
    const char* text = nullptr;
    if (m_nc && natsConnection_GetLastError(m_nc, &text) == NATS_NOT_PERMITTED && text) last = text;
    bool lastIsSub = violationSubject(last, "Subscription to", &subject);
    PLockGuard guard(m_deniedLock);
    for (const std::string& s : subjects) {
        if (lastIsSub && s == subject) return last;
        auto it = m_denied.find(s);
        if (it != m_denied.end()) return it->second;
    }
    return std::string();
}
