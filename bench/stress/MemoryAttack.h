// The memory attack of bench_stress (--mode memory): one requester asks the
// proxy for answers it never takes, while another measures what it still
// gets. The attacker, on a plain NATS connection that never grants credit,
// sends `groups` grouped requests at once, each of `perGroup` "GetFile"s of
// the whole test file to the proxy itself (run inline, read into memory), and
// for the whole run `perSecond` "GetFile"s of the whole file a second. The
// victim, with its own connection, fetches 4 MiB chunks of the file one
// after the other and counts how many were answered and how many refused
// with CAB_E_BUSY (after which it waits 20 ms). The proxy's peak resident
// memory is the figure to watch. The victim is another caller only when the
// directory tells the proxy who asks (Nats-Request-Info); otherwise both are
// the one unknown caller and share one share.
// Everything runs on threads of this module; the counts are atomics.
#pragma once

#include <sys/types.h>

#include <string>

#include "bench/stress/StressClient.h"

namespace stress {

struct MemoryAttack {
    int groups = 5;
    int perGroup = 100;
    int perSecond = 130;
    int seconds = 30;
    long long goalKiB = 1536ll << 10;  // the peak resident memory allowed: 1.5 GiB
};

// Runs the attack against the proxy `proxyPid` (0: not watched) through the
// directory of `connection`; prints its report. 0 when the proxy is alive at
// the end and its peak stayed within the goal, 1 when not, 2 when the run
// could not start.
int runMemoryAttack(const MemoryAttack& attack, const StressConnection& connection, const StressData& data,
                    pid_t proxyPid);

}  // namespace stress
