// KivRequestProxySatellite: the "VorpaMediaProxy" satellite. Register()
// connects to the CAB directory named by the "cabDirectory.host" setting
// (default 127.0.0.1) and publishes the eleven services of CreateServices(),
// in their fixed order with their fixed descriptions. Handlers run on the
// broker library's threads, several at once; the only state they share is the
// table of archive jobs, guarded by its own mutex. Every service that reads a
// file asks the served folders (ServedFolders) for it.
#pragma once

#include <map>
#include <vector>

#include "cab/CabSatellite.h"
#include "common/CStdStr.h"
#include "files/CKivFileManager.h"
#include "host/PThread.h"
#include "satellite/ArchiveJobTable.h"
#include "satellite/ServedFolders.h"

struct TCreateZipThreadData;

class KivRequestProxySatellite : public CabSatellite {
public:
    KivRequestProxySatellite();
    ~KivRequestProxySatellite() override;

    // Connects and publishes the services; 0 on success, else the library's status.
    int Register();
    int CreateServices() override;

    // Request() with the return codes before the output (kept in this order).
    int CabRequest(char* target, char* service, tagVARIANT& in, tagVARIANT* retcodes, tagVARIANT* out);

    // Published services.
    int CabServiceQueryFileSize(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceGetFile(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceGetKivVersion(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceTailLog(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceMultiRequest(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceCreateZipFile(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceDeleteTempFile(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceGetKivDataFolder(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceGetConfig(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceGenerateCrash(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceZipLogs(const char* name, const tagVARIANT& in, tagVARIANT* out);

    // Runs one sub-request of "MultiRequest"; `record` is a MultiRequestRecord.
    void* threadCabRequest(void* record);

    // "MultiRequest" runs its sub-requests on the handler's own thread plus at
    // most kMultiRequestThreadsPerGroup - 1 helper threads, drawn from a budget
    // of kMultiRequestThreadBudget helpers for the whole process. A group that
    // gets no helper (budget used up, thread creation failed) runs every
    // sub-request itself, in order. A group of more than
    // kMultiRequestMaxSubRequests is refused (a CabException, code 403)
    // before anything is sent.
    static constexpr int kMultiRequestThreadsPerGroup = 64;
    static constexpr int kMultiRequestThreadBudget = 1024;
    static constexpr int kMultiRequestMaxSubRequests = 10000;

    // Version report helpers.
    CStdStr GetKivInstallVersion();
    CStdStr GetPerformanceIndex();
    CStdStr GetPlatform();

    // Medium items to file paths: file-browser ids locally, others through
    // the media service "KivMediaV2". 0, 1 for an empty first item, -1 after
    // an exception (a refused lookup included), else the lookup's status.
    int GetMediumListPath(const CStdStr& context, const tagVARIANT& items, std::vector<CStdStr>& paths);
    // Sends `in` to `method` of satellite `service` and copies element 0 of
    // its answer into `out`; returns 0. A negative status, or an answer
    // without element 0 (a refusal such as 404), throws CabException.
    int CabGetMediumInfoFromId(const char* service, const char* method, const tagVARIANT& in, tagVARIANT* out);

    // Thread body that writes one archive; `record` is a TCreateZipThreadData.
    void* createZipThread(void* record);
    // When `path` is an archive still being written, waits until it is
    // complete (at most `timeoutMs`, and only while fewer than
    // ArchiveThreads::kMaxWaiters wait; the satellite stopping ends the wait);
    // returns at once otherwise. Returns "" when the file may be read, else
    // why not (the archive failed, or is still being written).
    CStdStr waitForPendingArchive(const CStdStr& path, int timeoutMs);
    // Stop: archives still being written are abandoned and their files removed.
    void abandonArchives();

    CKivFileManager& fileManager() { return m_fileManager; }
    const ServedFolders& servedFolders() const { return m_served; }

private:
    // Archives being written, pending and failed; guarded by its own lock.
    ArchiveJobTable m_zipJobs;
    // What the file services may read; fixed when the satellite is made.
    ServedFolders m_served;
    // Destroyed before the job table (members go in reverse order).
    CKivFileManager m_fileManager;
};

// One sub-request of "MultiRequest" and its answer; written only by the one
// thread of the group that took it.
struct MultiRequestRecord {
    KivRequestProxySatellite* satellite;
    tagVARIANT request;  // [target, service, input]
    tagVARIANT answer;   // [return codes, output]
};
