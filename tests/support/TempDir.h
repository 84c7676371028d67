// Test helpers: a temporary folder removed with its contents on destruction, and small file helpers.
#pragma once

#include <string>

namespace kivtest {

class TempDir {
public:
    explicit TempDir(const std::string& prefix = "kivtest");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    void keep() { m_keep = true; }

private:
    std::string m_path;
    bool m_keep = false;
};

// Writes `content` to `path`, creating parent folders. Fails the test on error.
void writeFile(const std::string& path, const std::string& content);
// `size` pseudo-random (barely compressible) bytes, the same for the same `pattern`.
std::string patternBytes(size_t size, unsigned pattern);
// The whole file, or "" when it cannot be read.
std::string readFile(const std::string& path);
// `text` as one word of a shell command line, whatever bytes it holds.
std::string shellQuoted(const std::string& text);
// Runs a shell command and returns its standard output; *status gets the exit status.
std::string runCommand(const std::string& command, int* status = nullptr);
// Starts a shell command in the background, its output to `outputFile`, and
// waits until that output holds `ready`. Its pid; -1 when it ended first.
int startInBackground(const std::string& command, const std::string& outputFile, const std::string& ready);

}  // namespace kivtest
