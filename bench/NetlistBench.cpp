// NetlistBench.cpp - timings of the netlist readers and text-file loading on generated inputs.
// The inputs come from scripts/benchdata.py; the folder is named by SUPPORTQT_BENCH_DATA.
#include "LibraryStream.h"
#include "NetlistFilter_p.h"
#include "LiteralNetlistStream.h"
#include "NetlistStream.h"
#include "TextFile.h"
#include "TreboltControls.h"
#include "kvstream.h"

#include <QString>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

namespace {

std::string dataFile(const char* name)
{
    const char* folder = std::getenv("SUPPORTQT_BENCH_DATA");
    return std::string(folder ? folder : ".") + "/" + name;
}

bool exists(const std::string& path)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f)
        std::fclose(f);
    return f != nullptr;
}

void readSpice(benchmark::State& state, const char* name)
{
    const std::string path = dataFile(name);
    if (!exists(path)) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    long long lines = 0;
    for (auto _ : state) {
        SpiceStream in(path.c_str(), SpiceLanguageNative);
        YString line;
        int number = 0;
        bool flag = false, nonAscii = false;
        while (in.gets(&line, &number, &flag, &nonAscii)) {
            in.flushBuffer();
            ++lines;
        }
        benchmark::DoNotOptimize(lines);
    }
    state.counters["lines"] = static_cast<double>(lines) / static_cast<double>(state.iterations());
}

void readLiteral(benchmark::State& state, const char* name)
{
    const std::string path = dataFile(name);
    if (!exists(path)) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    long long lines = 0;
    for (auto _ : state) {
        NewSpiceStream in(path.c_str());
        YString line;
        int number = 0;
        while (in.gets(&line, &number)) {
            in.flushLitBuffer();
            ++lines;
        }
        benchmark::DoNotOptimize(lines);
    }
    state.counters["lines"] = static_cast<double>(lines) / static_cast<double>(state.iterations());
}

// The floor of the readers, in two parts. The interface: the logical lines of the file, already split
// in memory, handed one at a time through a virtual gets into the caller's string, as a reader hands
// them. The scan: the file's bytes read through the same stream and scanned run by run with the
// readers' vector kernel, with nothing else done.
class SplitLines : public kvstream {
public:
    explicit SplitLines(const std::vector<std::string>& lines) : m_lines(lines) {}
    virtual bool gets(YString* line, int* lineNumber)
    {
        if (m_next == m_lines.size())
            return false;
        const std::string& text = m_lines[m_next++];
        line->assign(text.data(), static_cast<int>(text.size()));
        *lineNumber = static_cast<int>(m_next);
        return true;
    }

private:
    const std::vector<std::string>& m_lines;
    size_t m_next = 0;
};

// The logical lines of the file as SpiceStream (`literal` false) or NewSpiceStream gives them.
const std::vector<std::string>& logicalLines(const std::string& path, bool literal)
{
    static std::vector<std::string> lines[2];
    std::vector<std::string>& kept = lines[literal ? 1 : 0];
    if (kept.empty()) {
        YString line;
        if (literal) {
            NewSpiceStream in(path.c_str());
            while (in.gets(&line, nullptr)) {
                kept.emplace_back(line.c_str(), static_cast<size_t>(line.length()));
                in.flushLitBuffer();
            }
        } else {
            SpiceStream in(path.c_str(), SpiceLanguageNative);
            while (in.gets(&line, nullptr, nullptr, nullptr)) {
                kept.emplace_back(line.c_str(), static_cast<size_t>(line.length()));
                in.flushBuffer();
            }
        }
    }
    return kept;
}

void interfaceFloor(benchmark::State& state, bool literal)
{
    const std::string path = dataFile("netlist_lf.cir");
    if (!exists(path)) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    const std::vector<std::string>& lines = logicalLines(path, literal);
    long long count = 0;
    for (auto _ : state) {
        SplitLines in(lines);
        kvstream& base = in;
        benchmark::DoNotOptimize(base);
        YString line;
        int number = 0;
        while (in.gets(&line, &number))
            ++count;
        benchmark::DoNotOptimize(count);
    }
    state.counters["lines"] = static_cast<double>(count) / static_cast<double>(state.iterations());
}

void BM_FloorInterfaceLf(benchmark::State& state) { interfaceFloor(state, false); }
void BM_FloorLiteralInterfaceLf(benchmark::State& state) { interfaceFloor(state, true); }

// Scans the file run by run with the kernel and the stop bytes of one reader's line state.
void scanFloor(benchmark::State& state, const netlist::RunStops& stops)
{
    const std::string path = dataFile("netlist_lf.cir");
    if (!exists(path)) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    const netlist::ScanKernels& kernels = netlist::activeKernels();
    long long runs = 0;
    for (auto _ : state) {
        kvfstream in(path.c_str());
        while (in.fill()) {
            const char* p = in.bufferBegin();
            const char* const end = in.bufferEnd();
            while (p < end) {
                p += kernels.skip(p, end, stops, nullptr, nullptr) + 1;
                ++runs;
            }
        }
        benchmark::DoNotOptimize(runs);
    }
    state.counters["runs"] = static_cast<double>(runs) / static_cast<double>(state.iterations());
}

void BM_FloorScanLf(benchmark::State& state) { scanFloor(state, netlist::RunStops{{';', '{', '}'}, true}); }
void BM_FloorLiteralScanLf(benchmark::State& state) { scanFloor(state, netlist::RunStops{{';', ';', ';'}, false}); }

// Names the instruction set of the kernel the readers use here (no time worth reading).
void BM_ScanLevel(benchmark::State& state)
{
    static const char* const kNames[] = {"scalar", "sse2", "avx2", "avx512"};
    for (auto _ : state)
        benchmark::DoNotOptimize(netlist::activeKernels().level);
    state.SetLabel(kNames[static_cast<int>(netlist::activeKernels().level)]);
}

void BM_SpiceStreamLf(benchmark::State& state) { readSpice(state, "netlist_lf.cir"); }
void BM_SpiceStreamCrLf(benchmark::State& state) { readSpice(state, "netlist_crlf.cir"); }
void BM_NewSpiceStreamLf(benchmark::State& state) { readLiteral(state, "netlist_lf.cir"); }
void BM_NewSpiceStreamCrLf(benchmark::State& state) { readLiteral(state, "netlist_crlf.cir"); }
// The LF netlist's lines with their kinds (element, continuation, comment, blank) in a fixed order that
// repeats: what the readers lose to the random order of line kinds, beside the two floors.
void BM_SpiceStreamPatternLf(benchmark::State& state) { readSpice(state, "netlist_pattern.cir"); }
void BM_NewSpiceStreamPatternLf(benchmark::State& state) { readLiteral(state, "netlist_pattern.cir"); }

void BM_LoadFileUtf16(benchmark::State& state)
{
    const std::string path = dataFile("netlist_utf16.cir");
    if (!exists(path)) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    for (auto _ : state) {
        bool ok = false;
        QString text = sp_LoadFile(QString::fromStdString(path), "auto", &ok);
        if (!ok)
            state.SkipWithError("could not load the input");
        benchmark::DoNotOptimize(text.size());
    }
}

// Reads the one definition described by library.loc out of `fileName` (whole file when it is single.lib).
void readDefinition(benchmark::State& state, bool wholeLibrary)
{
    const std::string library = dataFile("library.lib");
    const std::string single = dataFile("single.lib");
    FILE* loc = std::fopen(dataFile("library.loc").c_str(), "r");
    int start = 0, end = 0, lineOffset = 0;
    if (!loc || std::fscanf(loc, "%d %d %d", &start, &end, &lineOffset) != 3) {
        if (loc)
            std::fclose(loc);
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    std::fclose(loc);
    SymbolLoc where;
    where.fileName = (wholeLibrary ? library : single).c_str();
    where.start = wholeLibrary ? start : 0;
    where.end = wholeLibrary ? end : end - start;
    where.lineOffset = wholeLibrary ? lineOffset : 0;
    long long lines = 0;
    for (auto _ : state) {
        LibraryStream in(where, "renamed");
        YString line;
        int number = 0;
        while (in.gets(&line, &number))
            ++lines;
        benchmark::DoNotOptimize(lines);
    }
    state.counters["lines"] = static_cast<double>(lines) / static_cast<double>(state.iterations());
}

// One ".print" statement of 4 MB: 800,000 output names on one line.
const std::string& longPrintLine()
{
    static const std::string text = [] {
        std::string t = ".print tran";
        for (int i = 0; t.size() < 4 * 1024 * 1024; ++i)
            t += " v(n" + std::to_string(i % 100000) + ")";
        return t + "\n";
    }();
    return text;
}

void BM_TreboltLongPrint(benchmark::State& state)
{
    for (auto _ : state) {
        SelectTreboltAnalysisData::RunInfo enabled;
        SelectTreboltAnalysisData::RunInfo present;
        TreboltCommandParseResult result;
        result.enabledFlags = enabled.flags;
        result.presentFlags = present.flags;
        kvfe_ParseTreboltCommands(longPrintLine().c_str(), &result);
        benchmark::DoNotOptimize(result.params.count());
    }
}

// The netlist stream reading the same line: what parsing it cannot be much faster than.
void BM_SpiceStreamLongPrint(benchmark::State& state)
{
    for (auto _ : state) {
        kvstrstream source(longPrintLine().data(), longPrintLine().size());
        SpiceStream in(source);
        YString line;
        while (in.gets(&line, nullptr, nullptr, nullptr))
            in.flushBuffer();
        benchmark::DoNotOptimize(line.length());
    }
}

// 100 MB of netlist text as one logical line, or as ten lines of 10 MB: a reader's buffers must grow
// in amortised linear time, so that the one long line costs no more than the ten shorter ones.
const std::string& longLines(int count)
{
    static std::string texts[2];
    std::string& text = texts[count == 1 ? 0 : 1];
    if (text.empty()) {
        const size_t lineLength = 100u * 1000 * 1000 / static_cast<size_t>(count);
        for (int l = 0; l < count; ++l) {
            std::string line = "R" + std::to_string(l);
            while (line.size() < lineLength)
                line += " n" + std::to_string(line.size() % 9973);
            text += line + "\n";
        }
    }
    return text;
}

template <class Stream>
void readLongLines(benchmark::State& state, int count)
{
    const std::string& text = longLines(count);
    for (auto _ : state) {
        kvstrstream source(text.data(), text.size());
        Stream in(source);
        YString line;
        int number = 0;
        long long bytes = 0;
        for (;;) {
            if constexpr (std::is_same<Stream, SpiceStream>::value) {
                if (!in.gets(&line, &number, nullptr, nullptr))
                    break;
                in.flushBuffer();
            } else {
                if (!in.gets(&line, &number))
                    break;
                in.flushLitBuffer();
            }
            bytes += line.length();
        }
        benchmark::DoNotOptimize(bytes);
    }
}

// The copies alone: each line copied into three buffers that grow by doubling and serve every line of
// the text, as a reader's line buffer, its record of the text and the caller's string do.
void copyLongLines(benchmark::State& state, int count)
{
    const std::string& text = longLines(count);
    for (auto _ : state) {
        std::vector<char> copies[3];
        long long bytes = 0;
        for (size_t at = 0; at < text.size();) {
            const size_t end = text.find('\n', at);
            const size_t length = end - at;
            for (std::vector<char>& copy : copies) {
                size_t room = std::max<size_t>(copy.capacity(), 64);
                while (room < length)
                    room *= 2;
                copy.reserve(room);
                copy.assign(text.data() + at, text.data() + end);
                bytes += copy[length / 2];
            }
            at = end + 1;
        }
        benchmark::DoNotOptimize(bytes);
    }
}

void BM_CopyFloorOneLine100MB(benchmark::State& state) { copyLongLines(state, 1); }
void BM_CopyFloorTenLines10MB(benchmark::State& state) { copyLongLines(state, 10); }
void BM_SpiceStreamOneLine100MB(benchmark::State& state) { readLongLines<SpiceStream>(state, 1); }
void BM_SpiceStreamTenLines10MB(benchmark::State& state) { readLongLines<SpiceStream>(state, 10); }
void BM_NewSpiceStreamOneLine100MB(benchmark::State& state) { readLongLines<NewSpiceStream>(state, 1); }
void BM_NewSpiceStreamTenLines10MB(benchmark::State& state) { readLongLines<NewSpiceStream>(state, 10); }

void BM_LibraryStreamInLibrary(benchmark::State& state) { readDefinition(state, true); }
void BM_LibraryStreamAlone(benchmark::State& state) { readDefinition(state, false); }

} // namespace

BENCHMARK(BM_SpiceStreamLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_SpiceStreamCrLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_NewSpiceStreamLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_NewSpiceStreamCrLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_SpiceStreamPatternLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_NewSpiceStreamPatternLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_FloorInterfaceLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_FloorLiteralInterfaceLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_FloorScanLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_FloorLiteralScanLf)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_ScanLevel)->Iterations(1);
BENCHMARK(BM_LoadFileUtf16)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_LibraryStreamInLibrary)->Unit(benchmark::kMicrosecond)->MinTime(0.3);
BENCHMARK(BM_LibraryStreamAlone)->Unit(benchmark::kMicrosecond)->MinTime(0.3);
BENCHMARK(BM_SpiceStreamOneLine100MB)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_SpiceStreamTenLines10MB)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_NewSpiceStreamOneLine100MB)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_NewSpiceStreamTenLines10MB)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_CopyFloorOneLine100MB)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_CopyFloorTenLines10MB)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_TreboltLongPrint)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_SpiceStreamLongPrint)->Unit(benchmark::kMillisecond)->MinTime(0.5);
