// The requesting side: Request (one answer, in parts under credit when it is
// large; inline when a satellite asks one of its own services), discovery
// requests and the directory ping.
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "value/Cab1.h"
#include "cab/CabInline.h"
#include "cab/internal/CabLog.h"
#include "cab/CabMemoryBudget.h"
#include "cab/CabSatellite.h"
#include "cab/internal/CabSatelliteState.h"
#include "cab/internal/CabWire.h"

namespace {

// Inline calls the current thread is inside of; owned by that thread alone.
thread_local int t_inlineDepth = 0;
// The user the current thread works for; owned by that thread alone.
thread_local std::string t_caller;

// Closes a mailbox when the request ends, however it ends.
struct MailboxGuard {
    std::shared_ptr<CabConnection> conn;
    uint64_t token;
    ~MailboxGuard() { conn->closeMailbox(token); }
};

void sendControl(const std::shared_ptr<CabConnection>& conn, const std::string& to, const char* key,
                 const std::string& value) {
    natsMsg* m = nullptr;
    if (natsMsg_Create(&m, to.c_str(), nullptr, nullptr, 0) != NATS_OK) return;
    natsMsgHeader_Set(m, key, value.c_str());
    conn->publishMsg(m);
    cabwire::destroy(m);
}

// Hands a decoded answer to the caller (or drops it when nobody wants it).
int takeDecoded(tagVARIANT* decoded, tagVARIANT* out) {
    if (out) {
        VariantClear(out);
        *out = *decoded;  // moves ownership
    } else {
        VariantClear(decoded);
    }
    return 0;
}

void destroyMsg(void* m) { cabwire::destroy(static_cast<natsMsg*>(m)); }

// Decodes a whole answer; `m` is consumed. A large array answer keeps the
// message as its storage instead of being copied out of it.
int decodeMessage(natsMsg* m, tagVARIANT* out) {
    tagVARIANT tmp;
    std::string err;
    bool lent = false;
    bool good = Cab1DecodeLending(const_cast<char*>(natsMsg_GetData(m)), (size_t)natsMsg_GetDataLength(m), &destroyMsg,
                                  m, &tmp, &lent, &err);
    if (!lent) cabwire::destroy(m);
    if (!good) return CabFail(CAB_E_MALFORMED, "answer payload: " + err);
    return takeDecoded(&tmp, out);
}

// The parts of one answer, kept as they arrived until they are decoded.
class PartList {
public:
    ~PartList() {
        for (natsMsg* m : m_msgs) cabwire::destroy(m);
    }
    void add(natsMsg* m) {
        m_msgs.push_back(m);
        m_pieces.push_back({natsMsg_GetData(m), (size_t)natsMsg_GetDataLength(m)});
    }
    int decodeInto(tagVARIANT* out) const {
        tagVARIANT tmp;
        std::string err;
        if (!Cab1DecodePieces(m_pieces.data(), m_pieces.size(), &tmp, &err))
            return CabFail(CAB_E_MALFORMED, "answer payload: " + err);
        return takeDecoded(&tmp, out);
    }

private:
    std::vector<natsMsg*> m_msgs;
    std::vector<Cab1Piece> m_pieces;
};

// Receives the parts after the first; `first` is consumed. The parts are
// decoded where they lie: no buffer of the whole answer is put together.
int receiveParts(const std::shared_ptr<CabConnection>& conn, const std::shared_ptr<CabMailbox>& box, natsMsg* first,
                 int timeoutMs, tagVARIANT* out) {
    int64_t total = 0, parts = 0;
    std::string creditTo = cabwire::header(first, cabwire::kCreditTo);
    if (!cabwire::headerInt(first, cabwire::kSize, 1, (int64_t)cabwire::kMaxReply, &total) ||
        !cabwire::headerInt(first, cabwire::kParts, 1, total, &parts) || creditTo.empty()) {
        cabwire::destroy(first);
        return CabFail(CAB_E_MALFORMED, "first part without valid Cab-Size, Cab-Parts and Cab-Credit-To");
    }
    // A handler's thread counts the answer in its own before the parts come.
    std::string refused;
    if (!CabReserveAnswerMemory((uint64_t)total, &refused)) {
        cabwire::destroy(first);
        sendControl(conn, creditTo, cabwire::kCancel, "1");
        return CabFail(CAB_E_BUSY, "an answer of " + std::to_string(total) + " bytes does not fit: " + refused);
    }
    PartList list;
    // Credit matters only when the responder cannot send every part ahead of it.
    int64_t window = 0;
    bool needCredit = !cabwire::headerInt(first, cabwire::kWindow, 1, INT32_MAX, &window) || window < parts;
    int64_t offset = 0;
    natsMsg* m = first;
    for (int64_t expect = 0;;) {
        int64_t index = -1;
        int len = natsMsg_GetDataLength(m);
        int64_t stopped = 0;
        if (len == 0 && total > 0 && cabwire::headerInt(m, cabwire::kPart, 0, parts - 1, &index) && index >= expect &&
            cabwire::headerInt(m, cabwire::kStatus, INT32_MIN, INT32_MAX, &stopped)) {
            // The responder could not go on and says why. A later index: it
            // lost its directory server, and the parts in between with it.
            std::string why = cabwire::header(m, cabwire::kError);
            cabwire::destroy(m);
            return CabFail(stopped ? (int)stopped : CAB_E_MALFORMED,
                           "the answer stopped at part " + std::to_string(expect) + " of " + std::to_string(parts) +
                               (why.empty() ? std::string() : ": " + why));
        }
        if (!cabwire::headerInt(m, cabwire::kPart, 0, parts - 1, &index) || index != expect || len > total - offset ||
            (len == 0 && total > 0)) {
            cabwire::destroy(m);
            sendControl(conn, creditTo, cabwire::kCancel, "1");
            return CabFail(CAB_E_MALFORMED, "part " + std::to_string(index) + " where part " + std::to_string(expect) +
                                                " of " + std::to_string(parts) + " was expected");
        }
        offset += len;
        list.add(m);
        ++expect;
        if (expect == parts) break;
        if (needCredit) sendControl(conn, creditTo, cabwire::kReceived, std::to_string(expect));
        int st = 0;
        m = box->wait(cabDeadline(timeoutMs), &st);
        if (!m) {
            sendControl(conn, creditTo, cabwire::kCancel, "1");
            return CabFail(st, "after part " + std::to_string(expect) + " of " + std::to_string(parts));
        }
        if (natsMsg_IsNoResponders(m)) {
            cabwire::destroy(m);
            return CabFail(CAB_E_MALFORMED, "no-responders message inside a transfer");
        }
    }
    if (offset != total)
        return CabFail(CAB_E_MALFORMED,
                       "parts hold " + std::to_string(offset) + " of " + std::to_string(total) + " bytes");
    return list.decodeInto(out);
}

// The service entry when `target` is this satellite itself, connected, and
// `service` one of its services that is listening; null otherwise.
std::shared_ptr<CabServiceEntry> ownService(CabSatelliteState* state, const char* target, const char* service) {
    {
        PLockGuard guard(state->lock);
        if (!state->conn) return nullptr;
        // Our plain name, or our host-scoped one ("<name>@<host>", any case of host).
        bool mine = state->name == target ||
                    (!state->scopedName.empty() && strchr(target, '@') &&
                     cabwire::serviceSubject(target, "") == cabwire::serviceSubject(state->scopedName, ""));
        if (!mine) return nullptr;
    }
    std::shared_ptr<CabServiceEntry> entry = state->findService(service);
    if (!entry) return nullptr;
    PLockGuard guard(state->lock);
    return entry->sub ? entry : nullptr;  // not listening (leaving): the directory decides
}

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Runs one of the satellite's own services on the calling thread, with the
// outcome a request through the directory would have: a thrown exception
// becomes CAB_E_HANDLER_EXCEPTION with its text and no output, a library
// status of the handler is a failure, the output moves into `out`, and the
// service's statistics count the call.
int requestInline(CabSatelliteState* state, const std::shared_ptr<CabServiceEntry>& entry, const char* target,
                  const tagVARIANT& in, tagVARIANT* out) {
    std::string subject = cabwire::serviceSubject(target, entry->name);
    if (entry->adminsOnly) {
        // The directory lets only admins ask for it, and no directory sees
        // this call: whoever asked us to make it gets no more than we may.
        std::string why = subject + ": a service for admins, not callable through another request" +
                          (t_caller.empty() ? std::string() : " (on behalf of '" + t_caller + "')");
        cablog::log(LOGLEVEL_WARN, "Refused request %s", why.c_str());
        return CabFail(CAB_E_PERMISSION_DENIED, why);
    }
    if (t_inlineDepth >= kCabMaxInlineDepth) {
        std::string why = subject + ": a request to the satellite's own service nested more than " +
                          std::to_string(kCabMaxInlineDepth) + " deep";
        cablog::log(LOGLEVEL_WARN, "Refused request %s", why.c_str());
        return CabFail(CAB_E_TOO_LARGE, why);
    }
    int64_t start = nowNs();
    tagVARIANT result;
    VariantInit(&result);
    std::string error;
    int errorCode = 0;
    bool threw = false;
    int status;
    // The output becomes part of the caller's answer: it is counted in the
    // ledger of the request the caller serves, or, on a thread that serves
    // none, in one held until the call returns.
    std::unique_ptr<CabMemoryLedger> own;
    CabMemoryLedger* outer = CabCurrentLedger();
    if (!outer) {
        own.reset(new CabMemoryLedger(state->budget));
        outer = own.get();
    }
    CabMemoryLedger call(outer);
    {
        CabInlineDepthScope depth(t_inlineDepth + 1);
        CabLedgerScope ledger(&call);
        // No serving context: the caller's answer is not this handler's.
        status = cabInvokeHandler(state, entry, target, in, &result, nullptr, &error, &errorCode, &threw);
    }
    entry->record(nowNs() - start, threw ? &error : nullptr);
    // What the handler did not reserve while it built its output must fit now.
    const uint64_t bytes = cabAnswerBytes(result), counted = call.counted();
    std::string why;
    if (bytes > counted && !call.reserve(bytes - counted, &why)) {
        VariantClear(&result);
        status = CAB_E_BUSY;
        error = "its answer of " + std::to_string(bytes) + " bytes does not fit: " + why;
        cablog::log(LOGLEVEL_WARN, "Refused answer of %s: %s", subject.c_str(), error.c_str());
    }
    takeDecoded(&result, out);
    CabSetLastError("");  // the handler's own requests leave theirs behind
    if (!error.empty() || CabIsLibraryStatus(status)) CabFail(status, error.empty() ? subject : subject + ": " + error);
    return status;
}

int requestImpl(CabSatelliteState* state, const char* target, const char* service, const tagVARIANT& in,
                tagVARIANT* out, CABFLAGS flags) {
    if (!target || !service) return CabFail(CAB_E_INVALID_ARGUMENT, "null satellite or service name");
    if (!cabwire::validTarget(target)) return CabFail(CAB_E_INVALID_NAME, std::string("satellite '") + target + "'");
    if (!cabwire::validName(service)) return CabFail(CAB_E_INVALID_NAME, std::string("service '") + service + "'");
    if (std::shared_ptr<CabServiceEntry> own = ownService(state, target, service))
        return requestInline(state, own, target, in, out);
    std::shared_ptr<CabConnection> conn = state->connection();
    if (!conn || !conn->connected()) return CabFail(CAB_E_NOT_CONNECTED);

    std::string payload;
    if (in.vt != VT_EMPTY) {
        Cab1Encoding enc(in);
        if (!enc.ok()) return CabFail(CAB_E_INVALID_ARGUMENT, "the input cannot be encoded: " + enc.error());
        int64_t limit = (int64_t)cabwire::messageRoom(conn->maxPayload());
        if ((int64_t)enc.size() > limit)
            return CabFail(CAB_E_TOO_LARGE, "request of " + std::to_string(enc.size()) +
                                                " bytes; one request carries at most " + std::to_string(limit));
        payload = enc.str();
    }
    std::string subject = cabwire::serviceSubject(target, service);
    // The request carries who sends it; the directory lets us send only as ourselves.
    std::string sent = cabwire::requestSubject(subject, conn->caller());
    std::string inbox;
    uint64_t token = 0;
    std::shared_ptr<CabMailbox> box = conn->openMailbox(&inbox, &token, sent);
    MailboxGuard guard{conn, token};

    natsMsg* m = nullptr;
    if (natsMsg_Create(&m, sent.c_str(), inbox.c_str(), payload.data(), (int)payload.size()) != NATS_OK)
        return CabFail(CAB_E_INTERNAL, "message not created");
    natsMsgHeader_Set(m, cabwire::kProto, cabwire::kProtoVersion);
    if (flags) natsMsgHeader_Set(m, cabwire::kFlags, std::to_string(flags).c_str());
    int rc = conn->publishMsg(m);
    cabwire::destroy(m);
    if (rc != 0) return rc;

    int timeoutMs = state->requestTimeoutMs();
    int st = 0;
    std::string why;
    natsMsg* r = box->wait(cabDeadline(timeoutMs), &st, &why);
    if (!r) {
        if (st == CAB_E_TIMEOUT)
            return CabFail(st, "no answer from " + subject + " within " + std::to_string(timeoutMs) + " ms");
        return CabFail(st, why.empty() ? subject : subject + ": " + why);
    }
    if (natsMsg_IsNoResponders(r)) {
        cabwire::destroy(r);
        return CabFail(CAB_E_NO_SUCH_SERVICE, std::string("satellite '") + target + "' with service '" + service + "'");
    }
    int64_t status = 0;
    if (!cabwire::headerInt(r, cabwire::kStatus, INT32_MIN, INT32_MAX, &status)) {
        cabwire::destroy(r);
        return CabFail(CAB_E_MALFORMED, "answer without a valid Cab-Status header");
    }
    std::string error = cabwire::header(r, cabwire::kError);
    int drc;
    if (cabwire::header(r, cabwire::kParts).empty()) {
        // A handler's thread counts the answer in its own.
        const int len = natsMsg_GetDataLength(r);
        std::string refused;
        if (!CabReserveAnswerMemory(len > 0 ? (uint64_t)len : 0, &refused)) {
            cabwire::destroy(r);
            return CabFail(CAB_E_BUSY,
                           subject + ": an answer of " + std::to_string(len) + " bytes does not fit: " + refused);
        }
        drc = decodeMessage(r, out);
    } else {
        drc = receiveParts(conn, box, r, timeoutMs, out);
    }
    if (drc != 0) return drc;
    if (!error.empty() || CabIsLibraryStatus((int)status))
        CabFail((int)status, error.empty() ? subject : subject + ": " + error);
    return (int)status;
}

}  // namespace

int CabInlineDepth() { return t_inlineDepth; }

CabInlineDepthScope::CabInlineDepthScope(int depth) : m_saved(t_inlineDepth) { t_inlineDepth = depth; }

CabInlineDepthScope::~CabInlineDepthScope() { t_inlineDepth = m_saved; }

const std::string& CabCurrentCaller() { return t_caller; }

CabCallerScope::CabCallerScope(std::string caller) : m_saved(std::move(t_caller)) { t_caller = std::move(caller); }

CabCallerScope::~CabCallerScope() { t_caller = std::move(m_saved); }

int CabSatellite::Request(const char* target, const char* service, const tagVARIANT& in, tagVARIANT* out,
                          CABFLAGS flags, tagVARIANT* retcodes) {
    CabSetLastError("");
    int status = requestImpl(m_state.get(), target, service, in, out, flags);
    if (status != 0 && CabIsLibraryStatus(status))
        cablog::log(LOGLEVEL_DEBUG, "Request %s.%s failed: %s", target ? target : "", service ? service : "",
                    CabGetLastError().c_str());
    if (retcodes) {
        VariantClear(retcodes);
        SAFEARRAYBOUND b{1, 0};
        SAFEARRAY* sa = SafeArrayCreate(VT_VARIANT, 1, &b);
        if (sa) {
            tagVARIANT e;
            VariantInit(&e);
            e.vt = VT_I4;
            e.lVal = status;
            int32_t index = 0;
            SafeArrayPutElement(sa, &index, &e);
            retcodes->vt = VT_ARRAY | VT_VARIANT;
            retcodes->parray = sa;
        }
    }
    return CabIsLibraryStatus(status) ? status : 0;
}

namespace {

// A string field of a discovery answer; "" when it has none.
std::string answerField(const std::string& json, const char* field) {
    nlohmann::json j = nlohmann::json::parse(json, nullptr, false);
    if (!j.is_object()) return "";
    auto n = j.find(field);
    return n != j.end() && n->is_string() ? n->get<std::string>() : "";
}

std::string answerName(const std::string& json) { return answerField(json, "name"); }

// Answers of several mailboxes in the order they came, tagged with the
// mailbox's index; the first failure of any.
struct DiscoveryAnswers {
    ~DiscoveryAnswers() {
        for (auto& a : answers) cabwire::destroy(a.second);
    }
    void handle(size_t index, natsMsg* msg, int failure) {
        PLockGuard guard(lock);
        if (msg) answers.emplace_back(index, msg);
        else if (!this->failure) this->failure = failure;
        lock.signal();
    }
    PCondMutex lock;  // guards the two below
    std::deque<std::pair<size_t, natsMsg*>> answers KIV_GUARDED_BY(lock);
    int failure KIV_GUARDED_BY(lock) = 0;
};

// Sends one discovery request per subject, each to a mailbox of its own,
// and collects the answers (per subject) until waitMs passed or, once every
// subject has an answer, they pause for quietMs. A subject not heard from is
// asked again every 250 ms (a request or its answer can be lost while a
// satellite is busy); the caller drops repeated answers.
int collectDiscovery(const std::shared_ptr<CabConnection>& conn, const std::vector<std::string>& subjects, int waitMs,
                     int quietMs, std::vector<std::vector<std::string>>* answers) {
    // One queue for all mailboxes: an answer is taken as it comes, whichever
    // subject it answers.
    auto arrived = std::make_shared<DiscoveryAnswers>();
    std::vector<std::string> inboxes(subjects.size());
    std::vector<std::unique_ptr<MailboxGuard>> guards;
    answers->assign(subjects.size(), {});
    std::vector<bool> heard(subjects.size(), false);  // an answer, or the directory's "no responders"
    auto send = [&](size_t i) {
        natsStatus s = natsConnection_PublishRequest(conn->nc(), subjects[i].c_str(), inboxes[i].c_str(), nullptr, 0);
        return s == NATS_OK ? 0 : CabFail(CAB_E_NOT_CONNECTED, natsStatus_GetText(s));
    };
    for (size_t i = 0; i < subjects.size(); ++i) {
        uint64_t token = 0;
        conn->openMailbox(&inboxes[i], &token, std::string(),
                          [arrived, i](natsMsg* msg, int failure) { arrived->handle(i, msg, failure); });
        guards.emplace_back(new MailboxGuard{conn, token});
        if (int rc = send(i)) return rc;
    }
    const auto start = std::chrono::steady_clock::now();
    auto lastSend = start;
    const auto end = start + std::chrono::milliseconds(waitMs);
    auto quietUntil = end;
    for (;;) {
        const auto now = std::chrono::steady_clock::now();
        const bool all = std::all_of(heard.begin(), heard.end(), [](bool h) { return h; });
        if (now >= (all ? std::min(end, quietUntil) : end)) return 0;
        if (!all && now - lastSend >= std::chrono::milliseconds(250)) {
            for (size_t i = 0; i < subjects.size(); ++i)
                if (!heard[i])
                    if (int rc = send(i)) return rc;
            lastSend = now;
        }
        const auto until = all ? std::min(end, quietUntil) : std::min(end, lastSend + std::chrono::milliseconds(250));
        std::pair<size_t, natsMsg*> answer(0, nullptr);
        {
            PLockGuard guard(arrived->lock);
            const struct timespec deadline = cabDeadline(
                std::max<int64_t>(0, std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count()));
            while (arrived->answers.empty() && !arrived->failure)
                if (!arrived->lock.waitUntil(deadline)) break;
            if (!arrived->answers.empty()) {
                answer = arrived->answers.front();
                arrived->answers.pop_front();
            } else if (arrived->failure) {
                return CabFail(arrived->failure);
            }
        }
        if (!answer.second) continue;  // time to ask again, or the end
        heard[answer.first] = true;
        if (!natsMsg_IsNoResponders(answer.second))
            (*answers)[answer.first].emplace_back(natsMsg_GetData(answer.second) ? natsMsg_GetData(answer.second) : "",
                                                  (size_t)natsMsg_GetDataLength(answer.second));
        cabwire::destroy(answer.second);
        quietUntil = std::chrono::steady_clock::now() + std::chrono::milliseconds(quietMs);
    }
}

}  // namespace

int CabSatellite::Discover(const char* verb, const char* name, int waitMs, std::vector<std::string>* replies) {
    CabSetLastError("");
    if (!verb || (strcmp(verb, "PING") && strcmp(verb, "INFO") && strcmp(verb, "STATS")))
        return CabFail(CAB_E_INVALID_ARGUMENT, "verb must be PING, INFO or STATS");
    if (name && *name && !cabwire::validName(name))
        return CabFail(CAB_E_INVALID_NAME, std::string("satellite '") + name + "'");
    std::shared_ptr<CabConnection> conn = m_state->connection();
    if (!conn || !conn->connected()) return CabFail(CAB_E_NOT_CONNECTED);
    // Any satellite hears "$SRV.<verb>" and could answer in another's name;
    // "$SRV.<verb>.<name>" reaches only satellite <name> (the directory lets
    // no other subscribe to it). So the names come from a general PING and
    // every answer kept from a request addressed to that name alone.
    std::vector<std::string> names;
    if (name && *name) {
        names.push_back(name);
    } else {
        std::vector<std::vector<std::string>> pings;
        // Satellites answer at their own pace, and a busy one may come late:
        // nobody knows how many there are, so the whole wait is used.
        int rc = collectDiscovery(conn, {"$SRV.PING"}, waitMs, waitMs, &pings);
        if (rc != 0) return rc;
        for (const std::string& answer : pings[0]) {
            std::string n = answerName(answer);
            if (cabwire::validName(n.c_str()) && std::find(names.begin(), names.end(), n) == names.end())
                names.push_back(n);
        }
    }
    std::vector<std::string> subjects;
    for (const std::string& n : names) subjects.push_back(std::string("$SRV.") + verb + "." + n);
    std::vector<std::vector<std::string>> answers;
    int rc = collectDiscovery(conn, subjects, waitMs, 200, &answers);
    if (rc != 0) return rc;
    std::vector<std::string> ids;  // an instance asked twice answers twice
    for (size_t i = 0; i < names.size(); ++i)
        for (std::string& answer : answers[i]) {
            const std::string id = names[i] + "/" + answerField(answer, "id");
            if (std::find(ids.begin(), ids.end(), id) != ids.end()) continue;
            ids.push_back(id);
            if (answerName(answer) != names[i]) {
                cablog::log(LOGLEVEL_WARN, "Discovery answer for %s naming another satellite ignored",
                            names[i].c_str());
                continue;
            }
            if (replies) replies->push_back(std::move(answer));
        }
    return 0;
}

int CabSatellite::DirectoryPingSatellite(const char*, const char* name, unsigned short, int timeoutMs,
                                         CABSTATUS* status) {
    std::vector<std::string> replies;
    int rc = Discover("PING", name, timeoutMs > 0 ? timeoutMs : 1000, &replies);
    if (rc == 0 && replies.empty()) rc = CabFail(CAB_E_NO_SUCH_SERVICE, std::string("satellite ") + (name ? name : ""));
    if (status) *status = rc;
    return rc;
}
