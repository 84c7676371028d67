// CabSatellite: joining and leaving the directory, and the connection's state.
#include "cab/CabSatellite.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>

#include "cab/internal/CabDirectorySettings.h"
#include "cab/internal/CabLog.h"
#include "cab/internal/CabSatelliteState.h"
#include "cab/internal/CabWire.h"

namespace {

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

// Keeps threads that outlived Disconnect (their dispatcher or pool) for as
// long as the process: they still use it when their handlers end.
void keepForever(const std::shared_ptr<void>& owner) {
    static PMutex* lock = new PMutex;  // guards *kept
    static auto* kept KIV_PT_GUARDED_BY(*lock) = new std::vector<std::shared_ptr<void>>;
    PLockGuard guard(*lock);
    kept->push_back(owner);
}

}  // namespace

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
    o.url = cabsettings::directoryUrl(host);
    o.name = name;
    int maxHandlers;
    {
        PLockGuard guard(m_state->lock);
        if (m_state->tokenSet) o.token = m_state->token;
        o.user = m_state->user;
        o.password = m_state->password;
        maxHandlers = m_state->maxHandlers;
    }
    cabsettings::readCredentials(&o);
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

void CabSatellite::OnStatusChange(int state, CABSTATUS) {
    std::string n = name();
    switch (state) {
    case CAB_STATE_DISCONNECTED:
        cablog::log(LOGLEVEL_WARN, "%s: connection to the directory lost; reconnecting", n.c_str());
        break;
    case CAB_STATE_RECONNECTED: cablog::log(LOGLEVEL_INFO, "%s: reconnected to the directory", n.c_str()); break;
    case CAB_STATE_CLOSED: cablog::log(LOGLEVEL_INFO, "%s: connection to the directory closed", n.c_str()); break;
    default: cablog::log(LOGLEVEL_INFO, "%s: connection state %d", n.c_str(), state);
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
