// A 100,000-file folder listed, sorted by size (descending) and read for five
// fields per entry, against `ls -l --sort=size` on the same folder; and the
// two alternately (at least 14 pairs, KIV_BENCH_PAIRS) with the median, min
// and max of the time ratios (bench/files/PairedRuns.h).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench/files/BenchData.h"
#include "bench/files/PairedRuns.h"
#include "files/CFileTools.h"

namespace {

const int kFiles = 100000;
std::string g_folder;
int g_pairs = 14;

void createFiles(const std::string& folder) {
    std::string block(4096, 'x');
    for (int i = 0; i < kFiles; ++i) {
        std::string name = folder + "/file" + std::to_string(i) + (i % 2 ? ".mp3" : ".jpg");
        int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) exit(2);
        size_t size = static_cast<size_t>((i * 7919) % 4096);
        if (write(fd, block.data(), size) != static_cast<ssize_t>(size)) exit(2);
        close(fd);
    }
}

// Lists, sorts and reads the fields once; the number of entries.
size_t listSortFields() {
    const char* fields[] = {"title", "size", "dateModified", "type", "mediumId"};
    std::vector<CFileTools*> entries;
    CFileTools::EnumerateFolder(g_folder, entries, false, true, true, false, {}, false);
    CFileTools::SortFiles(entries, "size:desc");
    size_t bytes = 0;
    for (CFileTools* e : entries) {
        for (const char* f : fields) bytes += e->getFieldValue(f).size();
        delete e;
    }
    benchmark::DoNotOptimize(bytes);
    return entries.size();
}

void BM_EnumerateSortFields(benchmark::State& state) {
    for (auto _ : state) state.counters["entries"] = static_cast<double>(listSortFields());
}
BENCHMARK(BM_EnumerateSortFields)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

void BM_LsLongSortSize(benchmark::State& state) {
    std::string command = "ls -l --sort=size '" + g_folder + "' > /dev/null";
    for (auto _ : state) runOrDie(command);
}
BENCHMARK(BM_LsLongSortSize)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

void BM_PairedListingVsLs(benchmark::State& state) {
    std::string command = "ls -l --sort=size '" + g_folder + "' > /dev/null";
    for (auto _ : state) {
        paired::Times t;
        if (!paired::run(
                state, g_pairs, [&] { return system(command.c_str()) == 0; },
                [] { return listSortFields() == (size_t)kFiles; }, &t))
            return;
        paired::report(state, t, "listing_over_ls", false, "ls", "listing", "ms", 1e3);
    }
}
BENCHMARK(BM_PairedListingVsLs)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (const char* pairs = getenv("KIV_BENCH_PAIRS")) g_pairs = std::max(7, atoi(pairs));
    BenchFolder folder;
    g_folder = folder.path();
    createFiles(g_folder);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
