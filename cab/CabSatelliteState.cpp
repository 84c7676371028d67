// The state a satellite shares with its service threads: the request
// time-out, the service table's look-up and the requests owed an answer.
#include "cab/internal/CabSatelliteState.h"

#include <ctime>

#include "cab/internal/CabDirectorySettings.h"

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
