// Settings reads through QSovaSetting, and loading a 10 MB ini file through QSovaIniFile against
// QSettings with IniFormat on the same file.
#include <QSovaIniFile>
#include <QSovaSetting>

#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

QTemporaryDir* scratch = nullptr;
QString iniPath;

// About 10 MB: 10000 sections of 50 keys with integers, numbers, texts and booleans.
void makeIniFile()
{
    iniPath = scratch->filePath(QStringLiteral("big.ini"));
    QFile file(iniPath);
    file.open(QIODevice::WriteOnly);
    QByteArray block;
    for (int s = 0; s < 10000; ++s) {
        block = "; section " + QByteArray::number(s) + "\n[section" + QByteArray::number(s)
                + "]\n";
        for (int k = 0; k < 50; ++k) {
            block += "key" + QByteArray::number(k) + " = ";
            switch (k % 4) {
            case 0: block += QByteArray::number(s * 1000 + k); break;
            case 1: block += QByteArray::number(s + k / 7.0, 'g', 12); break;
            case 2: block += "some text value number " + QByteArray::number(k); break;
            default: block += (k & 1) ? "true" : "false"; break;
            }
            block += '\n';
        }
        file.write(block);
    }
}

void qsovaSettingGetInt(benchmark::State& state)
{
    QSovaSetting& settings = QSovaSetting::global();
    settings.change(QStringLiteral("bench.value"), 42);
    const QString key = QStringLiteral("bench.value");
    for (auto _ : state)
        benchmark::DoNotOptimize(settings.getInt(key, 16));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(qsovaSettingGetInt);

void qsovaIniFileLoad(benchmark::State& state)
{
    for (auto _ : state) {
        QSovaIniFile ini(iniPath);
        benchmark::DoNotOptimize(ini.sections().size());
    }
    state.SetBytesProcessed(state.iterations() * QFile(iniPath).size());
}
BENCHMARK(qsovaIniFileLoad)->Unit(benchmark::kMillisecond);

void qsettingsIniLoad(benchmark::State& state)
{
    for (auto _ : state) {
        QSettings settings(iniPath, QSettings::IniFormat);
        benchmark::DoNotOptimize(settings.childGroups().size()); // forces the read
    }
    state.SetBytesProcessed(state.iterations() * QFile(iniPath).size());
}
BENCHMARK(qsettingsIniLoad)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    scratch = &dir;
    makeIniFile();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
