// main() of every test binary: runs the tests inside a fresh temporary folder that holds KIV_ROOT and XDG_CONFIG_HOME,
// so no test touches the real logs, data folder or settings. Set KIV_KEEP_TEST_DIR=1 to keep the folder.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/TempDir.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    kivtest::TempDir sandbox("kivtest");
    std::string root = sandbox.path() + "/root";
    std::string config = sandbox.path() + "/config";
    setenv("KIV_ROOT", root.c_str(), 1);
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    if (getenv("KIV_KEEP_TEST_DIR")) sandbox.keep();
    return RUN_ALL_TESTS();
}
