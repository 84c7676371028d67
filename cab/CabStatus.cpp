#include "cab/CabStatus.h"

namespace {

struct Entry {
    int code;
    const char* name;
    const char* text;
};

const Entry kEntries[] = {
    {CAB_OK, "CAB_OK", "success"},
    {CAB_E_NOT_CONNECTED, "CAB_E_NOT_CONNECTED", "not connected to the directory"},
    {CAB_E_NO_SUCH_SERVICE, "CAB_E_NO_SUCH_SERVICE", "no such satellite or service"},
    {CAB_E_TIMEOUT, "CAB_E_TIMEOUT", "request timed out"},
    {CAB_E_HANDLER_EXCEPTION, "CAB_E_HANDLER_EXCEPTION", "the service handler threw an exception"},
    {CAB_E_MALFORMED, "CAB_E_MALFORMED", "malformed message"},
    {CAB_E_TOO_LARGE, "CAB_E_TOO_LARGE", "message too large"},
    {CAB_E_INVALID_NAME, "CAB_E_INVALID_NAME", "invalid name (1 to 128 characters of letters, digits, '_' and '-')"},
    {CAB_E_CONNECTION_LOST, "CAB_E_CONNECTION_LOST", "connection to the directory lost during the request"},
    {CAB_E_CONNECT_FAILED, "CAB_E_CONNECT_FAILED", "could not connect to the directory"},
    {CAB_E_INVALID_ARGUMENT, "CAB_E_INVALID_ARGUMENT", "invalid argument"},
    {CAB_E_CANCELLED, "CAB_E_CANCELLED", "cancelled: the satellite is shutting down"},
    {CAB_E_INTERNAL, "CAB_E_INTERNAL", "internal failure of the NATS client"},
    {CAB_E_PERMISSION_DENIED, "CAB_E_PERMISSION_DENIED", "permission denied by the directory"},
    {CAB_E_BUSY, "CAB_E_BUSY", "no room for the answer in the memory budget or the caller's share; try again later"},
};

const Entry* find(int status) {
    for (const Entry& e : kEntries)
        if (e.code == status) return &e;
    return nullptr;
}

// Owned by the calling thread alone.
thread_local std::string t_lastError;

}  // namespace

const char* CabStatusName(int status) {
    const Entry* e = find(status);
    return e ? e->name : "";
}

const char* CabStatusText(int status) {
    const Entry* e = find(status);
    return e ? e->text : "";
}

bool CabIsLibraryStatus(int status) { return status != CAB_OK && find(status) != nullptr; }

const std::string& CabGetLastError() { return t_lastError; }

void CabSetLastError(const std::string& text) { t_lastError = text; }

int CabFail(int status, const std::string& detail) {
    std::string text = std::string(CabStatusName(status)) + ": " + CabStatusText(status);
    if (!detail.empty()) text += ": " + detail;
    t_lastError = text;
    return status;
}
