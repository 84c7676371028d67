#include "tests/support/TempDir.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "tests/support/Eventually.h"

namespace kivtest {

TempDir::TempDir(const std::string& prefix) {
    const char* base = getenv("TMPDIR");
    m_path = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (!mkdtemp(m_path.data())) {
        perror("mkdtemp");
        abort();
    }
}

TempDir::~TempDir() {
    if (m_keep) return;
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::path p(path);
    std::error_code ec;
    if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path(), ec);
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(f.good()) << "cannot write " << path;
    f.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string patternBytes(size_t size, unsigned pattern) {
    std::mt19937 gen(pattern);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(gen());
    return bytes;
}

std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    if (!f) return std::string();
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string runCommand(const std::string& command, int* status) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (status) *status = -1;
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int rc = pclose(p);
    if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

int startInBackground(const std::string& command, const std::string& outputFile, const std::string& ready) {
    const int pid = std::stoi("0" + runCommand(command + " >'" + outputFile + "' 2>&1 & echo $!"));
    auto isReady = [&] { return readFile(outputFile).find(ready) != std::string::npos; };
    eventually([&] { return kill(pid, 0) != 0 || isReady(); });
    return pid > 0 && isReady() ? pid : -1;
}

}  // namespace kivtest
