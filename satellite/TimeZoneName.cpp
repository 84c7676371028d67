#include "satellite/TimeZoneName.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <boost/filesystem.hpp>

namespace fs = boost::filesystem;

namespace {

bool readWhole(const std::string& path, std::string& out) {
    std::ifstream f(path, std::ios::binary);
    if (!f) return false;
    out.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    return !f.bad();
}

CStdStr firstLine(const std::string& path) {
    std::ifstream f(path);
    std::string line;
    if (f && std::getline(f, line)) return CStdStr(line);
    return CStdStr();
}

bool isSkipped(const fs::path& p) {
    std::string leaf = p.filename().string();
    return leaf == "right" || leaf == "posix" || leaf == "posixrules" || leaf == "localtime";
}

CStdStr matchZoneFile(const CStdStr& localtime, const CStdStr& zoneinfo) {
    std::string wanted;
    if (!readWhole(localtime, wanted)) return CStdStr();
    fs::path root(zoneinfo.c_str());
    if (!fs::is_directory(root)) return CStdStr();
    std::string candidate;
    fs::recursive_directory_iterator it(root), end;
    for (; it != end; ++it) {
        if (isSkipped(it->path())) {
            if (fs::is_directory(it->status())) it.disable_recursion_pending();
            continue;
        }
        if (!fs::is_regular_file(it->status())) continue;
        if (fs::file_size(it->path()) != wanted.size()) continue;
        if (!readWhole(it->path().string(), candidate) || candidate != wanted) continue;
        std::string rel = it->path().string().substr(root.string().size());
        while (!rel.empty() && rel[0] == '/') rel.erase(0, 1);
        return CStdStr(rel);
    }
    return CStdStr();
}

}  // namespace

CStdStr FindTimeZoneName(const TimeZoneSources& sources) {
    const char* tz = getenv(sources.tzVariable);
    if (tz && *tz) return CStdStr(tz);

    CStdStr name = firstLine(sources.etcTimezone);
    if (!name.empty()) return name;

    fs::path local(sources.localtime.c_str());
    boost::system::error_code ec;
    if (fs::is_symlink(fs::symlink_status(local, ec))) {
        char buf[4096];
        ssize_t n = readlink(sources.localtime.c_str(), buf, sizeof buf - 1);
        if (n <= 0) return CStdStr();
        CStdStr target(buf, static_cast<size_t>(n));
        int marker = target.Find("/zoneinfo/");
        if (marker < 0) return target;
        return target.Mid(marker + 10);
    }
    return matchZoneFile(sources.localtime, sources.zoneinfo);
}
