// Status codes of the broker library. 0 is success; handlers return their own
// small statuses (usually >= 0); the library's own failures are the distinct
// negative codes below, far from the handlers' range. Every code has a short
// name and a text; the text of the last failure on the calling thread is kept
// for callers that want to show it.
#pragma once

#include <string>

enum CabStatusCode : int {
    CAB_OK = 0,
    CAB_E_NOT_CONNECTED = -1001,      // no connection to the directory (never connected, closed, or lost)
    CAB_E_NO_SUCH_SERVICE = -1002,    // nobody listens on that satellite/service (answered at once)
    CAB_E_TIMEOUT = -1003,            // no (complete) answer within the request time-out
    CAB_E_HANDLER_EXCEPTION = -1004,  // the handler threw; the text travels in Cab-Error
    CAB_E_MALFORMED = -1005,          // a message that does not follow the protocol
    CAB_E_TOO_LARGE = -1006,          // request or reply larger than the protocol can carry
    CAB_E_INVALID_NAME = -1007,       // satellite or service name not 1-128 of [A-Za-z0-9_-]
    CAB_E_CONNECTION_LOST = -1008,    // the connection dropped while the request was in flight
    CAB_E_CONNECT_FAILED = -1009,     // the directory could not be reached or refused us
    CAB_E_INVALID_ARGUMENT = -1010,   // a null pointer or a duplicate service
    CAB_E_CANCELLED = -1011,          // the satellite is shutting down
    CAB_E_INTERNAL = -1012,           // an unexpected failure of the NATS client
    CAB_E_PERMISSION_DENIED = -1013,  // the directory refused a publish or subscribe for this identity
    CAB_E_BUSY = -1014,               // past the memory budget of answers or the caller's share; try again later
};

// "CAB_E_TIMEOUT" and the like; "CAB_OK" for 0; "" for a handler's own status.
const char* CabStatusName(int status);
// A sentence describing the code; "" for a handler's own status.
const char* CabStatusText(int status);
// True for the library's own failure codes.
bool CabIsLibraryStatus(int status);

// The text of the last failure seen by a library call on the calling thread
// ("" after a success). Request, Connect and AddService set it.
const std::string& CabGetLastError();
void CabSetLastError(const std::string& text);
// Sets the last error to "<name>: <text>[: detail]" and returns status.
int CabFail(int status, const std::string& detail = std::string());
