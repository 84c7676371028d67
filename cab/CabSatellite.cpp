// CabSatellite: connection, service table and registration.
#include "cab/CabSatellite.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>

#include <unistd.h>

#include "cab/CabLog.h"
#include "cab/CabSatelliteState.h"
#include "cab/CabWire.h"
#include "host/CRegistry.h"

namespace {

const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";
const int kDrainTimeoutMs = 10000;  // only a safety net: draining takes one round trip
const int kDefaultGraceMs = 5000;   // handlers get this long to finish when the satellite leaves

std::string randomId() {
    static const char digits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    std::random_device rd;
    std::mt19937_64 gen(((uint64_t)rd() << 32) ^ rd() ^ (uint64_t)time(nullptr));
    std::string id;
    for (int i = 0; i < 22; ++i) id += digits[gen() % 62];
    return id;
}

std::string nowRfc3339() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    gmtime_r(&ts.tv_sec, &tm);
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%09ldZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, (long)ts.tv_nsec);
    return buf;
}

// "host", "host:port" or "nats://..." -> a NATS URL.
std::string serverUrl(const std::string& h) {
    if (h.find("://") != std::string::npos) return h;
    if (h.find(':') != std::string::npos) return "nats://" + h;
    int port = cabsettings::integer("cabDirectory.port", 4222);
    return "nats://" + h + ":" + std::to_string(port);
}

// The directory's servers, comma-separated URLs. A list or a URL given to
// Connect is used as it is; a plain host (what Register reads from
// cabDirectory.host) gives way to the setting cabDirectory.servers.
std::string directoryUrl(const char* host) {
    std::string h = host && *host ? host : "127.0.0.1";
    std::string servers;
    if (h.find("://") == std::string::npos && h.find(',') == std::string::npos &&
        cabsettings::string("cabDirectory.servers", &servers) && servers.find_first_not_of(" \t,") != std::string::npos)
        h = servers;
    std::string urls;
    size_t from = 0;
    while (from <= h.size()) {
        size_t comma = h.find(',', from);
        if (comma == std::string::npos) comma = h.size();
        std::string one = h.substr(from, comma - from);
        size_t b = one.find_first_not_of(" \t"), e = one.find_last_not_of(" \t");
        if (b != std::string::npos) urls += (urls.empty() ? "" : ",") + serverUrl(one.substr(b, e - b + 1));
        from = comma + 1;
    }
    return urls;
}

// The name of this host in host-scoped subjects: KIV_HOSTNAME when set (a
// test runs several "hosts" on one machine), else the system's host name up
// to its first dot. "" when it is not a valid name.
std::string scopeHost() {
    std::string h;
    const char* env = getenv("KIV_HOSTNAME");
    if (env && *env) {
        h = env;
    } else {
        char buf[256] = "";
        if (gethostname(buf, sizeof buf - 1) == 0) h = buf;
        h = h.substr(0, h.find('.'));
    }
    h = cabwire::hostToken(h);
    return cabwire::validName(h.c_str()) ? h : std::string();
}

// cabDirectory.hostScope: 1 or "true" also listens as "<name>@<host>".
bool hostScopeWanted() {
    std::string text;
    if (cabsettings::string("cabDirectory.hostScope", &text)) return text == "true" || text == "1" || text == "yes";
    return cabsettings::integer("cabDirectory.hostScope", 0) != 0;
}

// Who we are on the directory: a user with a password or an nkey; the shared
// token only when no user is configured. setUser and setToken win over the
// settings. Plus the TLS files.
void readCredentials(CabConnection::Options* o) {
    if (o->user.empty() && o->token.empty()) {
        cabsettings::string("cabDirectory.user", &o->user);
        cabsettings::string("cabDirectory.password", &o->password);
        cabsettings::string("cabDirectory.nkey", &o->nkey);
        cabsettings::string("cabDirectory.nkeySeedFile", &o->nkeyFile);
    }
    if (o->user.empty() && o->nkey.empty() && o->token.empty())
        cabsettings::string("cabDirectory.token", &o->token);
    if (!o->user.empty() || !o->nkey.empty()) o->token.clear();
    cabsettings::string("cabDirectory.tls.ca", &o->tlsCa);
    cabsettings::string("cabDirectory.tls.cert", &o->tlsCert);
    cabsettings::string("cabDirectory.tls.key", &o->tlsKey);
}

// Clears and returns every subscription: the services' (served by the
// dispatcher) and discovery's.
struct Subscriptions {
    std::shared_ptr<CabConnection> conn;
    std::shared_ptr<CabDispatcher> dispatcher;
    std::vector<natsSubscription*> services;
    std::vector<natsSubscription*> discovery;
};
Subscriptions takeSubscriptions(CabSatelliteState* state, bool forget) {
    Subscriptions subs;
    PLockGuard guard(state->lock);
    subs.conn = state->conn;
    subs.dispatcher = state->dispatcher;
    for (auto& e : state->services) {
        if (e->sub) subs.services.push_back(e->sub);
        if (e->hostSub) subs.services.push_back(e->hostSub);
        e->sub = nullptr;
        e->hostSub = nullptr;
    }
    subs.discovery.swap(state->srvSubs);
    if (forget) state->services.clear();
    return subs;
}

// Keeps threads that outlived Disconnect (their dispatcher or pool) for as
// long as the process: they still use it when their handlers end.
void keepForever(const std::shared_ptr<void>& owner) {
    static PMutex* lock = new PMutex;  // guards *kept
    static auto* kept KIV_PT_GUARDED_BY(*lock) = new std::vector<std::shared_ptr<void>>;
    PLockGuard guard(*lock);
    kept->push_back(owner);
}

}  // namespace

// ---- settings

int cabsettings::integer(const char* name, int fallback) {
    int value = fallback;
    if (!CRegistry::getInstance()->ReadSettingImpl(CStdStr(kConfigKey), CStdStr(name), value)) return fallback;
    return value;
}

bool cabsettings::string(const char* name, std::string* value) {
    CStdStr v;
    if (!CRegistry::getInstance()->ReadSettingImpl(CStdStr(kConfigKey), CStdStr(name), v)) return false;
    *value = v;
    return true;
}

// ---- state

std::shared_ptr<CabConnection> CabSatelliteState::connection() const {
    PLockGuard guard(lock);
    return conn;
}

std::shared_ptr<CabTransfers> CabSatelliteState::transferTable() const {
    PLockGuard guard(lock);
    return transfers;
}

int CabSatelliteState::requestTimeoutMs() const {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t nowMs = (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
    {
        PLockGuard guard(lock);
        if (timeoutMs >= 0) return timeoutMs;
        // The setting is read at most once a second, not on every request.
        if (settingTimeoutMs > 0 && nowMs - settingReadMs < 1000) return settingTimeoutMs;
    }
    int ms = cabsettings::integer("cabDirectory.requestTimeoutMs", 300000);
    if (ms <= 0) ms = 300000;
    PLockGuard guard(lock);
    settingTimeoutMs = ms;
    settingReadMs = nowMs;
    return ms;
}

std::shared_ptr<CabServiceEntry> CabSatelliteState::findService(const std::string& service) const {
    PLockGuard guard(lock);
    for (const auto& e : services)
        if (e->name == service) return e;
    return nullptr;
}

uint64_t CabSatelliteState::admit(const std::string& replyTo) {
    if (replyTo.empty()) return 0;
    PLockGuard guard(inflightLock);
    uint64_t serial = nextServe++;
    inflight[serial] = replyTo;
    return serial;
}

bool CabSatelliteState::claim(uint64_t serial) {
    if (!serial) return true;
    PLockGuard guard(inflightLock);
    return inflight.erase(serial) == 1;
}

std::vector<std::string> CabSatelliteState::claimAll() {
    std::vector<std::string> replies;
    PLockGuard guard(inflightLock);
    for (auto& kv : inflight) replies.push_back(kv.second);
    inflight.clear();
    return replies;
}

void CabServiceEntry::record(int64_t ns, const std::string* error) {
    PLockGuard guard(statsLock);
    ++stats.requests;
    stats.processingNs += ns;
    if (error) {
        ++stats.errors;
        stats.lastError = *error;
    }
}

// ---- CabSatellite

CabSatellite::CabSatellite() : m_state(std::make_shared<CabSatelliteState>()) {
    m_state->owner = this;
    m_state->id = randomId();
}

CabSatellite::~CabSatellite() { Disconnect(); }

void CabSatellite::setLogger(const boost::shared_ptr<CBBLog>& logger) { cablog::setLogger(logger); }

void CabSatellite::setToken(const std::string& token) {
    PLockGuard guard(m_state->lock);
    m_state->token = token;
    m_state->tokenSet = true;
}

void CabSatellite::setUser(const std::string& user, const std::string& password) {
    PLockGuard guard(m_state->lock);
    m_state->user = user;
    m_state->password = password;
}

void CabSatellite::setRequestTimeoutMs(int ms) {
    PLockGuard guard(m_state->lock);
    m_state->timeoutMs = ms;
}

void CabSatellite::setMaxHandlers(int count) {
    PLockGuard guard(m_state->lock);
    m_state->maxHandlers = count;
}

std::shared_ptr<CabMemoryBudget> CabSatellite::memoryBudget() const { return m_state->budget; }

bool CabSatellite::isConnected() const {
    std::shared_ptr<CabConnection> c = m_state->connection();
    return c && c->connected();
}

std::string CabSatellite::name() const {
    PLockGuard guard(m_state->lock);
    return m_state->name;
}

std::string CabSatellite::instanceId() const {
    PLockGuard guard(m_state->lock);
    return m_state->id;
}

int CabSatellite::ConnectUser(const char* host, const char* name) { return Connect(host, name); }

int CabSatellite::Connect(const char* host, const char* name) {
    CabSetLastError("");
    if (!cabwire::validName(name)) {
        int rc = CabFail(CAB_E_INVALID_NAME, std::string("satellite name '") + (name ? name : "(null)") + "'");
        cablog::log(LOGLEVEL_ERROR, "Connect refused: %s", CabGetLastError().c_str());
        return rc;
    }
    Disconnect();
    CabConnection::Options o;
    o.url = directoryUrl(host);
    o.name = name;
    int maxHandlers;
    {
        PLockGuard guard(m_state->lock);
        if (m_state->tokenSet) o.token = m_state->token;
        o.user = m_state->user;
        o.password = m_state->password;
        maxHandlers = m_state->maxHandlers;
    }
    readCredentials(&o);
    if (maxHandlers <= 0) maxHandlers = cabsettings::integer("cabDirectory.maxHandlers", 256);
    if (maxHandlers <= 0) maxHandlers = 256;

    std::shared_ptr<CabConnection> conn;
    int rc = CabConnection::open(o, &conn);
    if (rc != 0) {
        cablog::log(LOGLEVEL_ERROR, "Connecting to the directory failed: %s", CabGetLastError().c_str());
        return rc;
    }
    conn->setStateListener([this](int state) { OnStatusChange(state, 0); });
    // Answers in parts leave through a connection of their own, so that a
    // small answer never waits behind megabytes of parts in one socket.
    std::shared_ptr<CabConnection> partsConn;
    if (cabsettings::integer("cabDirectory.partsConnection", 1) != 0) {
        CabConnection::Options p = o;
        p.name = o.name + "-parts";
        if (CabConnection::open(p, &partsConn) != 0) {
            cablog::log(LOGLEVEL_WARN, "No connection of its own for answers in parts (%s); they share the first",
                        CabGetLastError().c_str());
            partsConn.reset();
            CabSetLastError("");
        }
    }
    int creditTimeoutMs = cabsettings::integer("cabDirectory.creditTimeoutMs", 30000);
    int maxAnswerBytes = cabsettings::integer("cabDirectory.maxAnswerBytes", (int)kCabDefaultAnswerBytes);
    int minRate = cabsettings::integer("cabDirectory.minTransferBytesPerSecond", 256 << 10);
    m_state->budget->setLimit(maxAnswerBytes > 0 ? (uint64_t)maxAnswerBytes : kCabDefaultAnswerBytes);
    {
        PLockGuard guard(m_state->lock);
        m_state->name = name;
        m_state->scopedName.clear();
        m_state->started = nowRfc3339();
        m_state->conn = conn;
        m_state->dispatcher = std::make_shared<CabDispatcher>(maxHandlers);
        m_state->pool = std::make_shared<CabWorkerPool>(maxHandlers);
        m_state->partsConn = partsConn;
        m_state->transfers = std::make_shared<CabTransfers>(conn, m_state->pool, creditTimeoutMs,
                                                            (uint64_t)(minRate > 0 ? minRate : 0), m_state->budget,
                                                            partsConn);
    }
    char at[256] = "";
    if (natsConnection_GetConnectedUrl(conn->nc(), at, sizeof at) != NATS_OK || !*at)
        snprintf(at, sizeof at, "%s", o.url.c_str());
    cablog::log(LOGLEVEL_INFO, "Connected to the directory at %s as %s", at, name);
    {
        PLockGuard guard(m_state->lock);
        m_state->creating = true;
    }
    rc = CreateServices();
    {
        PLockGuard guard(m_state->lock);
        m_state->creating = false;
    }
    if (rc != 0) {
        cablog::log(LOGLEVEL_WARN, "CreateServices returned %d", rc);
    }
    rc = RegisterServices();
    if (rc != 0) {
        std::string why = CabGetLastError();
        Disconnect();
        CabSetLastError(why);
        return rc;
    }
    return 0;
}

int CabSatellite::RegisterServices() {
    std::shared_ptr<CabConnection> conn;
    std::shared_ptr<CabDispatcher> dispatcher;
    std::vector<std::shared_ptr<CabServiceEntry>> todo;
    std::string name;
    bool needSrv;
    {
        PLockGuard guard(m_state->lock);
        conn = m_state->conn;
        dispatcher = m_state->dispatcher;
        name = m_state->name;
        for (auto& e : m_state->services) {
            if (e->sub) continue;
            e->subject = cabwire::serviceSubject(m_state->name, e->name);
            todo.push_back(e);
        }
        needSrv = !m_state->services.empty() && m_state->srvSubs.empty();
    }
    if (!conn) return 0;  // registered on Connect
    // With cabDirectory.hostScope every service also listens, in the same
    // queue group, as "cab.<name>@<host>.<service>": a client can then
    // address the instance on one host.
    std::string scoped;
    if (hostScopeWanted()) {
        std::string host = scopeHost();
        if (host.empty())
            cablog::log(LOGLEVEL_ERROR, "cabDirectory.hostScope: this host's name is not a valid name; %s listens "
                                        "under its plain name only", name.c_str());
        else
            scoped = name + "@" + host;
    }
    {
        PLockGuard guard(m_state->lock);
        if (!scoped.empty()) m_state->scopedName = scoped;  // requests to it run inline, as to `name`
    }
    std::vector<std::pair<std::shared_ptr<CabServiceEntry>, std::string>> listen;
    for (auto& e : todo) {
        PLockGuard guard(m_state->lock);
        listen.emplace_back(e, e->subject);
        if (!scoped.empty() && !e->hostSub) listen.emplace_back(e, cabwire::serviceSubject(scoped, e->name));
    }
    std::weak_ptr<CabSatelliteState> wstate = m_state;
    std::weak_ptr<CabConnection> wconn = conn;
    int failures = 0;
    std::vector<std::string> subjects;
    for (auto& l : listen) {
        const std::shared_ptr<CabServiceEntry>& e = l.first;
        const std::string& subject = l.second;
        subjects.push_back(cabwire::listenSubject(subject));
        natsSubscription* sub = conn->subscribeSync(subjects.back(), name);
        bool served = sub && dispatcher->add(sub, [wstate, wconn, e](natsMsg* msg) {
            std::shared_ptr<CabSatelliteState> st = wstate.lock();
            std::shared_ptr<CabConnection> c = wconn.lock();
            if (!st || !c) {
                cabwire::destroy(msg);
                return;
            }
            // Only a request we may answer is owed an answer at shutdown.
            const char* reply = natsMsg_GetReply(msg);
            const char* subject = natsMsg_GetSubject(msg);
            bool answerable = reply && cabwire::replyAllowed(cabwire::callerOf(subject ? subject : ""), reply);
            cabServe(st.get(), c, e, msg, answerable ? st->admit(reply) : 0);
        });
        if (!served) sub = nullptr;
        if (!sub) {
            ++failures;
            continue;
        }
        PLockGuard guard(m_state->lock);
        (subject == e->subject ? e->sub : e->hostSub) = sub;
    }
    if (needSrv) {
        std::string id = instanceId();
        std::vector<natsSubscription*> subs;
        for (const char* verb : {"PING", "INFO", "STATS"}) {
            std::string base = std::string("$SRV.") + verb;
            for (const std::string& subj : {base, base + "." + name, base + "." + name + "." + id}) {
                subjects.push_back(subj);
                natsSubscription* sub = conn->subscribe(subj, "", [wstate, wconn](natsMsg* msg) {
                    std::shared_ptr<CabSatelliteState> st = wstate.lock();
                    std::shared_ptr<CabConnection> c = wconn.lock();
                    if (st && c) cabAnswerDiscovery(st.get(), c, msg);
                    cabwire::destroy(msg);
                });
                if (sub) subs.push_back(sub);
                else ++failures;
            }
        }
        PLockGuard guard(m_state->lock);
        m_state->srvSubs.insert(m_state->srvSubs.end(), subs.begin(), subs.end());
    }
    // Make sure the directory knows the subscriptions before anyone is told we are here.
    natsStatus s = natsConnection_FlushTimeout(conn->nc(), 5000);
    if (failures) return CabFail(CAB_E_INTERNAL, std::to_string(failures) + " subscriptions failed");
    if (s != NATS_OK) return CabFail(CAB_E_NOT_CONNECTED, std::string("flush: ") + natsStatus_GetText(s));
    // The directory answers a refused subscription before the flush's PONG.
    std::string denied = conn->subscriptionDenied(subjects);
    if (!denied.empty()) {
        int rc = CabFail(CAB_E_PERMISSION_DENIED, denied);
        cablog::log(LOGLEVEL_ERROR, "Registering the services of %s failed: %s", name.c_str(), denied.c_str());
        return rc;
    }
    if (!todo.empty())
        cablog::log(LOGLEVEL_INFO, "Registered %d services of %s%s%s", (int)todo.size(), name.c_str(),
                    scoped.empty() ? "" : ", also as ", scoped.c_str());
    return 0;
}

int CabSatellite::UnregisterServices(bool forget) {
    Subscriptions subs = takeSubscriptions(m_state.get(), forget);
    if (subs.dispatcher)
        for (natsSubscription* s : subs.services) subs.dispatcher->remove(s);
    if (subs.conn) {
        for (natsSubscription* s : subs.discovery) subs.conn->unsubscribe(s);
        if (subs.conn->connected()) natsConnection_FlushTimeout(subs.conn->nc(), 5000);
    }
    return 0;
}

void CabSatellite::DrainServices(int timeoutMs) {
    Subscriptions subs = takeSubscriptions(m_state.get(), false);
    // A request the directory routed here before it saw us leave is still
    // served: dropping it would leave its requester waiting for the time-out.
    if (subs.conn && subs.conn->connected()) {
        if (subs.dispatcher) subs.dispatcher->drain(subs.services, timeoutMs);
        subs.conn->drain(subs.discovery, timeoutMs);
        return;
    }
    if (subs.dispatcher)
        for (natsSubscription* s : subs.services) subs.dispatcher->remove(s);
    if (subs.conn)
        for (natsSubscription* s : subs.discovery) subs.conn->unsubscribe(s);
}

int CabSatellite::Disconnect() {
    int graceMs = cabsettings::integer("cabDirectory.shutdownGraceMs", kDefaultGraceMs);
    if (graceMs < 0) graceMs = kDefaultGraceMs;
    struct timespec deadline = cabDeadline(graceMs);
    DrainServices(std::min(graceMs, kDrainTimeoutMs));
    std::shared_ptr<CabConnection> conn, partsConn;
    std::shared_ptr<CabDispatcher> dispatcher;
    std::shared_ptr<CabWorkerPool> pool;
    std::string name;
    {
        PLockGuard guard(m_state->lock);
        conn.swap(m_state->conn);
        partsConn.swap(m_state->partsConn);
        dispatcher.swap(m_state->dispatcher);
        pool.swap(m_state->pool);
        name = m_state->name;
    }
    if (!conn) return 0;
    // Running and waiting requests are served, and answers' later parts
    // sent, within the grace.
    bool served = !dispatcher || dispatcher->stopUntil(deadline);
    bool sent = !pool || pool->stopUntil(deadline);
    std::shared_ptr<CabTransfers> transfers;
    {
        PLockGuard guard(m_state->lock);
        transfers.swap(m_state->transfers);
    }
    if (!served || !sent) {
        // Whoever is still waiting for us hears that we are leaving instead
        // of timing out (claimed first, so a handler that ends a moment later
        // cannot answer instead); then the requests the handlers wait for end.
        std::vector<std::string> replies = m_state->claimAll();
        if (dispatcher)
            dispatcher->takePending([&replies](natsMsg* msg) {
                const char* reply = natsMsg_GetReply(msg);
                if (reply && *reply) replies.push_back(reply);
                cabwire::destroy(msg);
            });
        for (const std::string& r : replies)
            if (transfers) transfers->send(r, CAB_E_CANCELLED, "the satellite is shutting down", 0, nullptr);
        conn->failAll(CAB_E_CANCELLED);
        int stuck = dispatcher ? dispatcher->busyCount() : 0;
        {
            PLockGuard guard(m_state->inflightLock);
            m_state->stuckHandlers = stuck;
        }
        cablog::log(LOGLEVEL_WARN, "%s: %d handlers still running after %d ms; %d requests answered with %s",
                    name.c_str(), stuck, graceMs, (int)replies.size(), CabStatusName(CAB_E_CANCELLED));
        if (!served) keepForever(dispatcher);
        if (!sent) keepForever(pool);
    }
    if (transfers) transfers->abandonAll("the satellite is leaving");
    conn->close();  // threads still waiting for requests wake up and end
    if (partsConn) partsConn->close();
    cablog::log(LOGLEVEL_INFO, "Disconnected %s from the directory", name.c_str());
    return 0;
}

int CabSatellite::handlersStillRunning() const {
    PLockGuard guard(m_state->inflightLock);
    return m_state->stuckHandlers;
}

int CabSatellite::AddService(const char* name, const char* description, CabSatelliteDelegateGeneric* handler) {
    std::unique_ptr<CabSatelliteDelegateGeneric> owned(handler);
    if (!cabwire::validName(name)) {
        int rc = CabFail(CAB_E_INVALID_NAME, std::string("service name '") + (name ? name : "(null)") + "'");
        cablog::log(LOGLEVEL_ERROR, "AddService refused: %s", CabGetLastError().c_str());
        return rc;
    }
    if (!handler) return CabFail(CAB_E_INVALID_ARGUMENT, std::string("no handler for service ") + name);
    bool connected;
    {
        PLockGuard guard(m_state->lock);
        for (auto& e : m_state->services) {
            if (e->name == name) {
                int rc = CabFail(CAB_E_INVALID_ARGUMENT, std::string("service ") + name + " added twice");
                cablog::log(LOGLEVEL_ERROR, "AddService refused: %s", CabGetLastError().c_str());
                return rc;
            }
        }
        auto e = std::make_shared<CabServiceEntry>();
        e->name = name;
        e->description = description ? description : "";
        e->delegate = std::move(owned);
        m_state->services.push_back(e);
        connected = m_state->conn != nullptr && !m_state->creating;
    }
    // Added after Connect (outside CreateServices): listen at once.
    return connected ? RegisterServices() : 0;
}

int CabSatellite::AddService(const char* name, const char* description, CabServiceFunction handler) {
    if (!handler) return CabFail(CAB_E_INVALID_ARGUMENT, "null handler function");
    return AddService(name, description, new CabSatelliteDelegateFunction(handler));
}

int CabSatellite::RestrictToAdmins(const char* service) {
    std::shared_ptr<CabServiceEntry> entry = m_state->findService(service ? service : "");
    if (!entry) return CabFail(CAB_E_INVALID_ARGUMENT, std::string("no service '") + (service ? service : "") + "'");
    entry->adminsOnly = true;
    return 0;
}

int CabSatellite::RemoveService(const char* name) {
    std::shared_ptr<CabDispatcher> dispatcher;
    std::shared_ptr<CabConnection> conn;
    natsSubscription* sub = nullptr;
    natsSubscription* hostSub = nullptr;
    {
        PLockGuard guard(m_state->lock);
        dispatcher = m_state->dispatcher;
        conn = m_state->conn;
        for (auto it = m_state->services.begin(); it != m_state->services.end(); ++it) {
            if ((*it)->name == (name ? name : "")) {
                sub = (*it)->sub;
                hostSub = (*it)->hostSub;
                m_state->services.erase(it);
                break;
            }
        }
    }
    if (dispatcher && sub) dispatcher->remove(sub);
    if (dispatcher && hostSub) dispatcher->remove(hostSub);
    // Once this returns the directory knows: a request sent after it is not
    // routed here to be dropped.
    if (conn && (sub || hostSub) && conn->connected()) natsConnection_FlushTimeout(conn->nc(), 5000);
    return 0;
}

int CabSatellite::CreateServices() { return 0; }

int CabSatellite::OnServiceRequested(int requestId, const char* service, const char* requester, tagVARIANT in,
                                     tagVARIANT* out, int* status) {
    std::shared_ptr<CabServiceEntry> e = m_state->findService(service ? service : "");
    if (!e) return CAB_E_NO_SUCH_SERVICE;
    *status = e->delegate->Invoke(service, in, out);
    return 0;
}

void CabSatellite::OnServiceAvailabilityChanged(const char*, const char*, int) {}

void CabSatellite::OnStatusChange(int state, CABSTATUS) {
    std::string n = name();
    switch (state) {
    case CAB_STATE_DISCONNECTED:
        cablog::log(LOGLEVEL_WARN, "%s: connection to the directory lost; reconnecting", n.c_str());
        break;
    case CAB_STATE_RECONNECTED:
        cablog::log(LOGLEVEL_INFO, "%s: reconnected to the directory", n.c_str());
        break;
    case CAB_STATE_CLOSED:
        cablog::log(LOGLEVEL_INFO, "%s: connection to the directory closed", n.c_str());
        break;
    default:
        cablog::log(LOGLEVEL_INFO, "%s: connection state %d", n.c_str(), state);
    }
}

int CabSatellite::GetSatelliteId(int* id) {
    std::shared_ptr<CabConnection> c = m_state->connection();
    uint64_t cid = 0;
    if (!c || natsConnection_GetClientID(c->nc(), &cid) != NATS_OK) {
        if (id) *id = -1;
        return CabFail(CAB_E_NOT_CONNECTED);
    }
    if (id) *id = (int)cid;
    return 0;
}

int CabSatellite::AddServiceAvailabilityListener(const char*) { return 0; }
int CabSatellite::RemoveServiceAvailabilityListener(const char*) { return 0; }

int CabRetcode(const tagVARIANT& rc, int fallback) {
    auto scalar = [&](const tagVARIANT& v, int* out) {
        switch (v.vt) {
        case VT_I4: *out = v.lVal; return true;
        case VT_I2: *out = v.iVal; return true;
        case VT_I8: *out = (int)v.llVal; return true;
        case VT_UI4: *out = (int)v.ulVal; return true;
        default: return false;
        }
    };
    int value = fallback;
    if (scalar(rc, &value)) return value;
    if (!(rc.vt & VT_ARRAY) || !rc.parray) return fallback;
    int32_t ub = -1;
    if (SafeArrayGetUBound(rc.parray, 1, &ub) != S_OK || ub < 0) return fallback;
    int32_t index = 0;
    if (rc.vt == (VT_ARRAY | VT_VARIANT)) {
        tagVARIANT e;
        VariantInit(&e);
        if (SafeArrayGetElement(rc.parray, &index, &e) == S_OK && !scalar(e, &value)) value = fallback;
        VariantClear(&e);
        return value;
    }
    if (rc.vt == (VT_ARRAY | VT_I4)) {
        int32_t v = 0;
        if (SafeArrayGetElement(rc.parray, &index, &v) == S_OK) return v;
    }
    return fallback;
}
