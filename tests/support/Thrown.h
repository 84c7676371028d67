// What a call throws, as text, so that a test compares it in one line.
#pragma once

#include <exception>
#include <functional>
#include <string>

#include "cab/CabException.h"

namespace kivtest {

// The message of the CabException or std::exception `call` throws; "(no exception)" when it returns.
inline std::string thrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const CabException& e) {
        return e.getMessage();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(no exception)";
}

}  // namespace kivtest
