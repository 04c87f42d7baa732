// fuzz_model_library.cpp - the model-library index on arbitrary bytes: every definition lies inside the
// indexed text, starts with its keyword (bytes the readers drop may stand inside it) after the blanks and
// dropped bytes of its line, names a word of that line, comes in text order with line numbers that match
// the line ends before it, and its range ends at a line end or at the end of the text; nested ones lie
// inside their subcircuit; sections and references point at what exists; an index that passes over the
// element lines differs in nothing else; the text split into parts indexed by threads of their own gives
// exactly the one-scan index; 320 KiB of comment lines put in at a line start move what follows and
// change nothing else.
#include "ModelLibrary.h"
#include "NetlistFilter_p.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
// Length of the UTF-8 byte-order mark that begins the text (0 or 3): the index passes over it, so the
// first line starts after it.
size_t byteOrderMark(const char* text, size_t size)
{
    return size >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0 ? 3 : 0;
}

bool lineEndBefore(const char* text, size_t size, int at)
{
    return at == 0 || static_cast<size_t>(at) == byteOrderMark(text, size) || text[at - 1] == '\n' || text[at - 1] == '\r';
}

bool sameWords(ModelLibWordList a, ModelLibWordList b)
{
    auto i = a.begin();
    auto j = b.begin();
    for (; i != a.end() && j != b.end(); ++i, ++j)
        if (*i != *j)
            return false;
    return i == a.end() && j == b.end();
}

// Whether two indexes hold the same findings in the same order.
bool sameIndex(const ModelLibIndex& a, const ModelLibIndex& b)
{
    if (a.size != b.size || a.lines != b.lines || a.language != b.language || a.words != b.words ||
        a.definitions.size() != b.definitions.size() || a.sections.size() != b.sections.size() ||
        a.references.size() != b.references.size() || a.params.size() != b.params.size() ||
        a.diagnostics.size() != b.diagnostics.size())
        return false;
    for (size_t i = 0; i < a.definitions.size(); ++i) {
        const ModelLibDefinition& x = a.definitions[i];
        const ModelLibDefinition& y = b.definitions[i];
        if (x.start != y.start || x.end != y.end || x.line != y.line || x.lastLine != y.lastLine || x.section != y.section ||
            x.parent != y.parent || x.words != y.words || x.kind != y.kind || !sameWords(a.uses(x), b.uses(y)))
            return false;
    }
    for (size_t i = 0; i < a.sections.size(); ++i) {
        const ModelLibSection& x = a.sections[i];
        const ModelLibSection& y = b.sections[i];
        if (x.name != y.name || x.line != y.line || x.endLine != y.endLine || x.start != y.start || x.end != y.end ||
            x.closed != y.closed || x.definitions != y.definitions || x.references != y.references || x.params != y.params)
            return false;
    }
    for (size_t i = 0; i < a.references.size(); ++i) {
        const ModelLibReference& x = a.references[i];
        const ModelLibReference& y = b.references[i];
        if (x.kind != y.kind || x.path != y.path || x.section != y.section || x.line != y.line || x.inSection != y.inSection)
            return false;
    }
    for (size_t i = 0; i < a.diagnostics.size(); ++i)
        if (a.diagnostics[i].line != b.diagnostics[i].line || a.diagnostics[i].message != b.diagnostics[i].message)
            return false;
    return a.params == b.params;
}
// Moves the positions and line numbers of `index` for a block of `delta` bytes and `lines` lines put in
// at position `at`, the start of line `line`: what starts there or later and what ends after it.
void shiftFor(ModelLibIndex* index, int at, int delta, int line, int lines)
{
    const auto start = [&](int& p) { p += p >= at ? delta : 0; };
    const auto end = [&](int& p) { p += p > at ? delta : 0; };
    const auto number = [&](int& l) { l += l >= line ? lines : 0; };
    index->size += index->size >= at ? delta : 0;
    index->lines += lines;
    for (ModelLibDefinition& d : index->definitions) {
        start(d.start);
        end(d.end);
        number(d.line);
        number(d.lastLine);
    }
    for (ModelLibSection& s : index->sections) {
        start(s.start);
        end(s.end);
        number(s.line);
        number(s.endLine);
    }
    for (ModelLibReference& r : index->references)
        number(r.line);
    for (ModelLibDiagnostic& d : index->diagnostics)
        number(d.line);
}

// The text with 320 KiB of comment lines put in at a line start before any end byte (or at its start):
// more than the scan keeps of the text behind a statement, so a statement waiting there for its
// continuation is copied out of the scan's window. The index is `index` with what comes after the block
// moved, in one scan and in parts.
void checkLongCommentBlock(const char* text, size_t size, const ModelLibIndex& index)
{
    // After the line of the first "." (a keyword statement, in most texts), where there is one.
    const char* dot = static_cast<const char*>(std::memchr(text, '.', size));
    const char* lineEnd = dot ? static_cast<const char*>(std::memchr(dot, '\n', size - static_cast<size_t>(dot - text))) : nullptr;
    size_t at = lineEnd ? static_cast<size_t>(lineEnd - text) + 1 : 0;
    // The text must go on after the block: what ends at the text's end then moves with it. The first line
    // starts after a byte-order mark.
    if (at >= size || std::memchr(text, 0xFF, at + 1))
        at = 0;
    if (at == 0 && size > 3)
        at = byteOrderMark(text, size);
    int line = 1;
    for (size_t k = 0; k < at; ++k)
        line += text[k] == '\n' || (text[k] == '\r' && text[k + 1] != '\n');
    const int lines = 160 * 1024;
    std::string longer(text, at);
    for (int k = 0; k < lines; ++k)
        longer += "*\n";
    longer.append(text + at, size - at);
    setenv("SUPPORTQT_INDEX_PARTS", "1", 1);
    ModelLibIndex whole;
    sp_IndexModelLibraryText(longer.data(), longer.size(), YString("fuzz.lib"), SpiceLanguageNative, &whole);
    setenv("SUPPORTQT_INDEX_PARTS", "3", 1);
    ModelLibIndex parted;
    sp_IndexModelLibraryText(longer.data(), longer.size(), YString("fuzz.lib"), SpiceLanguageNative, &parted);
    unsetenv("SUPPORTQT_INDEX_PARTS");
    ModelLibIndex expected = index;
    shiftFor(&expected, static_cast<int>(at), 2 * lines, line, lines);
    if (!sameIndex(whole, parted) || !sameIndex(whole, expected))
        __builtin_trap();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    ModelLibIndex index;
    for (SpiceLanguage language : {SpiceLanguageNative, SpiceLanguageHspice}) {
        setenv("SUPPORTQT_INDEX_PARTS", "1", 1);
        sp_IndexModelLibraryText(text, size, YString("fuzz.lib"), language, &index);
        // The same text in parts, each from a line that opens a definition.
        setenv("SUPPORTQT_INDEX_PARTS", size % 2 ? "3" : "6", 1);
        ModelLibIndex parted;
        sp_IndexModelLibraryText(text, size, YString("fuzz.lib"), language, &parted);
        unsetenv("SUPPORTQT_INDEX_PARTS");
        if (!sameIndex(index, parted))
            __builtin_trap();
        const long long n = index.size;
        if (n < 0 || static_cast<size_t>(n) > size || std::memchr(text, 0xFF, static_cast<size_t>(n)))
            __builtin_trap();
        int previousStart = -1;
        for (size_t i = 0; i < index.definitions.size(); ++i) {
            const ModelLibDefinition& d = index.definitions[i];
            const SymbolLoc loc = index.location(d);
            if (loc.start <= previousStart || loc.start < 0 || loc.end <= loc.start || loc.end > n)
                __builtin_trap();
            if (loc.lineOffset != d.line - 1 || d.lastLine < d.line || d.lastLine > index.lines)
                __builtin_trap();
            // Only blanks and dropped bytes stand between the line's start and the keyword.
            int b = loc.start;
            while (b > 0 && (text[b - 1] == ' ' || text[b - 1] == '\t' ||
                             (!netlist::keeps(static_cast<unsigned char>(text[b - 1])) && text[b - 1] != '\r')))
                --b;
            if (!lineEndBefore(text, size, b))
                __builtin_trap();
            if (!lineEndBefore(text, size, loc.end) && loc.end != n)
                __builtin_trap();
            // The keyword, with the bytes the readers drop anywhere inside it.
            const char* keyword = d.kind == ModelLibDefinition::Subckt ? ".subckt" : ".model";
            int at = loc.start;
            for (size_t k = 0; keyword[k]; ++k, ++at) {
                while (at < n && !netlist::keeps(static_cast<unsigned char>(text[at])) && text[at] != '\r')
                    ++at;
                if (at >= n || (text[at] | 0x20) != (keyword[k] | 0x20))
                    __builtin_trap();
            }
            if (index.name(d).empty() || loc.symbolName.str() != index.name(d))
                __builtin_trap();
            // The words lie inside the word store, and only subcircuits have lists.
            if (d.words >= index.words.size())
                __builtin_trap();
            if (d.kind == ModelLibDefinition::Subckt) {
                if (!index.type(d).empty() || !index.akoBase(d).empty() ||
                    index.uses(d).terminator() >= index.words.data() + index.words.size())
                    __builtin_trap();
            } else if (!index.ports(d).empty() || !index.instances(d).empty() || !index.uses(d).empty()) {
                __builtin_trap();
            }
            int line = 1;
            for (int k = 0; k < loc.start; ++k)
                line += text[k] == '\n' || (text[k] == '\r' && (k + 1 >= n || text[k + 1] != '\n'));
            if (line != d.line)
                __builtin_trap();
            if (d.parent >= 0) {
                const ModelLibDefinition& p = index.definitions[static_cast<size_t>(d.parent)];
                if (static_cast<size_t>(d.parent) >= i || loc.start < p.start || loc.end > p.end)
                    __builtin_trap();
            }
            if (d.section >= static_cast<int>(index.sections.size()))
                __builtin_trap();
            previousStart = loc.start;
        }
        // Passing over the element lines finds the same definitions, sections and references.
        ModelLibIndex skipped;
        sp_IndexModelLibraryText(text, size, YString("fuzz.lib"), language, &skipped, ModelLibElements::Skip);
        if (skipped.definitions.size() != index.definitions.size() || skipped.sections.size() != index.sections.size() ||
            skipped.references.size() != index.references.size() || skipped.diagnostics.size() != index.diagnostics.size() ||
            skipped.size != index.size || skipped.lines != index.lines)
            __builtin_trap();
        for (size_t i = 0; i < index.definitions.size(); ++i) {
            const ModelLibDefinition& a = index.definitions[i];
            const ModelLibDefinition& b = skipped.definitions[i];
            if (a.start != b.start || a.end != b.end || a.line != b.line || a.lastLine != b.lastLine || a.parent != b.parent ||
                a.section != b.section || index.name(a) != skipped.name(b) || index.type(a) != skipped.type(b) ||
                !skipped.instances(b).empty() || !skipped.uses(b).empty())
                __builtin_trap();
        }
        for (const ModelLibSection& s : index.sections) {
            if (s.start < 0 || s.end < s.start || s.end > n || s.endLine < s.line - 1)
                __builtin_trap();
            for (int d : s.definitions)
                if (d < 0 || static_cast<size_t>(d) >= index.definitions.size())
                    __builtin_trap();
            for (int r : s.references)
                if (r < 0 || static_cast<size_t>(r) >= index.references.size())
                    __builtin_trap();
        }
        if (language == SpiceLanguageNative)
            checkLongCommentBlock(text, size, index);
    }
    return 0;
}
