// kivctl tail FILE [-c BYTES] [-f]: the end of a file on the proxy's machine.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/kivctl/Connection.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl tail [OPTIONS] FILE\n"
    "Prints the last bytes of FILE through the proxy's \"my-KIV_TailLog\"\n"
    "(at most 5,000,000 bytes per request).\n"
    "Options:\n"
    "  -c, --bytes BYTES    how many bytes (default 4096; -1 for the most the proxy gives)\n"
    "  -f, --follow         keep printing what is appended (polls the proxy)\n"
    "      --interval MS    polling interval with --follow (default 1000)\n";

const kivctl::Command kTail{"tail", "print the end of a file on the proxy's machine", kUsageText, run};

struct Tail {
    long size = 0;
    long count = 0;
    std::string text;
};

// Asks for the last `bytes` bytes; returns the request status.
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
        fprintf(stderr, "kivctl tail: unexpected answer from the proxy\n");
        return -1;
    }
    return 0;
}

bool parseLong(const std::string& s, long* out) {
    char* end = nullptr;
    long v = strtol(s.c_str(), &end, 10);
    if (s.empty() || *end) return false;
    *out = v;
    return true;
}

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.value("bytes", 'c');
    args.flag("follow", 'f');
    args.value("interval");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kTail, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().size() != 1) return kivctl::usageError(kTail, "needs one FILE");
    long bytes = 4096, interval = 1000;
    if (!parseLong(args.get("bytes", "4096"), &bytes)) return kivctl::usageError(kTail, "BYTES must be an integer");
    if (!parseLong(args.get("interval", "1000"), &interval) || interval < 10)
        return kivctl::usageError(kTail, "MS must be an integer of at least 10");
    const std::string path = args.positional()[0];

    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    Tail tail;
    int status = ask(session, path, bytes, &tail);
    if (status == 404) fprintf(stderr, "kivctl tail: %s: no such file\n", path.c_str());
    if (status != 0) return kivctl::exitFor(status);
    fwrite(tail.text.data(), 1, tail.text.size(), stdout);
    fflush(stdout);
    if (!args.has("follow")) return kivctl::kOk;

    long seen = tail.size;
    for (;;) {
        usleep(static_cast<useconds_t>(interval) * 1000);
        Tail probe;
        if ((status = ask(session, path, 0, &probe)) != 0) return kivctl::exitFor(status);
        if (probe.size == seen) continue;
        // Grown: the new bytes. Shrunk (rotated or truncated): the new file from its start.
        long wanted = probe.size > seen ? probe.size - seen : probe.size;
        Tail next;
        if ((status = ask(session, path, wanted, &next)) != 0) return kivctl::exitFor(status);
        fwrite(next.text.data(), 1, next.text.size(), stdout);
        fflush(stdout);
        seen = next.size;
    }
}

}  // namespace

KIVCTL_COMMAND("tail", "print the end of a file on the proxy's machine", kUsageText, run);
