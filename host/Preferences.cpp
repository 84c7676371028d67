#include "host/Preferences.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include <nlohmann/json.hpp>

#include "common/Utf8.h"
#include "host/PThread.h"
#include "host/PreferencesCodec.h"

namespace Preferences {

bool Value::operator==(const Value& o) const {
    if (type != o.type) return false;
    switch (type) {
    case Bool: return b == o.b;
    case Int: return i == o.i;
    case String: return s == o.s;
    }
    return false;
}

namespace {

const size_t kMaxDomainName = 200;
// A domain file larger than this is refused, by readers and writers alike.
const off_t kMaxFileSize = 1024 * 1024;
// Every settings file and folder is private to its user: some hold credentials.
const mode_t kFileMode = 0600;
const mode_t kFolderMode = 0700;

CStdStr errnoText(const char* what, const CStdStr& path) {
    return CStdStr::Formatted("%s %s: %s", what, path.c_str(), strerror(errno));
}

// Percent-encodes what a file name cannot hold; "" when the name is unusable.
CStdStr encodeName(const CStdStr& domain) {
    if (domain.empty() || domain == "." || domain == ".." || domain.size() > kMaxDomainName) return CStdStr();
    CStdStr out;
    for (size_t i = 0; i < domain.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(domain[i]);
        if (c == '/' || c == '%' || c < 0x20 || c == 0x7F || (i == 0 && c == '.')) out.AppendFormat("%%%02X", c);
        else out += static_cast<char>(c);
    }
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

CStdStr decodeName(const std::string& name) {
    CStdStr out;
    for (size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '%' && i + 2 < name.size() && hexValue(name[i + 1]) >= 0 && hexValue(name[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(name[i + 1]) * 16 + hexValue(name[i + 2]));
            i += 2;
        } else {
            out += name[i];
        }
    }
    return out;
}

bool makeFolders(const CStdStr& folder, CStdStr* error) {
    for (size_t pos = 1; pos <= folder.size(); ++pos) {
        if (pos == folder.size() || folder[pos] == '/') {
            CStdStr part = folder.substr(0, pos);
            if (mkdir(part.c_str(), kFolderMode) != 0 && errno != EEXIST) {
                if (error) *error = errnoText("cannot create folder", part);
                return false;
            }
        }
    }
    return true;
}

enum class ReadResult { Ok, Missing, Corrupt, Error };

// Reads and parses a domain file into a JSON object. Never blocks: the file is
// opened without waiting and without following a link, and anything but a
// regular file of at most kMaxFileSize bytes is refused.
ReadResult readJson(const CStdStr& path, nlohmann::json& out, CStdStr* error) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            out = nlohmann::json::object();
            return ReadResult::Missing;
        }
        if (error)
            *error = errno == ELOOP ? CStdStr::Formatted("%s is a symbolic link", path.c_str())
                                    : errnoText("cannot open", path);
        return ReadResult::Error;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxFileSize) {
        if (error) *error = CStdStr::Formatted("%s is not a regular file of at most 1 MiB", path.c_str());
        close(fd);
        return ReadResult::Error;
    }
    std::string text;
    char buffer[8192];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (error) *error = errnoText("cannot read", path);
            close(fd);
            return ReadResult::Error;
        }
        if (n == 0) break;
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > static_cast<size_t>(kMaxFileSize)) {  // grew since fstat
            if (error) *error = CStdStr::Formatted("%s is larger than 1 MiB", path.c_str());
            close(fd);
            return ReadResult::Error;
        }
    }
    close(fd);
    nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        if (error) *error = CStdStr::Formatted("%s is not a JSON object", path.c_str());
        return ReadResult::Corrupt;
    }
    out = std::move(j);
    return ReadResult::Ok;
}

typedef std::shared_ptr<const nlohmann::json> Contents;

// The last contents each domain file was read with, so that a file that
// turns unreadable (replaced by a FIFO or a folder, grown too large, spoilt by
// hand) leaves this process with the values it had. A refusal is reported on
// standard error once, until the file reads well again. Reasons carry paths
// only, never values.
class LastGood {
public:
    // Reads `path`; on failure falls back to the last good contents. Null
    // when the file cannot be read and was never read well before.
    Contents read(const CStdStr& path, CStdStr* error) {
        nlohmann::json j;
        CStdStr reason;
        ReadResult r = readJson(path, j, &reason);
        if (r == ReadResult::Ok || r == ReadResult::Missing) {
            Contents fresh = std::make_shared<const nlohmann::json>(std::move(j));
            PLockGuard hold(m_lock);
            Entry& e = entry(path);
            e.contents = fresh;
            e.reported = false;
            return fresh;
        }
        Contents kept;
        bool report = false;
        {
            PLockGuard hold(m_lock);
            Entry& e = entry(path);
            kept = e.contents;
            // A caller that takes the reason and gets no values reports it itself.
            report = !e.reported && (kept || !error);
            if (report) e.reported = true;
        }
        if (report)  // outside the lock: standard error may be slow
            fprintf(stderr, "settings: %s; refused, %s\n", reason.c_str(),
                    kept ? "keeping the values last read from it" : "no earlier values to keep");
        if (!kept && error) *error = reason;
        return kept;
    }

private:
    struct Entry {
        Contents contents;
        bool reported = false;
    };
    static const size_t kMaxEntries = 64;

    Entry& entry(const CStdStr& path) KIV_REQUIRES(m_lock) {
        auto it = m_byPath.find(path);
        if (it != m_byPath.end()) return it->second;
        if (m_byPath.size() >= kMaxEntries) m_byPath.erase(m_byPath.begin());
        return m_byPath[path];
    }

    PMutex m_lock;  // guards m_byPath
    std::map<std::string, Entry> m_byPath KIV_GUARDED_BY(m_lock);
};

LastGood& lastGood() {
    static LastGood instance;
    return instance;
}

bool writeAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Replaces `path` durably with `text`.
bool replaceFile(const CStdStr& folder, const CStdStr& path, const std::string& text, CStdStr* error) {
    CStdStr tmpl = folder + "/.tmp-" + path.Mid(static_cast<int>(folder.size()) + 1) + ".XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    // mkostemp creates the file 0600 whatever the umask; fchmod says so
    // explicitly before any byte is written.
    int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = errnoText("cannot create a temporary file in", folder);
        return false;
    }
    bool ok = fchmod(fd, kFileMode) == 0 && writeAll(fd, text) && fsync(fd) == 0;
    if (!ok && error) *error = errnoText("cannot write", CStdStr(name.data()));
    close(fd);
    if (ok && rename(name.data(), path.c_str()) != 0) {
        if (error) *error = errnoText("cannot rename a temporary file to", path);
        ok = false;
    }
    if (!ok) {
        unlink(name.data());
        return false;
    }
    int dirFd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        fsync(dirFd);
        close(dirFd);
    }
    return true;
}

// Holds an exclusive flock on the domain's lock file for its lifetime.
class DomainLock {
public:
    DomainLock(const CStdStr& path, CStdStr* error) {
        m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, kFileMode);
        if (m_fd < 0) {
            if (error) *error = errnoText("cannot open lock file", path);
            return;
        }
        struct stat st;
        if (fstat(m_fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            if (error) *error = CStdStr::Formatted("lock file %s is not a regular file", path.c_str());
            close(m_fd);
            m_fd = -1;
            return;
        }
        while (flock(m_fd, LOCK_EX) != 0) {
            if (errno == EINTR) continue;
            if (error) *error = errnoText("cannot lock", path);
            close(m_fd);
            m_fd = -1;
            return;
        }
    }
    ~DomainLock() {
        if (m_fd >= 0) close(m_fd);  // releases the lock
    }
    bool held() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

// Locked read-modify-write of one domain. `change` edits the object and
// returns whether anything must be written.
bool update(const CStdStr& domain, const std::function<bool(nlohmann::json&)>& change, CStdStr* error) {
    CStdStr name = encodeName(domain);
    if (name.empty()) {
        if (error) *error = CStdStr::Formatted("invalid domain name '%s'", domain.c_str());
        return false;
    }
    CStdStr folder = Folder();
    if (!makeFolders(folder, error)) return false;
    CStdStr path = folder + "/" + name + ".json";
    DomainLock lock(folder + "/." + name + ".json.lock", error);
    if (!lock.held()) return false;

    nlohmann::json j;
    CStdStr readError;
    switch (readJson(path, j, &readError)) {
    case ReadResult::Ok:
    case ReadResult::Missing: break;
    case ReadResult::Corrupt: {
        CStdStr aside = path + ".corrupt";
        if (rename(path.c_str(), aside.c_str()) != 0) {
            if (error) *error = errnoText("cannot move aside corrupt settings file", path);
            return false;
        }
        chmod(aside.c_str(), kFileMode);  // it may hold credentials
        fprintf(stderr, "settings: %s could not be parsed; moved it to %s and started a fresh domain\n", path.c_str(),
                aside.c_str());
        j = nlohmann::json::object();
        break;
    }
    case ReadResult::Error:
        if (error) *error = readError;
        return false;
    }
    if (!change(j)) return true;
    std::string text;
    try {
        text = j.dump(2) + "\n";
    } catch (const std::exception& e) {
        if (error) *error = CStdStr::Formatted("cannot encode %s: %s", path.c_str(), e.what());
        return false;
    }
    if (text.size() > static_cast<size_t>(kMaxFileSize)) {
        if (error) *error = CStdStr::Formatted("%s would be larger than 1 MiB", path.c_str());
        return false;
    }
    return replaceFile(folder, path, text, error);
}

}  // namespace

CStdStr Folder() {
    const char* xdg = getenv("XDG_CONFIG_HOME");
    CStdStr base;
    if (xdg && *xdg) {
        base = xdg;
    } else {
        const char* home = getenv("HOME");
        if (home && *home) {
            base = home;
        } else {
            struct passwd* pw = getpwuid(getuid());
            base = pw && pw->pw_dir ? pw->pw_dir : "/tmp";
        }
        while (base.size() > 1 && base.back() == '/') base.pop_back();
        base += "/.config";
    }
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    return base + "/kivfoundry";
}

CStdStr DomainFile(const CStdStr& domain) {
    CStdStr name = encodeName(domain);
    if (name.empty()) return CStdStr();
    return Folder() + "/" + name + ".json";
}

bool Load(const CStdStr& domain, Domain& out, CStdStr* error) {
    CStdStr path = DomainFile(domain);
    if (path.empty()) {
        if (error) *error = CStdStr::Formatted("invalid domain name '%s'", domain.c_str());
        return false;
    }
    Contents j = lastGood().read(path, error);
    if (!j) return false;
    Domain result;
    for (auto it = j->begin(); it != j->end(); ++it) {
        Value v;
        if (PreferencesCodec::decodeValue(it.value(), v)) result[it.key()] = v;
    }
    out.swap(result);
    return true;
}

bool Get(const CStdStr& domain, const CStdStr& key, Value& out) {
    CStdStr path = DomainFile(domain);
    if (path.empty()) return false;
    Contents j = lastGood().read(path, nullptr);
    if (!j) return false;
    auto it = j->find(static_cast<const std::string&>(key));
    if (it == j->end()) return false;
    return PreferencesCodec::decodeValue(*it, out);
}

bool Set(const CStdStr& domain, const CStdStr& key, const Value& value, CStdStr* error) {
    if (!IsValidUtf8(key)) {
        if (error) *error = "key names must be valid UTF-8";
        return false;
    }
    nlohmann::json encoded = PreferencesCodec::encodeValue(value);
    return update(
        domain,
        [&](nlohmann::json& j) {
            j[static_cast<const std::string&>(key)] = encoded;
            return true;
        },
        error);
}

bool Remove(const CStdStr& domain, const CStdStr& key, bool* existed, CStdStr* error) {
    bool found = false;
    bool ok = update(
        domain,
        [&](nlohmann::json& j) {
            found = j.erase(static_cast<const std::string&>(key)) > 0;
            return found;
        },
        error);
    if (existed) *existed = found;
    return ok;
}

bool RemoveDomain(const CStdStr& domain, bool* existed, CStdStr* error) {
    CStdStr name = encodeName(domain);
    if (existed) *existed = false;
    if (name.empty()) {
        if (error) *error = CStdStr::Formatted("invalid domain name '%s'", domain.c_str());
        return false;
    }
    CStdStr folder = Folder();
    CStdStr path = folder + "/" + name + ".json";
    struct stat st;
    if (stat(folder.c_str(), &st) != 0) return true;  // no folder: nothing to remove
    DomainLock lock(folder + "/." + name + ".json.lock", error);
    if (!lock.held()) return false;
    if (unlink(path.c_str()) != 0) {
        if (errno == ENOENT) return true;
        if (error) *error = errnoText("cannot remove", path);
        return false;
    }
    if (existed) *existed = true;
    return true;
}

std::vector<CStdStr> Domains() {
    std::vector<CStdStr> out;
    CStdStr folder = Folder();
    DIR* dir = opendir(folder.c_str());
    if (!dir) return out;
    while (struct dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        const std::string suffix = ".json";
        if (name.empty() || name[0] == '.' || name.size() <= suffix.size()) continue;
        if (name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) continue;
        out.push_back(decodeName(name.substr(0, name.size() - suffix.size())));
    }
    closedir(dir);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace Preferences
