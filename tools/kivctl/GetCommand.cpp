// kivctl get PATH [-o FILE] [--chunk SIZE] [--continue]: downloads a file of
// the proxy's machine through "GetFile", one chunk per request, into FILE.part,
// which is renamed to FILE once complete.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "files/CFileTools.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/Download.h"
#include "tools/kivctl/Interrupt.h"
#include "tools/kivctl/Progress.h"
#include "tools/kivctl/ProxyRequest.h"
#include "tools/kivctl/RemoteFile.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl get [OPTIONS] PATH\n"
    "Downloads the file PATH of the proxy's machine through \"GetFile\", in chunks,\n"
    "and checks its final size against \"QueryFileSize\". A relative PATH is taken\n"
    "from the current folder. The data goes to FILE.part first, which becomes FILE\n"
    "once complete; an interrupted or failed download keeps FILE.part, and\n"
    "--continue resumes it, after checking that the last 64 KiB before the resume\n"
    "point are still the proxy's (when not, it says so and starts again from 0).\n"
    "A progress bar shows on a terminal.\n"
    "Exit status: 0 done; 1 PATH is missing (or outside the folders the proxy\n"
    "serves), a folder, or a file the proxy cannot read (for a user the directory\n"
    "does not let call \"my-KIV_TailLog\": a PATH that gives no byte, as kivctl\n"
    "cannot tell those apart then); 2 a failure (the proxy unreachable, a write\n"
    "error, a size that does not match); 64 a usage error, also when FILE is\n"
    "PATH itself.\n"
    "Options:\n"
    "  -o, --output FILE    where to write (default: the last part of PATH in the\n"
    "                       current folder; a folder: that name inside it; - for stdout)\n"
    "      --chunk SIZE     bytes per request, with an optional K, M or G suffix (default 4M)\n"
    "      --continue       resume: keep what FILE.part (or FILE) holds and fetch the rest\n";

const kivctl::Command kGet{"get", "download a file from the proxy's machine", kUsageText, run};

const char* const kWho = "kivctl get";

// What an interrupt says: where the partial download is and how to resume it.
struct Resume {
    std::string part, command;
};

std::string describeResume(void* context) {
    const Resume* r = static_cast<const Resume*>(context);
    struct stat st;
    long long kept = stat(r->part.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
    return std::to_string(kept) + " bytes kept in " + r->part + "; resume with: " + r->command;
}

std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Whether the last bytes (up to kCheckedEnd) of the local file `local` before
// `offset` are the proxy's bytes there. Returns an exit code.
const unsigned long long kCheckedEnd = 64 << 10;
int endsAlike(kivctl::ProxySession& session, const std::string& path, const std::string& local,
              unsigned long long offset, bool* same) {
    const unsigned long long length = offset < kCheckedEnd ? offset : kCheckedEnd;
    std::string mine(length, '\0'), theirs;
    FILE* f = fopen(local.c_str(), "rb");
    bool read = f && fseeko(f, static_cast<off_t>(offset - length), SEEK_SET) == 0 &&
                fread(&mine[0], 1, length, f) == length;
    if (f) fclose(f);
    if (!read) {
        fprintf(stderr, "%s: cannot read %s: %s\n", kWho, local.c_str(), strerror(errno));
        return kivctl::kFailure;
    }
    int status = kivctl::readRemote(session, path, offset - length, length, &theirs);
    if (status != 0) {
        if (!CabIsLibraryStatus(status)) fprintf(stderr, "%s: GetFile answered %d\n", kWho, status);
        return kivctl::exitFor(status);
    }
    *same = mine == theirs;
    return kivctl::kOk;
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
    const std::string path = kivctl::absolutePath(args.positional()[0]);
    unsigned long long chunk = kivctl::kDownloadChunk;
    if (args.has("chunk") && !kivctl::parseSize(args.get("chunk"), &chunk))
        return kivctl::usageError(kGet, "SIZE must be a positive number of bytes below 4 GiB (suffix K, M or G)");
    const std::string base = path.substr(path.find_last_of('/') + 1);
    std::string output = args.get("output");
    struct stat st;
    if (output.empty() || (output != "-" && stat(output.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) {
        if (base.empty() || base == "." || base == "..")
            return kivctl::usageError(kGet, "PATH names no file; give -o FILE");
        output = output.empty() ? base : output + "/" + base;
    }
    const bool toStdout = output == "-";
    const bool resume = args.has("continue");
    if (toStdout && resume) return kivctl::usageError(kGet, "--continue needs an output file");
    // Never write over the source: the same file, by device and inode, whatever the names.
    struct stat source, target;
    if (!toStdout && stat(path.c_str(), &source) == 0 && stat(output.c_str(), &target) == 0 &&
        source.st_dev == target.st_dev && source.st_ino == target.st_ino) {
        fprintf(stderr, "%s: %s is %s itself; refusing to write over the file being read (give -o FILE)\n", kWho,
                output.c_str(), path.c_str());
        return kivctl::kUsage;
    }

    kivctl::handleInterrupts();
    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    kivctl::RemoteKind kind;
    long long probed = -1;
    int rc = kivctl::probeRemote(session, path, &kind, &probed);
    if (rc != kivctl::kOk) return rc;
    if (kind != kivctl::RemoteKind::File) {
        fprintf(stderr, "%s: %s%s\n", kWho, kivctl::remoteProblem(path, kind).c_str(),
                kind == kivctl::RemoteKind::Folder ? "; get fetches one file (zip archives several)" : "");
        return kivctl::kStatus;
    }
    long long expected = -1;
    if ((rc = kivctl::remoteFileSize(session, path, &expected, kWho)) != kivctl::kOk) return rc;
    // The probe knows the low 32 bits: a size that disagrees is not this file's
    // (say, an older proxy that reads the id as another path); then the end of
    // the file is where "GetFile" gives a short chunk.
    if (expected >= 0 && probed >= 0 && (expected & 0xFFFFFFFFLL) != probed) expected = -1;

    if (toStdout) {
        unsigned long long offset = 0;
        rc = kivctl::fetchChunks(session, path, stdout, "standard output", chunk, expected, &offset, nullptr, kWho);
        if (fflush(stdout) != 0 && rc == kivctl::kOk) {
            fprintf(stderr, "%s: standard output: %s\n", kWho, strerror(errno));
            rc = kivctl::kFailure;
        }
        return rc;
    }

    const std::string part = kivctl::partName(output);
    unsigned long long offset = 0;
    if (resume) {
        // FILE.part of an interrupted download, else FILE itself.
        const bool hasPart = stat(part.c_str(), &st) == 0;
        const std::string from = hasPart ? part : output;
        if (hasPart || stat(output.c_str(), &st) == 0) offset = static_cast<unsigned long long>(st.st_size);
        if (expected >= 0 && offset > static_cast<unsigned long long>(expected)) {
            fprintf(stderr, "%s: %s holds %llu bytes, more than the %lld of %s\n", kWho, from.c_str(), offset, expected,
                    path.c_str());
            return kivctl::kFailure;
        }
        if (offset > 0) {
            bool same = false;
            if ((rc = endsAlike(session, path, from, offset, &same)) != kivctl::kOk) return rc;
            if (!same) {
                fprintf(stderr,
                        "%s: %s does not end as %s does before byte %llu (the file changed, or it "
                        "is another one); starting again from 0\n",
                        kWho, from.c_str(), path.c_str(), offset);
                offset = 0;
            }
        }
        if (!hasPart && offset > 0 && rename(output.c_str(), part.c_str()) != 0) {
            fprintf(stderr, "%s: cannot rename %s to %s: %s\n", kWho, output.c_str(), part.c_str(), strerror(errno));
            return kivctl::kFailure;
        }
    }
    FILE* file = fopen(part.c_str(), offset > 0 ? "ab" : "wb");
    if (!file) {
        fprintf(stderr, "%s: %s: %s\n", kWho, part.c_str(), strerror(errno));
        return kivctl::kFailure;
    }
    Resume howTo{part, "kivctl get --continue -o " + quoted(output) + " " + quoted(path)};
    kivctl::onInterrupt(describeResume, &howTo);

    kivctl::Progress progress(kivctl::progressWanted(false), "", offset, expected);
    rc = kivctl::fetchChunks(
        session, path, file, part, chunk, expected, &offset,
        [&](unsigned long long done) { progress.update(done, false); }, kWho);
    progress.update(offset, true);
    if (fclose(file) != 0 && rc == kivctl::kOk) {
        fprintf(stderr, "%s: %s: %s\n", kWho, part.c_str(), strerror(errno));
        rc = kivctl::kFailure;
    }
    if (rc == kivctl::kOk && expected >= 0 && offset != static_cast<unsigned long long>(expected)) {
        fprintf(stderr, "%s: %s: got %llu bytes, expected %lld\n", kWho, path.c_str(), offset, expected);
        rc = kivctl::kFailure;
    }
    if (rc == kivctl::kOk && rename(part.c_str(), output.c_str()) != 0) {
        fprintf(stderr, "%s: cannot rename %s to %s: %s\n", kWho, part.c_str(), output.c_str(), strerror(errno));
        rc = kivctl::kFailure;
    }
    kivctl::onInterrupt(nullptr, nullptr);
    if (rc != kivctl::kOk) {
        if (stat(part.c_str(), &st) == 0 && st.st_size == 0) {
            unlink(part.c_str());
        } else {
            fprintf(stderr, "%s: %s bytes kept in %s; resume with: %s\n", kWho, std::to_string(st.st_size).c_str(),
                    part.c_str(), howTo.command.c_str());
        }
        return rc;
    }
    printf("%s: %llu bytes\n", output.c_str(), offset);
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("get", "download a file from the proxy's machine", kUsageText, run);
