// Option-string lookups per second: the cases hosts hit on every format or codec query.
#include <sova/blstring.h>

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

// Twenty items; the key asked for is the last one, so every lookup walks the whole text.
std::string twentyItems()
{
    std::string options;
    for (int i = 0; i < 19; ++i)
        options += "key" + std::to_string(i) + "=" + std::to_string(i * 1000) + ",";
    options += "title=\"a quoted, longer text value\",last=44100";
    return options;
}

std::string vectorOf64()
{
    std::string options = "sr=48000,nc=2,gains=[";
    for (int i = 0; i < 64; ++i)
        options += (i ? ", " : "") + std::to_string(i * 0.125);
    return options + "],mode=fast";
}

void integerOfLastKey(benchmark::State& state)
{
    const std::string options = twentyItems();
    for (auto _ : state)
        benchmark::DoNotOptimize(BLSTRING_GetIntegerValueFromString(options.c_str(), "last", 0));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(integerOfLastKey);

void stringValue(benchmark::State& state)
{
    const std::string options = twentyItems();
    char buffer[64];
    for (auto _ : state) {
        const int32_t length = BLSTRING_GetStringLengthFromString(options.c_str(), "title");
        benchmark::DoNotOptimize(
            BLSTRING_GetStringValueFromString(options.c_str(), "title", "", buffer, length));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(stringValue);

void doubleVector64(benchmark::State& state)
{
    const std::string options = vectorOf64();
    std::vector<double> values(64);
    for (auto _ : state) {
        int32_t count = 0;
        BLSTRING_GetVectorSizeFromString(options.c_str(), "gains", &count);
        benchmark::DoNotOptimize(BLSTRING_GetDoubleVectorValuesFromString(
            options.c_str(), "gains", values.data(), count));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(doubleVector64);

} // namespace

BENCHMARK_MAIN();
