// One requester of a stress run: its own connection to the directory, looping
// over a mix of the proxy's services until a deadline and checking every
// answer ("GetFile" chunks byte for byte, sizes, version reports, nested
// grouped requests, archives fetched and tested with `unzip -t`). Everything
// it sees goes into its own tally; nothing it owns is shared while it runs.
#pragma once

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "bench/stress/StressReport.h"
#include "cab/CabSatellite.h"

namespace stress {

// The files the requesters ask for, made before the run and only read during it.
struct StressData {
    std::string file;                     // the large file "GetFile" reads
    std::string bytes;                    // its content, to check answers against
    std::vector<std::string> zipSources;  // small files for "CreateZip" and "QueryFileSize"
    std::vector<long long> zipSizes;      // their sizes, same order
    std::string localFolder;              // where fetched archives are written for `unzip -t`
    long long maxChunk = 16ll << 20;      // the largest "GetFile" length asked for
};

// How to reach the directory.
struct StressConnection {
    std::string server;  // "nats://host:port", "host:port" or a host; empty: the settings
    std::string token;   // empty: the setting cabDirectory.token
    int timeoutMs = 0;   // 0: the setting cabDirectory.requestTimeoutMs
};

class StressRequester {
public:
    StressRequester(int index, const StressData& data, const StressConnection& connection);
    // Connects as "stress-<pid>-<index>"; false with the reason in error().
    bool connect();
    // Sends requests until `until` passes or `stop` is set; the request
    // under way is finished.
    void run(std::chrono::steady_clock::time_point until, const std::atomic<bool>& stop);
    void disconnect() { m_client.Disconnect(); }
    const StressTally& tally() const { return m_tally; }
    const std::string& error() const { return m_error; }

private:
    // Sends one request to the proxy; the status, or a library code.
    int call(const char* service, const tagVARIANT& in, tagVARIANT* out);
    void getFileChunk();
    void queryFileSize();
    void getVersion();
    void nestedMultiRequest();
    void archiveRoundTrip();
    // "GetFile" of a whole archive of `size` bytes into a local file; true when it is complete.
    bool fetchArchive(const std::string& remote, long long size, const std::string& local);
    long long pick(long long low, long long high);  // uniform in [low, high]

    int m_index;
    const StressData& m_data;
    StressConnection m_connection;
    CabClient m_client;
    StressTally m_tally;
    std::mt19937_64 m_random;
    int m_archives = 0;
    std::string m_error;
};

}  // namespace stress
