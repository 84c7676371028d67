// A 1 GiB answer (256 MiB under sanitizers) from an echo satellite in its own
// process: it arrives whole, the serving process grows by little more than
// the answer it holds, and the directory stays small and reports no slow consumer.
#include <signal.h>

#include <memory>
#include <string>

#include "tests/broker/BrokerTestFixture.h"
#include "tests/support/ProcStatus.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int64_t kSize = 256ll << 20;
#else
const int64_t kSize = 1ll << 30;
#endif

using kivtest::statusKiB;

}  // namespace

TEST_F(BrokerTest, HugeReplyArrivesWholeWithBoundedServingMemory) {
    // Under AddressSanitizer the bound is about the library's memory, not about
    // the blocks the sanitizer keeps in quarantine after they were freed.
    const std::string asan = "ASAN_OPTIONS=\"$ASAN_OPTIONS:quarantine_size_mb=0:thread_local_quarantine_size_kb=0\" ";
    kivtest::TempDir dir("kivlarge");
    const int pid = kivtest::startInBackground(asan + KIV_CAB_ECHO " --server " + server.hostPort() + " --name EchoBig",
                                               dir.file("echo.out"), "ready\n");
    ASSERT_GT(pid, 0) << kivtest::readFile(dir.file("echo.out"));
    std::shared_ptr<void> stop(nullptr, [pid](void*) { kill(pid, SIGTERM); });
    int64_t baseKiB = statusKiB(pid, "VmHWM:");
    int64_t serverBaseKiB = statusKiB(server.pid(), "VmRSS:");
    ASSERT_GT(baseKiB, 0);

    Var out;
    ASSERT_EQ(0, call("EchoBig", "Blob", "{\"$vt\":\"I8\",\"v\":" + std::to_string(kSize) + "}", &out))
        << CabGetLastError();
    ASSERT_EQ(VT_ARRAY | VT_UI1, out.v.vt);
    int32_t ub = 0;
    SafeArrayGetUBound(out.v.parray, 1, &ub);
    ASSERT_EQ(kSize - 1, (int64_t)ub);
    unsigned char* p = nullptr;
    SafeArrayAccessData(out.v.parray, (void**)&p);
    int64_t bad = 0;
    for (int64_t i = 0; i < kSize; i += 4093) bad += p[i] != echoBlobByte((uint64_t)i);
    bad += p[kSize - 1] != echoBlobByte((uint64_t)(kSize - 1));
    SafeArrayUnaccessData(out.v.parray);
    EXPECT_EQ(0, bad);

    // The server holds the answer itself plus at most a few MiB of the transfer.
    int64_t grownKiB = statusKiB(pid, "VmHWM:") - baseKiB;
    EXPECT_LE(grownKiB, (kSize >> 10) + 64 * 1024) << "serving process grew by " << grownKiB << " KiB";
    int64_t dirKiB = statusKiB(server.pid(), "VmHWM:");
    EXPECT_LE(dirKiB - serverBaseKiB, 128 * 1024) << "nats-server peak " << dirKiB << " KiB";
    std::string log = kivtest::readFile(server.logPath());
    EXPECT_EQ(std::string::npos, log.find("Slow Consumer")) << log;
}
