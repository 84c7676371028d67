#include "cab/internal/CabWire.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace cabwire {

const char* const kProto = "Cab-Proto";
const char* const kFlags = "Cab-Flags";
const char* const kStatus = "Cab-Status";
const char* const kError = "Cab-Error";
const char* const kErrorCode = "Cab-Error-Code";
const char* const kSize = "Cab-Size";
const char* const kParts = "Cab-Parts";
const char* const kPart = "Cab-Part";
const char* const kCreditTo = "Cab-Credit-To";
const char* const kWindow = "Cab-Window";
const char* const kReceived = "Cab-Received";
const char* const kCancel = "Cab-Cancel";

bool validName(const char* name) {
    if (!name) return false;
    size_t n = strlen(name);
    if (n < 1 || n > 128) return false;
    for (size_t i = 0; i < n; ++i) {
        char c = name[i];
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
        if (!ok) return false;
    }
    return true;
}

bool validTarget(const char* target) {
    if (!target) return false;
    const char* at = strchr(target, '@');
    if (!at) return validName(target);
    std::string satellite(target, (size_t)(at - target));
    return validName(satellite.c_str()) && validName(at + 1);
}

std::vector<std::string> splitList(const std::string& list) {
    std::vector<std::string> items;
    size_t from = 0;
    while (from <= list.size()) {
        size_t comma = list.find(',', from);
        if (comma == std::string::npos) comma = list.size();
        std::string one = list.substr(from, comma - from);
        size_t b = one.find_first_not_of(" \t"), e = one.find_last_not_of(" \t");
        if (b != std::string::npos) items.push_back(one.substr(b, e - b + 1));
        from = comma + 1;
    }
    return items;
}

std::string hostToken(const std::string& host) {
    std::string h = host;
    for (char& c : h)
        if (c >= 'A' && c <= 'Z') c = (char)(c - 'A' + 'a');
    return h;
}

std::string serviceSubject(const std::string& target, const std::string& service) {
    size_t at = target.find('@');
    if (at == std::string::npos) return "cab." + target + "." + service;
    return "cab." + target.substr(0, at + 1) + hostToken(target.substr(at + 1)) + "." + service;
}

const char* const kAnonymous = "-";

std::string requestSubject(const std::string& serviceSubject, const std::string& caller) {
    return serviceSubject + "." + caller;
}

std::string listenSubject(const std::string& serviceSubject) { return serviceSubject + ".*"; }

std::string callerOf(const std::string& subject) {
    size_t dot = subject.rfind('.');
    if (dot == std::string::npos) return "";
    std::string caller = subject.substr(dot + 1);
    return caller == kAnonymous || validName(caller.c_str()) ? caller : "";
}

bool replyAllowed(const std::string& caller, const std::string& reply) {
    if (caller == kAnonymous) return true;
    const std::string prefix = "_INBOX_" + caller + ".";
    return reply.size() > prefix.size() && reply.compare(0, prefix.size(), prefix) == 0;
}

std::string header(natsMsg* msg, const char* key) {
    const char* v = nullptr;
    if (natsMsgHeader_Get(msg, key, &v) != NATS_OK || !v) return std::string();
    return v;
}

namespace {

// The front of the NATS C client's message record (3.x), used only to find
// the raw header block. Every field that can be checked against the public
// accessors is checked before the block is read.
struct NatsMsgFront {
    void* gcNext;
    void* gcFree;
    const char* subject;
    const char* reply;
    const char* hdr;
    void* headers;
    const char* data;
    int dataLen;
    int hdrLen;
};

}  // namespace

namespace {

// The client lifts the headers of a message without payload as it receives
// it (to spot a "no responders" status). Lifting ends the key and the value
// with a NUL in place and leaves the value pointing into the block, so the
// blanks around it can still be seen: before it at most the one separating
// blank after the key's NUL, after it the NUL in place of the '\r'.
bool liftedHeader(natsMsg* msg, const NatsMsgFront* f, const char* key, std::string* value, bool* present) {
    const char** values = nullptr;
    int count = 0;
    natsStatus s = natsMsgHeader_Values(msg, key, &values, &count);
    if (s == NATS_NOT_FOUND) return true;
    if (s != NATS_OK || count != 1) {
        free((void*)values);
        return false;
    }
    const char* v = values[0];
    free((void*)values);
    const char* begin = f->hdr;
    const char* end = f->hdr + f->hdrLen;
    size_t len = strlen(v);
    if (v < begin + 2 || v + len + 1 >= end) return false;  // a copy: cannot tell
    *present = true;
    *value = v;
    bool exactStart = v[-1] == '\0' || (v[-1] == ' ' && v[-2] == '\0');
    bool exactEnd = v[len + 1] == '\n';
    if (!exactStart) *value = " " + *value;
    if (!exactEnd) *value += " ";
    return true;
}

}  // namespace

void destroy(natsMsg* msg) {
    if (!msg) return;
    NatsMsgFront* f = reinterpret_cast<NatsMsgFront*>(msg);
    if (f->gcNext == nullptr && f->gcFree != nullptr && f->subject == natsMsg_GetSubject(msg) &&
        f->reply == natsMsg_GetReply(msg) && f->data == natsMsg_GetData(msg) &&
        f->dataLen == natsMsg_GetDataLength(msg))
        f->gcFree = nullptr;
    natsMsg_Destroy(msg);
}

bool rawHeader(natsMsg* msg, const char* key, std::string* value, bool* present) {
    const NatsMsgFront* f = reinterpret_cast<const NatsMsgFront*>(msg);
    *present = false;
    if (f->subject != natsMsg_GetSubject(msg) || f->reply != natsMsg_GetReply(msg) || f->data != natsMsg_GetData(msg) ||
        f->dataLen != natsMsg_GetDataLength(msg))
        return false;
    if (!f->hdr || f->hdrLen <= 0) return f->headers == nullptr;  // no headers at all
    if (f->headers != nullptr) return liftedHeader(msg, f, key, value, present);
    // The block lies just before the payload (after its terminating NUL) and is not lifted yet.
    if (f->headers != nullptr || (f->hdr + f->hdrLen != f->data && f->hdr + f->hdrLen + 1 != f->data)) return false;
    std::string block(f->hdr, (size_t)f->hdrLen);
    if (block.compare(0, 8, "NATS/1.0") != 0) return false;
    size_t keyLen = strlen(key);
    for (size_t at = block.find("\r\n"); at != std::string::npos && at + 2 < block.size();) {
        size_t line = at + 2;
        size_t end = block.find("\r\n", line);
        if (end == std::string::npos) break;
        if (end - line > keyLen && block.compare(line, keyLen, key) == 0 && block[line + keyLen] == ':') {
            size_t v = line + keyLen + 1;
            if (v < end && block[v] == ' ') ++v;  // the one blank that separates key and value
            if (*present) return false;           // given twice: let header() decide
            *present = true;
            *value = block.substr(v, end - v);
        }
        at = end;
    }
    return true;
}

bool headerInt(natsMsg* msg, const char* key, int64_t min, int64_t max, int64_t* value) {
    const char* v = nullptr;
    if (natsMsgHeader_Get(msg, key, &v) != NATS_OK || !v || !*v) return false;
    errno = 0;
    char* end = nullptr;
    long long n = strtoll(v, &end, 10);
    if (errno != 0 || *end != '\0' || n < min || n > max) return false;
    *value = n;
    return true;
}

size_t messageRoom(int64_t maxPayload) {
    int64_t room = maxPayload - (int64_t)kHeaderRoom;
    return room < 1024 ? 1024 : (size_t)room;
}

size_t partSize(int64_t maxPayload) { return std::min<size_t>(messageRoom(maxPayload), kMaxPart); }

int64_t windowParts(size_t partBytes) { return std::max<int64_t>(2, (int64_t)(kWindowBytes / partBytes)); }

}  // namespace cabwire
