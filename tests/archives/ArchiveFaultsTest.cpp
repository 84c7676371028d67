// Archives under faults: a full disk, a stop while writing, a run killed while
// writing, and "DeleteTempFile" raced by a folder swapped for a link.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <thread>

#include "diag/CBBLog.h"
#include "satellite/ArchiveLeftovers.h"
#include "tests/archives/ArchiveServicesFixture.h"

namespace fs = std::filesystem;
using archivetest::outsideFolder;
using archivetest::g_gate;
using Clock = std::chrono::steady_clock;

namespace {

const char kFullDiskChild[] = "KIV_ARCHIVE_FULL_DISK_CHILD";

// Keeps the lines logged through the process logger instead of writing them.
class CapturingLog : public CBBLog {
public:
    CapturingLog() : CBBLog("capture.log", false, 1 << 20) { setLogLevel(LOGLEVEL_DEBUG); }
    using CBBLog::_AddLog;
    void _AddLog(const char* format, va_list args, LOGLEVEL level) override {
        CStdStr line;
        line.FormatV(format, args);
        std::lock_guard<std::mutex> lock(mutex);
        if (level <= LOGLEVEL_ERROR) errors += line + "\n";
    }
    std::string errorLines() {
        std::lock_guard<std::mutex> lock(mutex);
        return errors;
    }

private:
    std::mutex mutex;  // guards errors
    std::string errors;
};

// Polls `condition` until it holds or `seconds` have passed.
bool eventually(const std::function<bool()>& condition, int seconds = 60) {
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string lastGatePath() {
    std::lock_guard<std::mutex> lock(g_gate.mutex);
    return g_gate.lastPath;
}

// Archives in /tmp, named as GenerateTempFilePath names them.
int archivesInTmp() {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename().string();
        if (name.size() == 10 && name.compare(0, 4, "file") == 0) ++count;
    }
    return count;
}

std::string thrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const CabException& e) {
        return e.getMessage();
    }
    return "(no exception)";
}

// Runs in a private mount namespace whose /tmp is a 2 MiB tmpfs (see the
// parent branch): archives, the test folder and the logs all live there.
TEST_F(ArchiveServicesTest, FullDiskEndsTheArchiveAndNothingIsServed) {
    if (!getenv(kFullDiskChild)) {
        if (geteuid() != 0) GTEST_SKIP() << "a private tmpfs needs root";
        int status = -1;
        kivtest::runCommand("unshare -m -- true 2>&1", &status);
        if (status != 0) GTEST_SKIP() << "unshare -m is not allowed here";
        char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        ASSERT_GT(n, 0);
        self[n] = '\0';
        const std::string out = kivtest::runCommand(
            // The binary is opened before the mount: it may itself live under /tmp.
            std::string(kFullDiskChild) + "=1 TMPDIR=/tmp unshare -m -- sh -c "
            "'exec 3<\"$0\" && mount --make-rprivate / && mount -t tmpfs -o size=2m,mode=1777 kiv-full /tmp || exit 77; "
            "exec /proc/self/fd/3 --gtest_filter=ArchiveServicesTest.FullDiskEndsTheArchiveAndNothingIsServed' '" +
                std::string(self) + "' 2>&1",
            &status);
        if (status == 77) GTEST_SKIP() << "cannot mount a tmpfs: " << out;
        EXPECT_EQ(status, 0) << out;
        EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
        return;
    }

    auto log = boost::make_shared<CapturingLog>();
    CBBLog::setLogger(log);
    const std::string big = dir.file("big.bin"), small = dir.file("small.txt");
    archivetest::writeRandomFile(big, 1200 * 1024, 1);  // leaves less than its own size free
    kivtest::writeFile(small, "small");
    std::string zip;
    long long size = 0;

    // Done within the wait: the request itself fails.
    std::string error = thrownBy([&] { createZip({big}, &zip, &size); });
    EXPECT_NE(error.find("No space left on device"), std::string::npos) << error;
    EXPECT_EQ(archivesInTmp(), 0) << "the partial archive is removed";

    // Pending: answered with the estimate, then failed; a read waiting for it,
    // and every later read, is refused with the reason.
    archivetest::closeGate();
    ASSERT_EQ(createZip({big, small}, &zip, &size), 0);
    EXPECT_EQ(size, estimate({big, small}));
    std::string fetchError;
    std::thread fetch([&] { fetchError = readError("GetFile", zip); });
    archivetest::openGate();
    fetch.join();
    EXPECT_NE(fetchError.find("archive " + zip + " failed: write: No space left on device"), std::string::npos)
        << fetchError;
    EXPECT_NE(readError("QueryFileSize", zip).find("No space left on device"), std::string::npos);
    EXPECT_FALSE(fs::exists(zip));
    EXPECT_EQ(deleteTemp(zip), 0);

    // "ZipLogs" of more than the space left.
    fs::remove(big);
    const std::string logs = CFileTools::GetLogsDirectory();
    archivetest::writeRandomFile(logs + "/KivRequestProxy.log", 1200 * 1024, 2);
    CLocalVariant none, out;
    error = thrownBy([&] { satellite.CabServiceZipLogs("ZipLogs", none.get(), out.ptr()); });
    EXPECT_NE(error.find("ZipLogs: archive /tmp/file"), std::string::npos) << error;
    EXPECT_NE(error.find("No space left on device"), std::string::npos) << error;
    EXPECT_EQ(archivesInTmp(), 0);
    EXPECT_FALSE(fs::exists(ArchiveLeftovers::recordPath().c_str())) << "no archive is left pending";

    const std::string errors = log->errorLines();
    EXPECT_NE(errors.find("No space left on device; the partial file was removed"), std::string::npos) << errors;
    CBBLog::setLogger(boost::shared_ptr<CBBLog>());
}

TEST_F(ArchiveServicesTest, StopAbandonsArchivesBeingWrittenAtOnce) {
    {
        std::lock_guard<std::mutex> lock(g_gate.mutex);
        g_gate.lastPath.clear();
    }
    // 8 GiB of zeros, sparse: deflating it takes far longer than this test.
    const std::string huge = dir.file("huge.bin");
    {
        std::ofstream create(huge);
    }
    ASSERT_EQ(truncate(huge.c_str(), 8LL << 30), 0);
    std::string requestError;
    std::thread request([&] {
        std::string zip;
        long long size = 0;
        requestError = thrownBy([&] { createZip({huge}, &zip, &size); });
    });
    ASSERT_TRUE(eventually([] {
        std::error_code ec;
        const std::string zip = lastGatePath();
        return !zip.empty() && fs::file_size(zip, ec) > 0 && !ec;
    })) << "the archive is being written";
    const std::string zip = lastGatePath();

    const auto start = Clock::now();
    satellite.abandonArchives();
    request.join();
    ArchiveThreads::waitForAll(&satellite);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
    EXPECT_NE(requestError.find("failed: abandoned"), std::string::npos) << requestError;
    EXPECT_FALSE(fs::exists(zip));
    EXPECT_NE(readError("GetFile", zip), "") << "an abandoned archive is not served";
}

TEST_F(ArchiveServicesTest, ArchivesLeftByAKilledRunAreRemovedAtStart) {
    const std::string small = dir.file("small.txt");
    kivtest::writeFile(small, "small");

    // While an archive is being written, the record lists it and is private.
    archivetest::closeGate();
    std::thread request([&] {
        std::string zip;
        long long size = 0;
        createZip({small}, &zip, &size);
    });
    ASSERT_TRUE(eventually([] {
        std::lock_guard<std::mutex> lock(g_gate.mutex);
        return g_gate.waiting == 1;
    }));
    const std::string writing = lastGatePath();
    const std::string record = ArchiveLeftovers::recordPath();
    struct stat st;
    ASSERT_EQ(stat(record.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_NE(kivtest::readFile(record).find(" " + writing + "\n"), std::string::npos);

    // Lines of a process that is gone: its archive, a file since replaced
    // under the same name, and a file outside the temporary folders.
    pid_t gone = fork();
    if (gone == 0) _exit(0);
    ASSERT_GT(gone, 0);
    waitpid(gone, nullptr, 0);
    auto line = [&](const std::string& path, bool sameFile) {
        struct stat file;
        EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
        return std::to_string(gone) + " 1 " + std::to_string(file.st_dev) + " " +
               std::to_string(file.st_ino + (sameFile ? 0 : 1)) + " " + std::to_string(file.st_uid) + " " + path +
               "\n";
    };
    const std::string left = CFileTools::GenerateTempFilePath(), replaced = CFileTools::GenerateTempFilePath();
    const std::string outside = outsideFolder("archives-leftovers");
    std::string lines = line(left, true) + line(replaced, false);
    if (!outside.empty()) {
        kivtest::writeFile(outside + "/kept.zip", "kept");
        lines += line(outside + "/kept.zip", true);
    }
    {
        std::ofstream append(record, std::ios::app);  // keeps the file's mode
        append << lines;
    }

    { KivRequestProxySatellite restarted; }
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(fs::exists(replaced));
    EXPECT_TRUE(fs::exists(writing)) << "an archive of a running process is not touched";
    if (!outside.empty()) {
        EXPECT_TRUE(fs::exists(outside + "/kept.zip"));
    }
    EXPECT_EQ(kivtest::readFile(record).find(std::to_string(gone) + " "), std::string::npos)
        << "the lines of the gone process are dropped";

    archivetest::openGate();
    request.join();
    ArchiveThreads::waitForAll(&satellite);
    EXPECT_FALSE(fs::exists(record)) << "no archive is left pending";
    fs::remove(replaced);
    if (!outside.empty()) fs::remove_all(outside);
}

// A folder inside the temporary folder is swapped again and again with a
// link to a folder outside, while "DeleteTempFile" deletes a file in it.
TEST_F(ArchiveServicesTest, DeleteTempFileRacedByAFolderSwapDeletesNothingOutside) {
    const std::string outside = outsideFolder("archives-race");
    if (outside.empty()) GTEST_SKIP() << "no writable folder outside the temporary folders";
    const std::string victim = outside + "/victim";
    kivtest::writeFile(victim, "outside");
    const std::string folder = dir.file("race/folder"), link = dir.file("race/link");
    kivtest::writeFile(folder + "/victim", "inside");
    fs::create_symlink(outside, link);
    const int real = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);  // wherever its name goes
    ASSERT_GE(real, 0);
    if (renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) != 0)
        GTEST_SKIP() << "renameat2 RENAME_EXCHANGE is not supported here";

    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        while (!stop) renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
    });
    int insideDeleted = 0, outsideDeleted = 0, calls = 0;
    const auto end = Clock::now() + std::chrono::milliseconds(2500);
    while (Clock::now() < end) {
        close(openat(real, "victim", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        const int rc = deleteTemp(folder + "/victim");
        ++calls;
        struct stat st;
        if (rc == 0 && fstatat(real, "victim", &st, 0) != 0) ++insideDeleted;
        if (access(victim.c_str(), F_OK) != 0) {
            ++outsideDeleted;
            kivtest::writeFile(victim, "outside");
        }
    }
    stop = true;
    swapper.join();
    close(real);
    EXPECT_EQ(outsideDeleted, 0) << "of " << calls << " calls";
    EXPECT_GT(insideDeleted, 0) << "of " << calls << " calls";
    fs::remove_all(outside);
}

}  // namespace
