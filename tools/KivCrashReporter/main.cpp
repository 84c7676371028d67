// KivCrashReporter DUMP APPLICATION [ARG1 ARG2] [-appData DATA]
// Files the dump into the crash reports folder and prints where the report is.
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "CrashReport.h"

namespace {

const char kUsage[] =
    "usage: KivCrashReporter DUMP APPLICATION [ARG1 ARG2] [-appData DATA]\n"
    "Moves the minidump DUMP of APPLICATION into the data folder's CrashReports\n"
    "and writes a JSON summary beside it (signal, fault address, instruction\n"
    "pointer, modules). Prints the summary's path. Exit status 0 when filed,\n"
    "2 when the dump could not be filed, 64 on a usage error.\n";

}  // namespace

int main(int argc, char** argv) {
    CrashReportRequest request;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h")) {
            fputs(kUsage, stdout);
            return 0;
        }
        if (!strcmp(argv[i], "-appData")) {
            if (i + 1 >= argc) {
                fprintf(stderr, "KivCrashReporter: -appData needs a value\n%s", kUsage);
                return 64;
            }
            request.appData = argv[++i];
            continue;
        }
        positional.push_back(argv[i]);
    }
    if (positional.size() < 2 || positional.size() > 4) {
        fprintf(stderr, "KivCrashReporter: expected DUMP and APPLICATION\n%s", kUsage);
        return 64;
    }
    request.dumpPath = positional[0];
    request.application = positional[1];
    request.extraArguments.assign(positional.begin() + 2, positional.end());
    try {
        std::string report = fileCrashReport(request, crashReportsFolder());
        printf("crash report of %s written to %s\n", request.application.c_str(), report.c_str());
        return 0;
    } catch (const std::exception& e) {
        fprintf(stderr, "KivCrashReporter: refused to file %s: %s\n", request.dumpPath.c_str(), e.what());
        return 2;
    }
}
