// The reader refuses damaged files with a reason and never reads past the end.
#include <gtest/gtest.h>

#include <random>

#include "CrashTestSupport.h"
#include "diag/MinidumpReader.h"
#include "tests/support/TempDir.h"

namespace {

std::vector<uint8_t> realDump() {
    kivtest::TempDir tmp("readerdump");
    crashtest::ChildResult r =
        crashtest::runCrashProgram("null", tmp.path() + "/", "/bin/true", {}, tmp.path() + "/rec");
    EXPECT_EQ(0, r.status) << r.output;
    std::vector<std::string> files = crashtest::filesEndingWith(tmp.path(), ".dmp");
    std::string text = files.size() == 1 ? kivtest::readFile(files[0]) : "";
    return std::vector<uint8_t>(text.begin(), text.end());
}

TEST(MinidumpReader, RefusesTruncatedAndGarbledFiles) {
    std::vector<uint8_t> good = realDump();
    ASSERT_GT(good.size(), 1024u);
    MinidumpReader reader;
    ASSERT_TRUE(reader.parse(good)) << reader.error();
    EXPECT_EQ(static_cast<uint16_t>(minidump::kCpuArchitectureAmd64), reader.systemInfo().processorArchitecture);
    EXPECT_EQ(minidump::kOsLinux, reader.systemInfo().platformId);
    EXPECT_FALSE(reader.modules().empty());

    // Cut inside the header, the directory and the stream records.
    for (size_t cut : {size_t(0), size_t(4), size_t(31), size_t(40), size_t(200), size_t(1000), good.size() / 2}) {
        std::vector<uint8_t> part(good.begin(), good.begin() + static_cast<long>(cut));
        EXPECT_FALSE(reader.parse(part)) << "cut at " << cut;
        EXPECT_FALSE(reader.error().empty());
    }
    std::vector<uint8_t> bad = good;
    bad[0] = 'X';
    EXPECT_FALSE(reader.parse(bad));
    EXPECT_EQ("not a minidump (bad signature)", reader.error());

    // Random damage past the header: either refused or parsed, never a crash.
    std::mt19937 rng(12345);
    for (int round = 0; round < 200; ++round) {
        std::vector<uint8_t> damaged = good;
        for (int i = 0; i < 8; ++i) damaged[32 + rng() % (std::min<size_t>(damaged.size(), 4096) - 32)] = static_cast<uint8_t>(rng());
        if (reader.parse(damaged)) {
            reader.crashModules();
            char buf[16];
            reader.readMemory(reader.crashInstructionPointer(), sizeof buf, buf);
        } else {
            EXPECT_FALSE(reader.error().empty());
        }
    }
    EXPECT_FALSE(reader.load("/nonexistent/dump.dmp"));
}

}  // namespace
