#include "satellite/ArchiveLeftovers.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "diag/CBBLog.h"
#include "files/CFileTools.h"
#include "satellite/ArchiveTempPath.h"

namespace {

const char kRecordName[] = "PendingArchives";

struct Entry {
    long pid = 0;
    unsigned long long started = 0;  // the process's start time, in clock ticks after boot
    TempEntryId id;
    CStdStr path;
};

CStdStr dataFolder() {
    try {
        return CFileTools::GetKivDataFolder();
    } catch (const std::exception& e) {
        CBBLog::warn("Pending archives are not recorded: %s", e.what());
        return CStdStr();
    }
}

// Field 22 of /proc/<pid>/stat; false when there is no such process.
bool processStart(long pid, unsigned long long* started) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t name = text.rfind(')');  // the command name may hold blanks and parentheses
    if (name == std::string::npos) return false;
    std::istringstream fields(text.substr(name + 1));
    std::string field;
    for (int i = 3; i <= 22; ++i)
        if (!(fields >> field)) return false;
    *started = strtoull(field.c_str(), nullptr, 10);
    return true;
}

bool alive(const Entry& e) {
    unsigned long long started = 0;
    return processStart(e.pid, &started) && started == e.started;
}

bool parse(const std::string& line, Entry* e) {
    std::istringstream in(line);
    unsigned long long device = 0, inode = 0;
    long owner = 0;
    if (!(in >> e->pid >> e->started >> device >> inode >> owner)) return false;
    std::string path;
    std::getline(in, path);
    if (path.size() < 2 || path[0] != ' ' || path[1] != '/') return false;
    e->id.device = static_cast<dev_t>(device);
    e->id.inode = static_cast<ino_t>(inode);
    e->id.owner = static_cast<uid_t>(owner);
    e->path = CStdStr(path.substr(1));
    return true;
}

std::string format(const Entry& e) {
    return std::to_string(e.pid) + " " + std::to_string(e.started) + " " +
           std::to_string(static_cast<unsigned long long>(e.id.device)) + " " +
           std::to_string(static_cast<unsigned long long>(e.id.inode)) + " " +
           std::to_string(static_cast<long>(e.id.owner)) + " " + e.path + "\n";
}

// The lines of the record; none when it is missing or not to be trusted.
std::vector<Entry> readRecord(const CStdStr& file) {
    std::vector<Entry> entries;
    int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return entries;
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 077) != 0) {
        CBBLog::warn("Ignoring %s: not a private file of this user", file.c_str());
        ::close(fd);
        return entries;
    }
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0 && text.size() < (1u << 20)) text.append(buf, static_cast<size_t>(n));
    ::close(fd);
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        Entry e;
        if (parse(line, &e)) entries.push_back(e);
        else if (!line.empty()) CBBLog::warn("Ignoring a malformed line of %s", file.c_str());
    }
    return entries;
}

// Replaces the record with `entries` (removes it when there are none).
void writeRecord(const CStdStr& folder, const CStdStr& file, const std::vector<Entry>& entries) {
    if (entries.empty()) {
        if (::unlink(file.c_str()) != 0 && errno != ENOENT)
            CBBLog::warn("Cannot remove %s: %s", file.c_str(), strerror(errno));
        return;
    }
    std::string text;
    for (const Entry& e : entries) text += format(e);
    std::string temp = folder + "/." + kRecordName + ".XXXXXX";
    int fd = ::mkstemp(&temp[0]);  // mode 0600, a name nobody else holds
    if (fd < 0) {
        CBBLog::warn("Cannot write %s: %s", file.c_str(), strerror(errno));
        return;
    }
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = ::close(fd) == 0 && ok;
    if (!ok || ::rename(temp.c_str(), file.c_str()) != 0) {
        CBBLog::warn("Cannot write %s: %s", file.c_str(), strerror(errno));
        ::unlink(temp.c_str());
    }
}

// Runs `change` on the record's lines under the record's lock and writes
// back the result when `change` returns true.
void update(const std::function<bool(std::vector<Entry>&)>& change) {
    const CStdStr folder = dataFolder();
    if (folder.empty()) return;
    const CStdStr file = folder + "/" + kRecordName;
    const CStdStr lockFile = file + ".lock";
    int lock = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (lock < 0 || ::flock(lock, LOCK_EX) != 0) {
        CBBLog::warn("Cannot lock %s: %s", lockFile.c_str(), strerror(errno));
        if (lock >= 0) ::close(lock);
        return;
    }
    std::vector<Entry> entries = readRecord(file);
    if (change(entries)) writeRecord(folder, file, entries);
    ::close(lock);  // releases the flock
}

bool self(Entry* e) {
    e->pid = static_cast<long>(getpid());
    return processStart(e->pid, &e->started);
}

}  // namespace

namespace ArchiveLeftovers {

CStdStr recordPath() {
    const CStdStr folder = dataFolder();
    return folder.empty() ? folder : CStdStr(folder + "/" + kRecordName);
}

void add(const CStdStr& zipPath) {
    Entry e;
    if (zipPath.find('\n') != CStdStr::npos || !self(&e) || !tempEntryId(zipPath, &e.id)) {
        CBBLog::warn("Cannot record the pending archive %s", zipPath.c_str());
        return;
    }
    e.path = zipPath;
    update([&](std::vector<Entry>& entries) {
        entries.push_back(e);
        return true;
    });
}

void remove(const CStdStr& zipPath) {
    Entry me;
    if (!self(&me)) return;
    update([&](std::vector<Entry>& entries) {
        const size_t before = entries.size();
        for (auto it = entries.begin(); it != entries.end();) {
            if (it->path == zipPath && it->pid == me.pid && it->started == me.started) it = entries.erase(it);
            else ++it;
        }
        return entries.size() != before;
    });
}

int cleanUp() {
    int deleted = 0;
    update([&](std::vector<Entry>& entries) {
        const size_t before = entries.size();
        for (auto it = entries.begin(); it != entries.end();) {
            if (alive(*it)) {
                ++it;
                continue;
            }
            CStdStr detail;
            TempDeletion result = deleteTempEntry(it->path, &it->id, &detail);
            if (result == TempDeletion::Deleted) {
                ++deleted;
                CBBLog::info("Removed %s, an archive left unfinished by an earlier run", it->path.c_str());
            } else if (result != TempDeletion::Missing) {
                CBBLog::warn("Left %s alone: it is no longer the unfinished archive recorded (%s)", it->path.c_str(),
                             detail.c_str());
            }
            it = entries.erase(it);
        }
        return entries.size() != before;
    });
    return deleted;
}

}  // namespace ArchiveLeftovers
