#include "tools/kivctl/SatelliteWatch.h"

#include <chrono>
#include <vector>

namespace kivctl {

SatelliteWatch::SatelliteWatch(CabSatellite& client, const std::string& satellite, std::function<void()> gone) {
    m_thread = std::thread([this, &client, satellite, gone] {
        int misses = 0;
        m_mutex.lock();
        // The pause between rounds is the watch's pace; a stop ends it at once.
        for (;;) {
            const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
            while (!m_stop && m_stopped.wait_until(m_mutex, until) == std::cv_status::no_timeout) {
            }
            if (m_stop) break;
            m_mutex.unlock();
            std::vector<std::string> replies;
            const bool asked = client.Discover("PING", satellite.c_str(), 1000, &replies) == 0;
            misses = asked && replies.empty() ? misses + 1 : 0;
            m_mutex.lock();
            if (misses == 3 && !m_stop) {
                m_mutex.unlock();
                gone();
                return;
            }
        }
        m_mutex.unlock();
    });
}

SatelliteWatch::~SatelliteWatch() {
    {
        PLockGuard guard(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_all();
    m_thread.join();
}

}  // namespace kivctl
