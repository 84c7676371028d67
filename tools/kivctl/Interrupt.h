// Ctrl-C during a download: kivctl blocks SIGINT, SIGTERM and SIGHUP before it
// connects (so the client library's threads never take them) and answers them
// on a thread of its own: it prints what the command registered (how to
// resume, say) and exits with 128 + the signal's number.
#pragma once

#include <string>

namespace kivctl {

// Blocks the signals and starts the thread; call before connecting. Once per process.
void handleInterrupts();
// The text printed on an interrupt, computed when the signal comes; empty: nothing.
// Owned by the interrupt thread's mutex; safe from any thread.
void onInterrupt(std::string (*describe)(void* context), void* context);

}  // namespace kivctl
