// Runs the crashing test program (or any program) as a child with a
// controlled environment, and finds what it left behind.
#pragma once

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "host/KivFolders.h"
#include "tests/support/TempDir.h"

namespace crashtest {

struct ChildResult {
    bool exited = false;  // ended by exit/_exit (not by a signal)
    int status = -1;      // exit status, or the signal number when !exited
    std::string output;   // standard output and error together
};

// Runs argv, after the variable assignments `env` ("A=1 B=2"), through the
// shell; waits and collects the output.
inline ChildResult runProgram(const std::vector<std::string>& argv, const std::string& env = "") {
    std::string command = env;
    for (const std::string& a : argv) command += " " + kivtest::shellQuoted(a);
    ChildResult result;
    result.output = kivtest::runCommand(command + " 2>&1", &result.status);
    result.exited = result.status >= 0 && result.status < 128;  // the shell answers 128 + a signal's number
    if (result.status > 128) result.status -= 128;
    return result;
}

// CRASH_PROGRAM mode dumpDir reporter extra..., with KIV_RECORD_FILE set to
// recordFile and the sanitizers told to leave crash signals to the program.
inline ChildResult runCrashProgram(const std::string& mode, const std::string& dumpDir, const std::string& reporter,
                                   const std::vector<std::string>& extra, const std::string& recordFile) {
    std::vector<std::string> argv = {CRASH_PROGRAM, mode, dumpDir, reporter};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return runProgram(argv, "KIV_RECORD_FILE=" + kivtest::shellQuoted(recordFile) +
                                " ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:"
                                "handle_sigfpe=0:detect_leaks=0:use_sigaltstack=0 UBSAN_OPTIONS=halt_on_error=1"
                                // The reporter run after the dump allocates inside the signal handler by design.
                                " TSAN_OPTIONS=report_signal_unsafe=0");
}

inline std::vector<std::string> filesEndingWith(const std::string& folder, const std::string& suffix) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(folder, ec))
        if (e.is_regular_file() && e.path().extension() == suffix) out.push_back(e.path().string());
    return out;
}

// The lines recorded by the stand-in reporter, without their "<" ">" frame.
inline std::vector<std::string> recordedArguments(const std::string& recordFile) {
    std::vector<std::string> args;
    std::istringstream in(kivtest::readFile(recordFile));
    for (std::string l; std::getline(in, l);)
        args.push_back(l.size() >= 2 && l.front() == '<' && l.back() == '>' ? l.substr(1, l.size() - 2) : "?" + l);
    return args;
}

inline std::string errorsLogPath() { return KivFolders::LogsDirectory() + "/errors.log"; }

}  // namespace crashtest
