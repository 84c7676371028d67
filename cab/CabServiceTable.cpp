// A satellite's service table: adding, restricting and removing services,
// serving one inline, and reading a handler's return code.
#include "cab/CabSatellite.h"

#include <memory>

#include "cab/internal/CabLog.h"
#include "cab/internal/CabSatelliteState.h"
#include "cab/internal/CabWire.h"

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
