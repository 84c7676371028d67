// "GetFile" and "QueryFileSize" through the real proxy, answers nobody takes, and kivctl get.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "value/Cab1.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/proxy/ProxyFixture.h"
#include "tests/support/ProcStatus.h"
#include "tests/support/RawNats.h"
#include "tests/support/Sanitizers.h"

namespace {

using kivtest::header;
using kivtest::publish;

// The real proxy, serving the files of `media`.
class TransferTest : public ProxyTest {
protected:
    void SetUp() override {
        ProxyTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(setting("files.roots", CStdStr(media.path())));
        ASSERT_TRUE(startProxy()) << proxyOutput();
    }

    // "GetFile" of the JSON in-array; *bytes gets the block.
    int getFile(const std::string& in, std::string* bytes) {
        CLocalVariant out;
        const int status = call("GetFile", in, out.ptr());
        *bytes = bytesOf(out.get());
        EXPECT_TRUE(status != 0 || out.vt() == (VT_ARRAY | VT_UI1)) << out.vt();
        return status;
    }
    // [path, offset, max] with both counts of variant type `type` ("I4", "UI8", ...).
    int getFile(const std::string& path, const std::string& type, long long offset, long long max, std::string* bytes) {
        return getFile("[\"" + path + "\"," + typed(type, offset) + "," + typed(type, max) + "]", bytes);
    }
    // The JSON of the "QueryFileSize" answer to [medium, items], or "status N".
    std::string querySizes(const std::string& medium, const std::vector<std::string>& items) {
        CLocalVariant out;
        const int status = call("QueryFileSize", nlohmann::json::array({medium, items}).dump(), out.ptr());
        return status == 0 ? json(out.get()) : "status " + std::to_string(status);
    }

    kivtest::TempDir media{"kivmedia"};
};

// A maximum of 0 or below means to the end, a negative offset starts at 0, offsets
// past the end give an empty block; other count types are refused.
TEST_F(TransferTest, GetFileSlicesWithEachIntegerTypeAndNoOtherType) {
    const std::string content = patternBytes(100000, 1), path = media.file("data/blob.bin");
    kivtest::writeFile(path, content);
    std::string got;
    ASSERT_EQ(getFile("[\"" + path + "\"]", &got), 0);  // only a path: the whole file
    EXPECT_TRUE(got == content) << "got " << got.size() << " bytes";
    const std::vector<std::string> all = {"I4", "UI4", "I8", "UI8"}, signedOnes = {"I4", "I8"};
    const std::tuple<std::vector<std::string>, long long, long long, size_t, size_t> cases[] = {
        // types, offset, maximum, and the slice: from, length
        {all, 0, 0, 0, 100000},        {all, 12345, 100, 12345, 100},
        {all, 99990, 100, 99990, 10},  {signedOnes, 500, -1, 500, 99500},
        {signedOnes, -20, 10, 0, 10},  {{"I8"}, 100000, 10, 0, 0},
        {{"UI8"}, 1ll << 40, 0, 0, 0}, {{"UI4"}, 0xFFFFFFFFll, 0xFFFFFFFFll, 0, 0},
    };
    for (const auto& [types, offset, max, from, length] : cases)
        for (const std::string& type : types) {
            SCOPED_TRACE(type + " " + std::to_string(offset) + " " + std::to_string(max));
            ASSERT_EQ(getFile(path, type, offset, max, &got), 0);
            EXPECT_TRUE(got == content.substr(from, length)) << got.size() << " bytes";
        }

    const std::pair<std::string, std::string> wrong[] = {{"\"10\", 10", "Invalid offset type"},
                                                         {"10, 2.5", "Invalid maxLength type"},
                                                         {typed("I2", 1) + ", 10", "Invalid offset type"}};
    for (const auto& [counts, text] : wrong) {
        EXPECT_EQ(getFile("[\"" + path + "\", " + counts + "]", &got), CAB_E_HANDLER_EXCEPTION) << counts;
        EXPECT_THAT(CabGetLastError(), HasSubstr(text));
    }

    // Offsets beyond 4 GiB: a sparse 4 GiB + 64 file with 16 known bytes past the 32-bit range.
    const std::string sparse = media.file("sparse.bin");
    const long long at = (4ll << 30) + 32;
    kivtest::writeFile(sparse, "");
    ASSERT_EQ(truncate(sparse.c_str(), (4ll << 30) + 64), 0);
    kivtest::runCommand("printf 0123456789abcdef | dd of=" + sparse + " bs=1 seek=" + std::to_string(at) +
                        " conv=notrunc 2>/dev/null");
    for (const char* type : {"I8", "UI8"}) {
        ASSERT_EQ(getFile(sparse, type, at, 16, &got), 0);
        EXPECT_EQ(got, "0123456789abcdef");
        ASSERT_EQ(getFile(sparse, type, at + 8, 0, &got), 0);
        EXPECT_EQ(got, std::string("89abcdef") + std::string(16, '\0'));
    }
}

// In process, in a child whose address space is limited so that a chunk near 4 GiB cannot
// be allocated: status 8, and out left untouched.
TEST(GetFileMemoryTest, AnUnallocatableChunkAnswersEightAndLeavesOutAlone) {
#ifdef KIV_SANITIZED
    GTEST_SKIP() << "the sanitizers' shadow memory needs an unlimited address space";
#else
    kivtest::TempDir dir("kivgetmem");
    const std::string path = dir.file("huge.sparse");
    kivtest::writeFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), 5ll << 30), 0);  // 5 GiB, no blocks on disk
    ASSERT_TRUE(setting("files.roots", CStdStr(dir.path())));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        KivRequestProxySatellite satellite;
        JsonVariant in(listOf(path)), out("99");
        struct rlimit limit = {1ull << 30, 1ull << 30};  // far below the 4 GiB chunk
        if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(100);
        const int rc = satellite.CabServiceGetFile("GetFile", in.get(), out.ptr());
        _exit(out.vt() != VT_I4 || out.get().lVal != 99 ? 101 : rc);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 8);
#endif
}

std::atomic<int> refusedLookups{0};

// File-browser ids are resolved by the proxy, catalog ids by kiv-media-catalog.
TEST_F(TransferTest, QueryFileSizeOfFileBrowserAndCatalogIdsUnresolvableItemsAndWrongShapes) {
    kivtest::writeFile(media.file("music/a song.mp3"), std::string(1000, 'a'));
    kivtest::writeFile(media.file("photos/b.png"), std::string(234, 'b'));
    kivtest::writeFile(media.file("docs/c+d.txt"), std::string(56, 'c'));
    auto id = [&](const char* name) { return CFileTools::PathToFileBrowserMediumId(media.file(name)); };
    auto sizes = [](int count, long long total) {  // the answer [count, total] with its types
        return "[" + std::to_string(count) + "," + typed("I8", total) + "]";
    };
    const std::string song = id("music/a song.mp3");
    EXPECT_EQ(querySizes(song, {song, id("docs/c+d.txt")}), sizes(2, 1056));
    // A missing file still counts, with size 0.
    EXPECT_EQ(querySizes(id("x"), {id("photos/b.png"), id("gone.bin")}), sizes(2, 234));
    EXPECT_EQ(querySizes("x", {}), "status 1") << "no first item";
    EXPECT_EQ(querySizes("x", {""}), "status 1");
    EXPECT_EQ(querySizes("M1", {"M1"}), "status -1") << "no media service";
    // A media service that refuses (404) leaves no answer to read: the lookup fails the same way.
    CabSatellite refusing;
    refusing.AddService(
        "GetMediumListInfoFromId", "", +[](const char*, const tagVARIANT&, tagVARIANT*) {
            ++refusedLookups;
            return 404;
        });
    ASSERT_EQ(refusing.Connect(hostPort().c_str(), "KivMediaV2"), 0);
    EXPECT_EQ(querySizes("M1", {"M1"}), "status -1");
    EXPECT_EQ(refusedLookups, 1);
    refusing.Disconnect();
    for (const char* in : {R"(["x"])", R"(["x", "y"])", R"([5, ["x"]])"}) {
        CLocalVariant out;
        EXPECT_EQ(call("QueryFileSize", in, out.ptr()), CAB_E_HANDLER_EXCEPTION) << in;
    }

    const std::string catalog = media.file("catalog.json");
    kivtest::writeFile(catalog, R"({"extensions": {"audio": [".mp3"]}, "media": {"M1": {"path": "music/a song.mp3"},
        "M2": {"path": ")" + media.file("photos/b.png") +
                                    R"("}}})");
    const pid_t pid = kivtest::startInBackground(KIV_BINARY_DIR "/bin/kiv-media-catalog --catalog " + catalog +
                                                     " --root " + media.path() + " --server " + hostPort(),
                                                 media.file("catalog.out"), "ready\n");
    ASSERT_GT(pid, 0) << kivtest::readFile(media.file("catalog.out"));
    std::shared_ptr<void> stop(nullptr, [pid](void*) { kill(pid, SIGTERM); });
    EXPECT_EQ(querySizes("M1", {"M1", "M2"}), sizes(2, 1234));
    // An id the catalog does not know resolves to nothing, with a warning.
    EXPECT_EQ(querySizes("M1", {"M2", "nope"}), sizes(1, 234));
    EXPECT_TRUE(waitForLog("GetMediumListPath: got a VT_EMPTY in the list of paths"));
    // The first id decides: with a catalog id first, file-browser ids go to the catalog too.
    EXPECT_EQ(querySizes("M1", {"M1", id("docs/c+d.txt")}), sizes(1, 1000));
}

class KivctlGetTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        kivtest::writeFile(path, content);
        kivtest::writeFile(target, "");
    }
    int get(const std::string& options, std::string* out = nullptr) { return kivctl("get " + options, out); }
    const std::string content = patternBytes(100000, 7), path = media.file("remote/clip.bin");
    const std::string target = media.file("local/clip.bin");
};

TEST_F(KivctlGetTest, DownloadsInChunksAndToStandardOutputAndRefusesBadUsage) {
    std::string output;
    ASSERT_EQ(get(path + " -o " + target + " --chunk 7K", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    EXPECT_THAT(output, HasSubstr("100000 bytes"));
    EXPECT_THAT(output, Not(HasSubstr("\r"))) << "no progress bar when not on a terminal";
    // 100000 bytes in 7168-byte chunks: the last request starts at 13 * 7168.
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 93184, maxBytes: 7168"));
    EXPECT_THAT(proxyLog(), Not(HasSubstr("offset: 100352"))) << "no request past the end";
    ASSERT_EQ(get(path + " -o - --chunk 64K", &output), 0);
    EXPECT_TRUE(output == content) << "stdout holds exactly the file";
    for (const std::string& options : {path + " --chunk 0", path + " --chunk 5X", path + " --chunk 4G",
                                       path + " -o - --continue", path + " --bogus", std::string()})
        EXPECT_EQ(get(options), 64) << options;
    EXPECT_EQ(get("--help", &output), 0);
    EXPECT_THAT(output, HasSubstr("usage: kivctl get"));
}

// Every name comes back byte for byte through get and zip, also those a medium id cannot carry.
TEST_F(KivctlGetTest, AwkwardNamesComeBackByteForByte) {
    const std::string names[] =
        {"sp ace.txt",   "quo\"te's", "*?[]|<>", "p|q.txt", "100% %41+.x", "new\nline", "\xc3\xbc \xe2\x9c\x93",
         "\xff\xfe.bin", "-dash"};
    std::string paths, all, output;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const std::string file = media.file("odd/" + name), bytes = name + " #" + std::to_string(all.size());
        kivtest::writeFile(file, bytes);
        ASSERT_EQ(get(kivtest::shellQuoted(file) + " -o " + target, &output), 0) << output;
        EXPECT_EQ(kivtest::readFile(target), bytes);
        paths += " " + kivtest::shellQuoted(file);
        all += bytes;
    }
    const std::string zip = media.file("odd.zip");
    ASSERT_EQ(kivctl("zip" + paths + " -o " + zip, &output), 0) << output;
    EXPECT_EQ(kivtest::runCommand("unzip -p " + zip), all) << "each entry's bytes, in order";
}

// --continue fetches only what is missing. Run in the source's own folder without -o, get would
// write over its source; it refuses. An interrupted download keeps FILE.part, which --continue resumes.
TEST_F(KivctlGetTest, ContinueFetchesOnlyTheRestAndNeverWritesOverItsSource) {
    kivtest::writeFile(target, content.substr(0, 30000));
    std::string output;
    ASSERT_EQ(get(path + " -o " + target + " --continue", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    EXPECT_FALSE(std::filesystem::exists(target + ".part"));
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 30000, maxBytes: 4194304"));
    EXPECT_THAT(proxyLog(), Not(HasSubstr("GetFile " + path + ", offset: 0, maxBytes: 4194304")))
        << "nothing fetched twice";
    // Complete already: nothing to do, still success. A part that differs from the source: fetched again from 0.
    std::string changed = content.substr(0, 30000);
    changed[29999] ^= 1;
    for (const std::string& part : {std::string(), changed}) {
        if (!part.empty()) kivtest::writeFile(target + ".part", part);
        ASSERT_EQ(get(path + " -o " + target + " --continue", &output), 0) << output;
        EXPECT_EQ(output.find("starting again from 0") != std::string::npos, !part.empty()) << output;
        EXPECT_TRUE(kivtest::readFile(target) == content);
    }
    // Longer than the remote file: refused, the local file is kept.
    kivtest::writeFile(target, content + "extra");
    EXPECT_EQ(get(path + " -o " + target + " --continue", &output), 2) << output;
    EXPECT_EQ(kivtest::readFile(target).size(), content.size() + 5);
    EXPECT_EQ(kivctl("get " + path, &output, "cd " + media.file("remote") + " && "), 64) << output;
    EXPECT_THAT(output, HasSubstr("refusing to write over"));
    ASSERT_EQ(symlink(path.c_str(), media.file("local/link.bin").c_str()), 0);
    EXPECT_EQ(get(path + " -o " + media.file("local/link.bin")), 64);
    EXPECT_TRUE(kivtest::readFile(path) == content) << "the source is untouched";
    const std::string big = media.file("remote/big.bin"), out = media.file("local/big.bin");
    const std::string bigContent = patternBytes(16 << 20, 3), log = media.file("local/log");
    const std::string pidFile = media.file("local/pid"), rcFile = media.file("local/rc");
    kivtest::writeFile(big, bigContent);
    kivtest::runCommand("sh -c '" KIV_BINARY_DIR "/bin/kivctl get --server " + hostPort() + " " + big + " -o " + out +
                        " --chunk 4K >" + log + " 2>&1 & echo $! >" + pidFile + "; wait $!; " + "echo $? >" + rcFile +
                        "' >/dev/null 2>&1 &");
    struct stat st;
    auto started = [&] {
        return stat((out + ".part").c_str(), &st) == 0 && st.st_size > 0 && kivtest::readFile(pidFile) != "";
    };
    ASSERT_TRUE(kivtest::eventually(started)) << kivtest::readFile(log);
    kill(atoi(kivtest::readFile(pidFile).c_str()), SIGTERM);
    kivtest::eventually([&] { return !kivtest::readFile(rcFile).empty(); });
    EXPECT_EQ(atoi(kivtest::readFile(rcFile).c_str()), 128 + SIGTERM);
    EXPECT_THAT(kivtest::readFile(log), HasSubstr("resume with: kivctl get --continue"));
    EXPECT_FALSE(std::filesystem::exists(out)) << "only the part file is left";
    ASSERT_TRUE(std::filesystem::exists(out + ".part"));
    ASSERT_LT(std::filesystem::file_size(out + ".part"), bigContent.size());
    ASSERT_EQ(get(big + " -o " + out + " --continue", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(out) == bigContent);
    EXPECT_FALSE(std::filesystem::exists(out + ".part"));
}

// Failures exit non-zero and leave no file, also when the proxy does not answer.
TEST_F(KivctlGetTest, FailuresExitNonZeroAndLeaveNothing) {
    kivtest::TempDir out("kivout");
    const std::string here = "cd " + out.path() + " && ";
    kivtest::writeFile(media.file("remote/sub/clip.bin"), "other");
    const std::string none = media.file("remote/none.bin"), folder = media.file("remote");
    const std::string x = " -o " + out.file("x"), zip = " -o " + out.file("z.zip");
    const std::tuple<std::string, int, std::string> cases[] = {
        // command, exit status, output
        {"get " + none + x, 1, "no such file"},
        {"get " + folder + x, 1, "no such file"},  // a folder is answered as a missing file
        {"get " + none, 1, "no such file"},
        {"zip " + none + " " + media.file("remote/none2.bin") + zip, 1, "none2.bin: no such file"},
        {"zip " + folder + zip, 1, "no such file"},
        {"zip " + path + " " + media.file("remote/sub/clip.bin") + zip, 64, "both be the entry"},
    };
    for (const auto& [command, exit, says] : cases) {
        SCOPED_TRACE(command);
        std::string output;
        EXPECT_EQ(kivctl(command, &output, here), exit) << output;
        EXPECT_THAT(output, HasSubstr(says));
        EXPECT_TRUE(std::filesystem::is_empty(out.path())) << "a file is left";
    }
    std::string output;
    ASSERT_EQ(stopProxy(), 0);
    EXPECT_EQ(kivctl("get " + path + x, &output, here), 2) << output;
    EXPECT_EQ(kivctl("zip " + path + zip, &output, here), 2) << output;
    EXPECT_TRUE(std::filesystem::is_empty(out.path()));
}

// Answers nobody takes (last in this program: its settings stay): one caller asks for whole 1 GiB files, never grants
// credit and then goes away. The proxy holds each answer's window only, keeps its workers free, refuses that caller's
// answers past its share of maxAnswerBytes with CAB_E_BUSY while another caller still finds room, and frees everything
// after the credit time-out.
const int64_t kMiB = 1024;  // in KiB, as /proc reports

// A raw "GetFile" request of the caller "greedy" for the whole of `path`, answered to `reply`.
natsStatus requestWholeFile(natsConnection* nc, const std::string& path, const std::string& reply) {
    return publish(nc, "cab.VorpaMediaProxy.GetFile.greedy", "Cab-Proto", "1",
                   Cab1Encoding(JsonVariant("[\"" + path + "\"]").get()).str(), reply.c_str());
}

class AbandonedTransferTest : public TransferTest {
protected:
    int maxPayload() const override { return 1 << 20; }  // 1 MiB parts, a window of 8
    void SetUp() override {
        // Two workers: four transfers that held theirs would lock the proxy up.
        ASSERT_TRUE(setting("cabDirectory.maxHandlers", 2));
        ASSERT_TRUE(setting("cabDirectory.creditTimeoutMs", 1500));
        // Half of it for one caller: room for four windows of 8 MiB.
        ASSERT_TRUE(setting("cabDirectory.maxAnswerBytes", 64 << 20));
        TransferTest::SetUp();
    }
};

TEST_F(AbandonedTransferTest, UncreditedAnswersHoldTheirWindowOnlyAndAreFreedAfterTheCreditTimeOut) {
    const std::string path = media.file("huge.sparse");
    kivtest::writeFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), 1ll << 30), 0);  // 1 GiB without blocks on disk
    const int64_t idle = kivtest::statusKiB(proxy.pid(), "VmRSS:");
    ASSERT_GT(idle, 0);
    auto inbox = std::make_unique<kivtest::RawInbox>("nats://" + hostPort(), "_INBOX_greedy.*");
    ASSERT_TRUE(inbox->ok());
    const int kTransfers = 4;
    for (int i = 0; i <= kTransfers; ++i)
        ASSERT_EQ(NATS_OK, requestWholeFile(inbox->nc, path, "_INBOX_greedy." + std::to_string(i)));
    // Each sends its first window and waits for credit that never comes; the fifth is refused.
    std::vector<std::string> creditTo(kTransfers + 1);
    int parts = 0, busy = 0;
    while (parts + busy < kTransfers * 8 + 1) {
        kivtest::Msg m = inbox->next();
        ASSERT_TRUE(m) << "after " << parts << " parts";
        const std::string part = header(m.get(), "Cab-Part");
        EXPECT_TRUE(!part.empty() || header(m.get(), "Cab-Status") == std::to_string(CAB_E_BUSY)) << "a refusal";
        ++(part.empty() ? busy : parts);
        const int index = std::string(natsMsg_GetSubject(m.get())).back() - '0';
        if (part == "0") creditTo[index] = header(m.get(), "Cab-Credit-To");
    }
    EXPECT_EQ(1, busy);
    EXPECT_FALSE(inbox->next(200)) << "a part beyond the window";

    // The workers are free and memory is left: another caller gets 16 MiB while all four wait.
    std::string got;
    ASSERT_EQ(0, getFile(path, "I8", 0, 16 << 20, &got));
    EXPECT_EQ(16u << 20, got.size());

    // Credit for one part lets one more go.
    const std::string credit = creditTo[0].empty() ? creditTo[1] : creditTo[0];
    ASSERT_FALSE(credit.empty());
    publish(inbox->nc, credit, "Cab-Received", "1");
    kivtest::Msg next = inbox->next();
    ASSERT_TRUE(next);
    EXPECT_EQ("8", header(next.get(), "Cab-Part"));
#ifndef KIV_SANITIZED
    const int64_t peak = kivtest::statusKiB(proxy.pid(), "VmHWM:");
    EXPECT_LT(peak - idle, 128 * kMiB) << "idle " << idle << " KiB, peak " << peak << " KiB";
#endif
    // The requester goes away; after the credit time-out every transfer is abandoned.
    inbox.reset();
    for (int i = 0; i <= kTransfers; ++i)
        EXPECT_TRUE(creditTo[i].empty() || waitForLog("_INBOX_greedy." + std::to_string(i) + " abandoned")) << i;
    EXPECT_THAT(proxyLog(), HasSubstr("no credit for 1500 ms"));
#ifndef KIV_SANITIZED
    const int64_t after = kivtest::statusKiB(proxy.pid(), "VmRSS:");
    EXPECT_LT(after - idle, 64 * kMiB) << "idle " << idle << " KiB, after " << after << " KiB";
#endif

    // A file that shrinks while it is sent ends its transfer with an empty part that says why.
    const std::string shrinking = media.file("shrinking.bin");
    kivtest::writeFile(shrinking, std::string(12 << 20, 'x'));
    kivtest::RawInbox shrink("nats://" + hostPort(), "_INBOX_greedy.s");
    ASSERT_EQ(NATS_OK, requestWholeFile(shrink.nc, shrinking, "_INBOX_greedy.s"));
    std::string shrinkCredit;
    for (int i = 0; i < 8; ++i) {
        kivtest::Msg m = shrink.next();
        ASSERT_TRUE(m);
        if (i == 0) shrinkCredit = header(m.get(), "Cab-Credit-To");
    }
    ASSERT_EQ(0, truncate(shrinking.c_str(), 0));
    publish(shrink.nc, shrinkCredit, "Cab-Received", "8");
    kivtest::Msg stop = shrink.next();
    ASSERT_TRUE(stop);
    EXPECT_EQ(header(stop.get(), "Cab-Part") + " " + header(stop.get(), "Cab-Status"), "8 1");
    EXPECT_EQ(0, natsMsg_GetDataLength(stop.get()));
    EXPECT_THAT(header(stop.get(), "Cab-Error"), HasSubstr("shrank"));
}

}  // namespace
