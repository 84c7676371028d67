// CabSatellite: a satellite on the CAB directory (a NATS server).
//
// Promises:
// - Connect(host, name) connects to nats://host:port (port from the setting
//   "cabDirectory.port", default 4222; "host:port" wins; "tls://host:port"
//   or a cabDirectory.tls.* setting asks for TLS) as the NATS user
//   "cabDirectory.user" with "cabDirectory.password" (or an nkey; the shared
//   "cabDirectory.token" only when no user is set), calls CreateServices(), then listens on
//   "cab.<name>.<service>" in queue group <name> for every added service and
//   answers the "$SRV" discovery requests. A plain host gives way to the
//   setting "cabDirectory.servers" (comma-separated URLs of a cluster); a URL
//   or a list given to Connect is used as it is. After a server is lost the
//   connection moves to another one and listens again. With the setting
//   "cabDirectory.hostScope" each service also listens, in the same queue
//   group, on "cab.<name>@<host>.<service>" (host: KIV_HOSTNAME, else the
//   host name to its first dot, in lower case); Request accepts such a
//   "<name>@<host>" target. Returns 0 or a negative CabStatus;
//   CAB_E_PERMISSION_DENIED when the directory does not let this user serve
//   that name. A request the directory refuses fails with the same code at once.
//   A satellite that adds no service is a pure client: it publishes nothing.
// - Handlers run on the library's service threads, on the thread that
//   received the request (cab/CabDispatcher.h), several at once; at most
//   "cabDirectory.maxHandlers" (default 256) run together over all services,
//   later requests wait in order. A handler may itself call Request, also on its own
//   satellite: a request to the satellite's own service runs inline on the
//   calling thread, at most 16 deep (cab/CabInline.h), so it never waits for
//   a service thread.
//   A throwing handler yields CAB_E_HANDLER_EXCEPTION plus the text to the
//   requester; the satellite logs it and keeps serving.
// - An answer larger than one message waits for its requester's credit
//   without holding a thread; one that gets no credit for
//   "cabDirectory.creditTimeoutMs" (default 30000), or less than
//   "cabDirectory.minTransferBytesPerSecond" (default 256 KiB) over such a
//   period, is abandoned.
// - Everything the answers hold (waiting for credit, built by handlers, the
//   outputs of inline calls and answers received for a served request)
//   stays within "cabDirectory.maxAnswerBytes" (default 1 GiB), with a share
//   per caller (cab/CabMemoryBudget.h): past it the request, or the inline
//   call, is refused with CAB_E_BUSY.
// - Request blocks until the whole answer arrived (replies up to 4 GiB, sent
//   in parts under flow control) or the time-out ("cabDirectory.requestTimeoutMs",
//   default 300000) passed. *retcodes becomes VT_ARRAY|VT_VARIANT with one
//   VT_I4 element: the handler's status or a negative library code. Request
//   returns 0 when the handler answered (whatever its status), else the
//   negative library code. CabGetLastError() has the text of a failure.
// - Any thread may call Request, AddService, Connect and Disconnect.
// - The library owns the delegates handed to AddService.
// - Destruction disconnects. A derived class whose handlers use its own
//   members should call Disconnect() first in its destructor, so that no
//   handler runs on a half-destroyed object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "cab/CabStatus.h"
#include "value/Variant.h"

class CBBLog;
class CabMemoryBudget;

typedef int CABFLAGS;
typedef int CABSTATUS;

// Connection states reported through OnStatusChange.
enum CabConnectionState {
    CAB_STATE_CONNECTED = 1,
    CAB_STATE_DISCONNECTED = 2,
    CAB_STATE_RECONNECTED = 3,
    CAB_STATE_CLOSED = 4,
};

typedef int (*CabServiceFunction)(const char* serviceName, const tagVARIANT& in, tagVARIANT* out);

class CabSatelliteDelegateGeneric {
public:
    virtual ~CabSatelliteDelegateGeneric() = default;
    virtual int Invoke(const char* name, const tagVARIANT& in, tagVARIANT* out) = 0;
};

// Calls a member of T on one object; returns its status unchanged, catches nothing.
template <class T>
class CabSatelliteDelegateMember : public CabSatelliteDelegateGeneric {
public:
    typedef int (T::*Method)(const char*, const tagVARIANT&, tagVARIANT*);
    CabSatelliteDelegateMember(T* obj, Method m) : m_obj(obj), m_method(m) {}
    int Invoke(const char* name, const tagVARIANT& in, tagVARIANT* out) override {
        return (m_obj->*m_method)(name, in, out);
    }

private:
    T* m_obj;
    Method m_method;
};

// Calls a plain function; returns its status unchanged, catches nothing.
class CabSatelliteDelegateFunction : public CabSatelliteDelegateGeneric {
public:
    explicit CabSatelliteDelegateFunction(CabServiceFunction f) : m_fn(f) {}
    int Invoke(const char* name, const tagVARIANT& in, tagVARIANT* out) override { return m_fn(name, in, out); }

private:
    CabServiceFunction m_fn;
};

struct CabSatelliteState;  // the library's private state (cab/CabSatelliteState.h)

class CabSatellite {
public:
    CabSatellite();
    virtual ~CabSatellite();
    CabSatellite(const CabSatellite&) = delete;
    CabSatellite& operator=(const CabSatellite&) = delete;

    virtual int Connect(const char* host, const char* name);
    // Same as Connect (the user comes from setUser or the settings).
    virtual int ConnectUser(const char* host, const char* name);
    // Stops serving and closes the connection. Handlers running or queued get
    // "cabDirectory.shutdownGraceMs" (default 5000) to finish; at that point
    // every request not yet answered is answered with CAB_E_CANCELLED,
    // requests the handlers wait for fail with CAB_E_CANCELLED, and handlers
    // still running are left to end on their own (see handlersStillRunning).
    // Waiting requests of this client fail with CAB_E_NOT_CONNECTED. Safe to call twice.
    virtual int Disconnect();
    // Handlers the last Disconnect left running: until they end, the object
    // they run on must not be destroyed (a process exits instead).
    int handlersStillRunning() const;
    virtual int Request(const char* target, const char* service, const tagVARIANT& in, tagVARIANT* out, CABFLAGS flags,
                        tagVARIANT* retcodes);
    // Asks the directory at host:port whether satellite `name` answers a
    // $SRV.PING within timeoutMs; *status gets 0 or a negative code.
    virtual int DirectoryPingSatellite(const char* host, const char* name, unsigned short port, int timeoutMs,
                                       CABSTATUS* status);
    // A number of this process's connection (the NATS client id); -1 when not connected.
    virtual int GetSatelliteId(int* id);
    // Availability notifications do not exist on this directory: accepted, never fire.
    virtual int AddServiceAvailabilityListener(const char* satellite);
    virtual int RemoveServiceAvailabilityListener(const char* satellite);
    // Override to add services; called by Connect before registering. Adds none by default.
    virtual int CreateServices();
    // Subscribes every added service not yet subscribed (Connect does this).
    virtual int RegisterServices();
    // Unsubscribes every service; with `forget` the services are removed too.
    virtual int UnregisterServices(bool forget);
    virtual int AddService(const char* name, const char* description, CabSatelliteDelegateGeneric* handler);
    virtual int AddService(const char* name, const char* description, CabServiceFunction handler);
    virtual int RemoveService(const char* name);
    // Marks a service as one for admins: the directory lets only admin users
    // send it requests (see docs/protocol.md, "Security"), and no request runs
    // it on another's behalf: a call from one of this satellite's own handlers
    // (a grouped request, say), which no directory checks, is refused with
    // CAB_E_PERMISSION_DENIED. CAB_E_INVALID_ARGUMENT for an unknown service.
    int RestrictToAdmins(const char* service);
    // Dispatch entry, called on a service thread: invokes the service's delegate.
    // Returns 0 when dispatched (status in *status), CAB_E_NO_SUCH_SERVICE when
    // the service is unknown. Exceptions of the handler pass through.
    virtual int OnServiceRequested(int requestId, const char* service, const char* requester, tagVARIANT in,
                                   tagVARIANT* out, int* status);
    virtual void OnServiceAvailabilityChanged(const char* satellite, const char* service, int available);
    // Connection state changes (CabConnectionState); logs them by default.
    virtual void OnStatusChange(int state, CABSTATUS status);

    static void setLogger(const boost::shared_ptr<CBBLog>& logger);

    // Called by a handler instead of filling its output: the answer is bytes
    // [offset, offset + length) of the open file `fd`, sent as a VT_ARRAY|VT_UI1
    // and read part by part as the requester takes them, so the satellite's
    // memory does not grow with `length` (at most 0xFFFFFFFF). Takes the
    // descriptor (closed when the answer is done) and returns true. Returns
    // false, leaving `fd` to the caller, when the calling thread is not serving
    // a request from the directory (a handler called directly or inline); the
    // handler then fills its output as usual.
    static bool AnswerWithFileRange(int fd, uint64_t offset, uint64_t length);

    // Set before Connect; they override the settings.
    void setToken(const std::string& token);
    // Connect as this NATS user (instead of cabDirectory.user/.password).
    void setUser(const std::string& user, const std::string& password);
    void setRequestTimeoutMs(int ms);
    void setMaxHandlers(int count);
    // The budget of what this satellite's answers hold.
    std::shared_ptr<CabMemoryBudget> memoryBudget() const;

    bool isConnected() const;
    std::string name() const;
    // The discovery id of this instance ("$SRV.*.NAME.ID").
    std::string instanceId() const;
    // Sends "$SRV.<verb>[.<name>]" (verb PING, INFO or STATS) and collects the
    // JSON answers of every satellite that answers within waitMs.
    int Discover(const char* verb, const char* name, int waitMs, std::vector<std::string>* replies);

private:
    // Stops listening for every service; requests already routed here are
    // still served (Disconnect then lets them finish).
    void DrainServices(int timeoutMs);

    std::shared_ptr<CabSatelliteState> m_state;
};

// A process that only sends requests: connects without publishing anything.
class CabClient : public CabSatellite {
public:
    // Leaves before the object stops being a CabClient: a connection-state
    // notification may still be calling into it until then.
    ~CabClient() override { Disconnect(); }
    int CreateServices() override { return 0; }
};

// Reads element 0 of a return-code variant, accepting VT_ARRAY|VT_VARIANT and
// VT_ARRAY|VT_I4 arrays and a plain integer; `fallback` when there is none.
int CabRetcode(const tagVARIANT& retcodes, int fallback = CAB_E_MALFORMED);
