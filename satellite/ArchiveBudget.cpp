#include "satellite/ArchiveBudget.h"

#include <sys/statvfs.h>

#include "host/CRegistry.h"
#include "host/PThread.h"

namespace {

struct Budget {
    PMutex lock;                                  // guards both below
    int running KIV_GUARDED_BY(lock) = 0;         // archives admitted and not yet released
    long long promised KIV_GUARDED_BY(lock) = 0;  // the sum of their estimates
};

// Never destroyed: an archive thread may release while the process exits.
Budget& budget() {
    static Budget* b = new Budget;
    return *b;
}

long long reserveBytes() {
    int mb = ArchiveBudget::kDefaultReserveMB;
    if (!CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "archive.diskReserveMB", mb) ||
        mb < 0)
        mb = ArchiveBudget::kDefaultReserveMB;
    return static_cast<long long>(mb) << 20;
}

// Bytes an unprivileged writer may still use on the file system of `folder`; -1 when unknown.
long long freeBytes(const char* folder) {
    struct statvfs fs;
    if (::statvfs(folder, &fs) != 0) return -1;
    return static_cast<long long>(fs.f_bavail) * static_cast<long long>(fs.f_frsize);
}

}  // namespace

namespace ArchiveBudget {

bool admit(long long estimate, CStdStr* why) {
    const long long reserve = reserveBytes();
    Budget& b = budget();
    PLockGuard guard(b.lock);
    if (b.running >= kMaxAtOnce) {
        *why = CStdStr::Formatted("%d archives are being written already; try again later", b.running);
        return false;
    }
    if (reserve > 0) {
        const long long available = freeBytes("/tmp");
        if (available < 0) {
            *why = "the free space of /tmp cannot be read";
            return false;
        }
        const long long left = available - b.promised - estimate;
        if (left < reserve) {
            *why = CStdStr::Formatted(
                "it needs %lld bytes and would leave %lld MB free on /tmp (%lld promised to archives being "
                "written), below the reserve of %lld MB (archive.diskReserveMB)",
                estimate, (left < 0 ? 0 : left) >> 20, b.promised, reserve >> 20);
            return false;
        }
    }
    ++b.running;
    b.promised += estimate;
    return true;
}

void release(long long estimate) {
    Budget& b = budget();
    PLockGuard guard(b.lock);
    --b.running;
    b.promised -= estimate;
}

}  // namespace ArchiveBudget
