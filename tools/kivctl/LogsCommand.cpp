// kivctl logs -o OUT.zip: the proxy's log folder as a zip ("ZipLogs"),
// downloaded and deleted again.
#include <cstdio>
#include <string>

#include "tools/kivctl/Connection.h"
#include "tools/kivctl/Download.h"
#include "tools/kivctl/Interrupt.h"
#include "tools/kivctl/Progress.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl logs [OPTIONS] -o OUT.zip\n"
    "Has the proxy zip its log files (\"ZipLogs\", always deflated), downloads\n"
    "the archive into OUT.zip (\"GetFile\") and deletes the proxy's copy\n"
    "(\"DeleteTempFile\").\n"
    "Options:\n"
    "  -o, --output FILE    where the archive goes (required)\n";

const kivctl::Command kLogs{"logs", "download the proxy's log files as a zip", kUsageText, run};

const char* const kWho = "kivctl logs";

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.value("output", 'o');
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kLogs, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (!args.positional().empty()) return kivctl::usageError(kLogs, "takes no PATH");
    const std::string output = args.get("output");
    if (output.empty()) return kivctl::usageError(kLogs, "needs -o OUT.zip");

    kivctl::handleInterrupts();
    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    CLocalVariant in, out;
    int status = session.request("ZipLogs", in.get(), out.ptr());
    if (status != 0) {
        if (!CabIsLibraryStatus(status)) fprintf(stderr, "%s: ZipLogs answered %d\n", kWho, status);
        return kivctl::exitFor(status);
    }
    if (out.vt() != VT_BSTR || !out.get().bstrVal || !*out.get().bstrVal) {
        fprintf(stderr, "%s: unexpected answer to ZipLogs\n", kWho);
        return kivctl::kFailure;
    }
    const std::string remote = out.get().bstrVal;
    unsigned long long bytes = 0;
    int rc = kivctl::downloadFile(session, remote, output, kivctl::kDownloadChunk, -1, kivctl::progressWanted(false),
                                  &bytes, kWho);
    int deleted = kivctl::deleteRemoteTempFile(session, remote, kWho);
    if (rc != kivctl::kOk) return rc;
    printf("%s: %llu bytes\n", output.c_str(), bytes);
    return deleted;
}

}  // namespace

KIVCTL_COMMAND("logs", "download the proxy's log files as a zip", kUsageText, run);
