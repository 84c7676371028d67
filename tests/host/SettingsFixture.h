// A fixture that points XDG_CONFIG_HOME at a fresh folder for each test, so
// settings tests never see each other's domains.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "host/CRegistry.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

class SettingsTest : public ::testing::Test {
protected:
    std::string folder() const { return m_dir.path() + "/kivfoundry"; }

    kivtest::TempDir m_dir{"kivsettings"};
    kivtest::ScopedEnv m_env{"XDG_CONFIG_HOME", m_dir.path().c_str()};
    CRegistryImpl r;
};
