// Benchmark data: a temporary folder removed with everything in it when the
// holder goes away, and a shell-command runner for the reference tools.
#pragma once

#include <string>

class BenchFolder {
public:
    BenchFolder();
    ~BenchFolder();
    BenchFolder(const BenchFolder&) = delete;
    BenchFolder& operator=(const BenchFolder&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// Runs the command through the shell; aborts the benchmark run when it fails.
void runOrDie(const std::string& command);
