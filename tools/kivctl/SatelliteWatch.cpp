#include "tools/kivctl/SatelliteWatch.h"

#include <chrono>
#include <vector>

namespace kivctl {

SatelliteWatch::SatelliteWatch(CabSatellite& client, const std::string& satellite, std::function<void()> gone) {
    m_thread = std::thread([this, &client, satellite, gone] {
        int misses = 0;
        std::unique_lock<std::mutex> lock(m_mutex);
        // The pause between rounds is the watch's pace; a stop ends it at once.
        while (!m_stopped.wait_for(lock, std::chrono::seconds(1), [this] { return m_stop; })) {
            lock.unlock();
            std::vector<std::string> replies;
            const bool asked = client.Discover("PING", satellite.c_str(), 1000, &replies) == 0;
            misses = asked && replies.empty() ? misses + 1 : 0;
            lock.lock();
            if (misses == 3 && !m_stop) {
                lock.unlock();
                gone();
                return;
            }
        }
    });
}

SatelliteWatch::~SatelliteWatch() {
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_all();
    m_thread.join();
}

}  // namespace kivctl
