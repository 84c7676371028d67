// A fixture that points XDG_CONFIG_HOME at a fresh folder for each test, so
// settings tests never see each other's domains.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir.reset(new kivtest::TempDir("kivsettings"));
        m_env.reset(new kivtest::ScopedEnv("XDG_CONFIG_HOME", m_dir->path().c_str()));
    }
    void TearDown() override {
        m_env.reset();
        m_dir.reset();
    }
    std::string folder() const { return m_dir->path() + "/kivfoundry"; }

    std::unique_ptr<kivtest::TempDir> m_dir;
    std::unique_ptr<kivtest::ScopedEnv> m_env;
};
