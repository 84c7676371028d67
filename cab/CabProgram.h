// For small satellite programs: serve until asked to stop.
#pragma once

#include "cab/CabSatellite.h"

// Blocks SIGINT and SIGTERM (call it before the program starts any thread),
// ignores SIGPIPE, connects `satellite` to `server` as `name`, prints "ready"
// on standard output once it serves, waits for SIGINT or SIGTERM and
// disconnects. Returns the exit status: 0, or 2 when connecting failed (the
// reason is printed on standard error, prefixed with `program`).
int CabServeUntilSignal(CabSatellite& satellite, const char* program, const char* server, const char* name);
