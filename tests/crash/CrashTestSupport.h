// Helpers of the crash tests: run the crashing test program as a child with a
// controlled environment and wait for it, and find what it left behind.
#pragma once

#include <string>
#include <vector>

namespace crashtest {

struct ChildResult {
    bool exited = false;  // ended by exit/_exit (not by a signal)
    int status = -1;      // exit status, or the signal number when !exited
    std::string output;   // standard output and error together
};

// Runs CRASH_PROGRAM mode dumpDir reporter extra... with KIV_RECORD_FILE set to
// recordFile and sanitizers told to leave crash signals to the program.
ChildResult runCrashProgram(const std::string& mode, const std::string& dumpDir, const std::string& reporter,
                            const std::vector<std::string>& extra, const std::string& recordFile);

// Runs a program with arguments and waits; output collected.
ChildResult runProgram(const std::vector<std::string>& argv);

// Regular files in folder whose names end with the extension suffix (".dmp").
std::vector<std::string> filesEndingWith(const std::string& folder, const std::string& suffix);

// The lines recorded by the stand-in reporter, without their "<" ">" frame.
std::vector<std::string> recordedArguments(const std::string& recordFile);

// "<KIV_ROOT>/Library/Logs/KivFoundry/errors.log".
std::string errorsLogPath();

}  // namespace crashtest
