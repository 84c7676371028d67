#include "CrashReport.h"

#include <signal.h>
#include <string.h>
#include <sys/stat.h>

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
            fs::copy_file(source, target, fs::copy_options::overwrite_existing, ec);
            if (ec) throw std::runtime_error("cannot move " + source.string() + " to " + target.string() + ": " +
                                             ec.message());
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
