// Filing of one crash: the minidump moves into the data subfolder
// "CrashReports" and a JSON summary <dump name>.json is written beside it,
// with the application, the time, the signal, the fault address, the crashing
// thread's instruction pointer and the modules it ran in (read back from the
// dump). A dump that cannot be read is still filed; its summary then carries
// the reader's reason instead of the crash details.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct CrashReportRequest {
    std::string dumpPath;
    std::string application;
    std::vector<std::string> extraArguments;  // the two optional reporter arguments
    std::string appData;                      // the -appData argument
};

// The summary of the dump at dumpPath (not moved).
nlohmann::json summarizeCrash(const CrashReportRequest& request, const std::string& dumpPath);

// "<data folder>/CrashReports", created with KivFolders::FolderMode() (0750
// unless shared modes are set) when missing. Throws std::runtime_error.
std::string crashReportsFolder();

// Moves the dump and writes the summary; returns the summary's path.
// Throws std::runtime_error with the reason when the dump cannot be filed.
std::string fileCrashReport(const CrashReportRequest& request, const std::string& folder);
