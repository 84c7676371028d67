// kivctl zip PATH... -o OUT.zip: an archive of files on the proxy's machine,
// built by "CreateZip", downloaded and deleted again.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "files/CFileTools.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/Download.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl zip [OPTIONS] PATH... -o OUT.zip\n"
    "Has the proxy build a zip archive of the files (\"CreateZip\"), downloads it\n"
    "into OUT.zip (\"GetFile\") and deletes the proxy's copy (\"DeleteTempFile\").\n"
    "Relative paths are taken from the current folder. One file is always\n"
    "deflated; several are stored uncompressed.\n"
    "Options:\n"
    "  -o, --output FILE    where the archive goes (required)\n"
    "      --chunk BYTES    download chunk size (default 4194304)\n";

const kivctl::Command kZip{"zip", "archive files on the proxy's machine and download the zip", kUsageText, run};

const char* const kWho = "kivctl zip";

std::string absolute(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return path;
    return std::string(cwd) + "/" + path;
}

bool parseChunk(const std::string& text, unsigned long long* out) {
    char* end = nullptr;
    unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end || v == 0 || v > 0xFFFFFFFFull) return false;
    *out = v;
    return true;
}

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.value("output", 'o');
    args.value("chunk");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kZip, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().empty()) return kivctl::usageError(kZip, "needs at least one PATH");
    const std::string output = args.get("output");
    if (output.empty()) return kivctl::usageError(kZip, "needs -o OUT.zip");
    unsigned long long chunk = kivctl::kDownloadChunk;
    if (args.has("chunk") && !parseChunk(args.get("chunk"), &chunk))
        return kivctl::usageError(kZip, "BYTES must be a positive number of bytes below 4 GiB");

    // [context, medium id...]: file-browser ids of the paths.
    const std::vector<std::string>& paths = args.positional();
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, paths.size() + 1);
    VUtil::PutElement(in.get(), 0, "kivctl");
    for (size_t i = 0; i < paths.size(); ++i)
        VUtil::PutElement(in.get(), static_cast<int>(i + 1),
                          CFileTools::PathToFileBrowserMediumId(CStdStr(absolute(paths[i]))));

    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    int status = session.request("CreateZip", in.get(), out.ptr());
    if (status != 0) {
        if (!CabIsLibraryStatus(status)) fprintf(stderr, "%s: CreateZip answered %d\n", kWho, status);
        return kivctl::exitFor(status);
    }
    std::string remote;
    long long announced = -1;
    try {
        remote = VUtil::GetStringElement(out.get(), 0);
        CLocalVariant size;
        VUtil::GetElement(out.get(), 1, size.get());
        if (size.vt() == VT_I8) announced = size.get().llVal;
    } catch (const std::exception&) {
    }
    if (remote.empty()) {
        fprintf(stderr, "%s: unexpected answer to CreateZip\n", kWho);
        return kivctl::kFailure;
    }

    unsigned long long bytes = 0;
    int rc = kivctl::downloadFile(session, remote, output, chunk, &bytes, kWho);
    int deleted = kivctl::deleteRemoteTempFile(session, remote, kWho);
    if (rc != kivctl::kOk) return rc;
    printf("%s: %llu bytes, %zu file%s", output.c_str(), bytes, paths.size(), paths.size() == 1 ? "" : "s");
    if (announced >= 0 && static_cast<unsigned long long>(announced) != bytes)
        printf(" (the proxy estimated %lld while the archive was being written)", announced);
    printf("\n");
    return deleted;
}

}  // namespace

KIVCTL_COMMAND("zip", "archive files on the proxy's machine and download the zip", kUsageText, run);
