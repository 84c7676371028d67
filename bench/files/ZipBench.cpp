// createZip over 200 MiB of files, stored and deflated, against Debian's
// `zip -0` and `zip -9` on the same files (flat names, no extra fields).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "archive/CMyPathTree.h"
#include "bench/files/BenchData.h"

namespace {

const int kFiles = 20;
const size_t kFileSize = 10 << 20;  // 20 x 10 MiB = 200 MiB
std::string g_folder;
std::vector<std::string> g_files;

// Text-like data: random picks from a vocabulary of 1,024 made-up words,
// with numbers and line breaks. It compresses to about a third.
void createFiles() {
    std::mt19937 rng(42);
    std::vector<std::string> words;
    for (int w = 0; w < 1024; ++w) {
        std::string word;
        for (unsigned n = 2 + rng() % 8; n > 0; --n) word += static_cast<char>('a' + rng() % 26);
        words.push_back(word);
    }
    for (int i = 0; i < kFiles; ++i) {
        std::string data;
        data.reserve(kFileSize + 32);
        while (data.size() < kFileSize) {
            unsigned r = rng();
            data += words[r % 1024];
            data += (r >> 10) % 11 == 0 ? '\n' : ' ';
            if ((r >> 14) % 7 == 0) data += std::to_string((r >> 17) % 1000);
        }
        data.resize(kFileSize);
        std::string path = g_folder + "/part" + std::to_string(i) + ".txt";
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) exit(2);
        close(fd);
        g_files.push_back(path);
    }
}

void removeZip(const std::string& zip) {
    boost::system::error_code ec;
    boost::filesystem::remove(zip, ec);
}

void createZip(benchmark::State& state, bool store) {
    std::string zip = g_folder + "/out/ours.zip";
    for (auto _ : state) {
        CMyPathTree tree;
        for (const std::string& f : g_files) tree.AddFile(f);
        tree.createZip(zip.c_str(), store);
        state.PauseTiming();
        state.counters["zipMiB"] = static_cast<double>(boost::filesystem::file_size(zip)) / (1 << 20);
        removeZip(zip);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFiles * static_cast<int64_t>(kFileSize));
}

void infoZip(benchmark::State& state, const char* level) {
    std::string zip = g_folder + "/out/infozip.zip";
    std::string command = std::string("zip -q -X -j ") + level + " '" + zip + "'";
    for (const std::string& f : g_files) command += " '" + f + "'";
    for (auto _ : state) {
        runOrDie(command);
        state.PauseTiming();
        state.counters["zipMiB"] = static_cast<double>(boost::filesystem::file_size(zip)) / (1 << 20);
        removeZip(zip);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFiles * static_cast<int64_t>(kFileSize));
}

void BM_CreateZipStored(benchmark::State& state) { createZip(state, true); }
void BM_ZipMinus0(benchmark::State& state) { infoZip(state, "-0"); }
void BM_CreateZipDeflated(benchmark::State& state) { createZip(state, false); }
void BM_ZipMinus9(benchmark::State& state) { infoZip(state, "-9"); }

BENCHMARK(BM_CreateZipStored)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ZipMinus0)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_CreateZipDeflated)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_ZipMinus9)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    BenchFolder folder;
    g_folder = folder.path();
    boost::filesystem::create_directory(g_folder + "/out");
    createFiles();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
