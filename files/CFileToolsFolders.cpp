// The well-known folders: home, logs, special names, temporary folder and
// files, the working directories and the product's data folder.
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "files/CFileTools.h"
#include "files/CStdPath.h"
#include "host/KivFolders.h"

namespace fs = boost::filesystem;

CStdStr CFileTools::GetUserHomeFolder() {
    struct passwd entry;
    struct passwd* found = nullptr;
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(hint > 0 ? static_cast<size_t>(hint) : 16384);
    if (getpwuid_r(getuid(), &entry, buf.data(), buf.size(), &found) == 0 && found && found->pw_dir)
        return CStdStr::Formatted("%s", found->pw_dir);
    return CStdStr();
}

CStdStr CFileTools::GetLogsDirectory() { return KivFolders::LogsDirectory(); }

CStdStr CFileTools::GetPathFromCSIDL(int) { return CStdStr(); }

CStdStr CFileTools::resolveShortcut(const CStdStr&) { return CStdStr(); }

CStdStr CFileTools::resolveSpecialPath(const CStdStr& s) {
    size_t first = s.find('%');
    if (first == CStdStr::npos) return s;
    size_t second = s.find('%', first + 1);
    if (second == CStdStr::npos) return s;
    CStdStr name = CStdStr(s.substr(first + 1, second - first - 1)).ToUpper();
    CStdStr result = GetUserHomeFolder();
    if (name == "DESKTOP") result += "/Desktop";
    else if (name == "MYDOCUMENTS") result += "/Documents";
    else if (name == "MYMUSIC") result += "/Music";
    else if (name == "MYPICTURES") result += "/Pictures";
    else if (name == "MYVIDEO") result += "/Videos";
    else if (name == "MYCOMPUTER") result += "/";
    return result;
}

CStdStr CFileTools::GetProcessBundleFolder() { return KivFolders::ExecutableFolder(); }

CStdStr CFileTools::GetBinaryDirectory() {
    try {
        return fs::initial_path().native();
    } catch (...) {
        throw std::logic_error("Failed to GetBinaryDirectory");
    }
}

CStdStr CFileTools::GetCurrentWorkingDirectory() {
    try {
        return fs::current_path().native();
    } catch (...) {
        throw std::logic_error("Failed to GetCurrentWorkingDirectory");
    }
}

CStdStr CFileTools::getTmpFolder() {
    try {
        const char* env = getenv("TMPDIR");
        if (env && *env && fs::is_directory(fs::path(env))) return CStdStr(env);
        if (fs::is_directory(fs::path("/var/tmp/"))) return CStdStr("/var/tmp/");
    } catch (...) {
    }
    return CStdStr("/tmp");
}

CStdStr CFileTools::getTmpFolder(CStdStr sub) {
    CStdStr base = getTmpFolder();
    while (!base.empty() && base.back() == '/') base.pop_back();
    size_t skip = sub.find_first_not_of('/');
    sub = skip == CStdStr::npos ? CStdStr() : CStdStr(sub.substr(skip));
    CStdStr joined = CStdStr::Formatted("%s%c%s", base.c_str(), '/', sub.c_str());
    if (!CFileTools(joined).isFolder()) CreateDirectory(joined);
    return joined;
}

CStdStr CFileTools::GenerateTempFilePath() {
    char name[] = "/tmp/fileXXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) return CStdStr();
    close(fd);
    return CStdStr(name);
}

CStdStr CFileTools::GetKivDataFolder() {
    CStdStr path = KivFolders::DataFolder();
    try {
        fs::path folder(path);
        if (!fs::exists(folder)) {
            // Under a test or private root the parents may be missing as well.
            if (!KivFolders::Root().empty()) fs::create_directories(folder.parent_path());
            fs::create_directory(folder);
            if (chmod(path.c_str(), KivFolders::FolderMode()) != 0)  // 0750 unless shared modes are set
                throw std::logic_error("Couldn't set access rights on /Library/KivFoundryfolder");
        }
    } catch (const fs::filesystem_error&) {
        throw std::logic_error("Failed to create Kiv data folder");
    }
    if (!CFileTools(path).exists()) throw std::logic_error("Failed to create /Library/KivFoundry folder");
    return path;
}

CStdStr CFileTools::GetKivDataSubFolder(const CStdStr& name) {
    CStdPath sub(GetKivDataFolder());
    sub.AppendPath(name);
    try {
        if (!fs::exists(fs::path(sub))) {
            fs::create_directory(fs::path(sub));
            if (chmod(sub.c_str(), KivFolders::FolderMode()) != 0)
                throw std::logic_error("Couldn't set access rights on Kiv data folder");
        }
    } catch (const fs::filesystem_error& e) {
        throw std::logic_error(
            CStdStr::Formatted("Failed to create Kiv data subfolder: %s\n\t%s", sub.c_str(), e.what()));
    }
    return sub;
}
