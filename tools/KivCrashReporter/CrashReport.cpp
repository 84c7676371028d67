#include "CrashReport.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

#include "diag/MinidumpReader.h"
#include "files/CFileTools.h"
#include "host/KivFolders.h"

namespace fs = boost::filesystem;

namespace {

std::string hexAddress(uint64_t v) {
    char buf[32];
    snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(v));
    return buf;
}

std::string isoNow() {
    char buf[64];
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S%z", &tm);
    return buf;
}

}  // namespace

nlohmann::json summarizeCrash(const CrashReportRequest& request, const std::string& dumpPath) {
    nlohmann::json j;
    j["application"] = request.application;
    j["time"] = isoNow();
    j["dump"] = dumpPath;
    if (!request.appData.empty()) j["appData"] = request.appData;
    if (!request.extraArguments.empty()) j["arguments"] = request.extraArguments;
    MinidumpReader reader;
    if (!reader.load(dumpPath)) {
        j["error"] = reader.error();
        return j;
    }
    if (reader.hasException()) {
        const MinidumpReader::ExceptionInfo& e = reader.exception();
        j["signal"] = e.signal;
        const char* name = sigabbrev_np(static_cast<int>(e.signal));
        j["signalName"] = name ? std::string("SIG") + name : std::string();
        j["faultAddress"] = hexAddress(e.address);
        j["thread"] = e.threadId;
        j["instructionPointer"] = hexAddress(reader.crashInstructionPointer());
    }
    j["threads"] = reader.threads().size();
    j["modules"] = reader.crashModules();
    return j;
}

std::string crashReportsFolder() {
    try {
        return CFileTools::GetKivDataSubFolder("CrashReports");
    } catch (const std::exception&) {
        // The data folder itself may be missing on a fresh machine: make the whole path.
    }
    std::string folder = KivFolders::DataFolder() + "/CrashReports";
    if (!KivFolders::CreateFolders(KivFolders::DataFolder()) || !KivFolders::CreateFolders(folder))
        throw std::runtime_error("cannot create " + folder + ": " + strerror(errno));
    return folder;
}

namespace {

// Copies a file's bytes into a new private file (0600), with plain reads and
// writes: the library copy may use a kernel call that refuses to cross file
// systems, which is exactly the case it is needed for.
bool copyBytes(const std::string& from, const std::string& to, std::string* why) {
    int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        *why = strerror(errno);
        return false;
    }
    int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (out < 0) {
        *why = strerror(errno);
        ::close(in);
        return false;
    }
    char buf[64 * 1024];
    bool ok = true;
    for (;;) {
        ssize_t n = ::read(in, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        for (ssize_t done = 0; ok && done < n;) {
            ssize_t w = ::write(out, buf + done, (size_t)(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) ok = false;
            else done += w;
        }
        if (!ok) break;
    }
    if (!ok) *why = strerror(errno);
    if (::close(out) != 0 && ok) {
        ok = false;
        *why = strerror(errno);
    }
    ::close(in);
    if (!ok) ::unlink(to.c_str());
    return ok;
}

}  // namespace

std::string fileCrashReport(const CrashReportRequest& request, const std::string& folder) {
    fs::path source(request.dumpPath);
    boost::system::error_code ec;
    if (!fs::is_regular_file(source, ec)) throw std::runtime_error("no dump at " + request.dumpPath);
    fs::path target = fs::path(folder) / source.filename();
    if (fs::equivalent(source.parent_path(), fs::path(folder), ec)) {
        // Already in place.
    } else {
        fs::rename(source, target, ec);
        if (ec) {  // another file system: copy, then remove the original
            ec.clear();
            std::string why;
            if (!copyBytes(source.string(), target.string(), &why))
                throw std::runtime_error("cannot move " + source.string() + " to " + target.string() + ": " + why);
            fs::remove(source, ec);
        }
    }
    nlohmann::json summary = summarizeCrash(request, target.string());
    fs::path summaryPath = target;
    summaryPath.replace_extension(".json");
    std::ofstream out(summaryPath.string(), std::ios::trunc);
    out << summary.dump(2) << "\n";
    out.close();
    if (!out) throw std::runtime_error("cannot write " + summaryPath.string());
    return summaryPath.string();
}
