// Registering a satellite's services with the directory: one subscription
// per service (and per host-scoped name) served by the dispatcher, and the
// "$SRV" discovery subjects; leaving again, at once or by draining.
#include "cab/CabSatellite.h"

#include "cab/internal/CabDirectorySettings.h"
#include "cab/internal/CabLog.h"
#include "cab/internal/CabSatelliteState.h"
#include "cab/internal/CabWire.h"

namespace {

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

}  // namespace

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
    if (cabsettings::hostScopeWanted()) {
        std::string host = cabsettings::scopeHost();
        if (host.empty())
            cablog::log(LOGLEVEL_ERROR,
                        "cabDirectory.hostScope: this host's name is not a valid name; %s listens "
                        "under its plain name only",
                        name.c_str());
        else scoped = name + "@" + host;
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
