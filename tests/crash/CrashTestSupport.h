// Runs the crashing test program (or any program) as a child with a
// controlled environment, and finds what it left behind.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "host/KivFolders.h"
#include "tests/support/TempDir.h"

extern char** environ;

namespace crashtest {

struct ChildResult {
    bool exited = false;  // ended by exit/_exit (not by a signal)
    int status = -1;      // exit status, or the signal number when !exited
    std::string output;   // standard output and error together
};

// Runs argv with `extraEnv` replacing the variables of the same names; waits and collects the output.
inline ChildResult runProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {}) {
    ChildResult result;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return result;
    std::vector<std::string> env = extraEnv;
    for (char** e = environ; *e; ++e) {
        std::string s(*e);
        if (std::none_of(extraEnv.begin(), extraEnv.end(), [&s](const std::string& x) {
                return s.compare(0, x.find('=') + 1, x, 0, x.find('=') + 1) == 0;
            }))
            env.push_back(s);
    }
    std::vector<char*> cargv, cenv;
    for (const std::string& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
    for (const std::string& e : env) cenv.push_back(const_cast<char*>(e.c_str()));
    cargv.push_back(nullptr);
    cenv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], 1);
        dup2(pipeFds[1], 2);
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(pipeFds[1]);
    FILE* out = fdopen(pipeFds[0], "r");
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, out)) > 0;) result.output.append(buf, n);
    fclose(out);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return result;
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    return result;
}

// CRASH_PROGRAM mode dumpDir reporter extra..., with KIV_RECORD_FILE set to
// recordFile and the sanitizers told to leave crash signals to the program.
inline ChildResult runCrashProgram(const std::string& mode, const std::string& dumpDir, const std::string& reporter,
                                   const std::vector<std::string>& extra, const std::string& recordFile) {
    std::vector<std::string> argv = {CRASH_PROGRAM, mode, dumpDir, reporter};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return runProgram(argv, {"KIV_RECORD_FILE=" + recordFile,
                             "ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:"
                             "handle_sigfpe=0:detect_leaks=0:use_sigaltstack=0",
                             "UBSAN_OPTIONS=halt_on_error=1",
                             // The reporter run after the dump allocates inside the signal handler by design.
                             "TSAN_OPTIONS=report_signal_unsafe=0"});
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
