// Tool.h - what every subcommand of the supportqt tool shares: option parsing, error lines, JSON output,
// input checks, outputs written whole or not at all, and the progress line.
#pragma once

#include "QtSupport.h"
#include "YString.h"

#include <QCommandLineParser>
#include <QJsonValue>
#include <QString>
#include <QStringList>
#include <QTextCodec>

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// Exit codes of the tool.
enum ToolExit {
    ExitOk = 0,
    ExitFailure = 1, ///< the work could not be done: an input that cannot be read, an output that cannot be written
    ExitUsage = 2,   ///< unknown subcommand or option, missing or surplus argument, a bad option value
    ExitNegative = 3 ///< the answer is no: a document that breaks its schema, a pattern that does not match
};

/// One subcommand's command line: its options, positional arguments, help and errors.
class ToolCommand {
public:
    /// `name` is the subcommand as typed ("netlist", "report mc"); `synopsis` its arguments after the name.
    ToolCommand(const QString& name, const QString& synopsis, const QString& description);

    /// Adds an option with a value (`valueName` not empty) or a flag.
    void addOption(const QStringList& names, const QString& description, const QString& valueName = QString(),
                   const QString& defaultValue = QString());
    /// Adds an option with a value that may be given more than once; `values` has them all. Any other
    /// option with a value may be given once only.
    void addRepeatableOption(const QStringList& names, const QString& description, const QString& valueName);
    /// Adds "--json".
    void addJsonOption();

    /// Parses the arguments (the first is the program name). Returns -1 when the command should run,
    /// otherwise the exit code to return at once (help printed, or a usage error reported).
    int parse(const QStringList& arguments, int minPositional, int maxPositional);

    bool isSet(const QString& name) const { return m_parser.isSet(name); }
    QString value(const QString& name) const { return m_parser.value(name); }
    QStringList values(const QString& name) const { return m_parser.values(name); }
    QStringList positional() const { return m_parser.positionalArguments(); }
    bool json() const { return m_json && m_parser.isSet(QStringLiteral("json")); }

    /// An integer option's value; reports a usage error and returns false when it is not an integer.
    bool intValue(const QString& name, long long* result) const;

    /// Writes "supportqt NAME: MESSAGE" as one line on standard error and returns `code`.
    int fail(int code, const QString& message) const;
    /// True once any command of the process has reported a failure (a warning is none).
    static bool failureReported();
    /// The name of the command made last, as typed ("lib extract"); empty before any.
    static QString runningName();
    /// Writes "supportqt NAME: MESSAGE" as one line on standard error: a note that does not stop the work.
    void warn(const QString& message) const { fail(ExitOk, message); }
    /// Checks that `path` names a file that can be read now. When it cannot, reports why, with the
    /// library's file-open diagnosis, and returns false.
    bool checkInput(const QString& path) const;
    /// An input named on the command line, checked with `checkInput`: "-" is standard input, which is
    /// then read to its end into a temporary file whose name replaces `*path` (the library reads files
    /// by name). False, reported, when it cannot be read, and for a second "-" of the command: one text
    /// given for two inputs would only be compared with itself.
    bool input(QString* path) const;
    /// The exit code for an input that `input` refused: a usage error for a second "-", else a failure.
    int inputFailure() const { return m_inputFailure; }
    /// The first positional argument as an input, as `input` takes it.
    bool inputArgument(QString* path) const
    {
        *path = positional().value(0);
        return input(path);
    }
    /// The same for a command that reads its input by name more than once: a FIFO, device or socket
    /// (which would give its bytes to the first reading only, or never end) is refused, before it is
    /// opened; its text can come through standard input as "-".
    bool regularInputArgument(QString* path) const
    {
        *path = positional().value(0);
        return regularInput(path);
    }
    /// `input` for such a command's input `*path`, which may be any argument.
    bool regularInput(QString* path) const;
    /// Checks that `path` can be written now; reports why not and returns false otherwise. "-" (standard
    /// output) can always be written.
    bool checkOutput(const QString& path) const;

    const QString& name() const { return m_name; }

private:
    QString validOptions() const;

    QString m_name;
    QString m_synopsis;
    QCommandLineParser m_parser;
    QStringList m_optionNames;
    QStringList m_pathOptions; // the long names of the options whose value is a path
    QList<QStringList> m_singleValued; // the names of each option with a value that may be given once only
    bool m_json = false;
    mutable bool m_standardInputTaken = false; // an input of the command was "-"
    mutable int m_inputFailure = ExitFailure;
};

/// True for "-", the name of standard input or standard output on the command line.
inline bool isStandardStream(const QString& path) { return path == QLatin1String("-"); }
/// The path as the user gave it: "-" for the temporary copy that standard input was read into.
QString shownPath(const QString& path);
/// The text with the temporary copy of standard input named "-" wherever it names it, and a file named
/// relative to the copy (a library's include) "-/NAME": a message or a problem about a file read from
/// standard input names it as the user did, never by the folder of the copy.
QString namingStandardInput(QString text);

/// Writes a file whole or not at all, as the library's sp_ReplaceFileContent does: through links, in
/// place for devices, keeping permissions; on failure `target` is as it was and no temporary file stays.
/// A `target` of "-" is standard output: `write` writes a temporary file, which is then copied there.
bool writeFileAtomically(const QString& target, const std::function<bool(const YString& temporaryPath)>& write);

/// Makes a folder and its missing parents for a command's outputs. Unless `keep` is called, the folders
/// it made that are still empty are removed when it goes: a command that fails leaves no folder of its
/// own behind, and never removes one that holds anything.
class MadeFolders {
public:
    MadeFolders() = default;
    MadeFolders(const MadeFolders&) = delete;
    MadeFolders& operator=(const MadeFolders&) = delete;
    ~MadeFolders();
    /// False when the folder cannot be made.
    bool make(const QString& path);
    void keep() { m_made.clear(); }

private:
    QStringList m_made; // the last made, and so the deepest, first
};

/// One file of a set written together: its target and what writes it at a temporary path.
struct FileWrite {
    QString target;
    std::function<bool(const YString& temporaryPath)> write;
};
/// Writes the files as one, each as writeFileAtomically writes it: every file is written aside before
/// any replaces its previous one (each write holds the next one's), so that a write that fails leaves
/// them all as they were. (A device, which is written in place, and standard output, which gets its
/// copy once its write is done, take their bytes when their own write succeeds.) The replacements run from the last file back, so that the first is replaced
/// last. False on failure, with the file that failed in `*failed` and in `*replaced` how many were
/// replaced already (some only when a replacement itself fails).
bool writeFilesTogether(const std::vector<FileWrite>& files, QString* failed, int* replaced);

/// Writes a text file whole or not at all, as writeFileAtomically does; false when any of it could not be
/// written (the buffered tail included).
bool writeTextFile(const QString& target, const std::string& text);

/// The columns that UTF-8 text takes in a table: its characters, not its bytes (continuation bytes
/// take none).
size_t textColumns(std::string_view text);

/// Text output collected in memory and written to standard output in one go.
class Output {
public:
    Output& operator<<(const char* text) { m_text.append(text); return *this; }
    Output& operator<<(const std::string& text) { m_text.append(text); return *this; }
    Output& operator<<(const YString& text) { m_text.append(text.c_str(), static_cast<size_t>(text.length())); return *this; }
    Output& operator<<(const QString& text) { m_text.append(text.toUtf8().constData()); return *this; }
    Output& operator<<(char c) { m_text.push_back(c); return *this; }
    Output& operator<<(long long n) { m_text.append(std::to_string(n)); return *this; }
    Output& operator<<(int n) { m_text.append(std::to_string(n)); return *this; }
    /// Appends `text` padded with blanks to `width` characters (left-aligned; right-aligned when negative).
    Output& pad(const std::string& text, int width);
    void flush();
    /// The bytes appended since the last flush.
    size_t pending() const { return m_text.size(); }
    ~Output() { flush(); }

private:
    std::string m_text;
};

/// A CSV field as RFC 4180 writes it: quoted, with quotes doubled, when it holds a comma, a quote or a
/// line end (a carriage return or a line feed).
std::string csvField(const std::string& text);
/// The fields of one line of CSV, as csvField writes them: a field in double quotes (a quote in it
/// written twice) is taken as written, commas and blanks included; any other has its blanks trimmed.
/// False when a quoted field does not close, or more than blanks follow its closing quote.
bool splitCsvLine(const QString& line, QStringList* fields);

struct XMLReportHeader;

/// One key per merit function of the header, unique among them, for a JSON object or a table column:
/// its display name when no other function has that name; else its defining text when that is not
/// empty, no other function has it, it is no function's display name and no other key is that text; else its name, "#" and its position (from 1), with more "#"
/// while another key is that text.
QStringList meritKeys(const XMLReportHeader& header);

/// "1 NOUN" or "N NOUNs": a count for a summary line (`noun` in the singular).
std::string counted(long long n, const char* noun);

/// `text` with the control characters a terminal obeys (all but line feed and tab, DEL, and the C1
/// controls in UTF-8) written as visible escapes ("\x1b", "\u009b").
std::string visibleControls(const std::string& text);
/// A message for standard error: its controls shown as `visibleControls` shows them, and its line feeds
/// as "\n", so that it stays one line whatever names it quotes.
std::string oneLine(const QString& text);

/// The UTF-8 detector's verdict in words: "ASCII", "UTF-8", "extended UTF-8" or "not UTF-8".
const char* utf8VerdictName(UTF8DetectEncoding encoding);

/// Prints a JSON value (object or array) to standard output, indented, with a final line feed.
void printJson(const QJsonValue& value);
/// A real as JSON: a number, or null when it is not finite.
QJsonValue jsonReal(double value);
/// A real as the text output shows it: the shortest text that reads back to the same double.
std::string realText(double value);
/// The share `p` (0 to 1) as a percentage of `digits` significant digits and "%", "n/a" when it is not a
/// number. A share below 1 takes as many more digits as it needs not to show as 100%: a run that fails
/// is never rounded away.
std::string percentText(double p, int digits);

/// A line on standard error that shows long work going on ("supportqt NAME: WHAT ... 3 s"), redrawn
/// every half second, shown only when standard error is a terminal and `shown` is true, and cleared
/// when the object goes.
class ProgressLine {
public:
    struct Impl;
    ProgressLine(const QString& what, bool shown);
    ~ProgressLine();
    /// Replaces the text after the elapsed time (a count of items done, say).
    void setDetail(const QString& detail);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

private:
    Impl* m_impl = nullptr;
};

/// Writes a message line on standard error; a progress line being shown is cleared first, so that the
/// message is not written onto its end.
void writeMessageLine(const std::string& line);

/// True when standard error is a terminal (a console on Windows).
bool standardErrorIsTerminal();
/// Writes bytes to standard output or standard error; false when they could not all be written. On
/// Windows UTF-8 text for a console goes to it as UTF-16 (a sequence split between writes is joined),
/// so that it shows as written in any console code page; text that is not UTF-8, and anything not for a
/// console, goes as its bytes.
bool writeStream(FILE* stream, const char* data, size_t size);
inline bool writeStream(FILE* stream, const std::string& text) { return writeStream(stream, text.data(), text.size()); }
inline bool writeStream(FILE* stream, const QByteArray& text)
{
    return writeStream(stream, text.constData(), static_cast<size_t>(text.size()));
}
/// The name of a signal ("SIGSEGV"), or empty where the system has none for it.
QString signalName(int signal);
/// Whether two paths name one existing file (the same device and file number: links and other names of
/// it included), whatever their text.
bool sameExistingFile(const QString& a, const QString& b);
/// What tells the existing file apart from every other (its device and file number): equal for two
/// names of one file; empty when the file cannot be looked at.
QByteArray existingFileIdentity(const QString& path);
/// A program's captured output as text: UTF-8 where it is valid UTF-8; otherwise, on Windows, text in
/// the code page that console programs write (the console's, else the system's OEM one), and elsewhere
/// UTF-8 with each invalid byte shown as U+FFFD.
QString programOutputText(const std::string& bytes);
/// Whether two absolute paths are one name as the host compares names: ignoring case on Windows.
bool sameFileName(const QString& a, const QString& b);
/// Whether `path` names a device by a name the system reserves, which no file can have and which the
/// file checks do not see as existing: on Windows CON, PRN, AUX, NUL, COM0 to COM9 and LPT0 to LPT9 (in
/// any case, with any extension, in any folder). Never on other systems, whose devices are files.
bool isReservedDeviceName(const QString& path);
/// Why the output `path` cannot be written as named, a sentence that names it; empty when
/// nothing here is against it. On Windows: a part of the name that ends in a dot or blank, which the
/// system drops (the file would be written under another name, perhaps over another file), or an
/// existing file with the read-only attribute, which the system does not let be replaced. Always empty
/// elsewhere.
QString outputNameRefusal(const QString& path);
/// Why the input `path` is not read as named, a sentence that names it; empty when nothing here is
/// against it. On Windows: a part of the name (outside the "\\?\" form, which keeps it) that ends in a
/// dot or blank, which the system drops, so that another file than the one named would be read. Always
/// empty elsewhere.
QString inputNameRefusal(const QString& path);
/// Whether `codec` is the system's code-page codec, which reports nothing of what it loses: on Windows
/// Qt's "System" codec (the locale's), which drops the byte sequences that the ANSI code page has no
/// character for and writes the characters it has none for as similar ones or '?'. Never elsewhere.
bool isSilentSystemCodec(const QTextCodec* codec);
/// That codec's name in messages, with its code page: "System (code page 932)".
QString silentSystemCodecName();
/// Counts, a block at a time, the byte sequences of one text that the silent system codec drops: each
/// byte, or lead byte with the byte after it, that the ANSI code page has no character for, and a lead
/// byte that ends the text. Counts nothing where there is no such codec.
class CodePageReader {
public:
    void feed(const QByteArray& block);
    /// The count once the whole text has been fed.
    qint64 finish();
    /// Whether the codec also drops the whole text from its first NUL byte on, as it does when the
    /// text holds a NUL byte and a sequence it cannot read (it then reads character by character, and
    /// stops at the NUL).
    bool dropsFromFirstNul() const { return m_nulSeen && m_unreadable > 0; }

private:
    QByteArray m_carry; // a lead byte that ended the last block
    qint64 m_unreadable = 0;
    bool m_nulSeen = false;
    QTextCodec::ConverterState m_utf8{QTextCodec::IgnoreHeader}; // where the code page is UTF-8
};
/// The characters of `text` (a surrogate pair is one) that the ANSI code page has no character for,
/// which the silent system codec writes as similar ones or '?'; 0 where there is no such codec.
qint64 codePageUnwritable(const QString& text);
/// Whether two outputs would be one file: one name (`sameFileName` of their absolute paths), or one
/// existing file by two names.
bool sameOutputFile(const QString& a, const QString& b);
/// Has the tool remove `file` and then the folder `folder` when it is ended by an interrupt, a
/// termination request, a closed terminal or a closed pipe, before it ends as the signal would end it:
/// the copy of standard input may be large. Up to four pairs are kept. (On Windows, for the console's
/// Ctrl+C, Ctrl+Break and close events.)
void removeWhenInterrupted(const QString& file, const QString& folder);
/// Makes the standard streams pass bytes as given, so that the tool's text and files written to "-" end
/// lines with a line feed on every platform (Windows would add carriage returns) and "-" read as input
/// keeps its own line ends.
void useBinaryStandardStreams();
/// Makes a write beyond the process's file-size limit fail as a write to a full disk does, with an error
/// the tool reports and its temporary files removed, instead of ending the tool by a signal (POSIX). The
/// programs the tool starts meet the limit as they would have without the tool.
void failWritesBeyondTheSizeLimit();
