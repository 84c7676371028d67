#include "cab/internal/CabAnswerSource.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "value/Cab1.h"

namespace {

class VariantAnswer : public CabAnswerSource {
public:
    explicit VariantAnswer(tagVARIANT* out) {
        m_value = *out;  // moves ownership
        VariantInit(out);
        m_enc.reset(new Cab1Encoding(m_value));
    }
    ~VariantAnswer() override {
        m_enc.reset();
        VariantClear(&m_value);
    }
    bool ok() const { return m_enc->ok(); }
    const std::string& error() const { return m_enc->error(); }
    uint64_t size() const override { return m_value.vt == VT_EMPTY ? 0 : m_enc->size(); }
    bool read(uint64_t offset, char* dst, size_t len, std::string* error) override {
        if (m_enc->copy((size_t)offset, dst, len) == len) return true;
        *error = "answer range beyond its end";
        return false;
    }
    const char* span(uint64_t offset, size_t len) const override { return m_enc->span((size_t)offset, len); }
    uint64_t heldBytes() const override { return size(); }

private:
    tagVARIANT m_value;  // owned; the encoding points into it
    std::unique_ptr<Cab1Encoding> m_enc;
};

// A VT_ARRAY|VT_UI1 encoding: type code, lower bound 0, count, then the bytes.
const size_t kByteArrayHeader = 10;

class FileAnswer : public CabAnswerSource {
public:
    FileAnswer(int fd, uint64_t offset, uint32_t length, uint64_t window)
        : m_fd(fd), m_offset(offset), m_length(length), m_window(window) {
        uint16_t vt = VT_ARRAY | VT_UI1;
        int32_t lb = 0;
        m_header[0] = (char)(vt & 0xFF);
        m_header[1] = (char)(vt >> 8);
        memcpy(m_header + 2, &lb, 4);
        for (int i = 0; i < 4; ++i) m_header[6 + i] = (char)((length >> (8 * i)) & 0xFF);
    }
    ~FileAnswer() override {
        if (m_fd >= 0) ::close(m_fd);
    }
    uint64_t size() const override { return kByteArrayHeader + m_length; }
    bool read(uint64_t offset, char* dst, size_t len, std::string* error) override {
        while (len > 0 && offset < kByteArrayHeader) {
            *dst++ = m_header[offset++];
            --len;
        }
        uint64_t at = m_offset + (offset - kByteArrayHeader);
        while (len > 0) {
            ssize_t n = ::pread(m_fd, dst, len, (off_t)at);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                *error = n == 0 ? "the file shrank while it was sent" : std::string("read: ") + strerror(errno);
                return false;
            }
            dst += n;
            at += (uint64_t)n;
            len -= (size_t)n;
        }
        return true;
    }
    uint64_t heldBytes() const override { return m_window < size() ? m_window : size(); }

private:
    int m_fd;
    const uint64_t m_offset;
    const uint32_t m_length;
    const uint64_t m_window;
    char m_header[kByteArrayHeader];
};

}  // namespace

std::unique_ptr<CabAnswerSource> cabVariantAnswer(tagVARIANT* out, std::string* error) {
    std::unique_ptr<VariantAnswer> a(new VariantAnswer(out));
    if (!a->ok()) {
        if (error) *error = a->error();
        return nullptr;
    }
    return a;
}

std::unique_ptr<CabAnswerSource> cabFileAnswer(int fd, uint64_t offset, uint32_t length, uint64_t window) {
    return std::unique_ptr<CabAnswerSource>(new FileAnswer(fd, offset, length, window));
}
