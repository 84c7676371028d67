// The fixture of the in-process archive service tests: one satellite, not
// connected (file-browser ids are resolved locally), a gate that holds every
// archive thread before it writes, and the services called as clients do.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "archive/CMyPathTree.h"
#include "cab/CabException.h"
#include "files/CFileTools.h"
#include "satellite/ArchiveThreads.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/archives/ArchiveTestSupport.h"
#include "tests/support/TempDir.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace archivetest {

// Holds every archive thread before it writes, until the test opens it.
struct Gate {
    std::mutex mutex;  // guards open, waiting and lastPath
    std::condition_variable changed;
    bool open = true;
    int waiting = 0;
    std::string lastPath;  // the zip path of the last archive that reached the gate
};
inline Gate g_gate;

inline void heldAtGate(const char* zipPath) {
    std::unique_lock<std::mutex> lock(g_gate.mutex);
    ++g_gate.waiting;
    g_gate.lastPath = zipPath;
    g_gate.changed.notify_all();
    g_gate.changed.wait(lock, [] { return g_gate.open; });
    --g_gate.waiting;
}

inline void closeGate() {
    std::lock_guard<std::mutex> lock(g_gate.mutex);
    g_gate.open = false;
}

inline void openGate() {
    std::lock_guard<std::mutex> lock(g_gate.mutex);
    g_gate.open = true;
    g_gate.changed.notify_all();
}

}  // namespace archivetest

// A satellite that is not connected: file-browser ids are resolved locally,
// so no broker is needed. Archives made by a test are removed after it.
class ArchiveServicesTest : public testing::Test {
protected:
    void SetUp() override { ArchiveThreads::setBeforeWriteHook(&archivetest::heldAtGate); }
    void TearDown() override {
        archivetest::openGate();
        ArchiveThreads::waitForAll(&satellite);
        ArchiveThreads::setBeforeWriteHook(nullptr);
        for (const std::string& zip : zips) std::filesystem::remove(zip);
    }

    // "CreateZip" of the files; returns the status, the zip path and the size answered.
    int createZip(const std::vector<std::string>& paths, std::string* zip, long long* size) {
        CLocalVariant in, out;
        archivetest::createZipInput(in.get(), paths);
        int rc = satellite.CabServiceCreateZipFile("CreateZip", in.get(), out.ptr());
        if (rc != 0) return rc;
        EXPECT_EQ(VUtil::GetArrayLength(out.get()), 2);
        *zip = VUtil::GetStringElement(out.get(), 0);
        CLocalVariant sizeValue;
        VUtil::GetElement(out.get(), 1, sizeValue.get());
        EXPECT_EQ(sizeValue.vt(), VT_I8);
        *size = sizeValue.get().llVal;
        std::lock_guard<std::mutex> lock(zipsMutex);
        zips.push_back(*zip);
        return rc;
    }

    int deleteTemp(const std::string& path) {
        CLocalVariant in, out;
        VUtil::CreateArray(in.get(), VT_VARIANT, 1);
        VUtil::PutElement(in.get(), 0, CStdStr(path));
        return satellite.CabServiceDeleteTempFile("DeleteTempFile", in.get(), out.ptr());
    }

    // The whole file through "GetFile", as a client would fetch it.
    std::string getFile(const std::string& path) {
        CLocalVariant in, out;
        VUtil::CreateArray(in.get(), VT_VARIANT, 1);
        VUtil::PutElement(in.get(), 0, CStdStr(path));
        EXPECT_EQ(satellite.CabServiceGetFile("GetFile", in.get(), out.ptr()), 0);
        if (out.vt() != (VT_ARRAY | VT_UI1)) return std::string();
        return std::string(static_cast<const char*>(out.get().parray->pvData),
                           out.get().parray->rgsabound[0].cElements);
    }

    // The text of the CabException that "GetFile" (whole file) or
    // "QueryFileSize" of `path` throws; empty when the service answers.
    std::string readError(const std::string& service, const std::string& path) {
        CLocalVariant in, out;
        if (service == "GetFile") {
            VUtil::CreateArray(in.get(), VT_VARIANT, 1);
            VUtil::PutElement(in.get(), 0, CStdStr(path));
        } else {
            CLocalVariant items;
            VUtil::CreateArray(items.get(), VT_VARIANT, 1);
            VUtil::PutElement(items.get(), 0, CFileTools::PathToFileBrowserMediumId(CStdStr(path)));
            VUtil::CreateArray(in.get(), VT_VARIANT, 2);
            VUtil::PutElement(in.get(), 0, "ctx");
            VUtil::PutElement(in.get(), 1, items.get());
        }
        try {
            if (service == "GetFile")
                satellite.CabServiceGetFile("GetFile", in.get(), out.ptr());
            else
                satellite.CabServiceQueryFileSize("QueryFileSize", in.get(), out.ptr());
        } catch (const CabException& e) {
            return e.getMessage();
        }
        return std::string();
    }

    static long long estimate(const std::vector<std::string>& paths) {
        CMyPathTree tree;
        long long total = 0;
        for (const std::string& p : paths) {
            tree.AddFile(CStdStr(p));
            total += static_cast<long long>(std::filesystem::file_size(p));
        }
        return total + tree.getZipHeaderSize();
    }

    KivRequestProxySatellite satellite;
    kivtest::TempDir dir{"archives"};
    std::mutex zipsMutex;           // guards zips (requests may run on several threads)
    std::vector<std::string> zips;  // archives removed at the end of each test
};
