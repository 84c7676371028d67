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
    "With -f it keeps printing what is added, following the name like `tail -F`:\n"
    "a truncated file goes on from its new end, a replaced (rotated) one from its\n"
    "start, a removed one is waited for. Each is said on stderr. While nothing\n"
    "changes it asks only the size, with a request the proxy does not log, so\n"
    "following the proxy's own log adds nothing to it.\n"
    "Exit status: 0 done; 1 FILE is missing (or outside the folders the proxy\n"
    "serves), a folder, or a file the proxy cannot read; 2 a failure; 64 usage.\n"
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
    long size = 0, count = 0;
    std::string text;
};

// The last `bytes` bytes through "my-KIV_TailLog", a request the proxy does
// not log (following the proxy's own log must not feed on itself); returns
// the request status.
int ask(kivctl::ProxySession& session, const std::string& path, long bytes, Tail* tail) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, bytes);
    int status = session.request("my-KIV_TailLog", in.get(), out.ptr());
    if (status != 0) return status;
    try {
        tail->size = static_cast<long>(static_cast<uint32_t>(VUtil::GetLongElement(out.get(), 0)));
        tail->count = VUtil::GetLongElement(out.get(), 1);
        tail->text = VUtil::GetStringElement(out.get(), 2);
    } catch (const std::exception&) {
        fprintf(stderr, "%s: unexpected answer from the proxy\n", kWho);
        return CAB_E_MALFORMED;
    }
    return 0;
}

// The bytes of `path` from `from` on (at most kTailLimit), the file being
// `size` bytes long when last asked; *end gets the offset after them. Read
// with "my-KIV_TailLog"; "GetFile" (which the proxy logs) only when that
// cannot serve: the file grew past what was asked meanwhile, or the text
// holds a NUL byte, where the service's text ends.
int readFrom(kivctl::ProxySession& session, const std::string& path, long from, long size, std::string* bytes,
             long* end) {
    const long want = size - from;
    if (want > 0 && want <= kTailLimit) {
        Tail t;
        if (int status = ask(session, path, want, &t)) return status;
        const long start = t.size - static_cast<long>(t.text.size());
        if (static_cast<long>(t.text.size()) == t.count && start <= from && t.size >= from) {
            *bytes = t.text.substr(static_cast<size_t>(from - start));
            *end = t.size;
            return 0;
        }
    }
    int status = kivctl::readRemote(session, path, static_cast<unsigned long long>(from), kTailLimit, bytes);
    *end = from + static_cast<long>(bytes->size());
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

// Polls the size alone while nothing changes: one request the proxy does not
// log. `seen` is where the printed text ends, `last` the bytes before it.
int follow(kivctl::ProxySession& session, const std::string& path, long seen, std::string last, std::string head,
           long interval) {
    const size_t kKept = 64;  // bytes of the start and of the end kept for comparing
    if (head.empty() && seen > 0) kivctl::readRemote(session, path, 0, kKept, &head);
    bool gone = false;
    for (;;) {
        usleep(static_cast<useconds_t>(interval) * 1000);
        Tail probe;
        int status = ask(session, path, 0, &probe);
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
            last.clear();
            head.clear();
        }
        if (probe.size == seen) continue;
        // Grown: read from just before `seen`, to check that what was printed
        // is still there. Shrunk: read the file's start, to tell a truncated
        // file (same start) from a replaced one.
        const bool grew = probe.size > seen;
        long from = grew ? seen - static_cast<long>(last.size()) : (probe.size > kTailLimit ? -1 : 0);
        std::string bytes, out;
        long end = seen;
        if (from >= 0 && (status = readFrom(session, path, from, probe.size, &bytes, &end)) != 0)
            return kivctl::exitFor(status);
        if (grew && bytes.size() < last.size()) continue;  // changed again meanwhile: the next poll sees it
        if (grew && bytes.compare(0, last.size(), last) == 0) {
            out = bytes.substr(last.size());
        } else if (grew || (from == 0 && !sameStart(head, bytes))) {
            fprintf(stderr, "%s: %s was replaced; following the new file\n", kWho, path.c_str());
            if (from != 0 && (status = readFrom(session, path, from = 0, probe.size, &bytes, &end)) != 0)
                return kivctl::exitFor(status);
            out = bytes;
        } else {
            fprintf(stderr, "%s: %s was truncated; going on from its new end\n", kWho, path.c_str());
            if (from < 0) {
                bytes.clear();
                end = probe.size;
            }
        }
        if (from == 0) head = bytes.substr(0, kKept);
        last = from < 0 ? std::string() : bytes.substr(bytes.size() > kKept ? bytes.size() - kKept : 0);
        seen = end;
        fwrite(out.data(), 1, out.size(), stdout);
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
    std::string raw;  // what the service gave, before -n cut it
    if (args.has("bytes")) {
        status = ask(session, path, bytes, &tail);
        raw = tail.text;
    } else {
        // Asks for more until the text holds N lines, or is the whole file.
        for (long want = 4096;; want = want * 4 > kTailLimit ? kTailLimit : want * 4) {
            if ((status = ask(session, path, want, &tail)) != 0) break;
            bool enough = false;
            std::string text = lastLines(tail.text, lines, &enough);
            if (enough || static_cast<long>(tail.text.size()) >= tail.size || want >= kTailLimit) {
                raw = tail.text;
                tail.text = text;
                break;
            }
        }
    }
    kivctl::RemoteKind kind = status == 404 ? kivctl::RemoteKind::Missing : kivctl::RemoteKind::File;
    // No text: an empty file, or one the service cannot read, or a folder.
    if (status == 0 && raw.empty() && (status = kivctl::probeRemote(session, path, &kind)) != kivctl::kOk)
        return status;
    if (kind != kivctl::RemoteKind::File) {
        fprintf(stderr, "%s: %s\n", kWho, kivctl::remoteProblem(path, kind).c_str());
        return kivctl::kStatus;
    }
    if (status != 0) return kivctl::exitFor(status);
    fwrite(tail.text.data(), 1, tail.text.size(), stdout);
    fflush(stdout);
    if (!args.has("follow") && !args.has("retry")) return kivctl::kOk;
    // A text cut at a NUL byte tells nothing about the end or the start.
    if (static_cast<long>(raw.size()) != tail.count) raw.clear();
    const bool whole = static_cast<long>(raw.size()) == tail.size;
    return follow(session, path, tail.size, raw.substr(raw.size() > 64 ? raw.size() - 64 : 0),
                  whole ? raw.substr(0, 64) : std::string(), interval);
}

}  // namespace

KIVCTL_COMMAND("tail", "print the end of a file on the proxy's machine", kUsageText, run);
