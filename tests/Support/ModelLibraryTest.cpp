// ModelLibraryTest.cpp - the model-library index on hand-written libraries and on the shared corpus:
// ranges that read back whole through LibraryStream, sections, resolution across files, checks,
// comparison and extraction.
#include "ModelLibrary.h"
#include "ModelLibraryKernels_p.h"
#include "NetlistStream.h"
#include "TestHelpers.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>
#include <QTextCodec>

#ifdef Q_OS_WIN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// (The system's header names these, which this file uses as names.)
#undef far
#undef near
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <random>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

struct Def {
    std::string kind;
    std::string name;
    int start;
    int end;
    int line;
    int lastLine;
    bool operator==(const Def& o) const
    {
        return kind == o.kind && name == o.name && start == o.start && end == o.end && line == o.line && lastLine == o.lastLine;
    }
};

void PrintTo(const Def& d, std::ostream* os)
{
    *os << d.kind << " " << d.name << " [" << d.start << ", " << d.end << ") lines " << d.line << "-" << d.lastLine;
}

ModelLibIndex indexText(const std::string& text, SpiceLanguage language = SpiceLanguageNative)
{
    ModelLibIndex index;
    sp_IndexModelLibraryText(text.data(), text.size(), YString("mem.lib"), language, &index);
    return index;
}

std::vector<Def> defs(const ModelLibIndex& index)
{
    std::vector<Def> out;
    for (const ModelLibDefinition& d : index.definitions)
        out.push_back({d.kind == ModelLibDefinition::Subckt ? ".subckt" : ".model", std::string(index.name(d)), d.start, d.end,
                       d.line, d.lastLine});
    return out;
}

// Everything an index holds but the subcircuits' instances and uses, as text.
std::string outline(const ModelLibIndex& index)
{
    std::string out = std::to_string(index.size) + " " + std::to_string(index.lines) + "\n";
    for (const ModelLibDefinition& d : index.definitions) {
        out += std::to_string(d.kind) + " " + std::string(index.name(d)) + " " + std::string(index.type(d)) + " " +
               std::string(index.akoBase(d)) + " " + std::to_string(d.start) + " " + std::to_string(d.end) + " " +
               std::to_string(d.line) + " " + std::to_string(d.lastLine) + " " + std::to_string(d.section) + " " +
               std::to_string(d.parent);
        for (std::string_view p : index.ports(d))
            out += " " + std::string(p);
        out += "\n";
    }
    for (const ModelLibSection& s : index.sections)
        out += std::string(s.name.c_str()) + " " + std::to_string(s.start) + " " + std::to_string(s.end) + " " +
               std::to_string(s.definitions.size()) + " " + std::to_string(s.references.size()) + "\n";
    for (const ModelLibReference& r : index.references)
        out += std::string(r.path.c_str()) + " " + r.section.c_str() + "\n";
    for (const ModelLibDiagnostic& d : index.diagnostics)
        out += std::to_string(d.line) + " " + d.message.c_str() + "\n";
    return out;
}

std::vector<std::string> messages(const ModelLibIndex& index)
{
    std::vector<std::string> out;
    for (const ModelLibDiagnostic& d : index.diagnostics)
        out.push_back(std::to_string(d.line) + ": " + d.message.c_str());
    return out;
}

// The logical lines SpiceStream gives for a whole file, with the physical line each starts on.
std::vector<std::pair<int, std::string>> spiceLines(const std::string& file, SpiceLanguage language)
{
    std::vector<std::pair<int, std::string>> lines;
    SpiceStream s(file.c_str(), language);
    YString line;
    int number = 0;
    while (s.gets(&line, &number, nullptr, nullptr)) {
        lines.push_back({number, line.c_str()});
        s.flushBuffer();
    }
    return lines;
}

// SpiceStream hands brace expressions to its evaluation hook, which turns inner braces into parentheses;
// LibraryStream keeps the text as it is. The same rule applied to LibraryStream's lines makes them
// comparable.
std::string innerBracesAsParentheses(const std::string& line)
{
    std::string out;
    int depth = 0;
    for (char c : line) {
        if (c == '{') {
            out.push_back(depth++ == 0 ? '{' : '(');
        } else if (c == '}' && depth > 0) {
            out.push_back(--depth == 0 ? '}' : ')');
        } else {
            out.push_back(c);
        }
    }
    return out;
}

// Checks that every definition of the file reads back through LibraryStream to the logical lines that
// SpiceStream gives for its stretch of the whole file (LibraryStream's own comment lines left out).
// Returns the number of definitions checked.
int checkReadBack(const std::string& file, const ModelLibIndex& index, SpiceLanguage language)
{
    const std::vector<std::pair<int, std::string>> whole = spiceLines(file, language);
    int checked = 0;
    for (const ModelLibDefinition& d : index.definitions) {
        std::vector<std::string> expected;
        auto l = std::lower_bound(whole.begin(), whole.end(), d.line,
                                  [](const std::pair<int, std::string>& x, int line) { return x.first < line; });
        for (; l != whole.end() && l->first <= d.lastLine; ++l)
            expected.push_back(l->second);
        std::vector<std::string> got;
        for (const YString& line : sp_ReadModelDefinition(index, d, YString()))
            if (line.at(0) != '*')
                got.push_back(innerBracesAsParentheses(line.c_str()));
        EXPECT_EQ(got, expected) << file << ":" << d.line << " " << index.name(d);
        if (got != expected)
            return checked;
        ++checked;
    }
    return checked;
}

// Whether the first line after `end` that is neither blank nor a comment line begins with "+", which
// would make it an orphan continuation of a definition cut short there.
bool orphanContinuationAfter(const std::string& bytes, size_t end, char commentChar)
{
    size_t i = end;
    while (i < bytes.size()) {
        size_t e = i;
        while (e < bytes.size() && bytes[e] != '\n' && bytes[e] != '\r')
            ++e;
        size_t s = i;
        while (s < e && (bytes[s] == ' ' || bytes[s] == '\t'))
            ++s;
        if (s < e && bytes[s] != '*' && bytes[s] != commentChar)
            return bytes[s] == '+';
        i = e < bytes.size() && bytes[e] == '\r' && e + 1 < bytes.size() && bytes[e + 1] == '\n' ? e + 2 : e + 1;
    }
    return false;
}

std::vector<std::string> corpusLibraries()
{
    std::vector<std::string> files;
    for (const QString& sub : {QStringLiteral("/netlists"), QStringLiteral("/kits")}) {
        QDirIterator it(corpusDir() + sub, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString file = it.next();
            const QString name = QFileInfo(file).fileName();
            if (!name.endsWith(QLatin1String(".tsv")) && !name.startsWith(QLatin1Char('.')) && name != QLatin1String("LICENSE"))
                files.push_back(file.toStdString());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

TEST(ModelLibraryIndex, ModelRunsOverContinuationsAcrossCommentAndBlankLines)
{
    const std::string text = "* lib\n.model D1 D(IS=1n\n* comment\n\n  ; semicolon line\n  + RS=1\n+ N=2)\n* trailing\nR1 a b 1\n";
    const ModelLibIndex index = indexText(text);
    ASSERT_EQ(defs(index), (std::vector<Def>{{".model", "D1", 6, 70, 2, 7}}));
    EXPECT_EQ(text.substr(70, 10), "* trailing");
    EXPECT_EQ(index.type(index.definitions[0]), "D");
    EXPECT_EQ(index.location(index.definitions[0]).lineOffset, 1);
}

// Continuation lines that come after more comment text than the scan's window holds: the statements
// are whole, with their words from every line and their ranges from their first line to their last.
TEST(ModelLibraryIndex, ContinuationsFarBehindLongCommentBlocksJoinTheirStatements)
{
    // 1.25 MB of comments in 20,000 lines, five times what the window holds.
    const int n = 20000;
    std::string comments;
    for (int i = 0; i < n; ++i)
        comments += "* " + std::string(61, 'c') + "\n";
    const std::string text = ".model m1\n" + comments + "+ nmos\n" + comments + "+ vth0=1 ; note\n.subckt s a b\n" + comments +
                             "+ c\nX1 a b s2\n.ends\n.model m2 pmos\n";
    const int subckt = static_cast<int>(text.find(".subckt")), m2 = static_cast<int>(text.find(".model m2"));
    ASSERT_EQ(subckt, 2560033);
    const ModelLibIndex index = indexText(text);
    ASSERT_EQ(defs(index), (std::vector<Def>{{".model", "m1", 0, subckt, 1, 2 * n + 3},
                                             {".subckt", "s", subckt, m2, 2 * n + 4, 3 * n + 7},
                                             {".model", "m2", m2, m2 + 15, 3 * n + 8, 3 * n + 8}}));
    EXPECT_EQ(index.type(index.definitions[0]), "nmos");
    const ModelLibWordList ports = index.ports(index.definitions[1]);
    EXPECT_EQ(std::vector<std::string>(ports.begin(), ports.end()), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(index.type(index.definitions[2]), "pmos");
    EXPECT_TRUE(index.diagnostics.empty());
    // Read in parts, from the lines that open a definition, it is the same index.
    EnvGuard parts("SUPPORTQT_INDEX_PARTS", "3");
    EXPECT_EQ(outline(indexText(text)), outline(index));
}

TEST(ModelLibraryIndex, SubcircuitRunsThroughItsEndsAndNestedModelsBelongToIt)
{
    const std::string text = ".SUBCKT amp in out params: g=1\n.model qn npn\nX1 in mid buf\nQ1 out mid 0 qn\n.ENDS amp\n.model q npn\n";
    const ModelLibIndex index = indexText(text);
    EXPECT_EQ(defs(index), (std::vector<Def>{{".subckt", "amp", 0, 85, 1, 5}, {".model", "qn", 31, 45, 2, 2}, {".model", "q", 85, 98, 6, 6}}));
    EXPECT_EQ(index.definitions[0].parent, -1);
    EXPECT_EQ(index.definitions[1].parent, 0);
    EXPECT_EQ(index.definitions[2].parent, -1);
    ASSERT_EQ(index.ports(index.definitions[0]).size(), 2u);
    EXPECT_EQ(index.ports(index.definitions[0])[1], "out");
    ASSERT_EQ(index.instances(index.definitions[0]).size(), 1u);
    EXPECT_EQ(index.instances(index.definitions[0])[0], "buf");
    const ModelLibWordList uses = index.uses(index.definitions[0]);
    EXPECT_NE(std::find(uses.begin(), uses.end(), "qn"), uses.end());
}

TEST(ModelLibraryIndex, CrLfLoneCrControlBytesAndTheEndByte)
{
    EXPECT_EQ(defs(indexText(".model a d\r\n\r\n+ is=1\r\n.model b d")),
              (std::vector<Def>{{".model", "a", 0, 22, 1, 3}, {".model", "b", 22, 32, 4, 4}}));
    EXPECT_EQ(defs(indexText(".model a d\r+ is=1\r.model b d\r")),
              (std::vector<Def>{{".model", "a", 0, 18, 1, 2}, {".model", "b", 18, 29, 3, 3}}));
    // Dropped bytes are invisible, a byte 0xFF ends the text.
    const ModelLibIndex index = indexText(std::string(".model a\x01 d\n\x02+ is=1\n.model b d\n\xFF.model c d\n"));
    EXPECT_EQ(defs(index), (std::vector<Def>{{".model", "a", 0, 20, 1, 2}, {".model", "b", 20, 31, 3, 3}}));
    EXPECT_EQ(index.type(index.definitions[0]), "d");
    EXPECT_EQ(index.size, 31);
}

// A UTF-8 byte-order mark before the first line does not hide its keyword; one anywhere else is text.
TEST(ModelLibraryIndex, AByteOrderMarkBeforeTheFirstLineIsPassedOver)
{
    const ModelLibIndex index = indexText("\xEF\xBB\xBF.model n1 nmos level=1\n.model p1 pmos\n");
    EXPECT_EQ(defs(index), (std::vector<Def>{{".model", "n1", 3, 26, 1, 1}, {".model", "p1", 26, 41, 2, 2}}));
    EXPECT_EQ(index.type(index.definitions[0]), "nmos");
    EXPECT_EQ(index.lines, 2);
    EXPECT_EQ(defs(indexText("\xEF\xBB\xBF.subckt s a\n.ends\n")), (std::vector<Def>{{".subckt", "s", 3, 21, 1, 2}}));
    EXPECT_EQ(defs(indexText(".model n1 nmos\n\xEF\xBB\xBF.model p1 pmos\n")), (std::vector<Def>{{".model", "n1", 0, 15, 1, 1}}));
    EXPECT_TRUE(defs(indexText("\xEF\xBB")).empty());
    // Read in parts, the first part passes it over as one pass does.
    EnvGuard parts("SUPPORTQT_INDEX_PARTS", "3");
    std::string big = "\xEF\xBB\xBF.model first d\n";
    while (big.size() < (std::size_t(17) << 20))
        big += ".model m" + std::to_string(big.size()) + " d\n";
    const ModelLibIndex inParts = indexText(big);
    ASSERT_FALSE(inParts.definitions.empty());
    EXPECT_EQ(inParts.name(inParts.definitions[0]), "first");
    EXPECT_EQ(inParts.definitions[0].start, 3);
}

// A keyword with bytes the readers drop is the keyword they read: the definitions and the end of a
// subcircuit are found as "supportqt netlist" shows the lines.
TEST(ModelLibraryIndex, DroppedBytesInsideAKeyword)
{
    const std::string text = std::string(".mode\x0bl d1 D\n.model d2 D\n.sub\x01" "ckt s1 a b\n.en\x02" "ds\n.model d\x01x nmos\n");
    const ModelLibIndex index = indexText(text);
    EXPECT_EQ(defs(index), (std::vector<Def>{{".model", "d1", 0, 13, 1, 1},
                                             {".model", "d2", 13, 25, 2, 2},
                                             {".subckt", "s1", 25, 48, 3, 4},
                                             {".model", "dx", 48, 64, 5, 5}}));
    EXPECT_EQ(index.type(index.definitions[0]), "D");
    EXPECT_EQ(index.definitions[3].parent, -1);
}

TEST(ModelLibraryIndex, HspiceDollarCommentsAndTheDialectDirective)
{
    const std::string text = ".model a nmos $ note\n$ comment line\n+ vth0=1\n.model b pmos\n";
    EXPECT_EQ(defs(indexText(text, SpiceLanguageHspice)),
              (std::vector<Def>{{".model", "a", 0, 45, 1, 3}, {".model", "b", 45, 59, 4, 4}}));
    // In the native dialect "$" is text: the "$" line is a statement and the "+" continues it.
    EXPECT_EQ(defs(indexText(text)), (std::vector<Def>{{".model", "a", 0, 21, 1, 1}, {".model", "b", 45, 59, 4, 4}}));
    const ModelLibIndex directed = indexText("*#HSPICE\n" + text);
    EXPECT_EQ(directed.language, SpiceLanguageHspice);
    EXPECT_EQ(directed.definitions[0].lastLine, 4);
    // A directive's keyword past its first 198 characters is not read, as SpiceStream does not read it.
    for (const int blanks : {192, 193}) {
        const std::string far = "*#" + std::string(static_cast<size_t>(blanks), ' ') + "hspice\n" + text;
        const SpiceLanguage expected = blanks == 192 ? SpiceLanguageHspice : SpiceLanguageNative;
        EXPECT_EQ(indexText(far).language, expected) << blanks;
        kvstrstream source(far.data(), far.size());
        SpiceStream reader(source);
        YString line;
        ASSERT_TRUE(reader.gets(&line, nullptr, nullptr, nullptr));
        EXPECT_EQ(reader.getLanguage(), expected) << blanks;
    }
}

TEST(ModelLibraryIndex, SectionsReferencesParamsAndAko)
{
    const std::string text = ".param top=1\n.lib tt\n.param a=1 b = {2*a}\n.include 'models/x.spice'\n.lib \"other.lib\" ss\n"
                             ".model n1 nmos\n.model n2 AKO: n1 nmos vth0=2\n.model n3 AKO:n2\n.endl tt\n.lib ff\n.endl\n";
    const ModelLibIndex index = indexText(text);
    ASSERT_EQ(index.sections.size(), 2u);
    const ModelLibSection& tt = index.sections[0];
    EXPECT_EQ(tt.name, "tt");
    EXPECT_EQ(tt.line, 2);
    EXPECT_EQ(tt.endLine, 9);
    EXPECT_TRUE(tt.closed);
    EXPECT_EQ(tt.start, 13);
    EXPECT_EQ(text.substr(static_cast<size_t>(tt.end), 7), ".lib ff");
    EXPECT_EQ(tt.definitions, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(tt.references, (std::vector<int>{0, 1}));
    EXPECT_EQ(tt.params, (std::vector<YString>{"a", "b"}));
    EXPECT_EQ(index.params, (std::vector<YString>{"top"}));
    ASSERT_EQ(index.references.size(), 2u);
    EXPECT_EQ(index.references[0].kind, ModelLibReference::Include);
    EXPECT_EQ(index.references[0].target, "models/x.spice");
    EXPECT_EQ(index.references[1].kind, ModelLibReference::LibSection);
    EXPECT_EQ(index.references[1].target, "other.lib");
    EXPECT_EQ(index.references[1].section, "ss");
    EXPECT_EQ(index.akoBase(index.definitions[1]), "n1");
    EXPECT_EQ(index.type(index.definitions[1]), "nmos");
    EXPECT_EQ(index.akoBase(index.definitions[2]), "n2");
    EXPECT_EQ(index.type(index.definitions[2]), "");
    EXPECT_EQ(index.sections[1].name, "ff");
    EXPECT_TRUE(index.diagnostics.empty());
}

TEST(ModelLibraryIndex, BadStructureGetsDiagnosticsAndNoCrash)
{
    const ModelLibIndex index = indexText(".ends\n.endl\n.lib\n.include\n.model\n.lib a\n.subckt s1 x\nR1 x 0 1\n");
    EXPECT_EQ(messages(index), (std::vector<std::string>{"1: .ends without a .subckt", "2: .endl without a .lib",
                                                          "3: .lib without a section name or file", "4: .include without a file",
                                                          "5: .model without a name", "7: subcircuit s1 is not closed by .ends",
                                                          "6: section a is not closed by .endl"}));
    ASSERT_EQ(index.definitions.size(), 1u);
    EXPECT_EQ(index.definitions[0].end, static_cast<int>(index.size));
    EXPECT_EQ(index.sections[0].end, static_cast<int>(index.size));
    EXPECT_TRUE(indexText("").definitions.empty());
    EXPECT_TRUE(indexText(std::string(1000, '\n')).definitions.empty());
    EXPECT_EQ(indexText("+ orphan\n.model m d\n").definitions[0].line, 2);
}

TEST(ModelLibraryIndex, OddNamesAreKeptAsWritten)
{
    const ModelLibIndex index = indexText(".model m-1.5/x\xc3\xa9 d\n.subckt {odd}[1] a\n.ends\n");
    ASSERT_EQ(index.definitions.size(), 2u);
    EXPECT_EQ(index.name(index.definitions[0]), "m-1.5/x\xc3\xa9");
    EXPECT_EQ(index.name(index.definitions[1]), "{odd}[1]");
}

bool operator==(const modellib::WordMasks& a, const modellib::WordMasks& b)
{
    return a.delimiters == b.delimiters && a.blanks == b.blanks && a.equals == b.equals && a.stops == b.stops && a.digits == b.digits;
}

// The word masks of the first `chunks` times 16 bytes only: the vector kernels may look further.
modellib::WordMasks firstBytes(modellib::WordMasks m, int chunks)
{
    const uint64_t keep = chunks >= 4 ? ~0ull : (1ull << (16 * chunks)) - 1;
    return {m.delimiters & keep, m.blanks & keep, m.equals & keep, m.stops & keep, m.digits & keep};
}

TEST(ModelLibraryKernels, VectorKernelsAgreeWithThePortableLoops)
{
    // Blocks of bytes the index meets (separators, blanks, digits, comment characters, line ends, the
    // bytes the filter drops, 0xFF, non-ASCII bytes) and bytes of every value.
    const char bytes[] = " \t=(),;$*+.09aZ_\r\n\x01\x0B\x1F\x7F\x80\xFE\xFF";
    const std::string alphabet(bytes, sizeof bytes - 1);
    std::mt19937 rng(11);
    for (int round = 0; round < 20000; ++round) {
        char a[128], b[128];
        for (int i = 0; i < 128; ++i) {
            a[i] = round % 4 == 0 ? static_cast<char>(rng()) : alphabet[rng() % alphabet.size()];
            b[i] = rng() % 8 == 0 ? alphabet[rng() % alphabet.size()] : a[i];
        }
        const char stop = round % 2 ? ';' : '$';
        const uint64_t special = modellib::specialMaskScalar(a);
        const uint64_t equal = modellib::equalBytes64Scalar(a, b);
        ASSERT_EQ(modellib::specialMask(a), special);
        ASSERT_EQ(modellib::equalBytes64(a, b), equal);
        for (int chunks = 1; chunks <= 4; ++chunks) {
            const modellib::WordMasks words = modellib::wordMasksScalar(a, chunks, stop);
            ASSERT_TRUE(firstBytes(modellib::wordMasks(a, chunks, stop), chunks) == words) << round << " " << chunks;
#if MODELLIB_HAVE_SSE2
            ASSERT_TRUE(firstBytes(modellib::wordMasksSse2(a, chunks, stop), chunks) == words) << round << " " << chunks;
#endif
#if MODELLIB_HAVE_AVX2
            if (modellib::hasAvx2()) {
                ASSERT_TRUE(firstBytes(modellib::wordMasksAvx2(a, chunks, stop), chunks) == words) << round << " " << chunks;
            }
#endif
        }
#if MODELLIB_HAVE_SSE2
        ASSERT_EQ(modellib::specialMaskSse2(a), special);
        ASSERT_EQ(modellib::equalBytes64Sse2(a, b), equal);
#endif
#if MODELLIB_HAVE_AVX2
        if (modellib::hasAvx2()) {
            ASSERT_EQ(modellib::specialMaskAvx2(a), special);
            ASSERT_EQ(modellib::equalBytes64Avx2(a, b), equal);
        }
#endif
    }
    // The portable loops themselves, on one block whose bits are known.
    const char block[65] = "M1 d,g(s) b=1\t;x\n\r\x01\xFF" "0123456789                                 ";
    const modellib::WordMasks m = modellib::wordMasksScalar(block, 4, ';');
    EXPECT_EQ(m.stops, 1ull << 14);
    EXPECT_EQ(m.equals, 1ull << 11);
    EXPECT_EQ(m.digits & 0xFFFF, (1ull << 1) | (1ull << 12));
    EXPECT_EQ(m.delimiters & 0x3FFF, (1ull << 2) | (1ull << 4) | (1ull << 6) | (1ull << 8) | (1ull << 9) | (1ull << 11) | (1ull << 13));
    EXPECT_EQ(modellib::specialMaskScalar(block) & 0xFFFFF, (1ull << 16) | (1ull << 17) | (1ull << 18) | (1ull << 19));
}

class ModelLibraryFiles : public TempDirTest {
protected:
    std::string write(const std::string& name, const std::string& text)
    {
        writeFileBytes(path(name), text);
        return path(name);
    }
    static std::vector<std::string> reachedNames(const ModelLibResolution& r)
    {
        std::vector<std::string> names;
        for (const ModelLibReached& x : r.definitions)
            names.push_back(std::string(name(r, x)));
        return names;
    }
    static std::string_view name(const ModelLibResolution& r, const ModelLibReached& x)
    {
        const ModelLibIndex& file = r.files[static_cast<size_t>(x.file)];
        return file.name(file.definitions[static_cast<size_t>(x.definition)]);
    }
    static std::vector<ModelLibProblem::Kind> kinds(const std::vector<ModelLibProblem>& problems)
    {
        std::vector<ModelLibProblem::Kind> out;
        for (const ModelLibProblem& p : problems)
            out.push_back(p.kind);
        return out;
    }
};

TEST_F(ModelLibraryFiles, EveryDefinitionReadsBackAsSpiceStreamReadsIt)
{
    const std::string file = write("all.lib", "* header\n.model D1 D(IS=1n\n* c\n\n+ RS=1)\n* after\n.subckt s a b\n"
                                              "* inside\nR1 a b {x*{y}}\n+ 2\n.ends\r\n.model q npn ; note\r\n\r\n+ bf=100\r\n");
    ModelLibIndex index;
    ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
    ASSERT_EQ(index.definitions.size(), 3u);
    EXPECT_EQ(checkReadBack(file, index, SpiceLanguageNative), 3);
    EXPECT_EQ(sp_ReadModelDefinition(index, index.definitions[2], YString("Q2")), (std::vector<YString>{".model Q2  npn   bf=100"}));
}

TEST_F(ModelLibraryFiles, Utf16FilesIndexAsTheReadersReadThem)
{
    const std::string text = ".model \xc3\xa9t d\n+ is=1\n.subckt s a\n.ends\n";
    const QString q = QString::fromUtf8(text.c_str());
    std::string bytes = "\xFF\xFE";
    for (QChar c : q) {
        bytes.push_back(static_cast<char>(c.unicode() & 0xFF));
        bytes.push_back(static_cast<char>(c.unicode() >> 8));
    }
    const std::string file = write("wide.lib", bytes);
    ModelLibIndex index;
    ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
    EXPECT_TRUE(index.wide);
    EXPECT_EQ(defs(index), (std::vector<Def>{{".model", "\xc3\xa9t", 0, 20, 1, 2}, {".subckt", "s", 20, 38, 3, 4}}));
    EXPECT_EQ(checkReadBack(file, index, SpiceLanguageNative), 2);
}

// A UTF-16 library compares and extracts as its UTF-8 twin does; the definitions are read from one
// decoded copy of each file, which is gone afterwards.
TEST_F(ModelLibraryFiles, Utf16LibrariesCompareAndExtractAsTheirUtf8Twins)
{
    const auto utf16 = [](const std::string& utf8) {
        std::string bytes = "\xFF\xFE";
        for (QChar c : QString::fromUtf8(utf8.c_str())) {
            bytes.push_back(static_cast<char>(c.unicode() & 0xFF));
            bytes.push_back(static_cast<char>(c.unicode() >> 8));
        }
        return bytes;
    };
    const std::string a = ".model \xc3\xa9t d\n+ is=1\n.model q npn bf=100\n.subckt s a b\nR1 a b 1k\n.ends\n.model k AKO: q\n";
    const std::string b = ".model \xc3\xa9t d\n+ is=2\n.model q npn bf=100\n.subckt s a b\nR1 a b 1k\n.ends\n.model r d\n";
    const std::string narrowA = write("a8.lib", a), narrowB = write("b8.lib", b);
    const std::string wideA = write("a16.lib", utf16(a)), wideB = write("b16.lib", utf16(b));
    const std::string temp = path("temp");
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(temp)));
    ScopedTempFolder scoped(temp);

    ModelLibDiff narrow, wide;
    ASSERT_EQ(sp_DiffModelLibraries(YString(narrowA.c_str()), YString(narrowB.c_str()), SpiceLanguageNative, &narrow), ModelLibStatus::Ok);
    ASSERT_EQ(sp_DiffModelLibraries(YString(wideA.c_str()), YString(wideB.c_str()), SpiceLanguageNative, &wide), ModelLibStatus::Ok);
    EXPECT_EQ(wide.differing, (std::vector<YString>{YString(".model \xc3\xa9t")}));
    EXPECT_EQ(wide.differing, narrow.differing);
    EXPECT_EQ(wide.onlyInA, (std::vector<YString>{YString(".model k")}));
    EXPECT_EQ(wide.onlyInA, narrow.onlyInA);
    EXPECT_EQ(wide.onlyInB, narrow.onlyInB);

    ModelLibExtractRequest request;
    request.names = {YString("k"), YString("S")};
    YString fromNarrow, fromWide;
    ASSERT_EQ(sp_ExtractModels(YString(narrowA.c_str()), request, &fromNarrow, nullptr), ModelLibStatus::Ok);
    ASSERT_EQ(sp_ExtractModels(YString(wideA.c_str()), request, &fromWide, nullptr), ModelLibStatus::Ok);
    const auto withFile = [](const std::string& file) {
        return "* " + file + ":3\n.model q npn bf=100\n* " + file + ":7\n.model k AKO: q\n* " + file +
               ":4\n.subckt s a b\nR1 a b 1k\n.ends\n";
    };
    EXPECT_EQ(std::string(fromNarrow.c_str()), withFile(narrowA));
    EXPECT_EQ(std::string(fromWide.c_str()), withFile(wideA));
    EXPECT_TRUE(QDir(QString::fromStdString(temp)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
}

TEST_F(ModelLibraryFiles, MissingAndUnreadableFilesAreStatuses)
{
    ModelLibIndex index;
    EXPECT_EQ(sp_IndexModelLibrary(YString(path("none.lib").c_str()), SpiceLanguageNative, &index), ModelLibStatus::Unreadable);
    EXPECT_EQ(sp_IndexModelLibrary(YString(m_dir.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Unreadable);
    EXPECT_EQ(sp_IndexModelLibrary(YString(""), SpiceLanguageNative, &index), ModelLibStatus::Unreadable);
}

#ifndef _WIN32
// A FIFO with no writer would stall an open, and /dev/zero never ends: neither is opened for reading,
// named directly or through a reference.
TEST_F(ModelLibraryFiles, SpecialFilesAreRefusedWithoutWaiting)
{
    const std::string fifo = path("pipe.lib");
    ASSERT_EQ(QProcess::execute("mkfifo", {QString::fromStdString(fifo)}), 0);
    ModelLibIndex index;
    EXPECT_EQ(sp_IndexModelLibrary(YString(fifo.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Unreadable);
    EXPECT_EQ(sp_IndexModelLibrary(YString("/dev/zero"), SpiceLanguageNative, &index), ModelLibStatus::Unreadable);
    const std::string top = write("top.lib", ".include pipe.lib\n.include /dev/zero\n.model A D\n");
    std::vector<ModelLibProblem> problems;
    EXPECT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(kinds(problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::MissingFile, ModelLibProblem::MissingFile}));
}
#endif

TEST_F(ModelLibraryFiles, AFileBeyondIntPositionsIsRefusedWithoutReadingIt)
{
    const std::string file = path("huge.lib");
    {
        QFile f(QString::fromStdString(file));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        if (!f.resize(2147483648LL))
            GTEST_SKIP() << "this file system cannot make a sparse 2 GiB file";
    }
    ModelLibIndex index;
    EXPECT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::TooLarge);
    EXPECT_TRUE(index.definitions.empty());
    const std::string top = write("top.lib", ".include huge.lib\n");
    std::vector<ModelLibProblem> problems;
    EXPECT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(kinds(problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::TooLargeFile}));
}

TEST_F(ModelLibraryFiles, SectionsResolveAcrossFilesWithCyclesAndMissingFilesReported)
{
    QDir().mkpath(QString::fromStdString(path("sub")));
    write("sub/corner.lib", ".lib tt\n.model n nmos\n.lib \"../top.lib\" tt\n.endl\n.lib ss\n.model n nmos\n.endl\n");
    write("sub/common.spice", ".model d1 d\n.subckt inv a y\nM1 y a 0 0 n\n.ends\n.lib 'corner.lib' ss\n");
    const std::string top = write("top.lib", ".lib tt\n.lib 'sub/corner.lib' tt\n.include \"sub/common.spice\"\n"
                                             ".include missing.spice\n.lib sub/corner.lib ff\n.endl tt\n");
    ModelLibResolution r;
    ASSERT_EQ(sp_ResolveModelSection(YString(top.c_str()), YString("TT"), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    EXPECT_EQ(reachedNames(r), (std::vector<std::string>{"n", "d1", "inv", "n"}));
    EXPECT_EQ(kinds(r.problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::ReferenceCycle, ModelLibProblem::MissingFile,
                                                                      ModelLibProblem::MissingSection}));
    EXPECT_EQ(r.problems[0].line, 3);
    EXPECT_EQ(r.problems[1].line, 4);
    EXPECT_EQ(r.problems[2].name, "ff");
    EXPECT_EQ(r.files.size(), 3u);
    // A reached definition knows the reference that brought its file in.
    EXPECT_EQ(r.definitions[1].viaFile, r.root);
    EXPECT_EQ(r.definitions[1].viaReference, 1);
    EXPECT_EQ(sp_ResolveModelSection(YString(top.c_str()), YString("nope"), SpiceLanguageNative, &r), ModelLibStatus::NoSuchSection);
}

// A chain of sections, each referring to the next, is followed to its end on a thread with a small
// stack (a resolution that went one call deeper per reference would overflow it). A cycle in a chain
// is still reported where it closes.
TEST_F(ModelLibraryFiles, AChainOfTwentyThousandSectionsResolvesOnASmallStack)
{
    const int n = 20000;
    std::string text;
    for (int i = 0; i < n; ++i) {
        text += ".lib s" + std::to_string(i) + "\n.model m" + std::to_string(i) + " nmos\n";
        if (i + 1 < n)
            text += ".lib chain.lib S" + std::to_string(i + 1) + "\n";
        text += ".endl\n";
    }
    const std::string chain = write("chain.lib", text);
    ModelLibResolution r;
    ModelLibStatus status = ModelLibStatus::Unreadable;
    std::unique_ptr<QThread> thread(QThread::create([&] {
        status = sp_ResolveModelSection(YString(chain.c_str()), YString("s0"), SpiceLanguageNative, &r);
    }));
    thread->setStackSize(256 * 1024);
    thread->start();
    ASSERT_TRUE(thread->wait(120000));
    ASSERT_EQ(status, ModelLibStatus::Ok);
    ASSERT_EQ(r.definitions.size(), static_cast<size_t>(n));
    EXPECT_TRUE(r.problems.empty());
    EXPECT_EQ(r.files[static_cast<size_t>(r.definitions[n - 1].file)].name(
                  r.files[static_cast<size_t>(r.definitions[n - 1].file)].definitions[static_cast<size_t>(r.definitions[n - 1].definition)]),
              "m" + std::to_string(n - 1));
    // The end of the chain refers back to its start: a cycle, reported once and not followed.
    write("loop.lib", ".lib a\n.model ma nmos\n.lib loop.lib b\n.endl\n.lib b\n.model mb nmos\n.lib loop.lib A\n.endl\n");
    ASSERT_EQ(sp_ResolveModelSection(YString(path("loop.lib").c_str()), YString("a"), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    EXPECT_EQ(reachedNames(r), (std::vector<std::string>{"ma", "mb"}));
    EXPECT_EQ(kinds(r.problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::ReferenceCycle}));
    EXPECT_EQ(r.problems[0].line, 7);
}

// A resolution's files may be changed by its caller between resolutions: the section tables kept with
// them are made anew for a file that no longer fits its table.
TEST_F(ModelLibraryFiles, SectionTablesFollowAFileTheCallerReplaced)
{
    std::string first, second;
    for (int i = 0; i < 10; ++i) {
        first += ".lib s" + std::to_string(i) + "\n.model a" + std::to_string(i) + " nmos\n.endl\n";
        second += ".lib t" + std::to_string(i) + "\n.model b" + std::to_string(i) + " nmos\n.endl\n";
    }
    const std::string lib = write("corners.lib", first);
    ModelLibResolution r;
    ASSERT_EQ(sp_ResolveModelSection(YString(lib.c_str()), YString("s9"), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    EXPECT_EQ(reachedNames(r), std::vector<std::string>{"a9"});
    // The same file, the same number of sections, other names: read again into its place.
    write("corners.lib", second);
    ASSERT_EQ(sp_IndexModelLibrary(YString(lib.c_str()), SpiceLanguageNative, &r.files[static_cast<size_t>(r.root)]),
              ModelLibStatus::Ok);
    // First a name the old table lacks, then one it holds.
    ASSERT_EQ(sp_ResolveModelSection(YString(lib.c_str()), YString("T3"), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    EXPECT_EQ(reachedNames(r), std::vector<std::string>{"b3"});
    EXPECT_EQ(sp_ResolveModelSection(YString(lib.c_str()), YString("s9"), SpiceLanguageNative, &r), ModelLibStatus::NoSuchSection);
    // Fewer sections than the table was made for.
    write("corners.lib", ".lib only\n.model c nmos\n.endl\n");
    ASSERT_EQ(sp_IndexModelLibrary(YString(lib.c_str()), SpiceLanguageNative, &r.files[static_cast<size_t>(r.root)]),
              ModelLibStatus::Ok);
    EXPECT_EQ(sp_ResolveModelSection(YString(lib.c_str()), YString("t9"), SpiceLanguageNative, &r), ModelLibStatus::NoSuchSection);
    ASSERT_EQ(sp_ResolveModelSection(YString(lib.c_str()), YString("only"), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    EXPECT_EQ(reachedNames(r), std::vector<std::string>{"c"});
}

TEST_F(ModelLibraryFiles, CheckFindsDuplicatesAkoInstancesAndUnreferencedDefinitions)
{
    write("parts.spice", ".model d1 d\n.subckt amp a y\nX1 a y buf\nX2 a y inner\n.subckt inner a y\n.ends\n.ends\n");
    const std::string top = write("lib.lib", ".model stray d\n.lib tt\n.include parts.spice\n.model D1 d\n"
                                             ".model k AKO: base\n.model late AKO: d2\n.model d2 d\n.endl\n.lib ss\n.model d1 d\n.endl\n");
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString("tt"), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(kinds(problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::UnresolvedInstance, ModelLibProblem::Duplicate,
                                                                    ModelLibProblem::UnresolvedAkoBase, ModelLibProblem::AkoBaseAfter}));
    EXPECT_EQ(problems[0].name, "buf");
    EXPECT_EQ(problems[1].name, "D1");
    EXPECT_EQ(problems[1].line, 4);
    EXPECT_EQ(problems[1].otherLine, 1);
    EXPECT_NE(std::string(problems[1].otherFile.c_str()).find("parts.spice"), std::string::npos);
    EXPECT_EQ(problems[3].otherLine, 7);
    problems.clear();
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    ASSERT_FALSE(problems.empty());
    EXPECT_EQ(problems.back().kind, ModelLibProblem::Unreferenced);
    EXPECT_EQ(problems.back().name, "stray");
    EXPECT_EQ(std::count_if(problems.begin(), problems.end(), [](const ModelLibProblem& p) { return p.kind == ModelLibProblem::Unreferenced; }), 1);
}

// One file reached by two names is one file: its definitions are no duplicates of themselves. The
// names are a hard link and, on Windows, which compares names without case, the name in other case.
TEST_F(ModelLibraryFiles, OneFileByTwoNamesIsOneFile)
{
    ASSERT_TRUE(QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("models")));
    write("models/pmos.mod", ".model p1 pmos\n");
    std::error_code linked;
    std::filesystem::create_hard_link(std::filesystem::u8path(path("models/pmos.mod")), std::filesystem::u8path(path("alias.mod")), linked);
    ASSERT_FALSE(linked) << linked.message();
#ifdef _WIN32
    const std::string other = "MODELS/PMOS.MOD";
#else
    const std::string other = "models/../models/pmos.mod";
#endif
    const std::string top = write("top.lib", ".lib tt\n.include models/pmos.mod\n.include alias.mod\n.include " + other + "\n.endl\n");
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString("tt"), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    for (const ModelLibProblem& p : problems)
        ADD_FAILURE() << p.message.c_str();
    ModelLibResolution resolution;
    ASSERT_EQ(sp_ResolveModelSection(YString(top.c_str()), YString("tt"), SpiceLanguageNative, &resolution), ModelLibStatus::Ok);
    EXPECT_EQ(resolution.files.size(), 2u);
    EXPECT_EQ(reachedNames(resolution), std::vector<std::string>{"p1"});
}

// A library in an 8-bit code that names a file with a letter beyond ASCII reaches it: on Windows the
// name is read in the ANSI code page, elsewhere the file system takes its bytes as they are.
TEST_F(ModelLibraryFiles, AnEightBitNameReachesItsFile)
{
#ifdef _WIN32
    const QString name = QStringLiteral("caf\u00e9.mod");
    QFile file(QDir(QString::fromStdString(path(""))).filePath(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(".model m1 nmos\n");
    file.close();
    const QByteArray bytes = QTextCodec::codecForLocale()->fromUnicode(name);
    ASSERT_EQ(bytes.size(), name.size()) << "the ANSI code page holds no \u00e9";
    const std::string named(bytes.constData(), static_cast<size_t>(bytes.size()));
#else
    // Made by its bytes: the test's own helpers take names as UTF-8.
    const std::string named = "caf\xe9.mod";
    FILE* const file = std::fopen((path("") + "/" + named).c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fputs(".model m1 nmos\n", file);
    std::fclose(file);
#endif
    const std::string top = write("top.lib", ".lib tt\n.include " + named + "\n.include '" + named + "'\n.endl\n");
    ModelLibResolution resolution;
    ASSERT_EQ(sp_ResolveModelSection(YString(top.c_str()), YString("tt"), SpiceLanguageNative, &resolution), ModelLibStatus::Ok);
    for (const ModelLibProblem& p : resolution.problems)
        ADD_FAILURE() << p.message.c_str();
    EXPECT_EQ(reachedNames(resolution), std::vector<std::string>{"m1"});
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString("tt"), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    for (const ModelLibProblem& p : problems)
        ADD_FAILURE() << p.message.c_str();
    EXPECT_EQ(resolution.files.size(), 2u);
    // A subcircuit that includes the file keeps naming it in the extracted library, written elsewhere.
    const std::string parts = write("parts.lib", ".subckt amp a b\n.include " + named + "\nR1 a b 1k\n.ends\n");
    ASSERT_TRUE(QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("out")));
    const std::string out = path("out/extracted.lib");
    ASSERT_EQ(sp_WriteExtractedModels(YString(parts.c_str()), ModelLibExtractRequest{{YString("amp")}, YString(), {}, SpiceLanguageNative},
                                      YString(out.c_str()), nullptr),
              ModelLibStatus::Ok);
    std::vector<ModelLibProblem> extracted;
    ASSERT_EQ(sp_CheckModelLibrary(YString(out.c_str()), YString(), SpiceLanguageNative, &extracted), ModelLibStatus::Ok);
    for (const ModelLibProblem& p : extracted)
        ADD_FAILURE() << p.message.c_str();
    ModelLibResolution again;
    ASSERT_EQ(sp_ResolveModelSection(YString(out.c_str()), YString(), SpiceLanguageNative, &again), ModelLibStatus::Ok);
    EXPECT_EQ(again.files.size(), 2u);
}

// The structure diagnostics of the files come before the definitions that no section reaches.
TEST_F(ModelLibraryFiles, CheckListsStructureBeforeUnreachedDefinitions)
{
    const std::string top = write("top.lib", ".model stray d\n.lib tt\n.model a d\n.endl\n.subckt open x\n");
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(kinds(problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::Structure, ModelLibProblem::Unreferenced,
                                                                    ModelLibProblem::Unreferenced}));
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0].message, YString((top + ":5: subcircuit open is not closed by .ends").c_str()));
    EXPECT_EQ(problems[1].name, "stray");
    EXPECT_EQ(problems[2].name, "open");
}

// The definitions of a section that repeats a name are reached by no section, and the check says why
// before it lists them.
// Only regular files are read: a reference to a folder or a device is a missing file that is named for
// what it is, and one to nothing at all for that.
TEST_F(ModelLibraryFiles, AReferenceToAFolderOrDeviceSaysItIsNotARegularFile)
{
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(path("models"))));
    std::string text = ".include models\n.include gone.spice\n";
#if defined(__linux__)
    text += ".include /dev/zero\n";
#endif
    const std::string top = write("top.lib", text);
    ModelLibResolution r;
    ASSERT_EQ(sp_ResolveModelSection(YString(top.c_str()), YString(), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    std::vector<std::string> messages;
    for (const ModelLibProblem& p : r.problems) {
        EXPECT_EQ(p.kind, ModelLibProblem::MissingFile);
        messages.push_back(p.message.str());
    }
    std::vector<std::string> expected{top + ":1: models is not a regular file (" + QDir::cleanPath(QString::fromStdString(path("models"))).toStdString() + ")",
                                      top + ":2: gone.spice does not exist or cannot be read (" +
                                          QDir::cleanPath(QString::fromStdString(path("gone.spice"))).toStdString() + ")"};
#if defined(__linux__)
    expected.push_back(top + ":3: /dev/zero is not a regular file (/dev/zero)");
#endif
    EXPECT_EQ(messages, expected);
}

TEST_F(ModelLibraryFiles, CheckSaysWhyASectionUnderARepeatedNameIsReachedByNothing)
{
    const std::string top = write("dup.lib", ".lib tt\n.model a d\n.endl tt\n.lib tt\n.model b d\n.model c d\n.endl tt\n");
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(kinds(problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::Structure, ModelLibProblem::Unreferenced,
                                                                    ModelLibProblem::Unreferenced}));
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0].message,
              YString((top + ":4: section tt opens again (first at line 1): a reference to it reaches the first one only").c_str()));
    EXPECT_EQ(problems[1].name, "b");
    EXPECT_EQ(problems[2].name, "c");
}

TEST_F(ModelLibraryFiles, CheckListsAProblemThatSeveralSectionsReachOnce)
{
    write("shared.spice", ".include gone.spice\n.subckt amp a y\nX1 a y nowhere\n.ends\n");
    const std::string top = write("kit.lib", ".lib tt\n.include shared.spice\n.endl\n.lib ss\n.include shared.spice\n.endl\n"
                                             ".lib ff\n.model d1 d\n.model d1 d\n.endl\n");
    std::vector<ModelLibProblem> problems(1); // a caller's entry, kept as it is
    problems[0].message = "earlier";
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(kinds(problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::Duplicate, ModelLibProblem::MissingFile,
                                                                    ModelLibProblem::UnresolvedInstance, ModelLibProblem::Duplicate}));
    EXPECT_EQ(problems[0].message, "earlier");
    EXPECT_NE(std::string(problems[1].file.c_str()).find("shared.spice"), std::string::npos);
    EXPECT_EQ(problems[1].line, 1);
    EXPECT_EQ(problems[2].name, "nowhere");
    EXPECT_EQ(problems[3].name, "d1");
    // Each section alone still reports what it reaches.
    for (const char* section : {"tt", "ss"}) {
        problems.clear();
        ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(section), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
        EXPECT_EQ(kinds(problems), (std::vector<ModelLibProblem::Kind>{ModelLibProblem::MissingFile, ModelLibProblem::UnresolvedInstance}))
            << section;
    }
}

// Three hundred sections that each reach the same thousand duplicates: the repeats are dropped as each
// section's problems come in, so the check needs memory for the thousand problems, not for 300,000 of
// them (about 100 MB more), and a child with 48 MiB to spare finishes it. (The child is a Linux fork.)
#if defined(__linux__)
TEST_F(ModelLibraryFiles, CheckMemoryFollowsTheDistinctProblems)
{
#if defined(SUPPORTQT_TEST_ASAN)
    GTEST_SKIP() << "the sanitizer reserves memory of its own that the limit would count";
#endif
    std::string models, sections;
    for (int pass = 1; pass <= 2; ++pass)
        for (int i = 0; i < 1000; ++i)
            models += ".model m" + std::to_string(i) + " D is=" + std::to_string(pass) + "e-14\n";
    for (int k = 0; k < 300; ++k)
        sections += ".lib s" + std::to_string(k) + "\n.include dup.lib\n.endl s" + std::to_string(k) + "\n";
    write("dup.lib", models);
    const std::string top = write("top.lib", sections);
    bool ran = false;
    int status = 0;
    const std::string report = reportFromLimitedChild(size_t(48) << 20, [&] {
        std::vector<ModelLibProblem> problems;
        const ModelLibStatus result = sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems);
        const auto duplicates = std::count_if(problems.begin(), problems.end(),
                                              [](const ModelLibProblem& p) { return p.kind == ModelLibProblem::Duplicate; });
        return std::to_string(static_cast<int>(result)) + " " + std::to_string(problems.size()) + " " + std::to_string(duplicates);
    }, &ran, &status);
    ASSERT_TRUE(ran) << "child status " << status;
    EXPECT_EQ(report, "0 1000 1000");
}
#endif

#ifdef __linux__
// A model whose type comes on a continuation line after 96 MB of comment lines: the comments are not held
// while the statement waits for its next line, so the file indexes in 48 MB of memory, the model whole.
TEST_F(ModelLibraryFiles, CommentLinesAfterAStatementAreNotHeldWhileItWaits)
{
#ifdef SUPPORTQT_TEST_ASAN
    GTEST_SKIP() << "the sanitizer reserves memory of its own that the limit would count";
#endif
    const std::string comment = "* " + std::string(61, 'c') + "\n";
    std::string text = ".model nch\n";
    text.reserve(size_t(97) << 20);
    for (int i = 0; i < 1536 * 1024; ++i)
        text += comment;
    text += "+ nmos vth0=0.4\n";
    const size_t end = text.size();
    text += "* after\n.model pch pmos\n";
    const std::string file = write("comments.lib", text);
    text = std::string();
    bool ran = false;
    int status = 0;
    const std::string report = reportFromLimitedChild(size_t(48) << 20, [&] {
        ModelLibIndex index;
        const ModelLibStatus result = sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index);
        std::string r = std::to_string(static_cast<int>(result)) + " " + std::to_string(index.diagnostics.size());
        for (const ModelLibDefinition& d : index.definitions)
            r += " | " + std::string(index.name(d)) + " " + std::string(index.type(d)) + " " + std::to_string(d.start) + " " +
                 std::to_string(d.end) + " " + std::to_string(d.line) + " " + std::to_string(d.lastLine);
        return r;
    }, &ran, &status);
    ASSERT_TRUE(ran) << "child status " << status;
    EXPECT_EQ(report, "0 0 | nch nmos 0 " + std::to_string(end) + " 1 1572866 | pch pmos " + std::to_string(end + 8) + " " +
                          std::to_string(end + 24) + " 1572868 1572868");
}
#endif

#ifdef __linux__
// Subcircuits nested 80,000 deep, each with an element line (1.1 MB of text): each open level's tables
// of instances and uses hold the words it has, not a fixed room, so the index fits in 160 MB.
TEST_F(ModelLibraryFiles, DeeplyNestedSubcircuitsWithElementsIndexInBoundedMemory)
{
#ifdef SUPPORTQT_TEST_ASAN
    GTEST_SKIP() << "the sanitizer reserves memory of its own that the limit would count";
#endif
    std::string text;
    for (int i = 0; i < 80000; ++i)
        text += ".subckt a\nm b\n";
    bool ran = false;
    int status = 0;
    const std::string report = reportFromLimitedChild(size_t(160) << 20, [&] {
        ModelLibIndex index;
        sp_IndexModelLibraryText(text.data(), text.size(), YString("deep.lib"), SpiceLanguageNative, &index);
        return std::to_string(index.definitions.size()) + " " + std::to_string(index.diagnostics.size()) + " " +
               index.diagnostics.back().message.str();
    }, &ran, &status);
    ASSERT_TRUE(ran) << "child status " << status;
    EXPECT_EQ(report, "80000 80000 subcircuit a is not closed by .ends");
}
#endif

TEST_F(ModelLibraryFiles, ExtractionWritesTheClosureInDependencyOrderAndRoundTrips)
{
    write("dev.spice", ".model nch nmos\n+ vth0=0.4\n.model pch pmos\n.model unused d\n");
    const std::string top = write("kit.lib", ".lib tt\n.include dev.spice\n.subckt inv a y vdd\nMn y a 0 0 nch\nMp y a vdd vdd pch\n.ends\n"
                                             ".subckt buf a y vdd\nX1 a m vdd inv\nX2 m y vdd inv\n.ends buf\n.model dd AKO: pch\n.endl tt\n");
    ModelLibExtractRequest request;
    request.names = {YString("BUF"), YString("dd")};
    request.section = YString("tt");
    request.renames = {YString("inv=INV2")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(top.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_TRUE(problems.empty());
    const std::string dev = path("dev.spice");
    const std::string kit = top;
    EXPECT_EQ(std::string(text.c_str()), "* " + dev + ":1\n.model nch nmos  vth0=0.4\n* " + dev + ":3\n.model pch pmos\n* " + kit +
                                              ":3\n.subckt INV2  a y vdd\nMn y a 0 0 nch\nMp y a vdd vdd pch\n.ends\n* " + kit +
                                              ":7\n.subckt buf a y vdd\nX1 a m vdd INV2\nX2 m y vdd INV2\n.ends buf\n* " + kit +
                                              ":11\n.model dd AKO: pch\n");
    // The extracted library's index holds exactly the closure, and it checks clean.
    const std::string out = path("out.lib");
    ASSERT_EQ(sp_WriteExtractedModels(YString(top.c_str()), request, YString(out.c_str()), nullptr), ModelLibStatus::Ok);
    ModelLibIndex index;
    ASSERT_EQ(sp_IndexModelLibrary(YString(out.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
    std::vector<std::string> names;
    for (const ModelLibDefinition& d : index.definitions)
        names.push_back(std::string(index.name(d)));
    EXPECT_EQ(names, (std::vector<std::string>{"nch", "pch", "INV2", "buf", "dd"}));
    std::vector<ModelLibProblem> check;
    EXPECT_EQ(sp_CheckModelLibrary(YString(out.c_str()), YString(), SpiceLanguageNative, &check), ModelLibStatus::Ok);
    EXPECT_TRUE(check.empty()) << check.front().message.c_str();
    // The extraction never replaces a file of the library: the library itself, or a file it includes.
    const std::string devText = readFileBytes(dev);
    EXPECT_EQ(sp_WriteExtractedModels(YString(top.c_str()), request, YString(dev.c_str()), nullptr), ModelLibStatus::WriteFailed);
    EXPECT_EQ(readFileBytes(dev), devText);
    const std::string kitText = readFileBytes(top);
    EXPECT_EQ(sp_WriteExtractedModels(YString(top.c_str()), request, YString(top.c_str()), nullptr), ModelLibStatus::WriteFailed);
    EXPECT_EQ(readFileBytes(top), kitText);
    // Nor by another name of the file: any name that leads to it is refused.
    std::vector<std::string> otherNames;
#ifdef Q_OS_WIN
    // The long form, another case and the short name.
    const std::wstring native = QDir::toNativeSeparators(QString::fromStdString(dev)).toStdWString();
    otherNames.push_back(QString::fromStdWString(L"\\\\?\\" + native).toStdString());
    otherNames.push_back(QString::fromStdString(dev).toUpper().toStdString());
    wchar_t shortName[1024];
    const DWORD shortLength = GetShortPathNameW(native.c_str(), shortName, 1024);
    ASSERT_GT(shortLength, 0u);
    ASSERT_LT(shortLength, 1024u);
    otherNames.push_back(QString::fromWCharArray(shortName, static_cast<int>(shortLength)).toStdString());
#else
    // A hard link.
    otherNames.push_back(path("hard.spice"));
    std::error_code linked;
    std::filesystem::create_hard_link(dev, otherNames.back(), linked);
    ASSERT_FALSE(linked) << linked.message();
#endif
    for (const std::string& name : otherNames) {
        EXPECT_EQ(sp_WriteExtractedModels(YString(top.c_str()), request, YString(name.c_str()), nullptr), ModelLibStatus::WriteFailed)
            << name;
        EXPECT_EQ(readFileBytes(dev), devText) << name;
    }
    // The null device takes the text.
#ifdef Q_OS_WIN
    const char* const nullDevice = "NUL";
#else
    const char* const nullDevice = "/dev/null";
#endif
    EXPECT_EQ(sp_WriteExtractedModels(YString(top.c_str()), request, YString(nullDevice), nullptr), ModelLibStatus::Ok);
    request.names = {YString("nothing")};
    EXPECT_EQ(sp_ExtractModels(YString(top.c_str()), request, &text, &problems), ModelLibStatus::NoSuchDefinition);
    EXPECT_EQ(sp_WriteExtractedModels(YString(top.c_str()), ModelLibExtractRequest{{YString("buf")}, YString("tt"), {}, SpiceLanguageNative},
                                      YString(m_dir.c_str()), nullptr),
              ModelLibStatus::WriteFailed);
}

// The files of a library are the library and every file its ".include" and ".lib" lines name, in any
// section and through every file they reach; a file that does not exist, or one outside, is not.
TEST_F(ModelLibraryFiles, ALibraryHoldsEveryFileItsLinesNameInAnySection)
{
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(path("sub"))));
    write("sub/dev.spice", ".model nch nmos\n.include deeper.spice\n");
    write("sub/deeper.spice", ".model pch pmos\n");
    write("ssonly.spice", ".model slow nmos\n.lib corners.lib ff\n");
    write("corners.lib", ".lib ff\n.model fast nmos\n.endl ff\n");
    write("outside.spice", ".model other d\n");
    const std::string lib = write("kit.lib", ".lib tt\n.include 'sub/dev.spice'\n.subckt buf a y\nR1 a y 1\n.ends\n.endl tt\n"
                                             ".lib ss\n.include 'ssonly.spice'\n.endl ss\n");
    const YString kit(lib.c_str());
    for (const char* held : {"kit.lib", "sub/dev.spice", "sub/deeper.spice", "ssonly.spice", "corners.lib"})
        EXPECT_TRUE(sp_ModelLibraryHoldsFile(kit, YString(path(held).c_str()), SpiceLanguageNative)) << held;
    // By another name of the same place.
    EXPECT_TRUE(sp_ModelLibraryHoldsFile(kit, YString(path("sub/../ssonly.spice").c_str()), SpiceLanguageNative));
    EXPECT_FALSE(sp_ModelLibraryHoldsFile(kit, YString(path("outside.spice").c_str()), SpiceLanguageNative));
    EXPECT_FALSE(sp_ModelLibraryHoldsFile(kit, YString(path("none.spice").c_str()), SpiceLanguageNative));
    EXPECT_FALSE(sp_ModelLibraryHoldsFile(YString(path("missing.lib").c_str()), YString(path("outside.spice").c_str()),
                                          SpiceLanguageNative));

    // An extraction from section tt is not written over the file that only section ss includes.
    ModelLibExtractRequest request;
    request.names = {YString("buf")};
    request.section = YString("tt");
    const std::string before = readFileBytes(path("ssonly.spice"));
    EXPECT_EQ(sp_WriteExtractedModels(kit, request, YString(path("ssonly.spice").c_str()), nullptr), ModelLibStatus::WriteFailed);
    EXPECT_EQ(readFileBytes(path("ssonly.spice")), before);
    EXPECT_EQ(sp_WriteExtractedModels(kit, request, YString(path("outside.spice").c_str()), nullptr), ModelLibStatus::Ok);
    EXPECT_NE(readFileBytes(path("outside.spice")).find(".subckt buf a y"), std::string::npos);
}

// A rename that would give two extracted definitions of one kind the same name is refused with nothing
// written; the same name on a model and a subcircuit is no clash.
TEST_F(ModelLibraryFiles, ARenameOntoAnotherExtractedNameIsRefused)
{
    const std::string lib = write("cells.lib", ".model inv d\n.subckt inv a y\nR1 a y 1\n.ends\n.subckt buf a y\nX1 a m inv\nX2 m y inv\nD1 a y inv\n.ends\n");
    ModelLibExtractRequest request;
    request.names = {YString("buf")};
    request.renames = {YString("inv=BUF")};
    YString text("left over");
    std::vector<ModelLibProblem> problems;
    EXPECT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::RenameClash);
    EXPECT_TRUE(text.isEmpty());
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::Duplicate);
    EXPECT_EQ(problems[0].name, "buf");
    EXPECT_EQ(problems[0].file, YString(lib.c_str()));
    EXPECT_EQ(problems[0].line, 5);
    EXPECT_EQ(problems[0].otherLine, 2);
    EXPECT_EQ(problems[0].message, YString(("renaming would give " + lib + ":2 and " + lib + ":5 the same name buf").c_str()));
    const std::string out = path("out.lib");
    EXPECT_EQ(sp_WriteExtractedModels(YString(lib.c_str()), request, YString(out.c_str()), nullptr), ModelLibStatus::RenameClash);
    EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(out)));
    // Two definitions renamed onto one name clash too; a model and a subcircuit of one name do not.
    request.renames = {YString("inv=cell"), YString("buf=CELL")};
    problems.clear();
    EXPECT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::RenameClash);
    request.renames = {YString("buf=core")};
    EXPECT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":2\n.subckt inv a y\nR1 a y 1\n.ends\n* " + lib + ":1\n.model inv d\n* " + lib +
                                              ":5\n.subckt core  a y\nX1 a m inv\nX2 m y inv\nD1 a y inv\n.ends\n");
    // A rename that changes the case only renames the definitions too, not just the words naming them.
    request.renames = {YString("inv=INV")};
    EXPECT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":2\n.subckt INV a y\nR1 a y 1\n.ends\n* " + lib + ":1\n.model INV d\n* " + lib +
                                              ":5\n.subckt buf a y\nX1 a m INV\nX2 m y INV\nD1 a y INV\n.ends\n");
}

// A model renamed inside a subcircuit whose port has its name: the port is renamed with the nodes, so
// the subcircuit stays connected as it was; the instances connect by position and are unchanged.
TEST_F(ModelLibraryFiles, ARenameKeepsTheSubcircuitsPortsConnected)
{
    const std::string lib = write("n.lib", ".model d D is=1e-14\n.subckt clamp d s params: w=1\nD1 d s d\nR1 d s 1k\n.ends clamp\n");
    ModelLibExtractRequest request;
    request.names = {YString("clamp")};
    request.renames = {YString("d=dx")};
    YString text;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":1\n.model dx  D is=1e-14\n* " + lib +
                                              ":2\n.subckt clamp dx s params: w=1\nD1 dx s dx\nR1 dx s 1k\n.ends clamp\n");
    // Renaming the subcircuit itself renames its name only.
    request.renames = {YString("clamp=cl2"), YString("s=t")};
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_NE(std::string(text.c_str()).find("\n.subckt cl2  d t params: w=1\nD1 d t d\nR1 d t 1k\n.ends cl2\n"), std::string::npos)
        << text.c_str();
}

// One name renamed two ways is refused: the definition would get one name and the words naming it the
// other. The same rename twice is one.
TEST_F(ModelLibraryFiles, ANameRenamedTwoWaysIsRefused)
{
    const std::string lib = write("r.lib", ".model a D\n.model b D\n.model c ako:a D\n");
    ModelLibExtractRequest request;
    request.names = {YString("c")};
    request.renames = {YString("a=z"), YString("A=y")};
    YString text("left over");
    std::vector<ModelLibProblem> problems;
    EXPECT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::RenameClash);
    EXPECT_TRUE(text.isEmpty());
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::Duplicate);
    EXPECT_EQ(problems[0].message, "A is renamed twice, to z and to y");
    // A new name that is not one word would make the line say something else.
    for (const char* bad : {"a=x y", "a=x=y", "a=x;y", "a=x$y", "a=x\ny", "a=x\ty", "a=(x)"}) {
        request.renames = {YString(bad)};
        problems.clear();
        EXPECT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::RenameClash) << bad;
        ASSERT_EQ(problems.size(), 1u) << bad;
        EXPECT_EQ(problems[0].message, "the new name of a is not one word");
    }
    request.renames = {YString("a=z"), YString("A=z")};
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":1\n.model z  D\n* " + lib + ":3\n.model c ako:z D\n");
}

// A rename that renames nothing, a misspelt name or one of a definition not extracted, leaves the text
// as it would be without it, and the caller is told once for each name.
TEST_F(ModelLibraryFiles, ARenameThatRenamesNothingIsReported)
{
    const std::string lib = write("r.lib", ".model a D\n.model b D\n.model c ako:a D\n");
    const std::string expected = "* " + lib + ":1\n.model z  D\n* " + lib + ":3\n.model c ako:z D\n";
    ModelLibExtractRequest request;
    request.names = {YString("c")};
    request.renames = {YString("a=z"), YString("NOTHERE=x"), YString("b=y"), YString("notHere=x")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), expected);
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::UnusedRename);
    EXPECT_EQ(problems[0].name, "NOTHERE");
    EXPECT_EQ(problems[0].message.str(), "the rename of NOTHERE to x renames nothing: no definition extracted has or names that word");
    EXPECT_EQ(problems[1].message.str(), "the rename of b to y renames nothing: no definition extracted has or names that word");
    // A word that the lines name counts, as the base after "ako:" does.
    request.names = {YString("c")};
    request.renames = {YString("A=z")};
    problems.clear();
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), expected);
    EXPECT_TRUE(problems.empty());
}

TEST_F(ModelLibraryFiles, AnHspiceLibraryIsExtractedInItsDialect)
{
    const std::string lib = write("h.lib", ".model nch nmos $ threshold\n+ level=54 vth0=0.4\n.model pch pmos\n$ a comment line\n"
                                           "+ level=54 vth0=-0.4 ; text\n.subckt inv a y vdd vss\nm1 y a vdd vdd pch\nm2 y a vss vss nch\n.ends\n");
    ModelLibExtractRequest request;
    request.names = {YString("inv")};
    request.language = SpiceLanguageHspice;
    YString text;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "*#HSPICE\n* " + lib + ":3\n.model pch pmos  level=54 vth0=-0.4 ; text\n* " + lib +
                                              ":1\n.model nch nmos   level=54 vth0=0.4\n* " + lib +
                                              ":6\n.subckt inv a y vdd vss\nm1 y a vdd vdd pch\nm2 y a vss vss nch\n.ends\n");
    // Two HSPICE libraries that differ only in a "$" comment define the same.
    const std::string other = write("h2.lib", ".model nch nmos $ another note\n+ level=54 vth0=0.4\n");
    const std::string first = write("h1.lib", ".model nch nmos\n+ level=54 vth0=0.4\n");
    ModelLibDiff diff;
    ASSERT_EQ(sp_DiffModelLibraries(YString(first.c_str()), YString(other.c_str()), SpiceLanguageHspice, &diff), ModelLibStatus::Ok);
    EXPECT_TRUE(diff.differing.empty());
}

// A chain of 30,000 AKO models, and one of 30,000 subcircuits each instantiating the one before, extract
// whole: the closure is walked with a stack of its own, not the call stack.
TEST_F(ModelLibraryFiles, AChainAsLongAsTheLibraryExtracts)
{
    std::string models = ".model m0 nmos level=1\n", subckts = ".subckt s0 a b\nR1 a b 1\n.ends\n";
    for (int i = 1; i < 30000; ++i) {
        models += ".model m" + std::to_string(i) + " ako:m" + std::to_string(i - 1) + " nmos\n";
        subckts += ".subckt s" + std::to_string(i) + " a b\nX1 a b s" + std::to_string(i - 1) + "\n.ends\n";
    }
    for (const auto& [file, text, last] : {std::make_tuple("chain.lib", models, "m29999"), std::make_tuple("schain.lib", subckts, "s29999")}) {
        const std::string lib = write(file, text);
        ModelLibExtractRequest request;
        request.names = {YString(last)};
        YString out;
        ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &out, nullptr), ModelLibStatus::Ok) << file;
        ModelLibIndex index;
        sp_IndexModelLibraryText(out.c_str(), static_cast<size_t>(out.length()), YString(), SpiceLanguageNative, &index);
        ASSERT_EQ(index.definitions.size(), 30000u) << file;
        EXPECT_EQ(index.name(index.definitions.front()), file[0] == 'c' ? "m0" : "s0");
        EXPECT_EQ(index.name(index.definitions.back()), last);
    }
}

// Renames that swap two names, one of them an AKO model: the AKO model's own name is the one the rename
// gives it, and only its base is renamed on its first line, so no two definitions get one name.
TEST_F(ModelLibraryFiles, RenamesThatSwapNamesThroughAnAkoModel)
{
    const std::string lib = write("ako.lib", ".model base nmos level=1\n.model a ako:base nmos vth0=0.5\n.model b nmos level=2\n"
                                             ".subckt top d g s\nm1 d g s s a\nm2 d g s s b\n.ends\n");
    ModelLibExtractRequest request;
    request.names = {YString("top")};
    request.renames = {YString("a=b"), YString("b=a"), YString("base=root")};
    YString text;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":1\n.model root  nmos level=1\n* " + lib + ":2\n.model b  ako:root nmos vth0=0.5\n* " +
                                              lib + ":3\n.model a  nmos level=2\n* " + lib + ":4\n.subckt top d g s\nm1 d g s s b\nm2 d g s s a\n.ends\n");
}

// A subcircuit needs what the subcircuits nested in it name too: extraction takes it along, and a check
// reports what it cannot find.
TEST_F(ModelLibraryFiles, WhatNestedSubcircuitsNameIsFollowed)
{
    const std::string lib = write("nest.lib", ".model nch nmos\n.subckt leaf p q\nR1 p q 1\n.ends\n.subckt outer x y\n.subckt inner p q\n"
                                              "x1 p q leaf\nm1 p q q q nch\n.ends\nxi x y inner\nx2 x y gone\n.ends\n");
    ModelLibExtractRequest request;
    request.names = {YString("outer")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":2\n.subckt leaf p q\nR1 p q 1\n.ends\n* " + lib + ":1\n.model nch nmos\n* " + lib +
                                              ":5\n.subckt outer x y\n.subckt inner p q\nx1 p q leaf\nm1 p q q q nch\n.ends\nxi x y inner\n"
                                              "x2 x y gone\n.ends\n");
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].name, "gone");
    const std::string broken = write("nest2.lib", ".subckt outer x y\n.subckt inner p q\nx1 p q missing\n.ends\nxi x y inner\n.ends\n");
    problems.clear();
    ASSERT_EQ(sp_CheckModelLibrary(YString(broken.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::UnresolvedInstance);
    EXPECT_EQ(problems[0].line, 2);
    EXPECT_EQ(problems[0].message, YString((broken + ":2: subcircuit inner instantiates missing, which is defined nowhere it reaches").c_str()));
    // So does the base of an AKO model nested in it, unless the base is defined inside too.
    const std::string ako = write("nestako.lib", ".model base nmos level=1\n.subckt top d g s\n.model loc ako:base nmos\n"
                                                 ".model inside nmos\n.model loc2 ako:inside nmos\nm1 d g s s loc\n.ends\n");
    request.names = {YString("top")};
    problems.clear();
    ASSERT_EQ(sp_ExtractModels(YString(ako.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(std::string(text.c_str()).rfind("* " + ako + ":1\n.model base nmos level=1\n* " + ako + ":2\n.subckt top", 0), 0u) << text.c_str();
    const std::string gone = write("nestgone.lib", ".subckt top d g s\n.model loc ako:gone nmos\nm1 d g s s loc\n.ends\n");
    problems.clear();
    ASSERT_EQ(sp_CheckModelLibrary(YString(gone.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::UnresolvedAkoBase);
    EXPECT_EQ(problems[0].message, YString((gone + ":2: AKO model loc has no base model gone").c_str()));
}

// Subcircuits nested 80,000 deep cost memory in proportion to the text (no table per level that lists
// no word) and a check walks them once, not once per level: both fit in a child with 256 MiB to spare.
#if defined(__linux__)
TEST_F(ModelLibraryFiles, DeepNestingCostsMemoryInProportionToTheText)
{
#if defined(SUPPORTQT_TEST_ASAN)
    GTEST_SKIP() << "the sanitizer reserves memory of its own that the limit would count";
#endif
    std::string open, closed;
    for (int i = 0; i < 80000; ++i)
        open += ".subckt a\n";
    const std::string unclosed = write("deep.lib", open);
    for (int i = 0; i < 80000; ++i)
        closed += ".ends\n";
    const std::string nested = write("deep2.lib", open + closed);
    bool ran = false;
    int status = 0;
    const std::string report = reportFromLimitedChild(size_t(256) << 20, [&] {
        ModelLibIndex index;
        const ModelLibStatus indexed = sp_IndexModelLibrary(YString(unclosed.c_str()), SpiceLanguageNative, &index);
        std::vector<ModelLibProblem> problems;
        const ModelLibStatus checked = sp_CheckModelLibrary(YString(nested.c_str()), YString(), SpiceLanguageNative, &problems);
        return std::to_string(static_cast<int>(indexed)) + " " + std::to_string(index.definitions.size()) + " " +
               std::to_string(static_cast<int>(checked)) + " " + std::to_string(problems.size());
    }, &ran, &status);
    ASSERT_TRUE(ran) << "child status " << status;
    EXPECT_EQ(report, "0 80000 0 0");
}
#endif

// File references with bytes the readers drop in their keyword name the file the readers read, and an
// ".endl" names its section as ".lib" does, in quotes or not.
TEST_F(ModelLibraryFiles, FileReferencesAndSectionEndsAreReadAsTheReadersReadThem)
{
    write("models.inc", ".model a nmos\n");
    const std::string top = write("top.lib", std::string(".inc\x01lude models.inc\n.li\x02" "b models.inc tt\n"));
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_CheckModelLibrary(YString(top.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::MissingSection);
    EXPECT_EQ(problems[0].message, YString((top + ":2: models.inc has no section tt").c_str()));
    ModelLibIndex index;
    ASSERT_EQ(sp_IndexModelLibrary(YString(top.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
    ASSERT_EQ(index.references.size(), 2u);
    EXPECT_EQ(index.references[0].target, "models.inc");
    EXPECT_EQ(index.references[1].target, "models.inc");
    EXPECT_EQ(index.references[1].section, "tt");

    const std::string quoted = write("q.lib", ".lib 'tt'\n.model a nmos\n.endl 'tt'\n.lib \"ff\"\n.model a nmos\n.endl ss\n");
    problems.clear();
    ASSERT_EQ(sp_CheckModelLibrary(YString(quoted.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].message, YString((quoted + ":6: .endl ss ends section ff").c_str()));
}

// A file that a definition includes is named by its absolute path in the extracted library, which is
// written in another folder: a check of the output finds every file.
TEST_F(ModelLibraryFiles, FilesADefinitionIncludesAreNamedByTheirAbsolutePaths)
{
    QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("sub"));
    const std::string lib = write("sub/lib.lib", ".subckt foo a b\n.include \"inner.inc\"\n.lib 'corner.lib' tt\nR1 a b 1\n.ends\n");
    write("sub/inner.inc", ".param w=1\n");
    write("sub/corner.lib", ".lib tt\n.model q d\n.endl\n");
    const std::string folder = QFileInfo(QString::fromStdString(lib)).absolutePath().toStdString();
    ModelLibExtractRequest request;
    request.names = {YString("foo")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":1\n.subckt foo a b\n.include \"" + folder + "/inner.inc\"\n.lib \"" + folder +
                                              "/corner.lib\" tt\nR1 a b 1\n.ends\n");
    QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("out"));
    const std::string out = path("out/x.lib");
    writeFileBytes(out, text.c_str());
    problems.clear();
    ASSERT_EQ(sp_CheckModelLibrary(YString(out.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_TRUE(problems.empty()) << problems.front().message.c_str();
}

#ifndef Q_OS_WIN
// A referenced path reaches the file the system opens by it: ".." after a link leads to the parent of the
// link's target, ".." after a missing folder or a file opens nothing, and a final slash asks for a
// folder. The extracted library names the same file.
TEST_F(ModelLibraryFiles, ReferencesReachTheFilesTheSystemOpens)
{
    QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("real/sub"));
    ASSERT_TRUE(QFile::link(QString::fromStdString(path("real/sub")), QString::fromStdString(path("link"))));
    write("x.spice", ".model beside d\n");
    write("real/x.spice", ".model through d\n");
    const std::string lib = write("lib.spice", ".include \"link/../x.spice\"\n.subckt top a b\n.include 'link/../x.spice'\nR1 a b 1\n.ends\n");
    ModelLibResolution r;
    ASSERT_EQ(sp_ResolveModelSection(YString(lib.c_str()), YString(), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    EXPECT_EQ(reachedNames(r), (std::vector<std::string>{"through", "top"}));
    EXPECT_TRUE(r.problems.empty()) << r.problems.front().message.c_str();
    ModelLibExtractRequest request;
    request.names = {YString("top")};
    YString text;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_NE(std::string(text.c_str()).find(".include \"" + path("link/../x.spice") + "\"\n"), std::string::npos) << text.c_str();
    // An existing output that the library includes by such a name is refused.
    write("real/keep.spice", ".model keep d\n");
    const std::string includes = write("inc.spice", ".include \"link/../keep.spice\"\n.model m d\n");
    EXPECT_TRUE(sp_ModelLibraryHoldsFile(YString(includes.c_str()), YString(path("real/keep.spice").c_str()), SpiceLanguageNative));
    EXPECT_FALSE(sp_ModelLibraryHoldsFile(YString(includes.c_str()), YString(path("keep.spice").c_str()), SpiceLanguageNative));

    // Names the system cannot open are missing files, though their text cleans to a file that exists.
    for (const std::string& name : {std::string("nodir/../x.spice"), std::string("x.spice/"), std::string("x.spice/."),
                                    std::string("x.spice/../x.spice")}) {
        const std::string broken = write("broken.spice", ".include \"" + name + "\"\n.model m d\n");
        std::vector<ModelLibProblem> problems;
        ASSERT_EQ(sp_CheckModelLibrary(YString(broken.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
        ASSERT_EQ(problems.size(), 1u) << name;
        EXPECT_EQ(problems[0].kind, ModelLibProblem::MissingFile) << name;
    }
    // Where nothing changes, the path is written short.
    const std::string plain = write("real/plain.spice", ".include \"./../real/.././x.spice\"\n");
    ModelLibResolution p;
    ASSERT_EQ(sp_ResolveModelSection(YString(plain.c_str()), YString(), SpiceLanguageNative, &p), ModelLibStatus::Ok);
    ASSERT_EQ(p.files.size(), 2u);
    EXPECT_EQ(std::string(p.files[1].fileName.c_str()), path("x.spice"));
}

// A library in a folder whose name is no UTF-8, named relative to it, finds the files beside it.
TEST_F(ModelLibraryFiles, ALibraryInAFolderNamedInAnotherEncodingFindsItsFiles)
{
    const std::string folder = path("dir\xE9");
    ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    for (const auto& [name, text] : {std::pair<const char*, const char*>{"/x.spice", ".model inner d\n"},
                                     std::pair<const char*, const char*>{"/lib.spice", ".include \"x.spice\"\n.model outer d\n"}}) {
        FILE* f = std::fopen((folder + name).c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fputs(text, f);
        std::fclose(f);
    }
    std::vector<char> before(4096);
    ASSERT_NE(::getcwd(before.data(), before.size()), nullptr);
    ASSERT_EQ(::chdir(folder.c_str()), 0);
    ModelLibResolution r;
    const ModelLibStatus status = sp_ResolveModelSection(YString("lib.spice"), YString(), SpiceLanguageNative, &r);
    ASSERT_EQ(::chdir(before.data()), 0);
    ASSERT_EQ(status, ModelLibStatus::Ok);
    EXPECT_EQ(reachedNames(r), (std::vector<std::string>{"inner", "outer"}));
    EXPECT_TRUE(r.problems.empty()) << r.problems.front().message.c_str();
    ASSERT_EQ(r.files.size(), 2u);
    EXPECT_EQ(std::string(r.files[1].fileName.c_str()), folder + "/x.spice");
}
#endif

// An ".include" inside an extracted subcircuit is written with it and brings its file's models: they
// are not written again, so the extracted library defines each once. A model renamed is written under
// its new name, which the subcircuit's lines then use.
TEST_F(ModelLibraryFiles, WhatAnIncludeInsideASubcircuitBringsIsWrittenOnce)
{
    write("inner.spice", ".model inner nmos level=1\n");
    write("deeper.spice", ".model deep pmos\n");
    write("middle.spice", ".include \"deeper.spice\"\n");
    const std::string lib = write("lib.spice", ".subckt a x y\n.include \"inner.spice\"\n.include \"middle.spice\"\n"
                                               "m1 x y x x inner\nm2 x y x x deep\n.ends\n");
    const std::string folder = QFileInfo(QString::fromStdString(lib)).absolutePath().toStdString();
    ModelLibExtractRequest request;
    request.names = {YString("a")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":1\n.subckt a x y\n.include \"" + folder + "/inner.spice\"\n.include \"" +
                                              folder + "/middle.spice\"\nm1 x y x x inner\nm2 x y x x deep\n.ends\n");
    const std::string out = path("out/x.spice");
    QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("out"));
    writeFileBytes(out, text.c_str());
    ASSERT_EQ(sp_CheckModelLibrary(YString(out.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
    EXPECT_TRUE(problems.empty()) << problems.front().message.c_str();
    request.renames = {YString("inner=n1")};
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + folder + "/inner.spice:1\n.model n1  nmos level=1\n* " + lib +
                                              ":1\n.subckt a x y\n.include \"" + folder + "/inner.spice\"\n.include \"" + folder +
                                              "/middle.spice\"\nm1 x y x x n1\nm2 x y x x deep\n.ends\n");
}

// Each section resolved over one cache gives what resolving it alone gives: its definitions in order and
// its problems, a section named twice each time.
TEST_F(ModelLibraryFiles, EachSectionResolvesAsItDoesAlone)
{
    QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("f"));
    write("f/a.spice", ".model ma d\n.include \"b.spice\"\n");
    write("f/b.spice", ".model mb d\n");
    const std::string lib = write("lib.spice", ".model top d\n.lib one\n.include \"f/a.spice\"\n.endl\n.lib two\n.include \"f/b.spice\"\n"
                                               ".include \"missing.spice\"\n.endl\n.lib ONE\n.model again d\n.lib lib.spice two\n.endl\n");
    std::vector<std::string> seen;
    const ModelLibStatus status = sp_ResolveEachModelSection(YString(lib.c_str()), SpiceLanguageNative,
                                                             [&](const ModelLibSection& section, const ModelLibResolution& r) {
        ModelLibResolution alone;
        EXPECT_EQ(sp_ResolveModelSection(YString(lib.c_str()), section.name, SpiceLanguageNative, &alone), ModelLibStatus::Ok);
        EXPECT_EQ(reachedNames(r), reachedNames(alone)) << section.name.c_str();
        ASSERT_EQ(r.problems.size(), alone.problems.size()) << section.name.c_str();
        for (size_t i = 0; i < r.problems.size(); ++i)
            EXPECT_EQ(r.problems[i].message, alone.problems[i].message);
        std::string names;
        for (const std::string& n : reachedNames(r))
            names += " " + n;
        seen.push_back(std::string(section.name.c_str()) + ":" + std::to_string(section.line) + names + " /" +
                       std::to_string(r.problems.size()));
    });
    EXPECT_EQ(status, ModelLibStatus::Ok);
    EXPECT_EQ(seen, (std::vector<std::string>{"one:2 ma mb /0", "two:5 mb /1", "ONE:9 ma mb /0"}));
    EXPECT_EQ(sp_ResolveEachModelSection(YString(path("none.spice").c_str()), SpiceLanguageNative,
                                         [&](const ModelLibSection&, const ModelLibResolution&) { ADD_FAILURE(); }),
              ModelLibStatus::Unreadable);
}

// Only what a line inside the subcircuit brought is left to it: a section of the same file that a line
// outside brought is written, and the subcircuit itself is written though a file it includes includes
// its own library again.
TEST_F(ModelLibraryFiles, OnlyWhatTheSubcircuitsOwnLineBringsIsLeftToIt)
{
    write("corners.lib", ".lib tt\n.model nch nmos\n.endl\n.lib bjt\n.model qnpn npn\n.endl\n");
    const std::string top = write("top.lib", ".lib corners.lib bjt\n.subckt amp a b c\n.lib corners.lib tt\nm1 a b c c nch\nq1 a b c qnpn\n.ends\n");
    const std::string folder = QFileInfo(QString::fromStdString(top)).absolutePath().toStdString();
    ModelLibExtractRequest request;
    request.names = {YString("amp")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(top.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(std::string(text.c_str()), "* " + folder + "/corners.lib:5\n.model qnpn npn\n* " + top + ":2\n.subckt amp a b c\n.lib \"" +
                                              folder + "/corners.lib\" tt\nm1 a b c c nch\nq1 a b c qnpn\n.ends\n");
    write("again.inc", ".include \"" + top + "\"\n");
    const std::string cycle = write("cycle.lib", ".subckt amp2 a b\n.include \"again.inc\"\nr1 a b 1\n.ends\n");
    request.names = {YString("amp2")};
    ASSERT_EQ(sp_ExtractModels(YString(cycle.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_NE(std::string(text.c_str()).find(".subckt amp2 a b\n"), std::string::npos) << text.c_str();
}

// A library extracted from definitions of both dialects is written in the one without a directive.
TEST_F(ModelLibraryFiles, DefinitionsOfBothDialectsGetNoDirective)
{
    write("h.spice", "*#HSPICE\n.model hq d\n");
    const std::string lib = write("n.spice", ".include \"h.spice\"\n.model n$1 d\n.subckt s a\nd1 a 0 n$1\nd2 a 0 hq\n.ends\n");
    ModelLibExtractRequest request;
    request.names = {YString("s")};
    YString text;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()).find("*#HSPICE"), std::string::npos) << text.c_str();
    EXPECT_NE(std::string(text.c_str()).find(".model n$1 d\n"), std::string::npos) << text.c_str();
    // A ";" in a comment line of a definition read with "$" comments is no text that needs the directive,
    // and nothing is told.
    write("hc.spice", "*#HSPICE\n.subckt hs a\n* note; here\nr1 a 0 1\n.ends\n");
    const std::string commented = write("nc.spice", ".include \"hc.spice\"\n.model n$1 d\n.subckt t a\nx1 a hs\nd1 a 0 n$1\n.ends\n");
    request.names = {YString("t")};
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(commented.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    const std::string out = text.c_str();
    EXPECT_EQ(out.find("*#HSPICE"), std::string::npos) << out;
    EXPECT_NE(out.find("* note; here\n"), std::string::npos) << out;
    EXPECT_NE(out.find(".model n$1 d\n"), std::string::npos) << out;
    EXPECT_TRUE(problems.empty()) << problems.front().message.c_str();
}

// Definitions of both dialects, one of those read with "$" comments holding a ";", are written under the
// directive that keeps it text; a "$" of a definition of the other dialect would then start a comment, and
// the first such definition is named in a problem.
TEST_F(ModelLibraryFiles, DefinitionsOfBothDialectsKeepASemicolonAsText)
{
    write("h.spice", "*#HSPICE\n.model h nmos a=1 ; b=2\n");
    const std::string lib = write("n.spice", ".include \"h.spice\"\n.subckt s a\nm1 a a a a h\n.ends\n");
    const std::string hlib = path("h.spice");
    ModelLibExtractRequest request;
    request.names = {YString("s")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "*#HSPICE\n* " + hlib + ":2\n.model h nmos a=1 ; b=2\n* " + lib + ":2\n.subckt s a\nm1 a a a a h\n.ends\n");
    EXPECT_TRUE(problems.empty());
    const std::string out = write("out.spice", text.c_str());
    ModelLibDiff diff;
    ASSERT_EQ(sp_DiffModelLibraries(YString(hlib.c_str()), YString(out.c_str()), SpiceLanguageNative, &diff), ModelLibStatus::Ok);
    EXPECT_TRUE(diff.differing.empty() && diff.onlyInA.empty());

    const std::string both = write("both.spice", ".include \"h.spice\"\n.model n$1 d\n.subckt t a\nm1 a a a a h\nd1 a 0 n$1\n.ends\n");
    request.names = {YString("t")};
    ASSERT_EQ(sp_ExtractModels(YString(both.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()).rfind("*#HSPICE\n", 0), 0u) << text.c_str();
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::Structure);
    EXPECT_EQ(std::string(problems[0].name.c_str()), "n$1");
    EXPECT_EQ(std::string(problems[0].file.c_str()), both);
    EXPECT_EQ(problems[0].line, 2);
    EXPECT_EQ(std::string(problems[0].message.c_str()), "the \"$\" of n$1 starts a comment in the extracted library, which reads "
                                                         "\";\" as text for h (" + hlib + ":2)");
}

// An included file whose absolute path holds a comment character of either dialect keeps the name the
// line gives it: written absolute, the name would be cut where it is read back.
TEST_F(ModelLibraryFiles, AnIncludedPathWithACommentCharacterIsLeftAsWritten)
{
    for (const std::string sub : {"a;b", "c$d"}) {
        QDir(QString::fromStdString(path(""))).mkpath(QString::fromStdString(sub));
        const std::string lib = write(sub + "/lib.lib", ".subckt foo a b\n.include \"inner.inc\"\nR1 a b 1\n.ends\n");
        write(sub + "/inner.inc", ".param w=1\n");
        ModelLibExtractRequest request;
        request.names = {YString("foo")};
        YString text;
        ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok) << sub;
        EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":1\n.subckt foo a b\n.include \"inner.inc\"\nR1 a b 1\n.ends\n") << sub;
    }
}

// Definitions read in the dialect whose comments start with "$" are extracted under its directive: the
// library reads back with the same names and lines, and compares equal to its source.
TEST_F(ModelLibraryFiles, ExtractKeepsTheDialectItReadIn)
{
    const std::string lib = write("hs.spice", "*#HSPICE\n.model m;x nmos vth0=1 $ comment\n+ k=2\n.subckt s a b\nm1 a b a a m;x\n.ends\n");
    ModelLibExtractRequest request;
    request.names = {YString("s")};
    YString text;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "*#HSPICE\n* " + lib + ":2\n.model m;x nmos vth0=1   k=2\n* " + lib +
                                              ":4\n.subckt s a b\nm1 a b a a m;x\n.ends\n");
    const std::string out = write("out.spice", text.c_str());
    ModelLibDiff diff;
    ASSERT_EQ(sp_DiffModelLibraries(YString(lib.c_str()), YString(out.c_str()), SpiceLanguageNative, &diff), ModelLibStatus::Ok);
    EXPECT_TRUE(diff.onlyInA.empty() && diff.onlyInB.empty() && diff.differing.empty());
    // A library in the other dialect gets no directive.
    const std::string plain = write("plain.spice", ".model p d ; comment\n");
    request.names = {YString("p")};
    ASSERT_EQ(sp_ExtractModels(YString(plain.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + plain + ":1\n.model p d \n");
}

// The absolute path of an included file is written in quotes it does not hold, or bare when it holds
// both kinds: the extracted library, written in another folder, still finds every file.
TEST_F(ModelLibraryFiles, IncludedPathsWithQuotesAreWrittenSoThatTheyReadBack)
{
    // (Windows names hold no double quote.)
#ifdef Q_OS_WIN
    const std::vector<std::string> folders{"sq'x"};
#else
    const std::vector<std::string> folders{"dq\"x", "sq'x", "both\"'x"};
#endif
    for (const std::string& sub : folders) {
        QDir(QString::fromStdString(path(""))).mkpath(QString::fromStdString(sub));
        const std::string lib = write(sub + "/lib.lib", ".subckt foo a b\n.include \"inner.inc\"\n.lib corner.lib tt\nR1 a b 1\n.ends\n");
        write(sub + "/inner.inc", ".param w=1\n");
        write(sub + "/corner.lib", ".lib tt\n.model q d\n.endl\n");
        const std::string folder = QFileInfo(QString::fromStdString(lib)).absolutePath().toStdString();
        ModelLibExtractRequest request;
        request.names = {YString("foo")};
        YString text;
        std::vector<ModelLibProblem> problems;
        ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok) << sub;
        const std::string q = sub[0] == 'd' ? "'" : sub[0] == 's' ? "\"" : "";
        EXPECT_EQ(std::string(text.c_str()), "* " + lib + ":1\n.subckt foo a b\n.include " + q + folder + "/inner.inc" + q +
                                                  "\n.lib " + q + folder + "/corner.lib" + q + " tt\nR1 a b 1\n.ends\n")
            << sub;
        QDir(QString::fromStdString(path(""))).mkpath(QStringLiteral("out"));
        const std::string out = path("out/x.lib");
        writeFileBytes(out, text.c_str());
        problems.clear();
        ASSERT_EQ(sp_CheckModelLibrary(YString(out.c_str()), YString(), SpiceLanguageNative, &problems), ModelLibStatus::Ok);
        EXPECT_TRUE(problems.empty()) << sub << ": " << problems.front().message.c_str();
    }
}

#ifndef Q_OS_WIN
// A library whose name holds a line end or other control bytes is named in one comment line, with those
// bytes as escapes: the line end would have split it.
TEST_F(ModelLibraryFiles, TheCommentNamingALibraryStaysOneLine)
{
    const std::string lib = write("a\nb\tc\x7F.lib", ".model m1 d\n");
    ModelLibExtractRequest request;
    request.names = {YString("m1")};
    YString text;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, nullptr), ModelLibStatus::Ok);
    EXPECT_EQ(std::string(text.c_str()), "* " + path("a\\nb\\x09c\\x7f.lib") + ":1\n.model m1 d\n");
}
#endif

// Renames change the words that name definitions, never the file or section a ".include" or ".lib" line
// names, though they share a name with a renamed model.
TEST_F(ModelLibraryFiles, RenamesLeaveTheFilesAndSectionsOfIncludeAndLibLinesAlone)
{
    const std::string lib = write("lib.lib", ".subckt top a b\n.include nch\n.lib corners.lib tt\nM1 a b a a nch\n.ends\n"
                                             ".model nch nmos (vth0=0.4)\n");
    write("nch", ".param w=1\n");
    write("corners.lib", ".lib tt\n.model q d\n.endl\n");
    const std::string folder = QFileInfo(QString::fromStdString(lib)).absolutePath().toStdString();
    ModelLibExtractRequest request;
    request.names = {YString("top")};
    request.renames = {YString("nch=nfet"), YString("tt=typ")};
    YString text;
    std::vector<ModelLibProblem> problems;
    ASSERT_EQ(sp_ExtractModels(YString(lib.c_str()), request, &text, &problems), ModelLibStatus::Ok);
    // The section's name is renamed nowhere, and the caller is told.
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].kind, ModelLibProblem::UnusedRename);
    EXPECT_EQ(problems[0].name, "tt");
    const std::string out = text.c_str();
    EXPECT_NE(out.find(".include \"" + folder + "/nch\"\n"), std::string::npos) << out;
    EXPECT_NE(out.find(".lib \"" + folder + "/corners.lib\" tt\n"), std::string::npos) << out;
    EXPECT_NE(out.find("M1 a b a a nfet\n"), std::string::npos) << out;
    EXPECT_NE(out.find(".model nfet "), std::string::npos) << out;
}

TEST_F(ModelLibraryFiles, DiffListsSectionsAndDefinitionsOfEachSide)
{
    const std::string a = write("a.lib", ".lib tt\n.model n nmos vth0=1\n.model p pmos\n.endl\n.lib ss\n.endl\n");
    const std::string b = write("b.lib", ".lib TT\n.model N nmos\n+ vth0=2\n.model x d\n.model p  PMOS ; same\n.endl\n");
    ModelLibDiff diff;
    ASSERT_EQ(sp_DiffModelLibraries(YString(a.c_str()), YString(b.c_str()), SpiceLanguageNative, &diff), ModelLibStatus::Ok);
    EXPECT_EQ(diff.sectionsOnlyInA, (std::vector<YString>{"ss"}));
    EXPECT_TRUE(diff.sectionsOnlyInB.empty());
    EXPECT_TRUE(diff.onlyInA.empty());
    EXPECT_EQ(diff.onlyInB, (std::vector<YString>{".model x in section TT"}));
    EXPECT_EQ(diff.differing, (std::vector<YString>{".model n in section tt"}));
}

// Letters differ in case outside quotes without a difference; a quoted text, such as the name of a file,
// which may tell case apart, differs in case.
TEST_F(ModelLibraryFiles, DiffTellsCaseApartOnlyInQuotes)
{
    const std::string a = write("qa.lib", ".subckt s a\n.include \"Models/X.lib\"\nR1 a 0 1K\n.ends\n.model m d file='Data/T.csv'\n.model k D IS=1\n");
    const std::string b = write("qb.lib", ".SUBCKT S A\n.include \"models/x.lib\"\nr1 A 0 1k\n.ENDS\n.model m d file='data/t.csv'\n.model K d is=1\n");
    ModelLibDiff diff;
    ASSERT_EQ(sp_DiffModelLibraries(YString(a.c_str()), YString(b.c_str()), SpiceLanguageNative, &diff), ModelLibStatus::Ok);
    EXPECT_TRUE(diff.onlyInA.empty() && diff.onlyInB.empty());
    EXPECT_EQ(diff.differing, (std::vector<YString>{".model m", ".subckt s"}));
    const std::string c = write("qc.lib", ".SUBCKT S A\n.INCLUDE  \"Models/X.lib\"\nr1 A 0 1k\n.ENDS\n.model M D FILE='Data/T.csv'\n");
    ModelLibDiff same;
    ASSERT_EQ(sp_DiffModelLibraries(YString(a.c_str()), YString(c.c_str()), SpiceLanguageNative, &same), ModelLibStatus::Ok);
    EXPECT_TRUE(same.differing.empty());
    EXPECT_EQ(same.onlyInA, (std::vector<YString>{".model k"}));
}

// A corner library defines the same names in every section: each section's definitions are compared
// with the other file's of that section, and a top-level one with the other's top-level one.
TEST_F(ModelLibraryFiles, DiffComparesEachSectionsDefinitions)
{
    const std::string a = write("c1.lib", ".model top d\n.lib tt\n.model nch nmos vth0=0.4\n.endl tt\n.lib ff\n.model nch nmos vth0=0.3\n.endl ff\n"
                                          ".lib only\n.model z d\n.endl\n");
    const std::string b = write("c2.lib", ".lib ff\n.model nch nmos vth0=0.9\n.endl ff\n.lib tt\n.model nch nmos vth0=0.4\n.endl tt\n"
                                          ".model top d is=2\n");
    ModelLibDiff diff;
    ASSERT_EQ(sp_DiffModelLibraries(YString(a.c_str()), YString(b.c_str()), SpiceLanguageNative, &diff), ModelLibStatus::Ok);
    EXPECT_EQ(diff.sectionsOnlyInA, (std::vector<YString>{"only"}));
    EXPECT_TRUE(diff.onlyInA.empty());
    EXPECT_TRUE(diff.onlyInB.empty());
    EXPECT_EQ(diff.differing, (std::vector<YString>{".model top", ".model nch in section ff"}));
}

// A library of many subcircuits whose element lines mix nodes, models, values, NAME=VALUE pairs with and
// without blanks around "=", "params:", inline comments, "+" continuations behind comment lines, tabs,
// words longer than 8 and 16 bytes, lines longer than 64 and 128 bytes, nested subcircuits and lines
// that repeat their predecessor but for a word. Large enough to be read in several windows.
std::string generatedSubcircuits(unsigned seed, const char* lineEnd)
{
    std::mt19937 rng(seed);
    const auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    const std::vector<std::string> pool = {"d",   "g",     "s",     "b",        "VDD",     "vdd",   "nch",       "NCH",
                                           "pch", "sub1",  "Sub1",  "0",        "1u",      "2.5",   "w",         "l",
                                           "m",   "inner", "INNER", "params:",  "PARAMS:", "param:", "mid_node_a", "x1",
                                           "a_rather_long_node_name", "n0123456789abcdefXYZ", "q", "r9", "3k"};
    const auto word = [&]() -> std::string {
        if (pick(5) == 0) {
            std::string w;
            const size_t n = 1 + pick(24);
            for (size_t i = 0; i < n; ++i)
                w.push_back("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.:/"[pick(66)]);
            return w;
        }
        return pool[pick(pool.size())];
    };
    const std::vector<std::string> separators = {" ", " ", " ", "  ", "\t", ",", "(", ")", " ("};
    std::string text = "* generated" + std::string(lineEnd);
    std::string previous;
    int depth = 0;
    int number = 0;
    while (text.size() < 700000) {
        const size_t what = pick(20);
        if (depth == 0 || what == 0) {
            if (depth < 3 && (depth == 0 || pick(3) == 0)) {
                text += ".subckt cell" + std::to_string(number++);
                for (size_t i = pick(5); i > 0; --i)
                    text += " " + word();
                if (pick(3) == 0)
                    text += " params: a=1 b = 2";
                text += lineEnd;
                ++depth;
                previous.clear();
            } else if (depth > 0) {
                text += std::string(".ends") + lineEnd;
                --depth;
                previous.clear();
            }
            continue;
        }
        if (what == 1) {
            text += ".model mdl" + std::to_string(number++) + " nmos (vth0=0.4" + lineEnd + "+ u0=400)" + lineEnd;
            continue;
        }
        std::string line;
        if (!previous.empty() && pick(3) == 0) {
            // The previous line with one word changed, as devices of one cell differ in a value.
            line = previous;
            const size_t at = line.find(' ', 1 + pick(line.size()));
            if (at != std::string::npos)
                line = line.substr(0, at) + " " + word() + line.substr(at);
        } else {
            line = std::string(1, "MRXCQxmD"[pick(8)]) + std::to_string(pick(1000));
            for (size_t i = 1 + pick(pick(4) == 0 ? 30 : 8); i > 0; --i) {
                line += separators[pick(separators.size())];
                line += word();
                if (pick(4) == 0)
                    line += std::string(pick(2) ? "=" : " = ") + (pick(2) ? "1" : word());
            }
        }
        previous = line;
        if (pick(6) == 0)
            line += " ; a note with words=1 x";
        const size_t split = line.find(' ', line.size() / 2);
        if (pick(5) == 0 && split != std::string::npos) {
            text += line.substr(0, split) + lineEnd + (pick(2) ? std::string("* between") + lineEnd + lineEnd : std::string()) +
                    "  +" + line.substr(split) + lineEnd;
        } else {
            text += line + lineEnd;
        }
    }
    for (; depth > 0; --depth)
        text += std::string(".ends") + lineEnd;
    return text;
}

// The words of a logical line as LibraryStream splits a definition's name off: at " =(),\t", each with
// whether an "=" follows after blanks.
std::vector<std::pair<std::string, bool>> referenceWords(const std::string& line)
{
    const std::string delimiters = " =(),\t";
    std::vector<std::pair<std::string, bool>> out;
    size_t i = 0;
    while (i < line.size()) {
        if (delimiters.find(line[i]) != std::string::npos) {
            ++i;
            continue;
        }
        size_t e = i;
        while (e < line.size() && delimiters.find(line[e]) == std::string::npos)
            ++e;
        size_t j = e;
        while (j < line.size() && (line[j] == ' ' || line[j] == '\t'))
            ++j;
        out.push_back({line.substr(i, e - i), j < line.size() && line[j] == '='});
        i = e;
    }
    return out;
}

std::string lowered(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool isParams(const std::string& w) { return lowered(w) == "params:" || lowered(w) == "param:"; }

// The instances and uses of every subcircuit, in the order of their ".subckt" lines, from the logical
// lines SpiceStream reads: on an element line, the words after the first that are no NAME= and start
// with no digit are uses, except on an "X" line the last one before the parameters, its subcircuit.
std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> referenceSubcircuitWords(const std::string& file)
{
    std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> out;
    std::vector<size_t> open;
    const auto add = [](std::vector<std::string>& list, const std::string& w) {
        for (const std::string& x : list)
            if (lowered(x) == lowered(w))
                return;
        list.push_back(w);
    };
    for (const auto& numbered : spiceLines(file, SpiceLanguageNative)) {
        const std::string& line = numbered.second;
        const auto words = referenceWords(line);
        const std::string first = words.empty() ? std::string() : lowered(words[0].first);
        if (line[0] == '.') {
            if (first == ".subckt" && words.size() > 1) {
                open.push_back(out.size());
                out.emplace_back();
            } else if (first == ".ends" && !open.empty()) {
                open.pop_back();
            }
            continue;
        }
        if (open.empty() || std::string(" =(),\t").find(line[0]) != std::string::npos)
            continue;
        auto& lists = out[open.back()];
        const bool instanceLine = line[0] == 'x' || line[0] == 'X';
        size_t instance = SIZE_MAX;
        if (instanceLine) {
            for (size_t i = 1; i < words.size() && !words[i].second && !isParams(words[i].first); ++i)
                instance = i;
        }
        for (size_t i = 1; i < words.size(); ++i) {
            if (i == instance) {
                add(lists.first, words[i].first);
                continue;
            }
            if (words[i].second || (words[i].first[0] >= '0' && words[i].first[0] <= '9'))
                continue;
            add(lists.second, words[i].first);
        }
    }
    return out;
}

TEST_F(ModelLibraryFiles, SubcircuitWordsAgreeWithASimpleReadingOfTheirLogicalLines)
{
    for (const char* lineEnd : {"\n", "\r\n"}) {
        const std::string text = generatedSubcircuits(lineEnd[0] == '\n' ? 7u : 8u, lineEnd);
        const std::string file = write("generated.lib", text);
        const auto expected = referenceSubcircuitWords(file);
        ModelLibIndex fromFile, fromText;
        ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &fromFile), ModelLibStatus::Ok);
        sp_IndexModelLibraryText(text.data(), text.size(), YString(file.c_str()), SpiceLanguageNative, &fromText);
        for (const ModelLibIndex* index : {&fromFile, &fromText}) {
            std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> got;
            for (const ModelLibDefinition& d : index->definitions) {
                if (d.kind != ModelLibDefinition::Subckt)
                    continue;
                got.emplace_back();
                for (std::string_view w : index->instances(d))
                    got.back().first.push_back(std::string(w));
                for (std::string_view w : index->uses(d))
                    got.back().second.push_back(std::string(w));
            }
            ASSERT_EQ(got.size(), expected.size());
            for (size_t i = 0; i < got.size(); ++i) {
                EXPECT_EQ(got[i].first, expected[i].first) << "instances of subcircuit " << i;
                EXPECT_EQ(got[i].second, expected[i].second) << "uses of subcircuit " << i;
                if (got[i] != expected[i])
                    break;
            }
            EXPECT_GT(got.size(), 200u);
        }
        EXPECT_EQ(checkReadBack(file, fromFile, SpiceLanguageNative), static_cast<int>(fromFile.definitions.size()));
        // Passing over the element lines changes nothing else.
        ModelLibIndex skipped;
        ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &skipped, ModelLibElements::Skip), ModelLibStatus::Ok);
        EXPECT_FALSE(skipped.elementWords);
        EXPECT_EQ(outline(skipped), outline(fromFile));
        for (const ModelLibDefinition& d : skipped.definitions)
            ASSERT_TRUE(skipped.instances(d).empty() && skipped.uses(d).empty());
    }
}

class ModelLibraryCorpus : public ::testing::Test {
protected:
    void SetUp() override
    {
        files = corpusLibraries();
        if (files.empty())
            GTEST_SKIP() << "the shared corpus is absent (" << corpusDir().toStdString()
                         << "; set SUPPORTQT_CORPUS_DIR to use one elsewhere)";
    }
    std::vector<std::string> files;
};

TEST_F(ModelLibraryCorpus, EveryDefinitionReadsBackAsSpiceStreamReadsItsStretch)
{
    int checked = 0;
    int pm3 = -1;
    int quirky = 0;
    for (const std::string& file : files) {
        ModelLibIndex index;
        ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok) << file;
        if (index.definitions.empty())
            continue;
        // SpiceStream reads past a lone CR right after a line-start comment character and takes the next
        // line for the rest of the comment; LibraryStream and the index end the line there. Such files
        // cannot agree line for line and are counted apart.
        const std::string bytes = readFileBytes(file);
        bool loneCrAfterComment = false;
        for (size_t i = 1; i + 1 < bytes.size() && !loneCrAfterComment; ++i)
            loneCrAfterComment = bytes[i] == '\r' && bytes[i + 1] != '\n' && (bytes[i - 1] == '*' || bytes[i - 1] == ';');
        if (loneCrAfterComment) {
            ++quirky;
            continue;
        }
        checked += checkReadBack(file, index, index.language);
        if (!index.wide) {
            const char commentChar = index.language == SpiceLanguageHspice ? '$' : ';';
            const std::string indexed = bytes.substr(0, static_cast<size_t>(index.size));
            for (const ModelLibDefinition& d : index.definitions)
                EXPECT_FALSE(orphanContinuationAfter(indexed, static_cast<size_t>(d.end), commentChar)) << file << ":" << d.line;
        }
        ModelLibIndex skipped;
        ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &skipped, ModelLibElements::Skip), ModelLibStatus::Ok);
        EXPECT_EQ(outline(skipped), outline(index)) << file;
        if (file.find("sky130_fd_pr__nfet_01v8__tt.pm3.spice") != std::string::npos)
            pm3 = static_cast<int>(index.definitions.size());
    }
    EXPECT_GT(checked, 19000);
    EXPECT_EQ(pm3, 181);
    EXPECT_LT(quirky, 10);
}

// An independent reading of the sections: physical lines, ".lib" with one argument opens a section and
// ".endl" closes it.
const char kSectionScript[] = R"PY(
import re, sys
for path in sys.argv[1:]:
    data = open(path, 'rb').read()
    cut = data.find(b'\xff')
    if cut >= 0:
        data = data[:cut]
    if data[:2] in (b'\xff\xfe', b'\xfe\xff'):
        continue
    lines = re.split(rb'\r\n|\r|\n', data)
    open_name, open_line = None, 0
    for number, raw in enumerate(lines, 1):
        head = raw.lstrip(b' \t')[:5].lower()
        if not (head.startswith(b'.lib') or head.startswith(b'.endl')):
            continue
        line = bytes(c for c in raw if c == 9 or c >= 32).strip()
        low = line.lower()
        if re.match(rb'\.lib[ \t]', low) or low == b'.lib':
            args = re.findall(rb'"[^"]*"|\'[^\']*\'|[^ \t]+', line[4:].split(b';')[0])
            if len(args) == 1:
                if open_name is not None:
                    print('%s\t%s\t%d\t%d' % (path, open_name.decode('latin-1'), open_line, number - 1))
                open_name, open_line = args[0].strip(b'"\''), number
        elif re.match(rb'\.endl\b', low) and open_name is not None:
            print('%s\t%s\t%d\t%d' % (path, open_name.decode('latin-1'), open_line, number))
            open_name = None
    if open_name is not None:
        print('%s\t%s\t%d\t%d' % (path, open_name.decode('latin-1'), open_line, len(lines) - (1 if lines and lines[-1] == b'' else 0)))
)PY";

TEST_F(ModelLibraryCorpus, SectionListsAgreeWithAnIndependentScript)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    std::string expected;
    QStringList arguments{QStringLiteral("-c"), QString::fromLatin1(kSectionScript)};
    for (const std::string& file : files)
        arguments << QString::fromStdString(file);
    QProcess python;
    python.start(QStringLiteral("/usr/bin/python3"), arguments);
    ASSERT_TRUE(python.waitForFinished(60000));
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    expected = python.readAllStandardOutput().toStdString();
    std::string got;
    int sections = 0;
    for (const std::string& file : files) {
        ModelLibIndex index;
        ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
        if (index.wide)
            continue;
        for (const ModelLibSection& s : index.sections) {
            got += file + "\t" + s.name.c_str() + "\t" + std::to_string(s.line) + "\t" + std::to_string(s.endLine) + "\n";
            ++sections;
        }
    }
    EXPECT_EQ(got, expected);
    EXPECT_GT(sections, 10);
}

TEST_F(ModelLibraryCorpus, AKitCornerResolvesAcrossItsFilesAndExtractsARoundTrip)
{
    const QString lib = corpusDir() + QStringLiteral("/kits/sky130_fd_pr/models/sky130.lib.spice");
    if (!QFileInfo::exists(lib))
        GTEST_SKIP() << "the kit library is absent from the corpus";
    ModelLibResolution r;
    ASSERT_EQ(sp_ResolveModelSection(toYs(lib), YString("tt"), SpiceLanguageNative, &r), ModelLibStatus::Ok);
    EXPECT_GT(r.definitions.size(), 100u);
    EXPECT_GT(r.files.size(), 10u);
    // The first subcircuit the corner reaches, extracted with everything it uses.
    YString name;
    for (const ModelLibReached& x : r.definitions) {
        const ModelLibIndex& file = r.files[static_cast<size_t>(x.file)];
        const ModelLibDefinition& d = file.definitions[static_cast<size_t>(x.definition)];
        if (d.kind == ModelLibDefinition::Subckt) {
            name = YString(std::string(file.name(d)).c_str());
            break;
        }
    }
    ASSERT_FALSE(name.isEmpty());
    ModelLibExtractRequest request;
    request.names = {name};
    request.section = YString("tt");
    YString text;
    ASSERT_EQ(sp_ExtractModels(toYs(lib), request, &text, nullptr), ModelLibStatus::Ok);
    ModelLibIndex extracted;
    sp_IndexModelLibraryText(text.c_str(), static_cast<size_t>(text.length()), YString("x.lib"), SpiceLanguageNative, &extracted);
    ASSERT_FALSE(extracted.definitions.empty());
    // The requested subcircuit comes last among the top-level definitions, after what it uses.
    const ModelLibDefinition* last = nullptr;
    for (const ModelLibDefinition& d : extracted.definitions)
        last = d.parent < 0 ? &d : last;
    EXPECT_EQ(extracted.name(*last), name.c_str());
    for (const ModelLibDefinition& d : extracted.definitions) {
        if (d.parent >= 0)
            continue;
        bool reached = false;
        for (const ModelLibReached& x : r.definitions) {
            const ModelLibIndex& file = r.files[static_cast<size_t>(x.file)];
            reached = reached || YString(std::string(file.name(file.definitions[static_cast<size_t>(x.definition)])).c_str())
                                     .equalsNoCase(std::string(extracted.name(d)).c_str());
        }
        EXPECT_TRUE(reached) << extracted.name(d);
    }
}

namespace {

// Everything an index holds, as text: what one scan and a scan in parts must agree on byte for byte.
std::string everything(const ModelLibIndex& index)
{
    std::string out = std::string(index.fileName.c_str()) + " wide " + std::to_string(index.wide) + " language " +
                      std::to_string(index.language) + " size " + std::to_string(index.size) + " lines " +
                      std::to_string(index.lines) + " elements " + std::to_string(index.elementWords) + "\n";
    const auto list = [&](ModelLibWordList words) {
        std::string l;
        for (std::string_view w : words)
            l += " " + std::string(w);
        return l + " |";
    };
    for (const ModelLibDefinition& d : index.definitions) {
        out += "def " + std::to_string(d.kind) + " " + std::string(index.name(d)) + " " + std::string(index.type(d)) + " " +
               std::string(index.akoBase(d)) + " " + std::to_string(d.start) + " " + std::to_string(d.end) + " " +
               std::to_string(d.line) + " " + std::to_string(d.lastLine) + " " + std::to_string(d.section) + " " +
               std::to_string(d.parent) + " @" + std::to_string(d.words) + list(index.ports(d)) + list(index.instances(d)) +
               list(index.uses(d)) + "\n";
    }
    for (const ModelLibSection& s : index.sections) {
        out += "section " + std::string(s.name.c_str()) + " " + std::to_string(s.line) + " " + std::to_string(s.endLine) + " " +
               std::to_string(s.start) + " " + std::to_string(s.end) + " " + std::to_string(s.closed) + " defs";
        for (int d : s.definitions)
            out += " " + std::to_string(d);
        out += " refs";
        for (int r : s.references)
            out += " " + std::to_string(r);
        out += " params";
        for (const YString& p : s.params)
            out += " " + p.str();
        out += "\n";
    }
    for (const ModelLibReference& r : index.references)
        out += "ref " + std::to_string(r.kind) + " " + r.target.str() + " " + r.path.str() + " " + r.section.str() + " " +
               std::to_string(r.line) + " " + std::to_string(r.inSection) + "\n";
    for (const YString& p : index.params)
        out += "param " + p.str() + "\n";
    for (const ModelLibDiagnostic& d : index.diagnostics)
        out += "diagnostic " + std::to_string(d.line) + " " + d.message.str() + "\n";
    out += "words " + std::to_string(index.words.size()) + "\n";
    return out;
}

// Sets the number of parts the index splits a text into while it lives; 0 leaves the choice to it.
class IndexParts {
public:
    explicit IndexParts(int parts)
    {
        if (parts > 0)
            qputenv("SUPPORTQT_INDEX_PARTS", QByteArray::number(parts));
        else
            qunsetenv("SUPPORTQT_INDEX_PARTS");
    }
    ~IndexParts() { qunsetenv("SUPPORTQT_INDEX_PARTS"); }
};

std::string indexedInParts(const std::string& text, int parts, SpiceLanguage language = SpiceLanguageNative)
{
    const IndexParts set(parts);
    ModelLibIndex index;
    sp_IndexModelLibraryText(text.data(), text.size(), YString("/lib/parts.lib"), language, &index);
    return everything(index);
}

// A library of random statements: models with "+" lines behind comments and blanks, subcircuits nested
// up to three deep with local models and element lines, sections (closed, unclosed, nested, ended with
// another name), references, parameters, AKO models, stray ".ends" and ".endl", a leading dialect
// directive, dropped bytes, CR LF and lone CR line ends, and now and then a byte 0xFF that ends it.
std::string randomLibrary(unsigned seed)
{
    std::mt19937 rng(seed);
    const auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    const std::vector<std::string> ends = {"\n", "\n", "\n", "\r\n", "\r"};
    const std::string end = ends[pick(ends.size())];
    std::string text;
    if (pick(4) == 0)
        text += std::string(pick(2) ? "*#HSPICE" : "*#pspice") + end;
    int depth = 0;
    int number = 0;
    bool section = false;
    for (size_t n = 40 + pick(200); n > 0; --n) {
        const std::string name = std::to_string(number++);
        switch (pick(16)) {
        case 0:
        case 1:
        case 2:
            text += ".model m" + name + " nmos (vth0=0." + name + end;
            if (pick(2))
                text += (pick(2) ? "* note" + end : std::string()) + (pick(2) ? end : std::string()) + "+ u0=" + name + ")" + end;
            break;
        case 3:
        case 4:
            if (depth < 3) {
                text += (pick(6) ? ".subckt c" : ".SUBCKT C") + name + " a b" + (pick(3) ? "" : " params: w=1") + end;
                ++depth;
            }
            break;
        case 5:
        case 6:
            if (depth > 0 || pick(8) == 0) {
                text += ".ends" + (pick(2) ? " c" + name : std::string()) + end;
                depth = std::max(0, depth - 1);
            }
            break;
        case 7:
        case 8:
            text += std::string(1, "MXRQ"[pick(4)]) + name + " a b m" + std::to_string(pick(number)) + " w=1u" +
                    (pick(4) ? "" : " $ c ; d") + end;
            break;
        case 9:
            if (!section || pick(4) == 0) {
                text += ".lib " + std::string(pick(2) ? "tt" : "ss") + name + end;
                section = true;
            } else {
                text += ".endl" + (pick(2) ? " tt" + name : std::string()) + end;
                section = false;
            }
            break;
        case 10:
            text += pick(2) ? ".include \"inc" + name + ".lib\"" + end : ".lib 'other.lib' tt" + end;
            break;
        case 11:
            text += ".param p" + name + "=1 q" + name + " = 2" + end;
            break;
        case 12:
            text += ".model a" + name + " ako: m" + std::to_string(pick(number)) + " nmos (k=1)" + end;
            break;
        case 13:
            text += std::string(pick(2) ? "* comment" : "; comment") + end + (pick(2) ? "  " + end : std::string());
            break;
        case 14:
            text += std::string(pick(2) ? "\x01" : "\t") + ".model d" + name + " d" + (pick(2) ? "\x7f" : "") + end;
            break;
        default:
            if (pick(12) == 0)
                text += "\xff";
            else
                text += "+ orphan=" + name + end;
            break;
        }
    }
    return text;
}

} // namespace

// A long library is indexed by several threads, each from a line that opens a definition; the parts
// join into exactly what one scan gives, also where a part starts inside a subcircuit or a section, in
// another dialect or after the end byte (the part before then reads on through it).
TEST(ModelLibraryParts, APartedIndexIsExactlyTheOneScanIndex)
{
    int compared = 0;
    for (unsigned seed = 1; seed <= 300; ++seed) {
        const std::string text = randomLibrary(seed);
        for (SpiceLanguage language : {SpiceLanguageNative, SpiceLanguageHspice}) {
            const std::string whole = indexedInParts(text, 1, language);
            for (int parts : {2, 3, 5, 8, 13}) {
                ASSERT_EQ(indexedInParts(text, parts, language), whole) << "seed " << seed << ", " << parts << " parts";
                ++compared;
            }
        }
    }
    EXPECT_EQ(compared, 3000);
    // Longer libraries, without the end byte, so that the parts refill their windows, and a part read on
    // through is abandoned while it runs.
    for (unsigned seed = 1; seed <= 6; ++seed) {
        std::string text;
        for (unsigned k = 0; text.size() < 300000; ++k) {
            const std::string piece = randomLibrary(seed * 1000 + k);
            if (piece.find('\xff') == std::string::npos)
                text += piece;
        }
        const std::string whole = indexedInParts(text, 1);
        for (int parts : {2, 4, 7})
            ASSERT_EQ(indexedInParts(text, parts), whole) << "long library " << seed << ", " << parts << " parts";
    }
}

TEST(ModelLibraryParts, PartsJoinWithEveryCountShiftedAfterThePartsBefore)
{
    // Every part starts at a top-level definition: each joins, so that every number after the first
    // part's is shifted: lines, definitions, sections, references, words, parents and diagnostics.
    std::string text = "* head\n";
    for (int i = 0; i < 60; ++i) {
        const std::string n = std::to_string(i);
        text += ".model m" + n + " nmos (vth0=1\n* between\n\n+ u0=" + n + ")\n";
        text += ".subckt c" + n + " a b\n.model local" + n + " pmos\nX" + n + " a b c" + std::to_string(i / 2) + "\nM" + n +
                " a b 0 0 local" + n + " w=1\n.ends c" + n + "\n";
        text += ".lib s" + n + "\n.include \"f" + n + ".lib\"\n.param p" + n + "=1\n.model sm" + n + " d\n.endl s" + n + "\n";
        if (i % 7 == 0)
            text += ".ends\n";
    }
    const std::string whole = indexedInParts(text, 1);
    ModelLibIndex one;
    sp_IndexModelLibraryText(text.data(), text.size(), YString("/lib/parts.lib"), SpiceLanguageNative, &one);
    ASSERT_EQ(one.definitions.size(), 240u);
    ASSERT_EQ(one.sections.size(), 60u);
    ASSERT_EQ(one.diagnostics.size(), 9u);
    // The stray ".ends" after round 56: the head line, 56 rounds of 14 lines, the 8 stray lines of rounds
    // 0 to 49, round 56's own 14 lines, then it.
    EXPECT_EQ(one.diagnostics[8].line, 1 + 56 * 14 + 8 + 14 + 1);
    EXPECT_EQ(one.diagnostics[8].message, ".ends without a .subckt");
    EXPECT_EQ(one.definitions[239].parent, -1);
    EXPECT_EQ(one.definitions[238].parent, 237); // the local model of the last subcircuit
    EXPECT_EQ(one.sections[59].definitions, (std::vector<int>{239}));
    EXPECT_EQ(one.sections[59].references, (std::vector<int>{59}));
    for (int parts : {2, 4, 16, 64})
        EXPECT_EQ(indexedInParts(text, parts), whole) << parts << " parts";
}

// A reference names a section by its name in any case and reaches the first of that name: a section
// that opens again under it is remarked on, with the line of the first, however the text is split into
// parts.
TEST(ModelLibraryIndex, ASectionOpenedAgainUnderAnEarlierNameIsRemarked)
{
    const std::string text = ".lib tt\n.model a d\n.endl\n.lib TT\n.model b d\n.endl\n.lib ss\n.endl\n.lib tt\n.endl tt\n";
    const ModelLibIndex index = indexText(text);
    ASSERT_EQ(index.sections.size(), 4u);
    EXPECT_EQ(messages(index), (std::vector<std::string>{
                                   "4: section TT opens again (first at line 1): a reference to it reaches the first one only",
                                   "9: section tt opens again (first at line 1): a reference to it reaches the first one only"}));
    std::string parted;
    for (int i = 0; i < 40; ++i)
        parted += ".lib s" + std::to_string(i % 13) + "\n.model m" + std::to_string(i) + " d\n.endl\n";
    const std::string whole = indexedInParts(parted, 1);
    EXPECT_NE(whole.find("\ndiagnostic 40 section s0 opens again (first at line 1): a reference to it reaches the first one only\n"), std::string::npos)
        << whole;
    for (int parts : {2, 4, 7, 16})
        EXPECT_EQ(indexedInParts(parted, parts), whole) << parts << " parts";
}

TEST_F(ModelLibraryFiles, AFileIndexedInPartsIsExactlyTheOneScanIndex)
{
    // A file is read by all parts through one handle, each seeking to its own place.
    std::string text;
    for (unsigned seed = 1; text.size() < 3000000; ++seed)
        text += generatedSubcircuits(seed, seed % 2 ? "\n" : "\r\n").substr(0, 400000) + "\n.model last" +
                std::to_string(seed) + " d\n";
    const std::string file = write("big.lib", text);
    std::string whole;
    {
        const IndexParts set(1);
        ModelLibIndex index;
        ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
        EXPECT_GT(index.definitions.size(), 1000u);
        whole = everything(index);
    }
    for (int parts : {0, 2, 3, 7}) {
        const IndexParts set(parts);
        ModelLibIndex index;
        ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
        EXPECT_EQ(everything(index), whole) << parts << " parts";
    }
    // A UTF-16 file is indexed in parts through its UTF-8 copy.
    const QString q = QString::fromUtf8(text.substr(0, 500000).c_str());
    std::string wide = "\xFF\xFE";
    for (QChar c : q) {
        wide.push_back(static_cast<char>(c.unicode() & 0xFF));
        wide.push_back(static_cast<char>(c.unicode() >> 8));
    }
    const std::string wideFile = write("wide.lib", wide);
    std::string wholeWide;
    for (int parts : {1, 4}) {
        const IndexParts set(parts);
        ModelLibIndex index;
        ASSERT_EQ(sp_IndexModelLibrary(YString(wideFile.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
        EXPECT_TRUE(index.wide);
        if (parts == 1)
            wholeWide = everything(index);
        else
            EXPECT_EQ(everything(index), wholeWide);
    }
}

TEST_F(ModelLibraryCorpus, EveryLibraryIndexedInPartsIsExactlyTheOneScanIndex)
{
    int compared = 0;
    for (const std::string& file : files) {
        std::string whole;
        for (int parts : {1, 3, 9}) {
            const IndexParts set(parts);
            ModelLibIndex index;
            ASSERT_EQ(sp_IndexModelLibrary(YString(file.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok) << file;
            if (parts == 1)
                whole = everything(index);
            else
                ASSERT_EQ(everything(index), whole) << file << ", " << parts << " parts";
        }
        ++compared;
    }
    EXPECT_EQ(compared, static_cast<int>(files.size()));
}
