#include "tests/archives/ArchiveTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "files/CFileTools.h"
#include "tests/support/TempDir.h"
#include "variant/VUtil.h"

namespace archivetest {

std::map<std::string, std::string> zipMethods(const std::string& zip) {
    int status = 0;
    std::string text = kivtest::runCommand("unzip -v '" + zip + "' 2>&1", &status);
    std::map<std::string, std::string> out;
    if (status != 0) return out;
    std::istringstream lines(text);
    std::string line;
    int rulers = 0;
    while (std::getline(lines, line)) {
        if (line.compare(0, 8, "--------") == 0) {
            ++rulers;
            continue;
        }
        if (rulers != 1) continue;
        std::istringstream fields(line);
        std::string length, method, size, ratio, date, time, crc, name;
        fields >> length >> method >> size >> ratio >> date >> time >> crc;
        std::getline(fields, name);
        if (!name.empty() && name[0] == ' ') name.erase(0, name.find_first_not_of(' '));
        out[name] = method;
    }
    return out;
}

bool zipTestsOk(const std::string& zip) {
    int status = 0;
    kivtest::runCommand("unzip -tq '" + zip + "' 2>&1", &status);
    return status == 0;
}

void writeRandomFile(const std::string& path, size_t size, unsigned pattern) {
    std::mt19937 gen(pattern);
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(gen() & 0xFF);
    kivtest::writeFile(path, data);
}

std::string outsideFolder(const std::string& name) {
    namespace fs = std::filesystem;
    const std::string tmp = fs::weakly_canonical(CFileTools::getTmpFolder().c_str()).string();
    const char* const candidates[] = {KIV_BINARY_DIR, KIV_SOURCE_DIR, getenv("HOME")};
    for (const char* candidate : candidates) {
        if (!candidate || !*candidate) continue;
        const std::string base = fs::weakly_canonical(candidate).string();
        if (base.rfind("/tmp/", 0) == 0 || base.rfind("/var/tmp/", 0) == 0 || base.rfind(tmp + "/", 0) == 0) continue;
        const std::string folder = base + "/" + name + "-" + std::to_string(getpid());
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (!ec) return folder;
    }
    return std::string();
}

void createZipInput(tagVARIANT& in, const std::vector<std::string>& paths) {
    VUtil::CreateArray(in, VT_VARIANT, paths.size() + 1);
    VUtil::PutElement(in, 0, "test");
    for (size_t i = 0; i < paths.size(); ++i)
        VUtil::PutElement(in, static_cast<int>(i + 1), CFileTools::PathToFileBrowserMediumId(CStdStr(paths[i])));
}

}  // namespace archivetest
