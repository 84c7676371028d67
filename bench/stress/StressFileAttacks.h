// The "files" attack of a stress run: requesters that ask the proxy, again
// and again, for what it must neither serve nor block on: a FIFO, a socket, a
// link out of the served folder, a link in a parent folder, a path through
// "..", an absolute path outside and the proxy's settings file, through
// "GetFile", "my-KIV_TailLog" and "QueryFileSize". Each answer must be the one
// a missing file gets (an empty block, 404, a size of 0); any other answer is
// a failure and its bytes count as wrong (a leak). The regular requesters run
// beside them: their latencies show whether the attacks hold handlers.
// Each attacker has its own connection and tally, as a StressRequester.
#pragma once

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "bench/stress/StressClient.h"
#include "bench/stress/StressReport.h"
#include "cab/CabSatellite.h"

namespace stress {

// Makes the attack targets inside `served` (a folder the proxy serves), with
// links out to `outside` (a folder it does not serve, holding a secret file);
// `settingsFile` is added as it is. False when they cannot be made.
bool makeFileAttackTargets(const std::string& served, const std::string& outside, const std::string& settingsFile,
                           std::vector<std::string>* targets);

class FileAttacker {
public:
    FileAttacker(int index, const std::vector<std::string>& targets, const StressConnection& connection);
    bool connect();
    void run(std::chrono::steady_clock::time_point until, const std::atomic<bool>& stop);
    void disconnect() { m_client.Disconnect(); }
    const StressTally& tally() const { return m_tally; }
    const std::string& error() const { return m_error; }

private:
    void attack(const std::string& path, int service);

    int m_index;
    const std::vector<std::string>& m_targets;
    StressConnection m_connection;
    CabClient m_client;
    StressTally m_tally;
    std::mt19937_64 m_random;
    std::string m_error;
};

}  // namespace stress
