// kivctl get PATH [-o FILE] [--chunk SIZE] [--continue]: downloads a file of
// the proxy's machine through "GetFile", one chunk per request.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "files/CFileTools.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/Download.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl get [OPTIONS] PATH\n"
    "Downloads the file PATH of the proxy's machine through \"GetFile\", in chunks,\n"
    "and checks its final size against \"QueryFileSize\". A progress bar shows on\n"
    "a terminal.\n"
    "Options:\n"
    "  -o, --output FILE    where to write (default: the last part of PATH; - for stdout)\n"
    "      --chunk SIZE     bytes per request, with an optional K, M or G suffix (default 4M)\n"
    "      --continue       resume: keep what FILE already holds and fetch the rest\n";

const kivctl::Command kGet{"get", "download a file from the proxy's machine", kUsageText, run};

const unsigned long long kDefaultChunk = 4ull << 20;
const unsigned long long kMaxChunk = 0xFFFFFFFFull;

bool parseSize(const std::string& text, unsigned long long* out) {
    if (text.empty() || text[0] == '-') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (errno || end == text.c_str()) return false;
    std::string suffix = end;
    int shift = 0;
    if (suffix == "K" || suffix == "k" || suffix == "KiB") shift = 10;
    else if (suffix == "M" || suffix == "m" || suffix == "MiB") shift = 20;
    else if (suffix == "G" || suffix == "g" || suffix == "GiB") shift = 30;
    else if (!suffix.empty()) return false;
    if (v > (kMaxChunk >> shift)) return false;
    *out = v << shift;
    return *out > 0;
}

std::string human(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (bytes >= 1024 && u < 4) {
        bytes /= 1024;
        ++u;
    }
    char buf[32];
    snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
    return buf;
}

// A one-line progress bar on stderr: bytes, rate and time left.
class Progress {
public:
    Progress(bool enabled, unsigned long long start, long long total)
        : m_enabled(enabled), m_start(start), m_total(total), m_t0(std::chrono::steady_clock::now()) {}

    void update(unsigned long long done, bool last) {
        if (!m_enabled) return;
        auto now = std::chrono::steady_clock::now();
        if (!last && now - m_shown < std::chrono::milliseconds(100)) return;
        m_shown = now;
        double secs = std::chrono::duration<double>(now - m_t0).count();
        double rate = secs > 0 ? (done - m_start) / secs : 0;
        std::string line = human(done);
        if (m_total >= 0) {
            line += " / " + human(m_total);
            const int width = 24;
            int filled = m_total > 0 ? (int)(width * (double)done / m_total) : width;
            if (filled > width) filled = width;
            line = "[" + std::string(filled, '#') + std::string(width - filled, ' ') + "] " + line;
        }
        line += "  " + human(rate) + "/s";
        if (m_total >= 0 && rate > 0 && !last) {
            long left = (long)((m_total - (double)done) / rate);
            char eta[32];
            snprintf(eta, sizeof eta, "  %ld:%02ld left", left / 60, left % 60);
            line += eta;
        }
        fprintf(stderr, "\r%-78s%s", line.c_str(), last ? "\n" : "");
        fflush(stderr);
    }

private:
    bool m_enabled;
    unsigned long long m_start;
    long long m_total;
    std::chrono::steady_clock::time_point m_t0, m_shown;
};

// The file's size by "QueryFileSize" of its file-browser id; -1 when unknown.
long long remoteSize(kivctl::ProxySession& session, const std::string& path) {
    CStdStr id = CFileTools::PathToFileBrowserMediumId(path);
    CLocalVariant in, items, out;
    VUtil::CreateArray(items.get(), VT_VARIANT, 1);
    VUtil::PutElement(items.get(), 0, id);
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, id);
    VUtil::PutElement(in.get(), 1, items.get());
    if (session.request("QueryFileSize", in.get(), out.ptr()) != 0) return -1;
    try {
        CLocalVariant count, total;
        VUtil::GetElement(out.get(), 0, count.get());
        VUtil::GetElement(out.get(), 1, total.get());
        if (count.vt() != VT_I4 || count.get().lVal != 1 || total.vt() != VT_I8) return -1;
        return total.get().llVal;
    } catch (const std::exception&) {
        return -1;
    }
}

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.value("output", 'o');
    args.value("chunk");
    args.flag("continue");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kGet, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().size() != 1) return kivctl::usageError(kGet, "needs one PATH");
    const std::string path = args.positional()[0];
    unsigned long long chunk = kDefaultChunk;
    if (args.has("chunk") && !parseSize(args.get("chunk"), &chunk))
        return kivctl::usageError(kGet, "SIZE must be a positive number of bytes below 4 GiB (suffix K, M or G)");
    std::string output = args.get("output");
    if (output.empty()) {
        size_t slash = path.find_last_of('/');
        output = slash == std::string::npos ? path : path.substr(slash + 1);
        if (output.empty()) return kivctl::usageError(kGet, "PATH names no file; give -o FILE");
    }
    const bool toStdout = output == "-";
    const bool resume = args.has("continue");
    if (toStdout && resume) return kivctl::usageError(kGet, "--continue needs an output file");

    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    const long long expected = remoteSize(session, path);
    if (expected == 0) fprintf(stderr, "kivctl get: %s is empty or does not exist\n", path.c_str());

    unsigned long long offset = 0;
    if (resume) {
        struct stat st;
        if (stat(output.c_str(), &st) == 0) offset = static_cast<unsigned long long>(st.st_size);
        if (expected >= 0 && offset > static_cast<unsigned long long>(expected)) {
            fprintf(stderr, "kivctl get: %s holds %llu bytes, more than the %lld of %s\n", output.c_str(), offset,
                    expected, path.c_str());
            return kivctl::kFailure;
        }
    }
    FILE* file = toStdout ? stdout : fopen(output.c_str(), resume ? "ab" : "wb");
    if (!file) {
        fprintf(stderr, "kivctl get: %s: %s\n", output.c_str(), strerror(errno));
        return kivctl::kFailure;
    }
    Progress progress(!toStdout && isatty(1) && isatty(2), offset, expected);
    int rc = kivctl::fetchChunks(session, path, file, output, chunk, expected, &offset,
                                 [&](unsigned long long done) { progress.update(done, false); }, "kivctl get");
    progress.update(offset, true);
    if (toStdout ? fflush(stdout) != 0 : fclose(file) != 0) {
        fprintf(stderr, "kivctl get: %s: %s\n", output.c_str(), strerror(errno));
        return kivctl::kFailure;
    }
    if (rc != kivctl::kOk) return rc;
    if (expected >= 0 && offset != static_cast<unsigned long long>(expected)) {
        fprintf(stderr, "kivctl get: %s: got %llu bytes, expected %lld\n", path.c_str(), offset, expected);
        return kivctl::kFailure;
    }
    if (!toStdout) printf("%s: %llu bytes\n", output.c_str(), offset);
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("get", "download a file from the proxy's machine", kUsageText, run);
