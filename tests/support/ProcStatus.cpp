#include "tests/support/ProcStatus.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

int64_t kivtest::statusKiB(pid_t pid, const char* field) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind(field, 0) == 0) return atoll(line.c_str() + strlen(field) + 1);
    return -1;
}
