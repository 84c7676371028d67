// Sizes as people write and read them, and the one-line progress bar that
// kivctl's downloads show on a terminal.
#pragma once

#include <chrono>
#include <string>

namespace kivctl {

// "4M", "512K", "1G" or a plain byte count, below 4 GiB and above 0.
bool parseSize(const std::string& text, unsigned long long* out);
// "1.5 MiB" and the like.
std::string humanSize(double bytes);

// A bar on stderr, redrawn at most ten times a second: bytes done, the total
// when known (< 0: unknown), rate and time left. Does nothing unless enabled.
class Progress {
public:
    Progress(bool enabled, const std::string& label, unsigned long long start, long long total);
    void update(unsigned long long done, bool last);

private:
    bool m_enabled;
    std::string m_label;
    unsigned long long m_start;
    long long m_total;
    std::chrono::steady_clock::time_point m_t0, m_shown;
};

// Whether progress belongs on this terminal: stderr is one, and so is stdout
// unless the data goes there.
bool progressWanted(bool dataOnStdout);

}  // namespace kivctl
