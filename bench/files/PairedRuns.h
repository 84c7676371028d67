// Paired runs: a fair comparison of two ways to do the same work. The sides
// run alternately in one process (a warm-up of each, then A B A B ...), so a
// noisy moment of the machine lands on both sides alike instead of on the
// one that happened to run then. Each pair gives one ratio; the benchmark
// reports the median of those ratios with their min and max as counters,
// plus each side's median time and the load average before and after.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace paired {

// One timed run of a side; false when it failed (the benchmark then stops
// with an error).
typedef std::function<bool()> Run;

struct Times {
    std::vector<double> a, b;  // seconds per run, in pair order
};

inline double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The given percentile (0..100) of `v`, nearest rank.
inline double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t rank = (size_t)(p / 100.0 * (double)v.size());
    return v[std::min(v.size() - 1, rank)];
}

// The 1-minute load average, or -1.
inline double loadAverage() {
    double load = -1;
    if (FILE* f = fopen("/proc/loadavg", "r")) {
        if (fscanf(f, "%lf", &load) != 1) load = -1;
        fclose(f);
    }
    return load;
}

// Runs each side once unrecorded, then `pairs` times A and B alternately.
// `between` (may be empty) runs before every recorded run, untimed.
inline bool run(benchmark::State& state, int pairs, const Run& a, const Run& b, Times* times,
                const std::function<void()>& between = nullptr) {
    state.counters["load1_before"] = loadAverage();
    auto timed = [&](const Run& side, std::vector<double>* into) {
        if (between) between();
        auto t0 = std::chrono::steady_clock::now();
        bool ok = side();
        if (into) into->push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        return ok;
    };
    if (!timed(a, nullptr) || !timed(b, nullptr)) {
        state.SkipWithError("warm-up failed");
        return false;
    }
    for (int i = 0; i < pairs; ++i) {
        if (!timed(a, &times->a) || !timed(b, &times->b)) {
            state.SkipWithError("a paired run failed");
            return false;
        }
    }
    state.counters["load1_after"] = loadAverage();
    state.counters["pairs"] = pairs;
    return true;
}

// Counters `<name>_median`, `_min` and `_max` over the pairs, of time(B) /
// time(A) (how many times longer B takes: latency), or with `speed` of
// time(A) / time(B) (how fast B is against A: throughput). Plus each side's
// median seconds times `unitScale` as `<aName>_<unit>` and `<bName>_<unit>`.
inline void report(benchmark::State& state, const Times& t, const std::string& name, bool speed,
                   const std::string& aName, const std::string& bName, const std::string& unit,
                   double unitScale) {
    std::vector<double> ratios;
    for (size_t i = 0; i < t.a.size() && i < t.b.size(); ++i)
        ratios.push_back(speed ? t.a[i] / t.b[i] : t.b[i] / t.a[i]);
    if (ratios.empty()) return;
    state.counters[name + "_median"] = median(ratios);
    state.counters[name + "_min"] = *std::min_element(ratios.begin(), ratios.end());
    state.counters[name + "_max"] = *std::max_element(ratios.begin(), ratios.end());
    state.counters[aName + "_" + unit] = median(t.a) * unitScale;
    state.counters[bName + "_" + unit] = median(t.b) * unitScale;
}

}  // namespace paired
