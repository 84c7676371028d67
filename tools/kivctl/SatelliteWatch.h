// A satellite that leaves the directory while a request to it waits will
// never answer (the directory does not tell the requester). While it lives,
// a SatelliteWatch asks the directory's discovery once a second, from the
// second second on, whether the satellite still answers; after three misses
// in a row it calls `gone` on its own thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <string>
#include <thread>

#include "cab/CabSatellite.h"
#include "host/PThread.h"

namespace kivctl {

class SatelliteWatch {
public:
    SatelliteWatch(CabSatellite& client, const std::string& satellite, std::function<void()> gone);
    ~SatelliteWatch();  // stops watching and joins the thread
    SatelliteWatch(const SatelliteWatch&) = delete;
    SatelliteWatch& operator=(const SatelliteWatch&) = delete;

private:
    // The pause waits on the steady clock (a PCondMutex waits on
    // CLOCK_REALTIME): hence a condition_variable_any over the PMutex.
    PMutex m_mutex;  // guards m_stop
    std::condition_variable_any m_stopped;
    bool m_stop KIV_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

}  // namespace kivctl
