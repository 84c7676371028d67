// Serving one request: check the message, decode the input, run the handler,
// catch whatever it throws, send the answer and count it.
#include <chrono>
#include <exception>
#include <string>

#include "value/Cab1.h"
#include "cab/CabException.h"
#include "cab/CabInline.h"
#include "cab/internal/CabLog.h"
#include "cab/internal/CabSatelliteState.h"
#include "cab/internal/CabWire.h"

namespace {

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void refuse(CabTransfers* transfers, const std::shared_ptr<CabServiceEntry>& entry, const std::string& replyTo,
            const std::string& why) {
    cablog::log(LOGLEVEL_WARN, "Refused request for %s: %s", entry->name.c_str(), why.c_str());
    entry->record(0, &why);
    transfers->send(replyTo, CAB_E_MALFORMED, why, 0, nullptr);
}

// The serving context of the calling thread; owned by that thread alone.
thread_local CabServeContext* t_context = nullptr;

}  // namespace

int cabInvokeHandler(CabSatelliteState* state, const std::shared_ptr<CabServiceEntry>& entry, const char* requester,
                     const tagVARIANT& in, tagVARIANT* out, CabServeContext* context, std::string* error,
                     int* errorCode, bool* threw) {
    int status = 0;
    *threw = false;
    try {
        CabServeContextScope scope(context);
        int rc = state->owner->OnServiceRequested(state->nextRequestId++, entry->name.c_str(), requester, in, out,
                                                  &status);
        if (rc != 0) {
            status = rc;
            *error = "no service " + entry->name;
        }
    } catch (const CabException& e) {
        *threw = true;
        *error = e.getMessage();
        *errorCode = e.getCode();
    } catch (const std::exception& e) {
        *threw = true;
        *error = e.what();
    } catch (...) {
        *threw = true;
        *error = "unknown exception";
    }
    if (*threw) {
        status = CAB_E_HANDLER_EXCEPTION;
        VariantClear(out);  // a throwing handler produces no output
        cablog::log(LOGLEVEL_ERROR, "Service %s threw: %s", entry->name.c_str(), error->c_str());
    }
    return status;
}

CabServeContextScope::CabServeContextScope(CabServeContext* context) : m_previous(t_context) { t_context = context; }
CabServeContextScope::~CabServeContextScope() { t_context = m_previous; }
CabServeContext* cabCurrentServeContext() { return t_context; }

bool CabSatellite::AnswerWithFileRange(int fd, uint64_t offset, uint64_t length) {
    CabServeContext* c = t_context;
    if (!c || fd < 0 || length > 0xFFFFFFFFull) return false;
    c->fileAnswer = cabFileAnswer(fd, offset, (uint32_t)length, cabwire::kWindowBytes);
    return true;
}

void cabServe(CabSatelliteState* state, const std::shared_ptr<CabConnection>&,
              const std::shared_ptr<CabServiceEntry>& entry, natsMsg* msg, uint64_t serial) {
    int64_t start = nowNs();
    const char* reply = natsMsg_GetReply(msg);
    if (!reply || !*reply) {
        std::string why = "request without a reply subject dropped";
        cablog::log(LOGLEVEL_WARN, "Refused request for %s: %s", entry->name.c_str(), why.c_str());
        entry->record(0, &why);
        cabwire::destroy(msg);
        return;
    }
    std::string replyTo = reply;
    // Who asks: the directory lets each user send requests only under its own name.
    const char* subject = natsMsg_GetSubject(msg);
    std::string caller = cabwire::callerOf(subject ? subject : "");
    if (caller.empty() || !cabwire::replyAllowed(caller, replyTo)) {
        // Nobody we can name, or an answer meant for somebody else's inbox:
        // answering would write where the caller may not.
        std::string why = caller.empty() ? std::string("request without a valid caller in its subject dropped")
                                         : "request of '" + caller + "' answering to '" + replyTo +
                                               "', outside its own inbox, dropped";
        cablog::log(LOGLEVEL_WARN, "Refused request for %s: %s", entry->name.c_str(), why.c_str());
        entry->record(0, &why);
        cabwire::destroy(msg);
        return;
    }
    cablog::log(LOGLEVEL_DEBUG, "Serving %s for '%s'", entry->name.c_str(), caller.c_str());
    std::shared_ptr<CabTransfers> transfers = state->transferTable();
    if (!transfers) {  // the satellite left while this request waited for a worker (and answered it)
        cabwire::destroy(msg);
        return;
    }
    // Exactly "1": read raw, before the client library trims the value.
    std::string proto;
    bool present = false;
    if (!cabwire::rawHeader(msg, cabwire::kProto, &proto, &present)) proto = cabwire::header(msg, cabwire::kProto);
    else if (!present) proto.clear();
    int64_t flags = 0;
    std::string why;
    if (proto != cabwire::kProtoVersion) {
        why = proto.empty() ? "missing Cab-Proto header" : "unsupported Cab-Proto '" + proto + "'";
    } else if (!cabwire::header(msg, cabwire::kFlags).empty() &&
               !cabwire::headerInt(msg, cabwire::kFlags, INT32_MIN, INT32_MAX, &flags)) {
        why = "bad Cab-Flags header";
    }
    tagVARIANT in;
    VariantInit(&in);
    if (why.empty()) {
        std::string err;
        if (!Cab1Decode(natsMsg_GetData(msg), (size_t)natsMsg_GetDataLength(msg), &in, &err))
            why = "request payload: " + err;
    }
    cabwire::destroy(msg);
    if (!why.empty()) {
        if (state->claim(serial)) refuse(transfers.get(), entry, replyTo, why);
        return;
    }

    tagVARIANT out;
    VariantInit(&out);
    std::string error;
    int errorCode = 0;
    bool threw = false;
    CabServeContext context;
    int status;
    CabMemoryBudget::Reservation held;  // what the handler reserved for its answer
    {
        CabCallerScope callerScope(caller);
        CabMemoryLedger ledger(state->budget);
        CabLedgerScope ledgerScope(&ledger);
        status = cabInvokeHandler(state, entry, caller.c_str(), in, &out, &context, &error, &errorCode, &threw);
        held = ledger.take();
    }
    VariantClear(&in);
    entry->record(nowNs() - start, threw ? &error : nullptr);
    std::unique_ptr<CabAnswerSource> answer;
    if (context.fileAnswer && !threw && out.vt == VT_EMPTY) {
        answer = std::move(context.fileAnswer);
    } else if (out.vt != VT_EMPTY) {
        std::string why;
        answer = cabVariantAnswer(&out, &why);
        if (!answer) {
            status = CAB_E_MALFORMED;
            error = "the answer cannot be encoded: " + why;
            cablog::log(LOGLEVEL_ERROR, "Answer to %s refused: %s", replyTo.c_str(), error.c_str());
        }
    }
    VariantClear(&out);
    if (!state->claim(serial)) {
        cablog::log(LOGLEVEL_WARN, "Answer of %s dropped: the request was already answered with %s at shutdown",
                    entry->name.c_str(), CabStatusName(CAB_E_CANCELLED));
        return;
    }
    transfers->send(replyTo, status, error, errorCode, std::move(answer), std::move(held));
}
