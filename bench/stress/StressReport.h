// What a stress run measured. StressTally counts requests, failures and
// latencies per service plus wrong bytes; each requester fills its own and the
// main thread merges them once the requesters have ended, so a tally needs no
// lock. RssMonitor samples a process's resident size every 100 ms on a thread
// of its own and keeps the highest value seen.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace stress {

class StressTally {
public:
    // One request to `service` that took `ms`; `problem` is empty when it
    // succeeded, else why it failed (the first few are kept for the report).
    void record(const std::string& service, double ms, const std::string& problem = "");
    void addWrongBytes(long long count) { m_wrongBytes += count; }
    void merge(const StressTally& other);

    long long requests() const;
    long long failures() const;
    long long wrongBytes() const { return m_wrongBytes; }
    // The table: per service requests, failures, p50 and p99 in ms; then the
    // total of wrong bytes and the first failure reasons.
    void print(FILE* out, double seconds) const;

private:
    struct Service {
        long long requests = 0;
        long long failures = 0;
        std::vector<float> latencyMs;
    };
    std::map<std::string, Service> m_services;
    long long m_wrongBytes = 0;
    std::vector<std::string> m_problems;  // at most kKeptProblems
    static const size_t kKeptProblems = 20;
};

// VmRSS of /proc/PID/status in KiB; -1 when it cannot be read.
long rssKiB(pid_t pid);
// "123.4 MiB", or "n/a" for a negative value.
std::string mibText(long kib);

class RssMonitor {
public:
    explicit RssMonitor(pid_t pid) : m_pid(pid) {}
    ~RssMonitor() { stop(); }
    RssMonitor(const RssMonitor&) = delete;
    RssMonitor& operator=(const RssMonitor&) = delete;

    void start();  // nothing happens for a pid <= 0
    void stop();   // joins the thread; safe to call twice
    long peakKiB() const;

private:
    void loop();

    pid_t m_pid;
    std::thread m_thread;
    mutable std::mutex m_lock;       // guards m_stopping and m_peakKiB
    std::condition_variable m_wake;  // signalled by stop(), under m_lock
    bool m_stopping = false;
    long m_peakKiB = -1;
};

}  // namespace stress
