#include "bench/stress/StressFileAttacks.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>

#include "files/CFileTools.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace stress {

namespace {

using Clock = std::chrono::steady_clock;

const char* const kServices[] = {"GetFile", "my-KIV_TailLog", "QueryFileSize"};

bool writeText(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    return fclose(f) == 0 && ok;
}

// A socket file at `path`, left bound (the descriptor stays open for the run).
bool makeSocket(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (fd < 0 || path.size() >= sizeof address.sun_path) return false;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    return bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

bool makeFileAttackTargets(const std::string& served, const std::string& outside, const std::string& settingsFile,
                           std::vector<std::string>* targets) {
    const std::string secret = outside + "/secret.txt";
    if (mkdir(outside.c_str(), 0700) != 0 || !writeText(secret, "a secret\n") ||
        mkfifo((served + "/attack.fifo").c_str(), 0600) != 0 || !makeSocket(served + "/attack.sock") ||
        symlink(secret.c_str(), (served + "/attack-link").c_str()) != 0 ||
        symlink(outside.c_str(), (served + "/attack-folder").c_str()) != 0 ||
        symlink("/dev/zero", (served + "/attack-device").c_str()) != 0)
        return false;
    const std::string up = served + "/../" + outside.substr(outside.rfind('/') + 1) + "/secret.txt";
    *targets = {served + "/attack.fifo",
                served + "/attack.sock",
                served + "/attack-link",
                served + "/attack-folder/secret.txt",
                served + "/attack-device",
                up,
                secret,
                "/etc/passwd",
                "/proc/self/environ",
                settingsFile};
    return true;
}

FileAttacker::FileAttacker(int index, const std::vector<std::string>& targets, const StressConnection& connection)
    : m_index(index), m_targets(targets), m_connection(connection), m_random(0xA5A5A5A5ull * (index + 7)) {}

bool FileAttacker::connect() {
    if (!m_connection.token.empty()) m_client.setToken(m_connection.token);
    if (m_connection.timeoutMs > 0) m_client.setRequestTimeoutMs(m_connection.timeoutMs);
    const std::string name = "stress-attack-" + std::to_string(getpid()) + "-" + std::to_string(m_index);
    if (m_client.Connect(m_connection.server.c_str(), name.c_str()) != 0) {
        m_error = CabGetLastError();
        return false;
    }
    return true;
}

void FileAttacker::run(Clock::time_point until, const std::atomic<bool>& stop) {
    while (Clock::now() < until && !stop) {
        const size_t target = std::uniform_int_distribution<size_t>(0, m_targets.size() - 1)(m_random);
        attack(m_targets[target], std::uniform_int_distribution<int>(0, 2)(m_random));
    }
}

void FileAttacker::attack(const std::string& path, int service) {
    const char* name = kServices[service];
    CLocalVariant in, out, rc;
    if (service == 2) {
        const CStdStr id = CFileTools::PathToFileBrowserMediumId(CStdStr(path));
        VUtil::CreateArray(in.get(), VT_VARIANT, 2);
        VUtil::PutElement(in.get(), 0, id);
        CLocalVariant items;
        VUtil::CreateArray(items.get(), VT_VARIANT, 1);
        VUtil::PutElement(items.get(), 0, id);
        VUtil::PutElement(in.get(), 1, items.get());
    } else {
        VUtil::CreateArray(in.get(), VT_VARIANT, service == 1 ? 2 : 1);
        VUtil::PutElement(in.get(), 0, CStdStr(path));
        if (service == 1) VUtil::PutElement(in.get(), 1, 4096L);
    }
    const auto start = Clock::now();
    const int sent = m_client.Request("VorpaMediaProxy", name, in.get(), out.ptr(), 0, rc.ptr());
    const int status = sent != 0 ? sent : CabRetcode(rc.get());
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    const std::string what = std::string("attack ") + name;
    std::string problem;
    long long leaked = 0;
    if (service == 0) {
        leaked = status == 0 && out.vt() == (VT_ARRAY | VT_UI1) ? out.get().parray->rgsabound[0].cElements : -1;
        if (status != 0 || leaked != 0) problem = "status " + std::to_string(status);
    } else if (service == 1) {
        if (status != 404) {
            problem = "status " + std::to_string(status) + " instead of 404";
            if (status == 0) leaked = VUtil::GetLongElement(out.get(), 1);
        }
    } else {
        CLocalVariant size;
        if (status == 0) VUtil::GetElement(out.get(), 1, size.get());
        leaked = status == 0 && size.vt() == VT_I8 ? size.get().llVal : -1;
        if (status != 0 || leaked != 0) problem = "status " + std::to_string(status);
    }
    if (!problem.empty())
        problem += " for " + path + (leaked > 0 ? " (" + std::to_string(leaked) + " bytes served)" : "");
    if (leaked > 0) m_tally.addWrongBytes(leaked);
    m_tally.record(what, ms, problem);
}

}  // namespace stress
