// DatesBench.cpp - user date-time formats of 200,000 characters, against Qt formatting the same text in
// formats of 1,200 characters, as many as it takes: what the length alone should cost.
#include "DatesAndUrls.h"

#include <QDateTime>
#include <QString>
#include <benchmark/benchmark.h>

#include <string>

namespace {

const int kLength = 200000;
const int kShort = 1200;

std::string repeated(const std::string& unit, int length)
{
    std::string text;
    while (static_cast<int>(text.size() + unit.size()) <= length)
        text += unit;
    return text;
}

void ours(benchmark::State& state, const std::string& unit)
{
    const YString format(repeated(unit, kLength).c_str());
    for (auto _ : state)
        benchmark::DoNotOptimize(sp_GetDateUserFormat(format).length());
}

void qtInShortFormats(benchmark::State& state, const std::string& unit)
{
    const QString format = QString::fromStdString(repeated(unit, kShort));
    for (auto _ : state) {
        const QDateTime now = QDateTime::currentDateTime();
        int length = 0;
        for (int done = 0; done < kLength; done += format.size())
            length += now.toString(format).size();
        benchmark::DoNotOptimize(length);
    }
}

// One run of "h": 100,000 hour fields.
void BM_DateFormatOneRun(benchmark::State& state) { ours(state, "h"); }
void BM_DateFormatOneRunQt(benchmark::State& state) { qtInShortFormats(state, "h"); }
// Fields apart: 66,666 of them.
void BM_DateFormatFields(benchmark::State& state) { ours(state, "hh:"); }
void BM_DateFormatFieldsQt(benchmark::State& state) { qtInShortFormats(state, "hh:"); }

} // namespace

BENCHMARK(BM_DateFormatOneRun)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_DateFormatOneRunQt)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_DateFormatFields)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_DateFormatFieldsQt)->Unit(benchmark::kMillisecond)->Iterations(1);
