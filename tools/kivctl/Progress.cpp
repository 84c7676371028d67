#include "tools/kivctl/Progress.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kivctl {

bool parseSize(const std::string& text, unsigned long long* out) {
    const unsigned long long kMax = 0xFFFFFFFFull;
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (errno) return false;
    std::string suffix = end;
    int shift = 0;
    if (suffix == "K" || suffix == "k" || suffix == "KiB") shift = 10;
    else if (suffix == "M" || suffix == "m" || suffix == "MiB") shift = 20;
    else if (suffix == "G" || suffix == "g" || suffix == "GiB") shift = 30;
    else if (!suffix.empty()) return false;
    if (v > (kMax >> shift)) return false;
    *out = v << shift;
    return *out > 0;
}

std::string humanSize(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (bytes >= 1024 && u < 4) {
        bytes /= 1024;
        ++u;
    }
    char buf[32];
    snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
    return buf;
}

bool progressWanted(bool dataOnStdout) { return !dataOnStdout && isatty(1) && isatty(2); }

Progress::Progress(bool enabled, const std::string& label, unsigned long long start, long long total)
    : m_enabled(enabled), m_label(label), m_start(start), m_total(total), m_t0(std::chrono::steady_clock::now()) {}

void Progress::update(unsigned long long done, bool last) {
    if (!m_enabled) return;
    auto now = std::chrono::steady_clock::now();
    if (!last && now - m_shown < std::chrono::milliseconds(100)) return;
    m_shown = now;
    double secs = std::chrono::duration<double>(now - m_t0).count();
    double rate = secs > 0 ? (done - m_start) / secs : 0;
    std::string line = humanSize(done);
    if (m_total >= 0) {
        line += " / " + humanSize(m_total);
        const int width = 24;
        int filled = m_total > 0 ? (int)(width * (double)done / m_total) : width;
        if (filled > width) filled = width;
        line = "[" + std::string(filled, '#') + std::string(width - filled, ' ') + "] " + line;
    }
    line = m_label + line + "  " + humanSize(rate) + "/s";
    if (m_total >= 0 && rate > 0 && !last && (double)done < m_total) {
        long left = (long)((m_total - (double)done) / rate);
        char eta[32];
        snprintf(eta, sizeof eta, "  %ld:%02ld left", left / 60, left % 60);
        line += eta;
    }
    fprintf(stderr, "\r%-78s%s", line.c_str(), last ? "\n" : "");
    fflush(stderr);
}

}  // namespace kivctl
