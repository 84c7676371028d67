// kivctl tail FILE [-n LINES | -c BYTES] [-f]: the end of a file on the
// proxy's machine, and with -f what is added to it, by name like `tail -F`.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/kivctl/Connection.h"
#include "tools/kivctl/ProxyRequest.h"
#include "tools/kivctl/RemoteFile.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl tail [OPTIONS] FILE\n"
    "Prints the end of FILE on the proxy's machine through its \"my-KIV_TailLog\"\n"
    "(at most 5,000,000 bytes). A relative FILE is taken from the current folder.\n"
    "With -f it keeps printing what is added (read with \"GetFile\"), following the\n"
    "name like `tail -F`: a truncated file goes on from its new end, a replaced\n"
    "(rotated) one from its start, a removed one is waited for. Each is said on stderr.\n"
    "Options:\n"
    "  -n, --lines N        the last N lines (default 10)\n"
    "  -c, --bytes BYTES    the last BYTES bytes instead (-1: the most the proxy gives)\n"
    "  -f, --follow         keep printing what is appended (polls the proxy)\n"
    "  -F, --retry          the same: -f always follows the name\n"
    "      --interval MS    polling interval with --follow (default 1000)\n";

const kivctl::Command kTail{"tail", "print the end of a file on the proxy's machine", kUsageText, run};

const char* const kWho = "kivctl tail";
const long kTailLimit = 5000000;

struct Tail {
    long size = 0;
    std::string text;
};

// The last `bytes` bytes; returns the request status.
int ask(kivctl::ProxySession& session, const std::string& path, long bytes, Tail* tail) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, bytes);
    int status = session.request("my-KIV_TailLog", in.get(), out.ptr());
    if (status != 0) return status;
    try {
        tail->size = static_cast<long>(static_cast<uint32_t>(VUtil::GetLongElement(out.get(), 0)));
        tail->text = VUtil::GetStringElement(out.get(), 2);
    } catch (const std::exception&) {
        fprintf(stderr, "%s: unexpected answer from the proxy\n", kWho);
        return CAB_E_MALFORMED;
    }
    return 0;
}

// Bytes [offset, offset + length) through "GetFile"; returns the request status.
int read(kivctl::ProxySession& session, const std::string& path, long offset, long length, std::string* bytes) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 3);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, static_cast<long long>(offset));
    VUtil::PutElement(in.get(), 2, static_cast<long long>(length));
    int status = session.request("GetFile", in.get(), out.ptr());
    bytes->clear();
    if (status == 0 && out.vt() == (VT_ARRAY | VT_UI1) && out.get().parray)
        bytes->assign(static_cast<const char*>(out.get().parray->pvData), out.get().parray->rgsabound[0].cElements);
    return status;
}

// The last `lines` lines of `text` (a final newline ends the last line).
std::string lastLines(const std::string& text, long lines, bool* enough) {
    size_t end = text.size();
    if (end > 0 && text[end - 1] == '\n') --end;
    size_t pos = end;
    long found = 0;
    while (pos > 0) {
        if (text[pos - 1] == '\n' && ++found == lines) break;
        --pos;
    }
    *enough = found == lines;
    return lines <= 0 ? std::string() : text.substr(pos);
}

bool parseLong(const std::string& s, long* out) {
    char* end = nullptr;
    long v = strtol(s.c_str(), &end, 10);
    if (s.empty() || *end) return false;
    *out = v;
    return true;
}

// Whether two beginnings of a file can be the same file (one a prefix of the other).
bool sameStart(const std::string& a, const std::string& b) {
    size_t n = a.size() < b.size() ? a.size() : b.size();
    return a.compare(0, n, b, 0, n) == 0;
}

int follow(kivctl::ProxySession& session, const std::string& path, long seen, long interval) {
    const long kHead = 64;
    std::string head;
    int status = read(session, path, 0, kHead, &head);
    bool gone = false;
    for (;;) {
        usleep(static_cast<useconds_t>(interval) * 1000);
        Tail probe;
        status = ask(session, path, 0, &probe);
        if (status == 404) {
            if (!gone) fprintf(stderr, "%s: %s is gone; waiting for it to come back\n", kWho, path.c_str());
            gone = true;
            continue;
        }
        if (status != 0) return kivctl::exitFor(status);
        if (gone) {
            fprintf(stderr, "%s: %s is back; following the new file\n", kWho, path.c_str());
            gone = false;
            seen = 0;
            head.clear();
        }
        if (probe.size == seen) continue;
        std::string newHead;
        if ((status = read(session, path, 0, kHead, &newHead)) != 0) return kivctl::exitFor(status);
        if (!sameStart(head, newHead)) {
            fprintf(stderr, "%s: %s was replaced; following the new file\n", kWho, path.c_str());
            seen = 0;
        } else if (probe.size < seen) {
            fprintf(stderr, "%s: %s was truncated; going on from its new end\n", kWho, path.c_str());
            seen = probe.size;
        }
        head = newHead;
        while (seen < probe.size) {
            std::string bytes;
            long want = probe.size - seen < (4L << 20) ? probe.size - seen : (4L << 20);
            if ((status = read(session, path, seen, want, &bytes)) != 0) return kivctl::exitFor(status);
            if (bytes.empty()) break;
            fwrite(bytes.data(), 1, bytes.size(), stdout);
            seen += static_cast<long>(bytes.size());
        }
        fflush(stdout);
    }
}

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.value("lines", 'n');
    args.value("bytes", 'c');
    args.flag("follow", 'f');
    args.flag("retry", 'F');
    args.value("interval");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kTail, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().size() != 1) return kivctl::usageError(kTail, "needs one FILE");
    long bytes = -1, lines = 10, interval = 1000;
    if (args.has("bytes") && args.has("lines")) return kivctl::usageError(kTail, "give -n or -c, not both");
    if (args.has("bytes") && !parseLong(args.get("bytes"), &bytes))
        return kivctl::usageError(kTail, "BYTES must be an integer");
    if (args.has("lines") && (!parseLong(args.get("lines"), &lines) || lines < 0))
        return kivctl::usageError(kTail, "N must be a number of lines");
    if (!parseLong(args.get("interval", "1000"), &interval) || interval < 10)
        return kivctl::usageError(kTail, "MS must be an integer of at least 10");
    const std::string path = kivctl::absolutePath(args.positional()[0]);

    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    Tail tail;
    int status = 0;
    if (args.has("bytes")) {
        status = ask(session, path, bytes, &tail);
    } else {
        // Asks for more until the text holds N lines, or is the whole file.
        for (long want = 4096;; want = want * 4 > kTailLimit ? kTailLimit : want * 4) {
            if ((status = ask(session, path, want, &tail)) != 0) break;
            bool enough = false;
            std::string text = lastLines(tail.text, lines, &enough);
            if (enough || static_cast<long>(tail.text.size()) >= tail.size || want >= kTailLimit) {
                tail.text = text;
                break;
            }
        }
    }
    if (status == 404) fprintf(stderr, "%s: %s: no such file on the proxy's machine\n", kWho, path.c_str());
    if (status != 0) return kivctl::exitFor(status);
    fwrite(tail.text.data(), 1, tail.text.size(), stdout);
    fflush(stdout);
    if (!args.has("follow") && !args.has("retry")) return kivctl::kOk;
    return follow(session, path, tail.size, interval);
}

}  // namespace

KIVCTL_COMMAND("tail", "print the end of a file on the proxy's machine", kUsageText, run);
