#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

namespace {
std::string kivctl(const std::string& args, int* status) {
    return kivtest::runCommand(std::string(KIV_BINARY_DIR) + "/bin/kivctl " + args, status);
}
}  // namespace

TEST(KivctlCodec, EncodeThenDecodePrintsTheSameJson) {
    kivtest::TempDir dir;
    int files = 0;
    auto hexFile = [&](const std::string& content) {
        std::string path = dir.file("in" + std::to_string(files++));
        kivtest::writeFile(path, content);
        return path;
    };
    int status = -1;
    const std::string json = R"([1,"a",{"$vt":"I8","v":5},null,{"$vt":"UI1[]","base64":"AAEC","lb":2},{"$vt":"R8","v":"NaN"}])";
    std::string out = kivctl("encode '" + json + "' | " + std::string(KIV_BINARY_DIR) + "/bin/kivctl decode", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, json + "\n");

    out = kivctl("encode '[1,\"a\"]'", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "0c20" "00000000" "02000000" "0300" "01000000" "0800" "01000000" "61\n");

    kivctl("encode '[1,' 2>/dev/null", &status);
    EXPECT_EQ(status, 64);
    kivctl("encode '{\"$vt\":\"I2\",\"v\":1e9}' 2>/dev/null", &status);
    EXPECT_EQ(status, 64);
    out = kivctl("decode 2>&1 < " + hexFile("0c20 00000000 05000000"), &status);
    EXPECT_EQ(status, 2);
    EXPECT_NE(out.find("byte offset 6"), std::string::npos) << out;
    kivctl("decode 2>/dev/null < " + hexFile("xyz"), &status);
    EXPECT_EQ(status, 64);
}
