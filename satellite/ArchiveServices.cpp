// "CreateZip", "ZipLogs" and "DeleteTempFile": archives written by a thread of
// their own into the temporary folder, and their deletion. Record ownership
// is described in ArchiveJob.h, the lock order in ArchiveThreads.h and
// ArchiveJobTable.h.
//
// An archive whose writing fails (a full disk, say) or is abandoned (deleted
// while written, or the proxy stopping) is removed at once; the request that
// waits for it, and any later "GetFile" or "QueryFileSize" of its path, fail
// with a CabException that names the archive and the reason.
//
// Inputs are read only from the served folders (ServedFolders); a refused one
// is an empty entry, as a missing file. An archive the budget refuses
// (ArchiveBudget: too many at once, or too little disk left) is never started.
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <set>
#include <vector>

#include "archive/CMyPathTree.h"
#include "cab/CabException.h"
#include "diag/CBBLog.h"
#include "files/CFileTools.h"
#include "satellite/ArchiveBudget.h"
#include "satellite/ArchiveJob.h"
#include "satellite/ArchiveLeftovers.h"
#include "satellite/ArchiveTempPath.h"
#include "satellite/ArchiveThreads.h"
#include "satellite/KivRequestProxySatellite.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

typedef PThreadDelegateMember<KivRequestProxySatellite> ThreadDelegate;

long long fileSize(const CStdStr& path) { return static_cast<long long>(CFileTools(path).getFileSize()); }

// An archive the budget refuses answers as a failed one does (-1004, code 1).
CabException archiveRefused(const char* service, const CStdStr& why) {
    CBBLog::warn("%s refused an archive: %s", service, why.c_str());
    return CabException(CStdStr::Formatted("%s: archive refused: %s", service, why.c_str()).c_str(), 1);
}

struct timespec deadlineIn(long long milliseconds) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    long long nsec = static_cast<long long>(now.tv_usec) * 1000 + (milliseconds % 1000) * 1000000;
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(milliseconds / 1000 + nsec / 1000000000);
    deadline.tv_nsec = static_cast<long>(nsec % 1000000000);
    return deadline;
}

}  // namespace

// Starts the building thread on a record that both holders own. When the
// thread cannot start, the record is freed, its file removed, and the
// exception goes on to the caller (and so to the requester, with its text).
static void startArchiveThread(KivRequestProxySatellite* satellite, ArchiveJobTable& jobs,
                               TCreateZipThreadData* record) {
    ArchiveThreads::started(satellite);
    ArchiveLeftovers::add(record->zipPath);
    jobs.add(record);
    try {
        record->thread.init(nullptr, new ThreadDelegate(satellite, &KivRequestProxySatellite::createZipThread), record);
    } catch (const std::exception& e) {
        CBBLog::error("Cannot start the thread for %s: %s", record->zipPath.c_str(), e.what());
        jobs.finish(record, CStdStr());
        ArchiveBudget::release(record->budgeted);
        ArchiveLeftovers::remove(record->zipPath);
        ::unlink(record->zipPath.c_str());
        ArchiveThreads::finished(satellite);
        delete record;
        throw;
    }
}

static CabException archiveFailed(const char* service, const CStdStr& zipPath, const CStdStr& reason) {
    return CabException(CStdStr::Formatted("%s: archive %s failed: %s", service, zipPath.c_str(), reason.c_str())
                            .c_str(),
                        1);
}

int KivRequestProxySatellite::CabServiceCreateZipFile(const char*, const tagVARIANT& in, tagVARIANT* out) {
    CStdStr context = VUtil::GetStringElement(in, 0);
    int n = VUtil::GetArrayLength(in);
    // The items move down by one; the array keeps n slots, so the last stays empty.
    CLocalVariant items;
    VUtil::CreateArray(items.get(), VT_VARIANT, n > 0 ? n : 0);
    for (int i = 1; i < n; ++i) {
        CLocalVariant item;
        VUtil::GetElement(in, i, item.get());
        VUtil::PutElement(items.get(), i - 1, item.get());
    }

    std::vector<CStdStr> paths;
    int rc = GetMediumListPath(context, items.get(), paths);
    if (rc != 0) {
        CBBLog::info("CreateZip: medium lookup failed with status %d", rc);
        return rc;
    }

    std::unique_ptr<CMyPathTree> layout(new CMyPathTree);  // AddFile throws for paths it cannot place
    std::set<CStdStr> refused;
    long long total = 0;
    for (const CStdStr& path : paths) {
        layout->AddFile(path);
        const long long size = m_served.sizeOf(path, "CreateZip");
        if (size < 0) refused.insert(path);  // missing or refused: an empty entry
        else total += size;
    }
    long long estimate = total + static_cast<long long>(layout->getZipHeaderSize());
    CBBLog::info("Creating zip of %d files (%lld -> %lld)", static_cast<int>(paths.size()), total, estimate);
    CStdStr why;
    if (!ArchiveBudget::admit(estimate, &why)) throw archiveRefused("CreateZip", why);

    CStdStr zipPath = CFileTools::GenerateTempFilePath();
    if (zipPath.empty()) {
        CBBLog::error("CreateZip: cannot create a temporary file for the archive");
        ArchiveBudget::release(estimate);
        return 1;
    }
    TCreateZipThreadData* record = new TCreateZipThreadData(zipPath, layout.release(), true);
    record->refused.swap(refused);
    record->budgeted = estimate;
    startArchiveThread(this, m_zipJobs, record);

    long long size = estimate;
    CStdStr failed;
    {
        PLockGuard lock(record->completion);
        const struct timespec deadline = deadlineIn(ArchiveThreads::createZipWaitMs());
        while (!record->done) {
            if (!record->completion.waitUntil(deadline)) break;
        }
        if (record->done) {
            failed = record->error;
            size = fileSize(zipPath);
        } else {
            // Still under `completion`: the thread cannot have finished, so its
            // later removal of this entry is certain to find it.
            m_zipJobs.makePending(record);
        }
    }
    releaseArchiveJob(record);
    if (!failed.empty()) throw archiveFailed("CreateZip", zipPath, failed);

    VUtil::CreateArray(*out, VT_VARIANT, 2);
    VUtil::PutElement(*out, 0, zipPath);
    VUtil::PutElement(*out, 1, size);
    CBBLog::info("zip size %lld.", size);
    return 0;
}

void* KivRequestProxySatellite::createZipThread(void* arg) {
    TCreateZipThreadData* record = static_cast<TCreateZipThreadData*>(arg);
    const auto start = std::chrono::steady_clock::now();

    // A single file is always compressed; several are stored when asked.
    bool store = record->store && record->tree->fileNodes().size() > 1;
    if (ArchiveThreads::Hook hook = ArchiveThreads::beforeWriteHook()) hook(record->zipPath.c_str());
    // Inputs refused when the archive was asked for are written empty without
    // a second look (and a second log line).
    auto openInput = [this, record](const CStdStr& path) {
        return record->refused.count(path) ? -1 : m_served.openForReading(path, "CreateZip");
    };
    CStdStr error;
    try {
        if (!record->tree->createZip(
                record->zipPath.c_str(), store, &error, [record] { return record->abandon.load(); }, openInput) &&
            error.empty())
            error = "write failed";
    } catch (const std::exception& e) {
        error = e.what();
    }
    // Which file was written: only that file is served as this archive.
    TempEntryId made;
    if (error.empty() && !tempEntryId(record->zipPath, &made)) error = "the archive is no longer a regular file";
    // Abandoned (deleted, or the proxy stops) even if the last block made it.
    if (record->abandon) error = "abandoned";
    if (!error.empty()) {
        const bool removed = ::unlink(record->zipPath.c_str()) == 0 || errno == ENOENT;
        if (record->abandon)
            CBBLog::info("Archive %s abandoned; %s", record->zipPath.c_str(),
                         removed ? "its file was removed" : "its file could not be removed");
        else
            CBBLog::error("Writing archive %s failed: %s; %s", record->zipPath.c_str(), error.c_str(),
                          removed ? "the partial file was removed" : "the partial file could not be removed");
    }
    long long size = error.empty() ? fileSize(record->zipPath) : 0;
    // Served from the moment its requester may hear that it is done.
    if (error.empty()) m_zipJobs.complete(record, made);
    {
        PLockGuard lock(record->completion);
        record->error = error;
        record->done = true;
        record->completion.broadcast();
    }
    if (CBBLog::isDebugEnabled()) {
        long long ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        CBBLog::debug("Built %s zip in %ds. Size=%d", record->zipPath.c_str(), static_cast<int>(ms / 1000),
                      static_cast<int>(size));
    }
    m_zipJobs.finish(record, error);
    ArchiveBudget::release(record->budgeted);
    ArchiveLeftovers::remove(record->zipPath);
    ArchiveThreads::finished(this);
    // From here on the satellite may be gone: touch only the record.
    releaseArchiveJob(record);
    return nullptr;
}

CStdStr KivRequestProxySatellite::waitForPendingArchive(const CStdStr& path, int timeoutMs) {
    if (m_zipJobs.pending(path)) {
        CBBLog::debug("Waiting for %s to be complete", path.c_str());
        auto waiting = [this, &path]() { return m_zipJobs.pending(path) && !m_zipJobs.stopping(); };
        bool turnedAway = false;
        if (ArchiveThreads::waitWhile(waiting, deadlineIn(timeoutMs > 0 ? timeoutMs : 0), &turnedAway)) {
            if (turnedAway)
                CBBLog::warn("%s is still being written; not waiting, %d readers wait for archives already",
                             path.c_str(), ArchiveThreads::kMaxWaiters);
            else CBBLog::warn("%s is still being written after %d ms", path.c_str(), timeoutMs);
            return CStdStr::Formatted("archive %s is still being written", path.c_str());
        }
        // The satellite stops: the archive is being abandoned.
        if (m_zipJobs.pending(path)) return CStdStr::Formatted("archive %s failed: abandoned", path.c_str());
    }
    const CStdStr failed = m_zipJobs.failure(path);
    if (failed.empty()) return failed;
    CBBLog::warn("Refused to read %s: the archive failed (%s)", path.c_str(), failed.c_str());
    return CStdStr::Formatted("archive %s failed: %s", path.c_str(), failed.c_str());
}

void KivRequestProxySatellite::abandonArchives() { m_zipJobs.abandonAll(); }

int KivRequestProxySatellite::CabServiceZipLogs(const char*, const tagVARIANT&, tagVARIANT* out) {
    CStdStr folder = CFileTools::GetLogsDirectory();
    std::vector<CFileTools*> files;
    std::vector<CStdStr> extensions = {"log", "back", ".log", ".back"};
    if (!CFileTools::EnumerateFolder(folder, files, true, false, true, false, extensions, false))
        CBBLog::warn("Failed to enumerate log files in %s", folder.c_str());

    std::vector<std::unique_ptr<CFileTools>> owned(files.begin(), files.end());
    std::unique_ptr<CMyPathTree> layout(new CMyPathTree);  // AddFile throws for paths it cannot place
    std::set<CStdStr> refused;
    long long total = 0;
    for (const auto& file : owned) {
        layout->AddFile(file->getPath());
        const long long size = m_served.sizeOf(file->getPath(), "ZipLogs");
        if (size < 0) refused.insert(file->getPath());
        else total += size;
    }
    const long long estimate = total + static_cast<long long>(layout->getZipHeaderSize());
    if (CBBLog::isDebugEnabled())
        CBBLog::debug("Creating zip of %d log files (%lld -> %lld)", static_cast<int>(files.size()), total, estimate);
    CStdStr why;
    if (!ArchiveBudget::admit(estimate, &why)) throw archiveRefused("ZipLogs", why);

    CStdStr zipPath = CFileTools::GenerateTempFilePath();
    if (zipPath.empty()) {
        CBBLog::error("ZipLogs: cannot create a temporary file for the archive");
        ArchiveBudget::release(estimate);
        return 1;
    }
    // Log archives are always deflated.
    TCreateZipThreadData* record = new TCreateZipThreadData(zipPath, layout.release(), false);
    record->refused.swap(refused);
    record->budgeted = estimate;
    startArchiveThread(this, m_zipJobs, record);
    // Joined while still holding the record, so the thread cannot free it first.
    record->thread.join();
    CStdStr failed;
    {
        PLockGuard lock(record->completion);
        failed = record->error;
    }
    releaseArchiveJob(record);
    if (!failed.empty()) throw archiveFailed("ZipLogs", zipPath, failed);

    VariantClear(out);
    out->vt = VT_BSTR;
    out->bstrVal = SysAllocString(zipPath.c_str());
    return 0;
}

int KivRequestProxySatellite::CabServiceDeleteTempFile(const char*, const tagVARIANT& in, tagVARIANT*) {
    CStdStr path = VUtil::GetStringElement(in, 0);
    if (m_zipJobs.discard(path)) {
        CBBLog::info("DeleteTempFile %s: still being written, abandoned and removed by its writer", path.c_str());
        return 0;
    }
    CStdStr detail;
    switch (deleteTempEntry(path, nullptr, &detail)) {
    case TempDeletion::Deleted: return 0;
    case TempDeletion::Missing: CBBLog::debug("DeleteTempFile: %s did not exist", path.c_str()); return 0;
    case TempDeletion::Folder: CBBLog::warn("DeleteTempFile refused %s: it is a folder", path.c_str()); return 403;
    case TempDeletion::Failed: CBBLog::info("Exception deleting %s: %s", path.c_str(), detail.c_str()); return 1;
    default:
        CBBLog::warn("DeleteTempFile refused %s (in %s): not inside the temporary folder", path.c_str(),
                     detail.c_str());
        return 403;
    }
}
