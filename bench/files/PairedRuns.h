// Paired runs: a fair comparison of two ways to do the same work. The sides
// run alternately in one process (a warm-up of each, then A B, B A, A B ...),
// so a noisy moment of the machine lands on both sides alike instead of on
// the one that happened to run then. The order flips every pair, so that
// whatever one side leaves behind for the next (caches, idle threads, the
// server's buffers) does not always land on the same side: two pairs in
// opposite orders make one block, whose ratio is the geometric mean of its
// two pair ratios, and the order cancels out. The benchmark reports the
// median of the block ratios with their min and max as counters, how strongly
// the order acted (1 = not at all), each side's median time, and the load
// average before and after.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
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

// Runs each side once unrecorded, then `pairs` pairs (rounded up to an even
// number, at least 14), A first in even pairs and B first in odd ones.
// `between` (may be empty) runs before every recorded run, untimed.
inline bool run(benchmark::State& state, int pairs, const Run& a, const Run& b, Times* times,
                const std::function<void()>& between = nullptr) {
    pairs = std::max(14, pairs + pairs % 2);
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
        bool ok = i % 2 == 0 ? timed(a, &times->a) && timed(b, &times->b) : timed(b, &times->b) && timed(a, &times->a);
        if (!ok) {
            state.SkipWithError("a paired run failed");
            return false;
        }
    }
    state.counters["load1_after"] = loadAverage();
    state.counters["pairs"] = pairs;
    return true;
}

// Counters `<name>_median`, `_min` and `_max` over the blocks, of time(B) /
// time(A) (how many times longer B takes: latency), or with `speed` of
// time(A) / time(B) (how fast B is against A: throughput); `order_effect`,
// the median over the blocks of how much longer the second run of a pair
// took than it would have first. Plus each side's median seconds times
// `unitScale` as `<aName>_<unit>` and `<bName>_<unit>`.
inline void report(benchmark::State& state, const Times& t, const std::string& name, bool speed,
                   const std::string& aName, const std::string& bName, const std::string& unit, double unitScale) {
    std::vector<double> ratios, order;
    for (size_t i = 0; i + 1 < t.a.size() && i + 1 < t.b.size(); i += 2) {
        double abFirst = t.b[i] / t.a[i], baFirst = t.b[i + 1] / t.a[i + 1];
        double r = std::sqrt(abFirst * baFirst);
        ratios.push_back(speed ? 1 / r : r);
        order.push_back(std::sqrt(abFirst / baFirst));
    }
    if (ratios.empty()) return;
    state.counters[name + "_median"] = median(ratios);
    state.counters[name + "_min"] = *std::min_element(ratios.begin(), ratios.end());
    state.counters[name + "_max"] = *std::max_element(ratios.begin(), ratios.end());
    state.counters["order_effect"] = median(order);
    state.counters[aName + "_" + unit] = median(t.a) * unitScale;
    state.counters[bName + "_" + unit] = median(t.b) * unitScale;
}

}  // namespace paired
