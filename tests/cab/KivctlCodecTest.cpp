#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

TEST(KivctlCodec, EncodeAndDecodeWithTheirExitStatuses) {
    const std::string kivctl = std::string(KIV_BINARY_DIR) + "/bin/kivctl ";
    const std::string json =
        R"([1,"a",{"$vt":"I8","v":5},null,{"$vt":"UI1[]","base64":"AAEC","lb":2},{"$vt":"R8","v":"NaN"}])";
    int status = -1;
    EXPECT_EQ(json + "\n", kivtest::runCommand(kivctl + "encode '" + json + "' | " + kivctl + "decode", &status));
    EXPECT_EQ(0, status);
    // An array (0c20) from 0 of 2 elements: an I4 (0300) 1, a BSTR (0800) of 1 byte, "a" (61).
    EXPECT_EQ("0c20000000000200000003000100000008000100000061\n",
              kivtest::runCommand(kivctl + "encode '[1,\"a\"]'", &status));
    EXPECT_EQ(0, status);
    std::string out = kivtest::runCommand("echo 0c20 00000000 05000000 | " + kivctl + "decode 2>&1", &status);
    EXPECT_TRUE(status == 2 && out.find("byte offset 6") != std::string::npos) << status << ": " << out;
    for (const std::string& refused :
         {kivctl + "encode '[1,'", kivctl + "encode '{\"$vt\":\"I2\",\"v\":1e9}'", "echo xyz | " + kivctl + "decode"}) {
        kivtest::runCommand(refused + " 2>/dev/null", &status);
        EXPECT_EQ(64, status) << refused;
    }
}
