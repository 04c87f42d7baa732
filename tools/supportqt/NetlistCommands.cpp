// NetlistCommands.cpp - `netlist`, `index` and `section`: a netlist's logical lines as the readers see
// them, the definitions of a model library, and one definition read back.
#include "Commands.h"
#include "Tool.h"

#include "LibraryStream.h"
#include "LiteralNetlistStream.h"
#include "ModelLibrary.h"
#include "NetlistStream.h"
#include "TextFile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <string_view>

namespace {

const char* dialectName(SpiceLanguage language)
{
    switch (language) {
    case SpiceLanguagePspice: return "pspice";
    case SpiceLanguageHspice: return "hspice";
    case SpiceLanguageNative: break;
    }
    return "native";
}

// The physical lines of a literal buffer, without their line ends; none for an empty buffer.
QStringList literalLines(const Buf& buffer)
{
    if (buffer.length() == 0)
        return {};
    QString text = QString::fromUtf8(buffer.data(), buffer.length());
    text.remove(QLatin1Char('\r'));
    if (text.endsWith(QLatin1Char('\n')))
        text.chop(1);
    return text.split(QLatin1Char('\n'));
}

struct NetlistSummary {
    bool memoryRanOut = false; ///< a line memory could not hold ended the reading
    SpiceLanguage language = SpiceLanguageNative;
    QString separator;
    bool hierarchy = false; ///< a hierarchy directive was met while some logical line was read
    UTF8DetectEncoding encoding = Ascii;
    QString title;
    int lineEnds = 0; ///< the line ends the reader counted, up to INT_MAX
};

struct LogicalLine {
    int number = 0;
    QString text;
    bool nonAscii = false;
    QStringList literal;
    QList<int> literalNumbers; ///< the physical line number of each literal line
};

// The readers with their record of memory running out, which ends their input at a line they cannot hold.
struct CheckedSpiceStream : SpiceStream {
    using SpiceStream::SpiceStream;
    using SpiceStream::memoryRanOut;
};
struct CheckedLiteralStream : NewSpiceStream {
    using NewSpiceStream::NewSpiceStream;
    using NewSpiceStream::memoryRanOut;
};

// Takes each logical line as it is read; a null one takes none.
using LineSink = std::function<void(const LogicalLine&)>;

// Reads the file through SpiceStream: hands its logical lines to `each` (when not null) and returns what
// the stream learned on the way. Each line's raw record is dropped once read, but the UTF-8 detector is
// not reset with it: the reader has fed it the next line's first byte already, which may begin a
// character.
NetlistSummary readWithSpiceStream(const QString& path, SpiceLanguage language, bool title, const LineSink& each)
{
    NetlistSummary summary;
    CheckedSpiceStream stream(toYs(path).c_str(), language);
    if (title) {
        stream.readTitle();
        summary.title = QString::fromUtf8(stream.getBuffer()->data(), stream.getBuffer()->length());
        summary.encoding = std::max(summary.encoding, stream.getUtf8Encoding());
        stream.flushBuffer();
    }
    YString line;
    int number = 0;
    bool streamFlag = false;
    bool nonAscii = false;
    while (stream.gets(&line, &number, &streamFlag, &nonAscii)) {
        if (each)
            each({number, toQs(line), nonAscii, {}, {}});
        summary.encoding = std::max(summary.encoding, stream.getUtf8Encoding());
        summary.hierarchy = summary.hierarchy || stream.isHierarchy();
        stream.copyBuffer(YString());
    }
    summary.encoding = std::max(summary.encoding, stream.getUtf8Encoding());
    summary.memoryRanOut = stream.memoryRanOut();
    summary.language = stream.getLanguage();
    summary.separator = QString::fromUtf8(stream.getSeparator());
    summary.lineEnds = stream.getLineCount();
    return summary;
}

// The line ends of the 8-bit file `path` before its first byte 0xFF, which ends a netlist: line feeds,
// and carriage returns that no line feed follows, each of which the reader takes for a line end too
// except inside a comment's first character, a directive or the title, where it reads on to a line
// feed. -1 when the file has no such carriage return (nothing to compare) or cannot be read.
long long lineEndsWithBareCarriageReturns(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    long long ends = 0, bare = 0;
    bool afterCarriageReturn = false;
    QByteArray block;
    while (!(block = file.read(1 << 20)).isEmpty()) {
        const char* p = block.constData();
        const char* const end = p + block.size();
        const char* const last = static_cast<const char*>(std::memchr(p, '\xFF', block.size()));
        const char* const stop = last ? last : end;
        // Blocks without a carriage return are only counted.
        if (!afterCarriageReturn && !std::memchr(p, '\r', static_cast<size_t>(stop - p))) {
            ends += std::count(p, stop, '\n');
        } else {
            for (; p < stop; ++p) {
                // A CR LF is counted at its carriage return.
                if (*p == '\n')
                    ends += afterCarriageReturn ? 0 : 1;
                else if (afterCarriageReturn)
                    ++bare;
                ends += *p == '\r';
                afterCarriageReturn = *p == '\r';
            }
        }
        if (last)
            break;
    }
    if (afterCarriageReturn)
        ++bare;
    if (file.error() != QFileDevice::NoError || bare == 0)
        return -1;
    return ends;
}

// Numbers each literal line by where it stands: the literal buffers hold every physical line once and
// in order, so counting their line ends gives the physical line of each. The reader's own number for a
// comment line is that of the statement after it, which is no help to a designer looking for the line.
// The numbers stop at INT_MAX, as the readers' own do.
class PhysicalLineCounter {
public:
    explicit PhysicalLineCounter(int first) : m_next(first) {}
    void number(const Buf& buffer, LogicalLine* line)
    {
        for (int i = 0; i < line->literal.size(); ++i)
            line->literalNumbers.append(static_cast<int>(std::min<long long>(m_next + i, INT_MAX)));
        m_next += std::count(buffer.data(), buffer.data() + buffer.length(), '\n');
    }

private:
    long long m_next;
};

// Hands `each` the logical lines of a literal-preserving reader, each with its literal lines numbered
// from `firstLine`, the physical line on which the reader's first character stands.
void readLiteralLines(NewSpiceStream& stream, int firstLine, const LineSink& each)
{
    PhysicalLineCounter counter(firstLine);
    YString line;
    int number = 0;
    while (stream.gets(&line, &number)) {
        if (each) {
            LogicalLine l{number, toQs(line), false, literalLines(stream.getLitBuffer()), {}};
            counter.number(stream.getLitBuffer(), &l);
            each(l);
        }
        stream.flushLitBuffer();
    }
}

// Reads the file through NewSpiceStream, handing its lines to `each` (when not null); false when a line
// that memory could not hold ended the reading.
bool readWithLiteralStream(const QString& path, const LineSink& each)
{
    CheckedLiteralStream stream(toYs(path).c_str());
    readLiteralLines(stream, 1, each);
    return !stream.memoryRanOut();
}

// Prints a logical line with the reader's number, followed by its literal lines (if any) numbered by
// where they stand in the file.
void printLine(Output& out, const LogicalLine& l)
{
    out.pad(std::to_string(l.number), -6) << "  " << l.text << '\n';
    for (int i = 0; i < l.literal.size(); ++i)
        out.pad(std::to_string(l.literalNumbers.value(i)), -6) << "  | " << l.literal[i] << '\n';
}

void printLines(Output& out, const QList<LogicalLine>& lines)
{
    for (const LogicalLine& l : lines)
        printLine(out, l);
}

// Writes one JSON object exactly as printJson prints it, with the elements of one array member written
// as they come, so that the object is never held whole: the members before the array (`begin`), its
// elements, then the members after it (`end`). The keys must sort in that order.
class JsonMembers {
public:
    JsonMembers() = default;
    JsonMembers(const JsonMembers&) = delete;
    JsonMembers& operator=(const JsonMembers&) = delete;
    ~JsonMembers() { flush(); }
    void begin(const QJsonObject& head)
    {
        m_text += "{\n";
        members(head);
        m_text += ",\n";
    }
    void beginArray(const char* key)
    {
        m_text += "    \"";
        m_text += key;
        m_text += "\": [";
        m_first = true;
    }
    void element(const QJsonObject& object)
    {
        m_text += m_first ? "\n" : ",\n";
        m_first = false;
        // The object's own lines, two levels in.
        QByteArray text = QJsonDocument(object).toJson(QJsonDocument::Indented);
        text.chop(1);
        m_text += "        ";
        m_text += text.replace('\n', "\n        ").toStdString();
        if (m_text.size() >= (1u << 20))
            flush();
    }
    void endArray() { m_text += "\n    ]"; }
    void end(const QJsonObject& tail)
    {
        m_text += ",\n";
        members(tail);
        m_text += "\n}\n";
        flush();
    }

private:
    // The members of `object` as printJson indents them, without its braces and the last line end.
    void members(const QJsonObject& object)
    {
        const QByteArray text = QJsonDocument(object).toJson(QJsonDocument::Indented);
        m_text += text.mid(2, text.size() - 5).toStdString();
    }
    void flush()
    {
        writeStream(stdout, m_text);
        m_text.clear();
        std::fflush(stdout);
    }

    std::string m_text;
    bool m_first = true;
};

// A logical line as JSON: its number and text, with its literal lines and their numbers when `literal`.
QJsonObject lineJson(const LogicalLine& l, bool literal)
{
    QJsonObject o{{QStringLiteral("line"), l.number}, {QStringLiteral("text"), l.text}};
    if (literal) {
        o.insert(QStringLiteral("literal"), QJsonArray::fromStringList(l.literal));
        QJsonArray numbers;
        for (int n : l.literalNumbers)
            numbers.append(n);
        o.insert(QStringLiteral("literalLines"), numbers);
    }
    return o;
}

// Output rows formatted without allocation, written to standard output a block at a time.
class BlockWriter {
public:
    ~BlockWriter()
    {
        flush();
        std::fflush(stdout);
    }
    void text(std::string_view t)
    {
        if (t.size() > sizeof m_block / 2) {
            flush();
            writeStream(stdout, t.data(), t.size());
            return;
        }
        char* o = room(t.size());
        // Cells are short: a plain loop beats a call to memcpy for each.
        for (char c : t)
            *o++ = c;
        m_used += t.size();
    }
    // The text, then blanks up to `width` characters (at least one).
    void padded(std::string_view t, size_t width)
    {
        text(t);
        const size_t columns = textColumns(t);
        const size_t fill = columns + 1 > width ? 1 : width - columns;
        char* o = room(fill);
        for (size_t i = 0; i < fill; ++i)
            *o++ = ' ';
        m_used += fill;
    }
    // The number right-aligned in `width` characters.
    void number(long long value, size_t width)
    {
        char digits[24];
        char* end = digits + sizeof digits;
        char* p = end;
        const bool negative = value < 0;
        unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
        do {
            *--p = static_cast<char>('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude);
        if (negative)
            *--p = '-';
        const size_t length = static_cast<size_t>(end - p);
        const size_t fill = width > length ? width - length : 0;
        char* o = room(fill + length);
        for (size_t i = 0; i < fill; ++i)
            *o++ = ' ';
        while (p < end)
            *o++ = *p++;
        m_used += fill + length;
    }

private:
    // Room for `n` bytes (at most the block's size) at the block's end, written out first when it lacks it.
    char* room(size_t n)
    {
        if (m_used + n > sizeof m_block)
            flush();
        return m_block + m_used;
    }
    void flush()
    {
        writeStream(stdout, m_block, m_used);
        m_used = 0;
    }
    char m_block[1 << 16];
    size_t m_used = 0;
};

bool parseDialect(const QString& text, SpiceLanguage* language)
{
    if (text == QLatin1String("native"))
        *language = SpiceLanguageNative;
    else if (text == QLatin1String("pspice"))
        *language = SpiceLanguagePspice;
    else if (text == QLatin1String("hspice"))
        *language = SpiceLanguageHspice;
    else
        return false;
    return true;
}

} // namespace

int runNetlist(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("netlist"), QStringLiteral("FILE [--dialect native|pspice|hspice] [--literal] [--title] [--json]"),
                        QStringLiteral("Prints a netlist's logical lines with their line numbers, as the library reads them,\n"
                                       "then the dialect, hierarchy separator, hierarchy flag and UTF-8 verdict."));
    command.addOption({QStringLiteral("dialect")}, QStringLiteral("Dialect to read with: native, pspice or hspice (default native)."),
                      QStringLiteral("DIALECT"), QStringLiteral("native"));
    command.addOption({QStringLiteral("literal")}, QStringLiteral("Read with the literal-preserving reader and show each line's literal text "
                                                                  "(native dialect, no title line)."));
    command.addOption({QStringLiteral("title")}, QStringLiteral("Take the first line as the title."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    SpiceLanguage language = SpiceLanguageNative;
    if (!parseDialect(command.value(QStringLiteral("dialect")), &language))
        return command.fail(ExitUsage, QStringLiteral("unknown dialect '%1'; valid dialects: native, pspice, hspice")
                                           .arg(command.value(QStringLiteral("dialect"))));
    const bool literal = command.isSet(QStringLiteral("literal"));
    const bool title = command.isSet(QStringLiteral("title"));
    // The literal-preserving reader knows the native dialect only and takes no title line: what it
    // would ignore is refused rather than shown as if it had been used.
    if (literal && language != SpiceLanguageNative)
        return command.fail(ExitUsage, QStringLiteral("--literal reads the native dialect only; leave out --dialect %1")
                                           .arg(command.value(QStringLiteral("dialect"))));
    if (literal && title)
        return command.fail(ExitUsage, QStringLiteral("--literal reads no title line; give --literal or --title"));
    QString path;
    if (!command.regularInputArgument(&path))
        return command.inputFailure();

    // The file is read twice, the lines held by neither reading: first for what is said before or after
    // them (and whether a line is longer than memory, which prints nothing), then for the lines, which are
    // written as they come. A netlist of any size then takes the memory of its longest line.
    const NetlistSummary summary = readWithSpiceStream(path, language, title, nullptr);
    if (summary.memoryRanOut || (literal && !readWithLiteralStream(path, nullptr)))
        return command.fail(ExitFailure, QStringLiteral("%1 has a line longer than memory or 2147483646 bytes can hold").arg(path));
    // A bare carriage return ends a line for the reader, but not in the first character of a comment,
    // in a directive or in the title, which read on to a line feed: the lines so taken in are missing,
    // and the designer is told, with the remedy. (A UTF-16 file is read from a copy with its own ends.)
    bool wide = false, dos = false, mac = false, little = true;
    if (!literal && sp_DetectTextFileFormat(path, &wide, &dos, &mac, &little) && !wide) {
        const long long ends = lineEndsWithBareCarriageReturns(path);
        if (ends > summary.lineEnds && summary.lineEnds < INT_MAX) {
            const bool one = ends - summary.lineEnds == 1;
            // text convert makes every CR a line feed only where the first line end is a bare CR: after a
            // CR LF it deletes them, which would join the lines for good.
            command.warn(QStringLiteral("%1 bare carriage return%2 of %3 ended no line: a comment, a directive or the title read on "
                                        "past %4 to a line feed, taking in what follows (%5)")
                             .arg(ends - summary.lineEnds)
                             .arg(one ? "" : "s")
                             .arg(command.positional().at(0), one ? QStringLiteral("it") : QStringLiteral("them"),
                                  mac ? QStringLiteral("'supportqt text convert' makes ") +
                                            (one ? QStringLiteral("it a line feed") : QStringLiteral("them line feeds"))
                                      : QStringLiteral("make ") + (one ? QStringLiteral("it a line feed") : QStringLiteral("them line feeds")) +
                                            QStringLiteral(" to read the lines after ") + (one ? QStringLiteral("it") : QStringLiteral("them"))));
        }
    }
    const auto readLines = [&](const LineSink& each) {
        if (literal)
            readWithLiteralStream(path, each);
        else
            readWithSpiceStream(path, language, title, each);
    };

    if (command.json()) {
        // The object as printJson would print it, its lines written one at a time between its other keys.
        QJsonObject head{{QStringLiteral("file"), shownPath(path)},
                         {QStringLiteral("dialect"), QString::fromLatin1(dialectName(summary.language))},
                         {QStringLiteral("hierarchy"), summary.hierarchy},
                         {QStringLiteral("encoding"), QString::fromLatin1(utf8VerdictName(summary.encoding))}};
        QJsonObject tail{{QStringLiteral("reader"), literal ? QStringLiteral("NewSpiceStream") : QStringLiteral("SpiceStream")},
                         {QStringLiteral("separator"), summary.separator}};
        if (title)
            tail.insert(QStringLiteral("title"), summary.title);
        JsonMembers members;
        members.begin(head);
        members.beginArray("lines");
        readLines([&](const LogicalLine& l) {
            QJsonObject o = lineJson(l, literal);
            if (!literal)
                o.insert(QStringLiteral("nonAscii"), l.nonAscii);
            members.element(o);
        });
        members.endArray();
        members.end(tail);
        return ExitOk;
    }

    Output out;
    if (title)
        out << "title: " << summary.title << '\n';
    long long shown = 0;
    readLines([&](const LogicalLine& l) {
        printLine(out, l);
        if (++shown % 4096 == 0)
            out.flush();
    });
    out << "dialect: " << dialectName(summary.language) << '\n'
        << "separator: " << summary.separator << '\n'
        << "hierarchy: " << (summary.hierarchy ? "yes" : "no") << '\n'
        << "encoding: " << utf8VerdictName(summary.encoding) << '\n';
    return ExitOk;
}

int runIndex(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("index"), QStringLiteral("FILE [--json]"),
                        QStringLiteral("Lists every .model and .subckt definition of a model library with its character range\n"
                                       "and line: the values that 'supportqt section' takes."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    QString path;
    if (!command.regularInputArgument(&path))
        return command.inputFailure();
    ModelLibIndex index;
    // Ranges and names are all the listing shows: the subcircuits' element lines are passed over.
    const ModelLibStatus status = sp_IndexModelLibrary(toYs(path), SpiceLanguageNative, &index, ModelLibElements::Skip);
    if (status == ModelLibStatus::TooLarge)
        return command.fail(ExitFailure, QStringLiteral("%1 is larger than 2 GiB, beyond the character positions of a definition").arg(path));
    if (status != ModelLibStatus::Ok)
        return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
    // Definitions nested in a subcircuit lie inside its range: only the top-level ones are listed.
    std::vector<const ModelLibDefinition*> definitions;
    definitions.reserve(index.definitions.size());
    for (const ModelLibDefinition& d : index.definitions)
        if (d.parent < 0)
            definitions.push_back(&d);

    if (command.json()) {
        QJsonArray array;
        for (const ModelLibDefinition* d : definitions)
            array.append(QJsonObject{{QStringLiteral("kind"), QString::fromLatin1(d->kind == ModelLibDefinition::Subckt ? ".subckt" : ".model")},
                                     {QStringLiteral("name"), QString::fromUtf8(index.name(*d).data(), static_cast<int>(index.name(*d).size()))},
                                     {QStringLiteral("start"), d->start},
                                     {QStringLiteral("end"), d->end},
                                     {QStringLiteral("line"), d->line},
                                     {QStringLiteral("lineOffset"), d->line - 1}});
        printJson(QJsonObject{{QStringLiteral("file"), shownPath(path)}, {QStringLiteral("definitions"), array}});
        return ExitOk;
    }
    // Libraries hold hundreds of thousands of definitions: rows are formatted by hand into one block.
    BlockWriter out;
    out.text("kind     name                              start        end     line  line-offset\n");
    for (const ModelLibDefinition* d : definitions) {
        out.padded(d->kind == ModelLibDefinition::Subckt ? std::string_view(".subckt") : std::string_view(".model"), 9);
        out.padded(index.name(*d), 25);
        out.number(d->start, 14);
        out.number(d->end, 11);
        out.number(d->line, 9);
        out.number(d->line - 1, 13);
        out.text("\n");
    }
    out.text(counted(static_cast<long long>(definitions.size()), "definition") + "\n");
    return ExitOk;
}

int runSection(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("section"), QStringLiteral("FILE --start N --end M [--line-offset K] [--name NAME] [--literal] [--json]"),
                        QStringLiteral("Reads one definition of a model library through the library-section reader: the\n"
                                       "characters from N up to M, line numbers counted from K, the definition renamed to NAME."));
    command.addOption({QStringLiteral("start")}, QStringLiteral("Character position of the definition's first character."), QStringLiteral("N"));
    command.addOption({QStringLiteral("end")}, QStringLiteral("Character position just after the definition."), QStringLiteral("M"));
    command.addOption({QStringLiteral("line-offset")}, QStringLiteral("Lines before the definition (default 0)."), QStringLiteral("K"), QStringLiteral("0"));
    command.addOption({QStringLiteral("name")}, QStringLiteral("New name for the definition."), QStringLiteral("NAME"));
    command.addOption({QStringLiteral("literal")}, QStringLiteral("Also show each line's literal text, numbered by where it stands in the file."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    if (!command.isSet(QStringLiteral("start")) || !command.isSet(QStringLiteral("end")))
        return command.fail(ExitUsage, QStringLiteral("--start and --end are required"));
    long long start = 0, end = 0, offset = 0;
    if (!command.intValue(QStringLiteral("start"), &start) || !command.intValue(QStringLiteral("end"), &end) ||
        !command.intValue(QStringLiteral("line-offset"), &offset))
        return ExitUsage;
    if (start < 0 || start > INT_MAX || end < 0 || end > INT_MAX || offset < 0 || offset > INT_MAX)
        return command.fail(ExitUsage, QStringLiteral("--start, --end and --line-offset must lie between 0 and %1").arg(INT_MAX));
    if (start > end)
        return command.fail(ExitUsage, QStringLiteral("--start %1 lies after --end %2").arg(start).arg(end));
    // A new name is one word, as lib extract takes it: a blank, separator, quote, comment character or
    // control character in it would change what the definition's line says.
    const QString name = command.value(QStringLiteral("name"));
    const bool oneWord = std::none_of(name.begin(), name.end(), [](QChar c) {
        return QStringLiteral(" =(),\t;$\"'").contains(c) || c.unicode() < 32 || c.unicode() == 0x7F;
    });
    if (!oneWord)
        return command.fail(ExitUsage, QStringLiteral("--name takes one word, not '%1'").arg(name));
    QString path;
    if (!command.regularInputArgument(&path))
        return command.inputFailure();
    // The positions count the characters of the text the index read: a UTF-16 library's UTF-8 copy,
    // which the reader is handed here so that it does not make its own.
    const WideTextFileConverter text(toYs(path));
    // A range that starts at or past the end of that text names no definition; the reader would read it
    // as empty input and print nothing.
    const qint64 size = QFileInfo(toQs(text.getPath())).size();
    if (start >= size)
        return command.fail(ExitUsage, QStringLiteral("--start %1 lies at or past the end of %2, which has %3 characters")
                                           .arg(start).arg(command.positional().at(0)).arg(size));

    SymbolLoc location;
    location.fileName = text.getPath();
    location.start = static_cast<int>(start);
    location.end = static_cast<int>(end);
    location.lineOffset = static_cast<int>(offset);
    LibraryStream stream(location, toYs(name));
    const bool literal = command.isSet(QStringLiteral("literal"));
    QList<LogicalLine> lines;
    readLiteralLines(stream, static_cast<int>(std::min<long long>(offset + 1, INT_MAX)),
                     [&lines](const LogicalLine& l) { lines.append(l); });

    if (command.json()) {
        QJsonArray array;
        for (const LogicalLine& l : lines)
            array.append(lineJson(l, literal));
        printJson(QJsonObject{{QStringLiteral("file"), shownPath(path)}, {QStringLiteral("lines"), array}});
        return ExitOk;
    }
    Output out;
    if (literal) {
        printLines(out, lines);
        return ExitOk;
    }
    for (const LogicalLine& l : lines)
        out.pad(std::to_string(l.number), -6) << "  " << l.text << '\n';
    return ExitOk;
}
