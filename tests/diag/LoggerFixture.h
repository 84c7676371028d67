// Logger test helpers: each test gets its own KIV_ROOT (so its own logs
// folder and errors.log) and XDG_CONFIG_HOME (its own LogLevel setting).
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir.reset(new kivtest::TempDir("kivlog"));
        m_root.reset(new kivtest::ScopedEnv("KIV_ROOT", (m_dir->path() + "/root").c_str()));
        m_config.reset(new kivtest::ScopedEnv("XDG_CONFIG_HOME", (m_dir->path() + "/config").c_str()));
    }
    void TearDown() override {
        m_config.reset();
        m_root.reset();
        m_dir.reset();
    }
    std::string logs() const { return m_dir->path() + "/root/Library/Logs/KivFoundry"; }

    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> out;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

    std::unique_ptr<kivtest::TempDir> m_dir;
    std::unique_ptr<kivtest::ScopedEnv> m_root, m_config;
};
