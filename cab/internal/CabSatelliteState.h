// The private state behind a CabSatellite: its identity, settings, services
// with their statistics, connection, dispatcher and worker pool. Shared by the satellite
// and by the jobs and callbacks that serve it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nats/nats.h>

#include "cab/internal/CabAnswerSource.h"
#include "cab/CabConnection.h"
#include "cab/internal/CabDispatcher.h"
#include "cab/CabMemoryBudget.h"
#include "cab/CabSatellite.h"
#include "cab/internal/CabTransfers.h"
#include "cab/internal/CabWorkerPool.h"
#include "host/PThread.h"

// The default of "cabDirectory.maxAnswerBytes": 1 GiB.
constexpr uint64_t kCabDefaultAnswerBytes = 1ull << 30;

struct CabServiceStats {
    uint64_t requests = 0;
    uint64_t errors = 0;
    int64_t processingNs = 0;
    std::string lastError;
};

struct CabServiceEntry {
    std::string name;
    std::string description;
    std::string subject;
    std::unique_ptr<CabSatelliteDelegateGeneric> delegate;
    std::atomic<bool> adminsOnly{false};  // RestrictToAdmins: never run for another request
    natsSubscription* sub = nullptr;      // CabSatelliteState::lock
    natsSubscription* hostSub = nullptr;  // CabSatelliteState::lock: "cab.<name>@<host>.<service>", with host scope

    PMutex statsLock;  // guards stats
    CabServiceStats stats KIV_GUARDED_BY(statsLock);
    void record(int64_t ns, const std::string* error);
};

struct CabSatelliteState {
    CabSatellite* owner = nullptr;
    // What the answers hold, for the life of the satellite (its limit is set
    // on Connect); the pointer never changes, the budget has its own lock.
    const std::shared_ptr<CabMemoryBudget> budget = std::make_shared<CabMemoryBudget>(kCabDefaultAnswerBytes);

    mutable PMutex lock;  // guards every field below
    std::string name KIV_GUARDED_BY(lock);
    std::string scopedName KIV_GUARDED_BY(lock);  // "<name>@<host>" while listening host-scoped, else ""
    std::string id KIV_GUARDED_BY(lock);
    std::string started KIV_GUARDED_BY(lock);  // RFC 3339, UTC
    std::string token KIV_GUARDED_BY(lock);
    bool tokenSet KIV_GUARDED_BY(lock) = false;
    std::string user KIV_GUARDED_BY(lock);  // set by setUser: wins over the settings
    std::string password KIV_GUARDED_BY(lock);
    int timeoutMs KIV_GUARDED_BY(lock) = -1;                 // -1: from the settings
    mutable int settingTimeoutMs KIV_GUARDED_BY(lock) = 0;   // the setting as last read
    mutable int64_t settingReadMs KIV_GUARDED_BY(lock) = 0;  // when, on the monotonic clock
    int maxHandlers KIV_GUARDED_BY(lock) = -1;               // -1: from the settings
    std::shared_ptr<CabConnection> conn KIV_GUARDED_BY(lock);
    std::shared_ptr<CabConnection> partsConn
        KIV_GUARDED_BY(lock);  // answers in parts, with cabDirectory.partsConnection; or null
    std::shared_ptr<CabDispatcher> dispatcher KIV_GUARDED_BY(lock);  // serves the services' requests
    std::shared_ptr<CabWorkerPool> pool KIV_GUARDED_BY(lock);        // sends the later parts of answers
    std::shared_ptr<CabTransfers> transfers KIV_GUARDED_BY(lock);    // answers waiting for their requesters
    bool creating KIV_GUARDED_BY(lock) = false;  // inside CreateServices: Connect registers the services afterwards
    std::vector<std::shared_ptr<CabServiceEntry>> services KIV_GUARDED_BY(lock);  // in the order added
    std::vector<natsSubscription*> srvSubs KIV_GUARDED_BY(lock);                  // discovery subscriptions

    std::atomic<int> nextRequestId{1};

    // Requests accepted and not yet answered, so that a satellite leaving
    // before its handlers end can still answer each of them exactly once.
    PMutex inflightLock;                                                    // guards the three below
    std::map<uint64_t, std::string> inflight KIV_GUARDED_BY(inflightLock);  // reply subjects by serial
    uint64_t nextServe KIV_GUARDED_BY(inflightLock) = 1;
    int stuckHandlers KIV_GUARDED_BY(inflightLock) = 0;  // still running when Disconnect gave up on them
    // A serial for a request answering to `replyTo`; 0 when it has none.
    uint64_t admit(const std::string& replyTo);
    // True exactly once per serial: the caller answers the request.
    bool claim(uint64_t serial);
    // Claims every request still unanswered; their reply subjects.
    std::vector<std::string> claimAll();

    std::shared_ptr<CabConnection> connection() const;
    std::shared_ptr<CabTransfers> transferTable() const;
    int requestTimeoutMs() const;
    std::shared_ptr<CabServiceEntry> findService(const std::string& service) const;
};

// What the handler running on a thread hands the library besides its
// output: an answer read from a file while it is sent.
struct CabServeContext {
    std::unique_ptr<CabAnswerSource> fileAnswer;
};
// Makes `context` (may be null: none) the calling thread's serving context
// for the scope's lifetime, then restores the one before. A handler called
// inline (not for a request from the directory) runs with none.
class CabServeContextScope {
public:
    explicit CabServeContextScope(CabServeContext* context);
    ~CabServeContextScope();
    CabServeContextScope(const CabServeContextScope&) = delete;
    CabServeContextScope& operator=(const CabServeContextScope&) = delete;

private:
    CabServeContext* m_previous;
};
CabServeContext* cabCurrentServeContext();

// Runs the service's handler on the calling thread with `context` (may be
// null) as its serving context, and catches what it throws: then the status
// is CAB_E_HANDLER_EXCEPTION, *error (and *errorCode for a CabException) say
// what, *out is cleared and the throw is logged. Otherwise the handler's status.
int cabInvokeHandler(CabSatelliteState* state, const std::shared_ptr<CabServiceEntry>& entry, const char* requester,
                     const tagVARIANT& in, tagVARIANT* out, CabServeContext* context, std::string* error,
                     int* errorCode, bool* threw);
// Serves one request message on a service thread (CabServe.cpp); `serial`
// is what admit() gave it.
void cabServe(CabSatelliteState* state, const std::shared_ptr<CabConnection>& conn,
              const std::shared_ptr<CabServiceEntry>& entry, natsMsg* msg, uint64_t serial);
// Answers a "$SRV" discovery request (CabDiscovery.cpp).
void cabAnswerDiscovery(CabSatelliteState* state, const std::shared_ptr<CabConnection>& conn, natsMsg* msg);
