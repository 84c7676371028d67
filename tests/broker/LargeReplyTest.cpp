// A 1 GiB answer (256 MiB under sanitizers) from an echo satellite in its own process: it arrives whole, the serving
// process grows by little more than the answer it holds, and the directory stays small and reports no slow consumer.
#include <gmock/gmock.h>
#include <signal.h>

#include <memory>
#include <string>

#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/ProcStatus.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static const int64_t kSize = 256ll << 20;
#else
static const int64_t kSize = 1ll << 30;
#endif

TEST_F(BrokerTest, HugeReplyArrivesWholeWithBoundedServingMemory) {
    // Under AddressSanitizer the bound is about the library's memory, not the sanitizer's quarantine.
    const std::string asan = "ASAN_OPTIONS=\"$ASAN_OPTIONS:quarantine_size_mb=0:thread_local_quarantine_size_kb=0\" ";
    kivtest::TempDir dir("kivlarge");
    const int pid = kivtest::startInBackground(asan + KIV_CAB_ECHO " --server " + server.hostPort() + " --name EchoBig",
                                               dir.file("echo.out"), "ready\n");
    ASSERT_GT(pid, 0) << kivtest::readFile(dir.file("echo.out"));
    std::shared_ptr<void> stop(nullptr, [pid](void*) { kill(pid, SIGTERM); });
    const int64_t baseKiB = kivtest::statusKiB(pid, "VmHWM:");
    const int64_t serverBaseKiB = kivtest::statusKiB(server.pid(), "VmRSS:");
    ASSERT_GT(baseKiB, 0);
    CLocalVariant out;
    ASSERT_EQ(0, call("EchoBig", "Blob", "{\"$vt\":\"I8\",\"v\":" + std::to_string(kSize) + "}", out.ptr()))
        << CabGetLastError();
    EXPECT_EQ(0, blobErrors(out.get(), kSize, 4093));
    // The server holds the answer itself plus at most a few MiB of the transfer.
    const int64_t grownKiB = kivtest::statusKiB(pid, "VmHWM:") - baseKiB;
    EXPECT_LE(grownKiB, (kSize >> 10) + 64 * 1024) << "serving process grew by " << grownKiB << " KiB";
    const int64_t dirKiB = kivtest::statusKiB(server.pid(), "VmHWM:");
    EXPECT_LE(dirKiB - serverBaseKiB, 128 * 1024) << "nats-server peak " << dirKiB << " KiB";
    EXPECT_THAT(kivtest::readFile(server.logPath()), testing::Not(testing::HasSubstr("Slow Consumer")));
}
