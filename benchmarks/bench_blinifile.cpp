// Loading a 10 MB ini file (4000 sections of 60 keys of every value type, with comments), and
// saving it back. Throughput in bytes per second of the file.
#include <sova/blinifile.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace {

constexpr int kSections = 4000;
constexpr int kKeys = 60;
std::string g_dir;
std::string g_file;
std::string g_copy;
int64_t g_size = 0;

bool makeFile()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/bench_blinifile-XXXXXX";
    if (!mkdtemp(pattern.data()))
        return false;
    g_dir = pattern;
    g_file = g_dir + "/big.ini";
    g_copy = g_dir + "/copy.ini";
    static const char* const values[] = {
        "",
        "some plain text with several words in it, long enough to be realistic here",
        "\"quoted \\\"text\\\" with escapes\\n\"",
        "-1234567",
        "3.14159265358979",
        "6.02214076e23",
        "75%",
        "-6.5 dB",
        "250ms",
        "44.1kHz",
        "true",
        "-inf",
        "0x7FFFFFFF",
    };
    std::string text;
    text.reserve(12 << 20);
    text += "; generated for the benchmark\n";
    for (int s = 0; s < kSections; ++s) {
        text += "\n; section " + std::to_string(s) + ": a comment line describing what it holds\n";
        text += "[Section" + std::to_string(s) + "]\n";
        for (int k = 0; k < kKeys; ++k) {
            if (k % 10 == 9)
                text += "# a comment between keys, as people write them in hand-edited files\n";
            text += "key_" + std::to_string(k) + (k % 3 ? " = " : "=");
            text += values[(s + k) % 13];
            text += k % 4 ? "\n" : "   ; not a comment: part of the value\n";
        }
    }
    FILE* file = std::fopen(g_file.c_str(), "wb");
    if (!file)
        return false;
    const bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    g_size = static_cast<int64_t>(text.size());
    return std::fclose(file) == 0 && ok;
}

void BM_Open(benchmark::State& state)
{
    for (auto _ : state) {
        BLINIFILE* ini = BLINIFILE_Open(g_file.c_str());
        if (!ini) {
            state.SkipWithError("open failed");
            return;
        }
        benchmark::DoNotOptimize(ini);
        BLINIFILE_Close(ini);
    }
    state.SetBytesProcessed(state.iterations() * g_size);
    state.counters["file_MB"] = static_cast<double>(g_size) / 1e6;
}

void BM_OpenReadAll(benchmark::State& state)
{
    for (auto _ : state) {
        BLINIFILE* ini = BLINIFILE_Open(g_file.c_str());
        double sum = 0;
        for (int s = 0; s < kSections; s += 7) {
            const std::string section = "section" + std::to_string(s);
            for (int k = 0; k < kKeys; ++k) {
                const std::string key = "KEY_" + std::to_string(k);
                sum += BLINIFILE_ReadFloatValue(ini, section.c_str(), key.c_str(), 0.0);
            }
        }
        benchmark::DoNotOptimize(sum);
        BLINIFILE_Close(ini);
    }
    state.SetBytesProcessed(state.iterations() * g_size);
}

void BM_Save(benchmark::State& state)
{
    BLINIFILE* ini = BLINIFILE_Open(g_file.c_str());
    for (auto _ : state) {
        if (!BLINIFILE_Save(ini, g_copy.c_str())) {
            state.SkipWithError("save failed");
            break;
        }
    }
    BLINIFILE_Close(ini);
    state.SetBytesProcessed(state.iterations() * g_size);
}

} // namespace

BENCHMARK(BM_Open)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenReadAll)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Save)->UseRealTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const bool made = makeFile();
    if (made)
        benchmark::RunSpecifiedBenchmarks();
    else
        std::fprintf(stderr, "cannot write the ini file for the benchmark\n");
    std::remove(g_file.c_str());
    std::remove(g_copy.c_str());
    if (!g_dir.empty())
        rmdir(g_dir.c_str());
    return made ? 0 : 1;
}
