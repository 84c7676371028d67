#include "cab/CabWire.h"

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

std::string serviceSubject(const std::string& satellite, const std::string& service) {
    return "cab." + satellite + "." + service;
}

std::string header(natsMsg* msg, const char* key) {
    const char* v = nullptr;
    if (natsMsgHeader_Get(msg, key, &v) != NATS_OK || !v) return std::string();
    return v;
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

int64_t windowParts(size_t partBytes) {
    return std::max<int64_t>(2, (int64_t)(kWindowBytes / partBytes));
}

}  // namespace cabwire
