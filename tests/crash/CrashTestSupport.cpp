#include "CrashTestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "host/KivFolders.h"
#include "tests/support/TempDir.h"

namespace crashtest {

namespace {

// Runs `argv` under `env` (assignments for env(1)) through the shell, which
// reports how the program ended: 128 + N for signal N.
ChildResult run(const std::vector<std::string>& argv, const std::string& env) {
    std::string command = "env " + env;
    for (const std::string& a : argv) command += " '" + a + "'";
    ChildResult result;
    result.output = kivtest::runCommand(command + " 2>&1; echo \"<exit $?>\"");
    const size_t at = result.output.rfind("<exit ");
    const int code = at == std::string::npos ? -1 : atoi(result.output.c_str() + at + 6);
    result.output.erase(std::min(at, result.output.size()));
    result.exited = code >= 0 && code < 128;
    result.status = code >= 128 ? code - 128 : code;
    return result;
}

}  // namespace

ChildResult runCrashProgram(const std::string& mode, const std::string& dumpDir, const std::string& reporter,
                            const std::vector<std::string>& extra, const std::string& recordFile) {
    std::vector<std::string> argv = {CRASH_PROGRAM, mode, dumpDir, reporter};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return run(argv, "KIV_RECORD_FILE='" + recordFile + "' "
                     "ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:"
                     "handle_sigfpe=0:detect_leaks=0:use_sigaltstack=0 UBSAN_OPTIONS=halt_on_error=1 "
                     // The reporter run after the dump allocates inside the signal handler by design.
                     "TSAN_OPTIONS=report_signal_unsafe=0");
}

ChildResult runProgram(const std::vector<std::string>& argv) { return run(argv, ""); }

std::vector<std::string> filesEndingWith(const std::string& folder, const std::string& suffix) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(folder, ec)) {
        std::string p = e.path().string();
        if (e.is_regular_file() && p.size() >= suffix.size() && p.compare(p.size() - suffix.size(), suffix.size(), suffix) == 0)
            out.push_back(p);
    }
    return out;
}

std::vector<std::string> recordedArguments(const std::string& recordFile) {
    std::vector<std::string> args;
    std::istringstream in(kivtest::readFile(recordFile));
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() >= 2 && line.front() == '<' && line.back() == '>') args.push_back(line.substr(1, line.size() - 2));
        else args.push_back("?" + line);
    }
    return args;
}

std::string errorsLogPath() { return KivFolders::LogsDirectory() + "/errors.log"; }

}  // namespace crashtest
