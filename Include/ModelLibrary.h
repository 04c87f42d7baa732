// ModelLibrary.h - the index of a model library: its definitions, corner sections and references, the
// definitions a section reaches across files, the problems found there, and extraction into one library.
#pragma once

#include "LibraryStream.h"
#include "NetlistStream.h"
#include "SupportQtExport.h"
#include "YString.h"

#include <cstddef>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// One ".model" or ".subckt" definition of a library file: a compact record of positions and lines; its
/// words (name, model type, AKO base, ports, instances, uses) lie in the index's word store and are read
/// through the index (`ModelLibIndex::name` and the functions beside it).
struct ModelLibDefinition {
    enum Kind : unsigned char { Model = 0, Subckt = 1 };
    /// Position of the keyword's "." (`SymbolLoc::start`).
    int start = 0;
    /// Position just after the definition's last physical line, its line end included (`SymbolLoc::end`).
    /// A model runs over its "+" continuation lines, with the comment and blank lines between them;
    /// comment lines after the last continuation are not part of it. A subcircuit runs through its
    /// ".ends" statement.
    int end = 0;
    int line = 0;        ///< 1-based physical line of the keyword (`SymbolLoc::lineOffset` is one less)
    int lastLine = 0;    ///< physical line of the definition's last line
    int section = -1;    ///< index into `ModelLibIndex::sections`, -1 outside any section
    /// Index of the enclosing subcircuit, -1 at the top level. Definitions inside a subcircuit are local to
    /// it: they are listed here but are never reached by a section, checked for duplicates or extracted
    /// on their own.
    int parent = -1;
    unsigned words = 0;  ///< offset of its words in `ModelLibIndex::words`
    Kind kind = Model;
};

/// A list of words in `ModelLibIndex::words`, each ended by a byte 0; an empty word ends the list.
/// Valid while the index lives unchanged.
class ModelLibWordList {
public:
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = std::string_view;
        using difference_type = std::ptrdiff_t;
        using pointer = const std::string_view*;
        using reference = std::string_view;
        explicit iterator(const char* p = nullptr) : m_p(p) {}
        std::string_view operator*() const { return std::string_view(m_p); }
        iterator& operator++()
        {
            m_p += std::char_traits<char>::length(m_p) + 1;
            return *this;
        }
        iterator operator++(int)
        {
            iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const iterator& o) const { return m_p == o.m_p; }
        bool operator!=(const iterator& o) const { return m_p != o.m_p; }

    private:
        const char* m_p;
    };

    ModelLibWordList() = default;
    /// The list that starts at `first` (null: the empty list).
    explicit ModelLibWordList(const char* first) : m_first(first), m_end(first)
    {
        while (m_end && *m_end)
            m_end += std::char_traits<char>::length(m_end) + 1;
    }
    iterator begin() const { return iterator(m_first); }
    iterator end() const { return iterator(m_end); }
    bool empty() const { return m_first == m_end; }
    size_t size() const { return static_cast<size_t>(std::distance(begin(), end())); }
    /// The word at `i` (counted from the start; `i` must be below `size()`).
    std::string_view operator[](size_t i) const { return *std::next(begin(), static_cast<std::ptrdiff_t>(i)); }
    /// Where the list ends: the byte 0 of its empty word.
    const char* terminator() const { return m_end; }

private:
    const char* m_first = nullptr;
    const char* m_end = nullptr;
};

/// An ".include FILE" (also ".inc", ".incl") or ".lib FILE SECTION" line.
struct ModelLibReference {
    enum Kind { Include = 0, LibSection = 1 };
    Kind kind = Include;
    YString target;  ///< the file name as written, quotes removed
    YString path;    ///< `target` resolved against the including file's folder (unchanged when absolute)
    YString section; ///< the section a ".lib FILE SECTION" line asks for
    int line = 0;
    int inSection = -1; ///< index of the section holding the line, -1 outside any section
};

/// A ".lib NAME" ... ".endl" section.
struct ModelLibSection {
    YString name;
    int line = 0;                    ///< line of ".lib NAME"
    int endLine = 0;                 ///< last line of ".endl" (the file's last line when unclosed)
    int start = 0;                   ///< position of ".lib"
    int end = 0;                     ///< position after the ".endl" line (the text's end when unclosed)
    bool closed = false;
    std::vector<int> definitions;    ///< top-level definitions inside, indexes into `ModelLibIndex::definitions`
    std::vector<int> references;     ///< indexes into `ModelLibIndex::references`
    std::vector<YString> params;     ///< names set by ".param" lines inside, in order
};

/// A remark of the index on the file's structure: an unclosed ".subckt" or ".lib", an ".ends" or ".endl"
/// without an opener, a ".lib" or ".include" without a file, a section that opens again under the name
/// of one before it (any case), which no reference reaches.
struct ModelLibDiagnostic {
    int line = 0;
    YString message;
};

/// Everything the index found in one file.
struct ModelLibIndex {
    YString fileName;
    bool wide = false;               ///< a UTF-16 file: positions refer to its UTF-8 copy, as `LibraryStream` reads it
    SpiceLanguage language = SpiceLanguageNative; ///< the dialect read with (a leading "*#HSPICE" comment changes it)
    long long size = 0;              ///< bytes indexed (the text before a byte 0xFF, which ends it as it ends `SpiceStream`)
    int lines = 0;                   ///< physical lines
    bool elementWords = true;        ///< whether the subcircuits' instances and uses were gathered (`ModelLibElements`)
    std::vector<ModelLibDefinition> definitions; ///< in file order, nested ones included (see `parent`)
    std::vector<ModelLibSection> sections;
    std::vector<ModelLibReference> references;
    std::vector<YString> params;     ///< names set by ".param" lines outside sections and subcircuits
    std::vector<ModelLibDiagnostic> diagnostics;
    /// The definitions' words, one run per definition at its `words` offset: its name, its model type and
    /// its AKO base (each possibly empty), each ended by a byte 0; a subcircuit's run goes on with three
    /// lists (`ModelLibWordList`): its ports, its instances and its uses.
    std::string words;

    /// The definition's name as written (names compare ignoring case).
    std::string_view name(const ModelLibDefinition& d) const { return std::string_view(words.c_str() + d.words); }
    /// A model's type ("nmos", "D"); empty for a subcircuit and for an AKO model without one.
    std::string_view type(const ModelLibDefinition& d) const { return std::string_view(field(d, 1)); }
    /// The base of an "AKO:" model, else empty.
    std::string_view akoBase(const ModelLibDefinition& d) const { return std::string_view(field(d, 2)); }
    /// A subcircuit's ports (the names before "params:" or the first NAME=VALUE); empty for a model.
    ModelLibWordList ports(const ModelLibDefinition& d) const { return list(d, 0); }
    /// A subcircuit's instances: the subcircuit names of its "X" lines, in order, repeats removed.
    ModelLibWordList instances(const ModelLibDefinition& d) const { return list(d, 1); }
    /// A subcircuit's uses: the other words of its element lines (candidate model names), repeats removed.
    ModelLibWordList uses(const ModelLibDefinition& d) const { return list(d, 2); }
    /// Exactly what `LibraryStream` takes: the file, the name, the kind, the range and the lines before it.
    SymbolLoc location(const ModelLibDefinition& d) const
    {
        SymbolLoc loc;
        loc.fileName = fileName;
        const std::string_view n = name(d);
        loc.symbolName = YString(n.data(), static_cast<int>(n.size()));
        loc.kind = d.kind;
        loc.start = d.start;
        loc.end = d.end;
        loc.lineOffset = d.line - 1;
        return loc;
    }

private:
    // The `n`th word of the definition's run.
    const char* field(const ModelLibDefinition& d, int n) const
    {
        const char* p = words.c_str() + d.words;
        for (int i = 0; i < n; ++i)
            p += std::char_traits<char>::length(p) + 1;
        return p;
    }
    ModelLibWordList list(const ModelLibDefinition& d, int n) const
    {
        if (d.kind != ModelLibDefinition::Subckt)
            return ModelLibWordList();
        ModelLibWordList l(field(d, 3));
        for (int i = 0; i < n; ++i)
            l = ModelLibWordList(l.terminator() + 1);
        return l;
    }
};

enum class ModelLibStatus {
    Ok = 0,
    Unreadable = 1,     ///< the file does not exist or cannot be read
    TooLarge = 2,       ///< the file has more than 2147483647 bytes, beyond the `int` positions of `SymbolLoc`, or is UTF-16 and its UTF-8 text could be read neither into a copy nor into memory
    NoSuchSection = 3,  ///< the section asked for is not in the file
    NoSuchDefinition = 4, ///< a name asked for is reached by nothing
    WriteFailed = 5,    ///< the output file could not be written
    RenameClash = 6     ///< a rename would give two extracted definitions of one kind the same name
};

/// What the index gathers from the element lines of subcircuits.
enum class ModelLibElements {
    Words = 0, ///< each subcircuit's instances and uses: what checks and extraction follow
    Skip = 1   ///< nothing: the lines are only passed over and `instances` and `uses` are empty, for a
               ///< listing of the definitions that needs no more (less work on a library of many subcircuits)
};

/// Indexes a library held in memory, named `fileName` in the locations. The text is read as `SpiceStream`
/// reads it in `language`: bytes 0 to 8, 11, 12 and 14 to 31 are dropped, a byte 0xFF ends the text, CR LF
/// and a lone CR end lines, "*" and the dialect's comment character (";", or "$" for HSPICE) start comment
/// lines and the latter also comments to the line end, and a "+" line continues the statement before it
/// across comment and blank lines. A UTF-8 byte-order mark that begins the text is passed over, so that
/// the first line's keyword is seen (the first definition then starts at byte 3). Never fails; a text beyond 2147483647 bytes is cut there, and when memory
/// runs out the index holds only the remark "out of memory while indexing" (line 0). A text of 16 MiB
/// or more is read in parts on threads of their own, one per processor (SUPPORTQT_INDEX_PARTS sets their
/// number); the index is exactly the one a single pass gives.
SUPPORTQT_API void sp_IndexModelLibraryText(const char* text, size_t size, const YString& fileName,
                                            SpiceLanguage language, ModelLibIndex* index,
                                            ModelLibElements elements = ModelLibElements::Words);

/// Indexes a library file (8-bit, or UTF-16 through the same UTF-8 copy the readers make), a large one in
/// parts as `sp_IndexModelLibraryText` does. Unreadable and TooLarge leave `*index` with its file name only;
/// a too large file is not read. When memory runs out, at the open or while indexing, the status is Ok
/// and the index holds only the remark "out of memory while indexing" (line 0).
SUPPORTQT_API ModelLibStatus sp_IndexModelLibrary(const YString& path, SpiceLanguage language, ModelLibIndex* index,
                                                  ModelLibElements elements = ModelLibElements::Words);

/// A definition that a resolution reached.
struct ModelLibReached {
    int file = 0;        ///< index into `ModelLibResolution::files`
    int definition = 0;  ///< index into that file's `definitions`
    int viaFile = -1;    ///< the file of the reference that brought the definition's file in (-1 for the root)
    int viaReference = -1; ///< index into that file's `references`
};

/// A problem of a library as a section sees it.
struct ModelLibProblem {
    enum Kind {
        Duplicate = 0,          ///< a name defined twice (same kind) within what one section reaches
        MissingFile = 1,        ///< a reference to a file that does not exist or cannot be read
        MissingSection = 2,     ///< a ".lib FILE SECTION" whose file has no such section
        ReferenceCycle = 3,     ///< a reference back to a file or section being resolved; not followed
        UnresolvedAkoBase = 4,  ///< an AKO model whose base is reached by nothing
        AkoBaseAfter = 5,       ///< an AKO model whose base is reached only after it
        UnresolvedInstance = 6, ///< an "X" line whose subcircuit is reached by nothing
        Unreferenced = 7,       ///< a top-level definition that no section of the file reaches
        Structure = 8,          ///< a diagnostic of the index (unclosed ".subckt" or ".lib", and the like)
        TooLargeFile = 9,       ///< a referenced file beyond the positions of `SymbolLoc`
        UnusedRename = 10       ///< an extraction's rename whose old name no definition extracted has or names
    };
    Kind kind = Duplicate;
    YString name;        ///< the definition, section or file concerned
    YString file;        ///< where the problem is seen
    int line = 0;
    YString otherFile;   ///< the other definition of a duplicate, the base of an AKO model after it
    int otherLine = 0;
    YString message;     ///< one line of English that says all of the above
};

/// What a section reaches. `files` caches the indexed files: a resolution passed again to
/// `sp_ResolveModelSection` reuses them (only `definitions` and `problems` are replaced).
/// The sections of one indexed file by lower-case name (the first of each name), with what they were
/// made from, so that a table of a file since replaced is known for stale.
struct ModelLibSectionKeys {
    YString fileName;
    size_t sections = 0;
    std::unordered_map<std::string, int> byName;
};

struct ModelLibResolution {
    std::vector<ModelLibIndex> files;         ///< files indexed so far; the root is the first one resolved
    int root = -1;                            ///< index of the root file in `files`
    YString section;                          ///< the section resolved, empty for the file's top level
    std::vector<ModelLibReached> definitions; ///< in the order a simulator meets them
    std::vector<ModelLibProblem> problems;    ///< missing files and sections, cycles (duplicates etc.: `sp_CheckModelLibrary`)
    /// For each file of `files` whose sections were looked up, by its position there: its sections by
    /// name. Kept with `files`, so that resolving one section after another looks each up at once; a
    /// table that no longer fits its file (changed by the caller) is made anew.
    std::map<int, ModelLibSectionKeys> sectionKeys;
};

/// Resolves `section` of the library `path` (empty: the file's statements outside sections, as when the
/// file is included): its top-level definitions and, in line order, what its ".include" lines (the whole
/// file outside its sections) and ".lib FILE SECTION" lines reach, transitively and across files. A file
/// or section met again while it is being resolved is a cycle, reported and not followed; one met again
/// after it was resolved is not read twice. Unreadable when the root cannot be indexed, TooLarge, or
/// NoSuchSection when the root has no such section.
SUPPORTQT_API ModelLibStatus sp_ResolveModelSection(const YString& path, const YString& section, SpiceLanguage language,
                                                    ModelLibResolution* resolution);

/// Resolves each ".lib" section of the library `path` in file order, as sp_ResolveModelSection resolves
/// it, and hands the section and its resolution to `each` (a section named twice is resolved each time).
/// The sections share one cache of files, taken to be unchanged meanwhile: each file is indexed and
/// looked at once, however many sections reach it. The status is that of the file's own resolution
/// (`each` is then not called), or Unreadable when memory runs out in a section's.
SUPPORTQT_API ModelLibStatus sp_ResolveEachModelSection(
    const YString& path, SpiceLanguage language,
    const std::function<void(const ModelLibSection& section, const ModelLibResolution& resolution)>& each);

/// Checks a library: the problems of resolving `section` (or, when it is empty, of the top level and of
/// every section of the file), duplicates within each one resolution, AKO bases and "X" instances that
/// resolve to nothing, the structure diagnostics of every file reached, and (with `section` empty and a
/// file that has sections) the top-level definitions of the files reached that no section reaches.
/// Appends the problems to `*problems` in that order, each once (a missing file that several sections
/// reach is listed where it is first met); the status is that of the resolution. Memory that runs out
/// gives Unreadable and appends nothing.
SUPPORTQT_API ModelLibStatus sp_CheckModelLibrary(const YString& path, const YString& section, SpiceLanguage language,
                                                  std::vector<ModelLibProblem>* problems);

/// The logical lines of one definition of `index` read through `LibraryStream` under the name `rename`
/// (empty keeps its own): "*" comment lines inside it included, empty lines left out.
SUPPORTQT_API std::vector<YString> sp_ReadModelDefinition(const ModelLibIndex& index, const ModelLibDefinition& definition,
                                                          const YString& rename);

/// What two libraries differ in (each file on its own, references not followed).
struct ModelLibDiff {
    std::vector<YString> sectionsOnlyInA, sectionsOnlyInB;
    std::vector<YString> onlyInA, onlyInB; ///< ".model NAME" / ".subckt NAME" of top-level definitions, with " in section SECTION" inside one (a definition is compared with the other file's in the section of that name; those of a section only one file has are left to `sectionsOnlyInA`/`B`)
    std::vector<YString> differing;        ///< the same, defined in both with other logical lines (comments, blank runs and the case of letters outside quotes ignored)
};

/// Compares the libraries `a` and `b`; the status is that of the first file that could not be indexed.
SUPPORTQT_API ModelLibStatus sp_DiffModelLibraries(const YString& a, const YString& b, SpiceLanguage language, ModelLibDiff* diff);

/// What to extract, and how.
struct ModelLibExtractRequest {
    std::vector<YString> names;   ///< definitions wanted (either kind, ignoring case)
    YString section;              ///< the section to resolve them in; empty for the file's top level
    std::vector<YString> renames; ///< "OLD=NEW": a definition written under another name, and the words naming it in the others (a subcircuit's ports among them)
    SpiceLanguage language = SpiceLanguageNative;
};

/// Builds one self-contained library of the requested definitions and all they depend on (the AKO base
/// of a model, the subcircuits of a subcircuit's "X" lines, the models named on its element lines), each
/// after what it depends on, each read through `LibraryStream` (renamed as asked) below a comment line
/// "* FILE:LINE" naming where it came from (line ends, other control bytes and 0xFF in FILE shown as
/// "\n", "\r" and "\xNN"). When every definition was read in the dialect whose comments start with "$",
/// or when one so read holds a ";" and others were read in the other dialect, the library begins with a
/// line "*#HSPICE", so that ";" in them reads back as text; a "$" in a definition of the other dialect
/// then starts a comment, and a Structure problem names the first such definition. An ".include" or
/// ".lib FILE SECTION" line inside a definition names its file by its absolute path, so that the library
/// written elsewhere still finds it: in double quotes, in single quotes when the path holds a double one,
/// bare when it holds both (left as written if it also holds a blank, or when it holds ";" or "$", which
/// would start a comment).
/// What such a line inside an extracted subcircuit brought in (the file, or the section a ".lib" line
/// names, and what their own references brought) is not written again, since the line brings it (a
/// definition renamed is, under its new name).
/// Unresolved dependencies are appended to `*problems` (may be null) and left out, and after them an
/// UnusedRename problem for each old name that no definition extracted has or names. NoSuchDefinition when a requested name is reached by nothing, RenameClash (with a
/// Duplicate problem naming both) when a rename gives a definition the name of another one of its kind
/// that is extracted too, or another's new name, when one name is renamed two ways, when a new name is
/// not one word (it holds a blank, a separator, a quote, a comment character or a control byte);
/// `*text` is then empty. Otherwise the status of the resolution.
SUPPORTQT_API ModelLibStatus sp_ExtractModels(const YString& path, const ModelLibExtractRequest& request, YString* text,
                                              std::vector<ModelLibProblem>* problems);

/// Whether the existing file `file` is a file of the library `path`: the library itself, or a file that an
/// ".include" or ".lib" line of a file of the library names, in any section, followed through every file
/// that can be indexed. Files are the same when they are one file by its identity, whatever names reach
/// it: symbolic and hard links, and on Windows names that differ in case, short names and the long form
/// ("\\?\C:\..."). False for a file that does not exist.
SUPPORTQT_API bool sp_ModelLibraryHoldsFile(const YString& path, const YString& file, SpiceLanguage language);

/// `sp_ExtractModels` written to `output` whole or not at all (`sp_ReplaceFileContent`); WriteFailed when
/// it cannot be written, and, leaving it as it was, when `output` is a file of the library
/// (`sp_ModelLibraryHoldsFile`).
SUPPORTQT_API ModelLibStatus sp_WriteExtractedModels(const YString& path, const ModelLibExtractRequest& request,
                                                     const YString& output, std::vector<ModelLibProblem>* problems);
