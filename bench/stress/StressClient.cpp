#include "bench/stress/StressClient.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>

#include "files/CFileTools.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

extern char** environ;

namespace stress {

namespace {

using Clock = std::chrono::steady_clock;

const char* const kProxy = "VorpaMediaProxy";
const long long kSmallChunk = 256 << 10;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string statusProblem(int status) {
    std::string text = "status " + std::to_string(status);
    if (CabIsLibraryStatus(status)) text += std::string(" ") + CabStatusName(status) + " " + CabGetLastError();
    return text;
}

// The bytes of a "GetFile" answer, or false when it is not a byte array.
bool answerBytes(const tagVARIANT& out, const char** data, size_t* size) {
    if (out.vt != (VT_ARRAY | VT_UI1) || !out.parray) return false;
    *data = static_cast<const char*>(out.parray->pvData);
    *size = out.parray->rgsabound[0].cElements;
    return true;
}

// "" when `out` is a version report (six elements), else what is wrong.
std::string versionProblem(const tagVARIANT& out) {
    if (out.vt != (VT_ARRAY | VT_VARIANT)) return "answer of type " + std::to_string(out.vt);
    int n = VUtil::GetArrayLength(out);
    return n == 6 ? "" : "version report of " + std::to_string(n) + " elements";
}

// "" when `out` is the answer of a grouped request of `count` sub-requests
// that all answered status 0 with an output `check` accepts.
std::string groupProblem(const tagVARIANT& out, int count, const std::function<std::string(const tagVARIANT&)>& check) {
    if (out.vt != (VT_ARRAY | VT_VARIANT)) return "group answer of type " + std::to_string(out.vt);
    int n = VUtil::GetArrayLength(out);
    if (n != count) return "group of " + std::to_string(count) + " answered " + std::to_string(n);
    for (int i = 0; i < n; ++i) {
        CLocalVariant pair, rc, value;
        VUtil::GetElement(out, i, pair.get());
        if (VUtil::GetArrayLength(pair.get()) != 2) return "answer " + std::to_string(i) + " is not a pair";
        VUtil::GetElement(pair.get(), 0, rc.get());
        VUtil::GetElement(pair.get(), 1, value.get());
        int status = CabRetcode(rc.get());
        if (status != 0) return "sub-request " + std::to_string(i) + ": " + statusProblem(status);
        std::string problem = check(value.get());
        if (!problem.empty()) return "sub-request " + std::to_string(i) + ": " + problem;
    }
    return "";
}

// Exit status of `unzip -tqq path`, its output thrown away; -1 when it could not run.
int unzipTest(const std::string& path) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const char* argv[] = {"unzip", "-tqq", path.c_str(), nullptr};
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, "unzip", &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

StressRequester::StressRequester(int index, const StressData& data, const StressConnection& connection)
    : m_index(index), m_data(data), m_connection(connection), m_random(0x9E3779B97F4A7C15ull * (index + 1)) {}

bool StressRequester::connect() {
    if (!m_connection.token.empty()) m_client.setToken(m_connection.token);
    if (m_connection.timeoutMs > 0) m_client.setRequestTimeoutMs(m_connection.timeoutMs);
    std::string name = "stress-" + std::to_string(getpid()) + "-" + std::to_string(m_index);
    if (m_client.Connect(m_connection.server.c_str(), name.c_str()) != 0) {
        m_error = CabGetLastError();
        return false;
    }
    return true;
}

long long StressRequester::pick(long long low, long long high) {
    return std::uniform_int_distribution<long long>(low, high)(m_random);
}

int StressRequester::call(const char* service, const tagVARIANT& in, tagVARIANT* out) {
    CLocalVariant rc;
    int status = m_client.Request(kProxy, service, in, out, 0, rc.ptr());
    return status != 0 ? status : CabRetcode(rc.get());
}

void StressRequester::run(Clock::time_point until, const std::atomic<bool>& stop) {
    // Weights of the mix, out of 20: chunks most, archives least (each is
    // four steps and starts `unzip`).
    while (Clock::now() < until && !stop) {
        long long roll = pick(0, 19);
        try {
            if (roll < 9) getFileChunk();
            else if (roll < 12) queryFileSize();
            else if (roll < 16) getVersion();
            else if (roll < 18) nestedMultiRequest();
            else archiveRoundTrip();
        } catch (const std::exception& e) {
            // A malformed answer that the element helpers refused.
            m_tally.record("answer checks", 0, e.what());
        }
    }
}

void StressRequester::getFileChunk() {
    const long long size = (long long)m_data.bytes.size();
    // Mostly small chunks, a quarter large enough to travel in parts, a few
    // "to the end" (maximum 0 or -1) near the end, a few past the end.
    long long offset, max;
    long long kind = pick(0, 19);
    if (kind < 14) {
        offset = pick(0, size - 1);
        max = pick(1, kSmallChunk);
    } else if (kind < 18) {
        offset = pick(0, size - 1);
        max = pick(kSmallChunk, m_data.maxChunk);
    } else if (kind < 19) {
        offset = pick(std::max(0ll, size - m_data.maxChunk), size);
        max = pick(-1, 0);
    } else {
        offset = pick(size, size + 4096);
        max = pick(1, 4096);
    }
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 3);
    VUtil::PutElement(in.get(), 0, CStdStr(m_data.file));
    // Both integer widths the service takes.
    if (pick(0, 1) && offset <= 0x7FFFFFFF) VUtil::PutElement(in.get(), 1, (int)offset);
    else VUtil::PutElement(in.get(), 1, offset);
    if (pick(0, 1) && max <= 0x7FFFFFFF) VUtil::PutElement(in.get(), 2, (int)max);
    else VUtil::PutElement(in.get(), 2, max);

    const long long start = std::min(offset, size);
    const long long want = max <= 0 ? size - start : std::min(max, size - start);
    auto t0 = Clock::now();
    int status = call("GetFile", in.get(), out.ptr());
    double ms = msSince(t0);
    const char* data = nullptr;
    size_t got = 0;
    if (status != 0) return m_tally.record("GetFile", ms, statusProblem(status));
    if (!answerBytes(out.get(), &data, &got)) return m_tally.record("GetFile", ms, "not a byte array");
    long long wrong = std::abs((long long)got - want);
    const char* expect = m_data.bytes.data() + start;
    size_t common = std::min<size_t>(got, (size_t)want);
    if (memcmp(data, expect, common) != 0)
        for (size_t i = 0; i < common; ++i) wrong += data[i] != expect[i];
    m_tally.addWrongBytes(wrong);
    std::string problem;
    if (wrong)
        problem = std::to_string(wrong) + " wrong bytes at offset " + std::to_string(start) + ", length " +
                  std::to_string(want) + " (got " + std::to_string(got) + ")";
    m_tally.record("GetFile", ms, problem);
}

void StressRequester::queryFileSize() {
    // A few items out of the large file and the small ones, by file-browser id.
    std::vector<std::string> paths{m_data.file};
    std::vector<long long> sizes{(long long)m_data.bytes.size()};
    for (size_t i = 0; i < m_data.zipSources.size(); ++i)
        if (pick(0, 1)) {
            paths.push_back(m_data.zipSources[i]);
            sizes.push_back(m_data.zipSizes[i]);
        }
    CLocalVariant in, items, out;
    VUtil::CreateArray(items.get(), VT_VARIANT, paths.size());
    long long total = 0;
    for (size_t i = 0; i < paths.size(); ++i) {
        VUtil::PutElement(items.get(), (int)i, CFileTools::PathToFileBrowserMediumId(CStdStr(paths[i])));
        total += sizes[i];
    }
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, CFileTools::PathToFileBrowserMediumId(CStdStr(paths[0])));
    VUtil::PutElement(in.get(), 1, items.get());
    auto t0 = Clock::now();
    int status = call("QueryFileSize", in.get(), out.ptr());
    double ms = msSince(t0);
    if (status != 0) return m_tally.record("QueryFileSize", ms, statusProblem(status));
    CLocalVariant count, bytes;
    if (out.vt() == (VT_ARRAY | VT_VARIANT) && VUtil::GetArrayLength(out.get()) == 2) {
        VUtil::GetElement(out.get(), 0, count.get());
        VUtil::GetElement(out.get(), 1, bytes.get());
    }
    if (count.vt() != VT_I4 || bytes.vt() != VT_I8 || count.get().lVal != (int)paths.size() ||
        bytes.get().llVal != total)
        return m_tally.record("QueryFileSize", ms,
                              "expected " + std::to_string(paths.size()) + " files of " + std::to_string(total) +
                                  " bytes");
    m_tally.record("QueryFileSize", ms);
}

void StressRequester::getVersion() {
    CLocalVariant in, out;
    auto t0 = Clock::now();
    int status = call("my-KIV_GetVersion", in.get(), out.ptr());
    double ms = msSince(t0);
    m_tally.record("my-KIV_GetVersion", ms, status != 0 ? statusProblem(status) : versionProblem(out.get()));
}

void StressRequester::nestedMultiRequest() {
    // A group of `outer` grouped requests to the proxy itself, each of
    // `inner` version reports.
    const int outer = (int)pick(2, 4), inner = (int)pick(2, 4);
    CLocalVariant innerGroup, in, out;
    VUtil::CreateArray(innerGroup.get(), VT_VARIANT, inner);
    for (int i = 0; i < inner; ++i) {
        CLocalVariant sub, none;
        VUtil::CreateArray(sub.get(), VT_VARIANT, 3);
        VUtil::PutElement(sub.get(), 0, kProxy);
        VUtil::PutElement(sub.get(), 1, "my-KIV_GetVersion");
        VUtil::PutElement(sub.get(), 2, none.get());
        VUtil::PutElement(innerGroup.get(), i, sub.get());
    }
    VUtil::CreateArray(in.get(), VT_VARIANT, outer);
    for (int i = 0; i < outer; ++i) {
        CLocalVariant sub;
        VUtil::CreateArray(sub.get(), VT_VARIANT, 3);
        VUtil::PutElement(sub.get(), 0, kProxy);
        VUtil::PutElement(sub.get(), 1, "MultiRequest");
        VUtil::PutElement(sub.get(), 2, innerGroup.get());
        VUtil::PutElement(in.get(), i, sub.get());
    }
    auto t0 = Clock::now();
    int status = call("MultiRequest", in.get(), out.ptr());
    double ms = msSince(t0);
    if (status != 0) return m_tally.record("MultiRequest", ms, statusProblem(status));
    m_tally.record("MultiRequest", ms, groupProblem(out.get(), outer, [inner](const tagVARIANT& v) {
                       return groupProblem(v, inner, versionProblem);
                   }));
}

void StressRequester::archiveRoundTrip() {
    // One to all of the small files, in random order.
    std::vector<std::string> paths = m_data.zipSources;
    std::shuffle(paths.begin(), paths.end(), m_random);
    paths.resize((size_t)pick(1, (long long)paths.size()));
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, paths.size() + 1);
    VUtil::PutElement(in.get(), 0, "stress");
    for (size_t i = 0; i < paths.size(); ++i)
        VUtil::PutElement(in.get(), (int)i + 1, CFileTools::PathToFileBrowserMediumId(CStdStr(paths[i])));
    auto t0 = Clock::now();
    int status = call("CreateZip", in.get(), out.ptr());
    double ms = msSince(t0);
    if (status != 0) return m_tally.record("CreateZip", ms, statusProblem(status));
    CLocalVariant size;
    std::string remote;
    if (out.vt() == (VT_ARRAY | VT_VARIANT) && VUtil::GetArrayLength(out.get()) == 2) {
        remote = VUtil::GetStringElement(out.get(), 0);
        VUtil::GetElement(out.get(), 1, size.get());
    }
    if (remote.empty() || size.vt() != VT_I8) return m_tally.record("CreateZip", ms, "not [path, I8 size]");
    m_tally.record("CreateZip", ms);

    const std::string local = m_data.localFolder + "/archive-" + std::to_string(m_index) + "-" +
                              std::to_string(m_archives++) + ".zip";
    if (fetchArchive(remote, size.get().llVal, local)) {
        t0 = Clock::now();
        int rc = unzipTest(local);
        m_tally.record("unzip -t", msSince(t0), rc == 0 ? "" : "exit status " + std::to_string(rc) + " for " + remote);
    }
    unlink(local.c_str());

    CLocalVariant del, none;
    VUtil::CreateArray(del.get(), VT_VARIANT, 1);
    VUtil::PutElement(del.get(), 0, CStdStr(remote));
    t0 = Clock::now();
    status = call("DeleteTempFile", del.get(), none.ptr());
    m_tally.record("DeleteTempFile", msSince(t0), status != 0 ? statusProblem(status) : "");
}

bool StressRequester::fetchArchive(const std::string& remote, long long size, const std::string& local) {
    // The whole archive in one "GetFile" with only the path.
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 1);
    VUtil::PutElement(in.get(), 0, CStdStr(remote));
    auto t0 = Clock::now();
    int status = call("GetFile", in.get(), out.ptr());
    double ms = msSince(t0);
    const char* data = nullptr;
    size_t got = 0;
    if (status != 0) {
        m_tally.record("GetFile (archive)", ms, statusProblem(status));
        return false;
    }
    if (!answerBytes(out.get(), &data, &got) || (long long)got != size) {
        m_tally.record("GetFile (archive)", ms,
                       "got " + std::to_string(got) + " bytes of " + std::to_string(size) + " for " + remote);
        return false;
    }
    m_tally.record("GetFile (archive)", ms);
    FILE* f = fopen(local.c_str(), "wb");
    bool written = f && fwrite(data, 1, got, f) == got;
    if (f && fclose(f) != 0) written = false;
    if (!written) m_tally.record("unzip -t", 0, "cannot write " + local);
    return written;
}

}  // namespace stress
