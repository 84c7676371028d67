// Requests a satellite sends to itself run inline: CabSatellite::Request with
// the satellite's own name and one of its registered services calls the
// handler on the calling thread, without the directory and without a worker.
// A handler that waits on its own satellite therefore never needs a free
// worker. Such calls nest at most kCabMaxInlineDepth deep per thread; a call
// past that is refused with CAB_E_TOO_LARGE. Their outputs count in the
// memory budget of the request the calling thread serves
// (cab/CabMemoryBudget.h); one that does not fit fails with CAB_E_BUSY.
//
// A thread that works for a handler (as the helpers of a grouped request do)
// takes over the handler thread's depth with CabInlineDepthScope, so the bound
// holds across those helpers too.
#pragma once

#include <string>

constexpr int kCabMaxInlineDepth = 16;

// Inline calls the calling thread is inside of now (0 on a plain worker).
int CabInlineDepth();

// Sets the calling thread's inline depth for the scope's lifetime.
class CabInlineDepthScope {
public:
    explicit CabInlineDepthScope(int depth);
    ~CabInlineDepthScope();
    CabInlineDepthScope(const CabInlineDepthScope&) = delete;
    CabInlineDepthScope& operator=(const CabInlineDepthScope&) = delete;

private:
    int m_saved;
};

// The directory user on whose behalf the calling thread works: the sender of
// the request it serves, as the directory vouched for it, carried into the
// inline calls it makes and (with CabCallerScope) into the threads that work
// for it. "" when the thread serves no request or the directory did not say.
const std::string& CabCurrentCaller();

// Sets the calling thread's caller for the scope's lifetime.
class CabCallerScope {
public:
    explicit CabCallerScope(std::string caller);
    ~CabCallerScope();
    CabCallerScope(const CabCallerScope&) = delete;
    CabCallerScope& operator=(const CabCallerScope&) = delete;

private:
    std::string m_saved;
};
