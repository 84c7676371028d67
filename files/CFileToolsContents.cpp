// Reading and writing a file's contents.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "files/CFileTools.h"

namespace {

// One read(2) moves at most this much; bigger requests loop.
const unsigned long long kMaxReadPerCall = 1ULL << 30;

// Reads until `count` bytes arrived, the end of the file, or an error.
unsigned long long readFully(int fd, char* buffer, unsigned long long count) {
    unsigned long long done = 0;
    while (done < count) {
        unsigned long long want = count - done;
        if (want > kMaxReadPerCall) want = kMaxReadPerCall;
        ssize_t n = ::read(fd, buffer + done, static_cast<size_t>(want));
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (n == 0) break;
        done += static_cast<unsigned long long>(n);
    }
    return done;
}

bool writeFully(int fd, const unsigned char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

int CFileTools::openForReading() {
    if (m_fd < 0) {
        m_fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fd >= 0) posix_fadvise(m_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    return m_fd;
}

void CFileTools::closeFile() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

bool CFileTools::getData(char* buffer, unsigned long long& count, unsigned long long offset, SeekDirection direction) {
    unsigned long long wanted = count;
    count = 0;
    if (!buffer && wanted > 0) return false;
    int fd = openForReading();
    if (fd < 0) return false;
    int whence = direction == current ? SEEK_CUR : direction == end ? SEEK_END : SEEK_SET;
    // Signed in every direction: before the end or the current position is negative.
    if (::lseek(fd, static_cast<off_t>(offset), whence) < 0) return false;
    count = readFully(fd, buffer, wanted);
    return count > 0 || wanted == 0;
}

char* CFileTools::getData(unsigned long long& size) {
    size = 0;
    int fd = openForReading();
    if (fd < 0) return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
    unsigned long long total = static_cast<unsigned long long>(st.st_size);
    char* data = new (std::nothrow) char[total ? total : 1];
    if (!data) return nullptr;
    if (::lseek(fd, 0, SEEK_SET) < 0) {
        delete[] data;
        return nullptr;
    }
    size = readFully(fd, data, total);
    return data;
}

bool CFileTools::readToBytes(unsigned char** data, unsigned long* size) {
    if (!data || !size) return false;
    unsigned long long n = 0;
    char* bytes = getData(n);
    if (!bytes) return false;
    *data = reinterpret_cast<unsigned char*>(bytes);
    *size = static_cast<unsigned long>(n);
    return true;
}

bool CFileTools::writeBytes(const unsigned char* data, unsigned int size) {
    closeFile();
    int fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    bool ok = writeFully(fd, data, size);
    if (::close(fd) != 0) ok = false;
    return ok;
}

bool CFileTools::writeBytes(const char* data, unsigned int size) {
    return writeBytes(reinterpret_cast<const unsigned char*>(data), size);
}

bool CFileTools::writeString(const CStdStr& text) {
    return writeBytes(text.data(), static_cast<unsigned int>(text.size()));
}
