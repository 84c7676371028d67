#include "tools/KivRequestProxy/SystemdNotify.h"

#include <systemd/sd-daemon.h>

#include <chrono>

namespace {
// A STATUS= value is one line.
std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}
}  // namespace

SystemdNotify::~SystemdNotify() { stopWatchdog(); }

void SystemdNotify::send(const std::string& message) {
    // 0 without NOTIFY_SOCKET; a failure to send is not the service's failure.
    sd_notify(0, message.c_str());
}

void SystemdNotify::ready(const std::string& status) { send("READY=1\nSTATUS=" + oneLine(status)); }

void SystemdNotify::status(const std::string& status) { send("STATUS=" + oneLine(status)); }

void SystemdNotify::stopping(const std::string& status) {
    stopWatchdog();
    send("STOPPING=1\nSTATUS=" + oneLine(status));
}

uint64_t SystemdNotify::watchdogUsec() {
    uint64_t usec = 0;
    return sd_watchdog_enabled(0, &usec) > 0 ? usec : 0;
}

void SystemdNotify::startWatchdog(std::function<bool(int64_t)> alive) {
    const uint64_t usec = watchdogUsec();
    PLockGuard guard(m_lock);
    if (usec == 0 || m_watchdog.joinable() || m_stop) return;
    const auto period = std::chrono::microseconds(usec / 2);
    const int64_t maxSilenceMs = static_cast<int64_t>(usec / 2000);
    m_watchdog = std::thread([this, period, maxSilenceMs, alive] {
        m_lock.lock();
        while (!m_stop) {
            m_lock.unlock();
            if (alive(maxSilenceMs)) send("WATCHDOG=1");
            m_lock.lock();
            const auto until = std::chrono::steady_clock::now() + period;
            while (!m_stop && m_wake.wait_until(m_lock, until) == std::cv_status::no_timeout) {
            }
        }
        m_lock.unlock();
    });
}

void SystemdNotify::stopWatchdog() {
    std::thread watchdog;
    {
        PLockGuard guard(m_lock);
        m_stop = true;
        watchdog.swap(m_watchdog);
    }
    m_wake.notify_all();
    if (watchdog.joinable() && watchdog.get_id() != std::this_thread::get_id()) watchdog.join();
}
