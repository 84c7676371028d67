// A fixture that points XDG_CONFIG_HOME at a fresh folder for each test, so
// settings tests never see each other's domains.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "tests/support/TempDir.h"

class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* old = getenv("XDG_CONFIG_HOME");
        m_old = old ? old : "";
        m_dir.reset(new kivtest::TempDir("kivsettings"));
        setenv("XDG_CONFIG_HOME", m_dir->path().c_str(), 1);
    }
    void TearDown() override {
        setenv("XDG_CONFIG_HOME", m_old.c_str(), 1);
        m_dir.reset();
    }
    std::string folder() const { return m_dir->path() + "/kivfoundry"; }

    std::unique_ptr<kivtest::TempDir> m_dir;
    std::string m_old;
};
