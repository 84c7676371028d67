#include "bench/stress/StressReport.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>

namespace stress {

namespace {

// The value at fraction q of the sorted latencies (nearest rank).
double quantile(std::vector<float> values, double q) {
    if (values.empty()) return 0;
    size_t rank = (size_t)(q * (double)values.size());
    if (rank >= values.size()) rank = values.size() - 1;
    std::nth_element(values.begin(), values.begin() + (long)rank, values.end());
    return values[rank];
}

}  // namespace

void StressTally::record(const std::string& service, double ms, const std::string& problem) {
    Service& s = m_services[service];
    ++s.requests;
    s.latencyMs.push_back((float)ms);
    if (problem.empty()) return;
    ++s.failures;
    if (m_problems.size() < kKeptProblems) m_problems.push_back(service + ": " + problem);
}

void StressTally::merge(const StressTally& other) {
    for (const auto& entry : other.m_services) {
        Service& s = m_services[entry.first];
        s.requests += entry.second.requests;
        s.failures += entry.second.failures;
        s.latencyMs.insert(s.latencyMs.end(), entry.second.latencyMs.begin(), entry.second.latencyMs.end());
    }
    m_wrongBytes += other.m_wrongBytes;
    for (const std::string& p : other.m_problems)
        if (m_problems.size() < kKeptProblems) m_problems.push_back(p);
}

long long StressTally::requests() const {
    long long n = 0;
    for (const auto& entry : m_services) n += entry.second.requests;
    return n;
}

long long StressTally::failures() const {
    long long n = 0;
    for (const auto& entry : m_services) n += entry.second.failures;
    return n;
}

void StressTally::print(FILE* out, double seconds) const {
    fprintf(out, "%-20s %9s %9s %10s %10s %9s\n", "service", "requests", "failures", "p50 ms", "p99 ms", "per s");
    for (const auto& entry : m_services) {
        const Service& s = entry.second;
        fprintf(out, "%-20s %9lld %9lld %10.2f %10.2f %9.1f\n", entry.first.c_str(), s.requests, s.failures,
                quantile(s.latencyMs, 0.50), quantile(s.latencyMs, 0.99),
                seconds > 0 ? (double)s.requests / seconds : 0.0);
    }
    fprintf(out, "%-20s %9lld %9lld\n", "all", requests(), failures());
    fprintf(out, "wrong bytes: %lld\n", m_wrongBytes);
    if (!m_problems.empty()) {
        fprintf(out, "first failures:\n");
        for (const std::string& p : m_problems) fprintf(out, "  %s\n", p.c_str());
    }
}

long rssKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 6, "VmRSS:") == 0) return atol(line.c_str() + 6);
    return -1;
}

std::string mibText(long kib) {
    if (kib < 0) return "n/a";
    char buf[32];
    snprintf(buf, sizeof buf, "%.1f MiB", kib / 1024.0);
    return buf;
}

void RssMonitor::start() {
    if (m_pid <= 0 || m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stopping = false;
    }
    m_thread = std::thread(&RssMonitor::loop, this);
}

void RssMonitor::stop() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

long RssMonitor::peakKiB() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_peakKiB;
}

void RssMonitor::loop() {
    std::unique_lock<std::mutex> lock(m_lock);
    while (!m_stopping) {
        lock.unlock();
        long kib = rssKiB(m_pid);
        lock.lock();
        m_peakKiB = std::max(m_peakKiB, kib);
        m_wake.wait_for(lock, std::chrono::milliseconds(100), [this] { return m_stopping; });
    }
}

}  // namespace stress
