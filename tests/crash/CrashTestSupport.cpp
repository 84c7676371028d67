#include "CrashTestSupport.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "host/KivFolders.h"
#include "tests/support/TempDir.h"

extern char** environ;

namespace crashtest {

namespace {

ChildResult runWithEnv(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
    ChildResult result;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return result;
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string s(*e);
        bool replaced = false;
        for (const std::string& x : extraEnv)
            if (s.compare(0, x.find('=') + 1, x, 0, x.find('=') + 1) == 0) replaced = true;
        if (!replaced) env.push_back(s);
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> cargv, cenv;
    for (const std::string& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    for (const std::string& e : env) cenv.push_back(const_cast<char*>(e.c_str()));
    cenv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], 1);
        dup2(pipeFds[1], 2);
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(pipeFds[1]);
    if (pid < 0) {
        close(pipeFds[0]);
        return result;
    }
    char buf[4096];
    for (;;) {
        ssize_t n = read(pipeFds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        result.output.append(buf, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    return result;
}

}  // namespace

ChildResult runCrashProgram(const std::string& mode, const std::string& dumpDir, const std::string& reporter,
                            const std::vector<std::string>& extra, const std::string& recordFile) {
    std::vector<std::string> argv = {CRASH_PROGRAM, mode, dumpDir, reporter};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return runWithEnv(argv, {"KIV_RECORD_FILE=" + recordFile,
                             "ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:"
                             "handle_sigfpe=0:detect_leaks=0:use_sigaltstack=0",
                             "UBSAN_OPTIONS=halt_on_error=1",
                             // The reporter run after the dump allocates inside the signal handler by design.
                             "TSAN_OPTIONS=report_signal_unsafe=0"});
}

ChildResult runProgram(const std::vector<std::string>& argv) { return runWithEnv(argv, {}); }

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
