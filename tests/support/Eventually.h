// Waiting for a condition that nothing signals (a file, a log line, another process).
#pragma once

#include <chrono>
#include <cstdint>
#include <thread>

namespace kivtest {

// Polls `condition` every 5 ms until it holds; false after `ms` (a safety net only).
template <class F>
bool eventually(F condition, int ms = 60000) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(5)))
        if (condition()) return true;
    return condition();
}

inline int64_t msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace kivtest
