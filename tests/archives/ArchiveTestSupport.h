// Helpers of the archive tests, and the fixture of the in-process ones: a
// satellite that is not connected (file-browser ids resolve locally).
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>

#include "archive/CMyPathTree.h"
#include "cab/CabException.h"
#include "files/CFileTools.h"
#include "satellite/ArchiveThreads.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/proxy/TestHelpers.h"
#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"
#include "variant/VUtil.h"

namespace fs = std::filesystem;
typedef std::map<std::string, std::string> Methods;

// Entry name -> method column of `unzip -v` ("Stored", "Defl:X", ...); empty
// when `unzip -t` finds an error in the archive.
inline Methods zipMethods(const std::string& zip) {
    const std::string test = "unzip -tqq '" + zip + "' >/dev/null 2>&1";
    std::istringstream rows(kivtest::runCommand(test + " && unzip -v '" + zip + "' | awk "
                                                "'/^--------/ {n++; next} n == 1 {print $8, $2}'"));
    Methods out;
    for (std::string name, method; rows >> name >> method;) out[name] = method;
    return out;
}

// A new folder `name`-PID outside /tmp, /var/tmp and TMPDIR (under the build,
// the source or the home folder), for files that must survive; empty when none is outside.
inline std::string outsideFolder(const std::string& name) {
    const std::string tmp = fs::weakly_canonical(CFileTools::getTmpFolder().c_str()).string();
    const char* home = getenv("HOME");
    for (const char* candidate : {KIV_BINARY_DIR, KIV_SOURCE_DIR, home}) {
        if (!candidate || !*candidate) continue;
        const std::string base = fs::weakly_canonical(candidate).string();
        if (base.rfind("/tmp/", 0) == 0 || base.rfind("/var/tmp/", 0) == 0 || base.rfind(tmp + "/", 0) == 0)
            continue;
        const std::string folder = base + "/" + name + "-" + std::to_string(getpid());
        std::error_code ec;
        if (fs::create_directories(folder, ec), !ec) return folder;
    }
    return std::string();
}

// ["test", file-browser id of each path] as "CreateZip" takes it.
inline void createZipInput(tagVARIANT& in, const std::vector<std::string>& paths) {
    VUtil::CreateArray(in, VT_VARIANT, paths.size() + 1);
    VUtil::PutElement(in, 0, "test");
    for (size_t i = 0; i < paths.size(); ++i)
        VUtil::PutElement(in, int(i + 1), CFileTools::PathToFileBrowserMediumId(CStdStr(paths[i])));
}

using kivtest::thrownBy;

// Archives made by a test are removed after it. While the gate is closed,
// every archive thread waits before it writes.
class ArchiveServicesTest : public testing::Test {
protected:
    void SetUp() override {
        lastPath.clear();  // no archive thread runs between tests
        ArchiveThreads::setBeforeWriteHook(&atGate);
    }
    void TearDown() override {
        setGate(true);
        ArchiveThreads::waitForAll(&satellite);
        ArchiveThreads::setBeforeWriteHook(nullptr);
        for (const std::string& zip : zips) fs::remove(zip);
    }

    static void atGate(const char* zipPath) {
        std::unique_lock<std::mutex> lock(gateMutex);
        ++waiting;
        lastPath = zipPath;
        gateChanged.notify_all();
        gateChanged.wait(lock, [] { return gateOpen; });
        --waiting;
    }
    // While the gate is closed no archive completes, so "CreateZip" need not wait its 5 s for one.
    static void setGate(bool open) {
        std::lock_guard<std::mutex> lock(gateMutex);
        gateOpen = open;
        ArchiveThreads::setCreateZipWaitMs(open ? 5000 : 200);
        gateChanged.notify_all();
    }
    // The zip path of the last archive that reached the gate, and how many wait there.
    static std::pair<std::string, int> atGateNow() {
        std::lock_guard<std::mutex> lock(gateMutex);
        return {lastPath, waiting};
    }

    // "CreateZip" of the files; the status, *zip the path and *size the size answered.
    int createZip(const std::vector<std::string>& paths, std::string* zip = nullptr,
                  long long* size = nullptr) {
        CLocalVariant in, out, sizeValue;
        createZipInput(in.get(), paths);
        const int rc = satellite.CabServiceCreateZipFile("CreateZip", in.get(), out.ptr());
        if (rc != 0) return rc;
        EXPECT_EQ(VUtil::GetArrayLength(out.get()), 2);
        VUtil::GetElement(out.get(), 1, sizeValue.get());
        EXPECT_EQ(sizeValue.vt(), VT_I8);
        if (size) *size = sizeValue.get().llVal;
        std::lock_guard<std::mutex> lock(zipsMutex);
        zips.push_back(VUtil::GetStringElement(out.get(), 0));
        if (zip) *zip = zips.back();
        return rc;
    }
    int deleteTemp(const std::string& path) {
        JsonVariant in(listOf(path));
        CLocalVariant out;
        return satellite.CabServiceDeleteTempFile("DeleteTempFile", in.get(), out.ptr());
    }
    // The whole file through "GetFile", as a client fetches it.
    std::string getFile(const std::string& path) {
        CLocalVariant out;
        EXPECT_EQ(satellite.CabServiceGetFile("GetFile", JsonVariant(listOf(path)).get(), out.ptr()), 0);
        return bytesOf(out.get());
    }
    static long long estimate(const std::vector<std::string>& paths) {
        CMyPathTree tree;
        long long total = 0;
        for (const std::string& p : paths) {
            tree.AddFile(CStdStr(p));
            total += static_cast<long long>(fs::file_size(p));
        }
        return total + tree.getZipHeaderSize();
    }

    static inline std::mutex gateMutex;  // guards the gate's state
    static inline std::condition_variable gateChanged;
    static inline bool gateOpen = true;
    static inline int waiting = 0;
    static inline std::string lastPath;
    kivtest::TempDir dir{"archives"};
    // The satellite serves the files of `dir` (set before it is made); no
    // disk reserve, so that no machine refuses the tests' archives.
    const bool served = setting("files.roots", CStdStr(dir.path())) && setting("archive.diskReserveMB", 0);
    KivRequestProxySatellite satellite;
    std::mutex zipsMutex;           // guards zips (requests may run on several threads)
    std::vector<std::string> zips;  // archives removed at the end of each test
};
