#include "bench/files/BenchData.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <boost/filesystem/operations.hpp>

BenchFolder::BenchFolder() {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/kivbench-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) {
        perror("mkdtemp");
        exit(2);
    }
    m_path = buf.data();
}

BenchFolder::~BenchFolder() {
    boost::system::error_code ec;
    boost::filesystem::remove_all(m_path, ec);
}

void runOrDie(const std::string& command) {
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "command failed: %s\n", command.c_str());
        exit(2);
    }
}
