// Logger test helpers: each test gets its own KIV_ROOT (so its own logs
// folder and errors.log) and XDG_CONFIG_HOME (its own LogLevel setting).
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

class LoggerTest : public ::testing::Test {
protected:
    std::string logs() const { return m_dir.path() + "/root/Library/Logs/KivFoundry"; }
    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> out;
        std::istringstream in(text);
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }
    // Members are destroyed in reverse: the variables are put back before the folder goes.
    kivtest::TempDir m_dir{"kivlog"};
    kivtest::ScopedEnv m_root{"KIV_ROOT", (m_dir.path() + "/root").c_str()};
    kivtest::ScopedEnv m_config{"XDG_CONFIG_HOME", (m_dir.path() + "/config").c_str()};
};
