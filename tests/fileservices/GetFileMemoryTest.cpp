// "GetFile" in process: a chunk that cannot be allocated answers status 8 and
// leaves out untouched. The handler runs in a child process whose address
// space is limited, so that the allocation of a chunk near 4 GiB fails.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "satellite/KivRequestProxySatellite.h"
#include "tests/proxy/JsonVariant.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TempDir.h"

TEST(GetFileMemoryTest, AnUnallocatableChunkAnswersEightAndLeavesOutAlone) {
#ifdef KIV_SANITIZED
    GTEST_SKIP() << "the sanitizers' shadow memory needs an unlimited address space";
#else
    kivtest::TempDir dir("kivgetmem");
    const std::string path = dir.file("huge.sparse");
    kivtest::writeFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), 5ll << 30), 0);  // 5 GiB, no blocks on disk
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        KivRequestProxySatellite satellite;
        JsonVariant in("[\"" + path + "\"]");
        CLocalVariant out;
        out.get().vt = VT_I4;
        out.get().lVal = 99;
        struct rlimit limit = {1ull << 30, 1ull << 30};  // far below the 4 GiB chunk
        if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(100);
        const int rc = satellite.CabServiceGetFile("GetFile", in.get(), out.ptr());
        _exit(out.vt() != VT_I4 || out.get().lVal != 99 ? 101 : rc);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 8);
#endif
}
