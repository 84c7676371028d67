// A 100,000-file folder listed, sorted by size (descending) and read for five
// fields per entry, against `ls -l --sort=size` on the same folder.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "bench/files/BenchData.h"
#include "files/CFileTools.h"

namespace {

const int kFiles = 100000;
std::string g_folder;

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

void BM_EnumerateSortFields(benchmark::State& state) {
    const char* fields[] = {"title", "size", "dateModified", "type", "mediumId"};
    for (auto _ : state) {
        std::vector<CFileTools*> entries;
        CFileTools::EnumerateFolder(g_folder, entries, false, true, true, false, {}, false);
        CFileTools::SortFiles(entries, "size:desc");
        size_t bytes = 0;
        for (CFileTools* e : entries) {
            for (const char* f : fields) bytes += e->getFieldValue(f).size();
            delete e;
        }
        benchmark::DoNotOptimize(bytes);
        state.counters["entries"] = static_cast<double>(entries.size());
    }
}
BENCHMARK(BM_EnumerateSortFields)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

void BM_LsLongSortSize(benchmark::State& state) {
    std::string command = "ls -l --sort=size '" + g_folder + "' > /dev/null";
    for (auto _ : state) runOrDie(command);
}
BENCHMARK(BM_LsLongSortSize)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    BenchFolder folder;
    g_folder = folder.path();
    createFiles(g_folder);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
