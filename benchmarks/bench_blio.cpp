// Sequential reading through the I/O layer against read(2) and stdio on a 256 MiB file.
// Prints, after the table, each layer result as a ratio of throughput to its baseline.
#include <sova/blio.h>

#include "bestreporter.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int64_t kFileSize = int64_t(256) << 20;
std::string g_dir;
std::string g_file;

bool makeFile()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/bench_blio-XXXXXX";
    if (!mkdtemp(pattern.data()))
        return false;
    g_dir = pattern;
    g_file = g_dir + "/data";
    const int fd = ::open(g_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    std::vector<unsigned char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<unsigned char>(i * 131 + (i >> 9));
    bool ok = true;
    for (int64_t done = 0; ok && done < kFileSize; done += static_cast<int64_t>(block.size()))
        ok = ::write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
    return ::close(fd) == 0 && ok;
}

void removeFile()
{
    if (!g_file.empty())
        ::unlink(g_file.c_str());
    if (!g_dir.empty())
        ::rmdir(g_dir.c_str());
}

void check(benchmark::State& state, int64_t total)
{
    if (total != kFileSize)
        state.SkipWithError("did not read the whole file");
}

void BM_Read(benchmark::State& state)
{
    const size_t block = static_cast<size_t>(state.range(0));
    std::vector<char> buffer(block);
    for (auto _ : state) {
        const int fd = ::open(g_file.c_str(), O_RDONLY | O_CLOEXEC);
        int64_t total = 0;
        ssize_t n;
        while ((n = ::read(fd, buffer.data(), block)) > 0)
            total += n;
        ::close(fd);
        benchmark::DoNotOptimize(buffer.data());
        check(state, total);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

void BM_BlioReadData(benchmark::State& state)
{
    const int64_t block = state.range(0);
    std::vector<char> buffer(static_cast<size_t>(block));
    for (auto _ : state) {
        _HFile* f = BLIO_Open(g_file.c_str(), "r");
        int64_t total = 0;
        int64_t n;
        while ((n = BLIO_ReadData(f, buffer.data(), block)) > 0)
            total += n;
        BLIO_CloseFile(f);
        benchmark::DoNotOptimize(buffer.data());
        check(state, total);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

void BM_Fgetc(benchmark::State& state)
{
    for (auto _ : state) {
        FILE* f = std::fopen(g_file.c_str(), "rb");
        int64_t total = 0;
        unsigned sum = 0;
        int c;
        while ((c = std::fgetc(f)) != EOF) {
            sum += static_cast<unsigned>(c);
            ++total;
        }
        std::fclose(f);
        benchmark::DoNotOptimize(sum);
        check(state, total);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

void BM_BlioReadChar(benchmark::State& state)
{
    for (auto _ : state) {
        _HFile* f = BLIO_Open(g_file.c_str(), "r");
        int64_t total = 0;
        unsigned sum = 0;
        int c;
        while ((c = BLIO_ReadChar(f)) >= 0) {
            sum += static_cast<unsigned>(c);
            ++total;
        }
        BLIO_CloseFile(f);
        benchmark::DoNotOptimize(sum);
        check(state, total);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

BENCHMARK(BM_Read)->Arg(4096)->Arg(65536)->Arg(1 << 20)->UseRealTime()->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_BlioReadData)
    ->Arg(4096)
    ->Arg(65536)
    ->Arg(1 << 20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Fgetc)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlioReadChar)->UseRealTime()->Unit(benchmark::kMillisecond);

void printRatios(const BestTimeReporter& r)
{
    auto ratio = [&](const std::string& layer, const std::string& base) {
        if (const double x = r.timeRatio(base, layer))
            std::printf("%-28s / %-16s throughput ratio %.2f\n", layer.c_str(), base.c_str(), x);
    };
    for (const char* block : {"4096", "65536", "1048576"})
        ratio(std::string("BM_BlioReadData/") + block, std::string("BM_Read/") + block);
    ratio("BM_BlioReadChar/", "BM_Fgetc/");
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!makeFile()) {
        std::perror("bench_blio: cannot create the test file");
        removeFile();
        return 1;
    }
    BestTimeReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printRatios(reporter);
    benchmark::Shutdown();
    removeFile();
    return 0;
}
