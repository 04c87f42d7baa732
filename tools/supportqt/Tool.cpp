// Tool.cpp - the pieces every subcommand of the supportqt tool shares.
#include "Tool.h"

#include "FileReplace.h"

#include "FileOpenCheck.h"
#include "FileServices.h"
#include "QtSupport.h"
#include "TextServices.h"
#include "XMLReport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

namespace {
// The name of the command that runs now, as typed ("lib extract").
QString g_runningName;
}

QString ToolCommand::runningName() { return g_runningName; }

ToolCommand::ToolCommand(const QString& name, const QString& synopsis, const QString& description)
    : m_name(name), m_synopsis(synopsis)
{
    g_runningName = name;
    m_parser.setApplicationDescription(description);
    m_parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    m_parser.addHelpOption();
    m_optionNames << QStringLiteral("--help");
}

void ToolCommand::addOption(const QStringList& names, const QString& description, const QString& valueName,
                            const QString& defaultValue)
{
    QCommandLineOption option(names, description, valueName, defaultValue);
    m_parser.addOption(option);
    for (const QString& n : names)
        m_optionNames << (n.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + n;
    // The options that name a file or a folder, by the name of their value.
    static const QStringList kPathValues{QStringLiteral("DIR"), QStringLiteral("FILE"), QStringLiteral("OUT"),
                                         QStringLiteral("MERGED"), QStringLiteral("XSD"), QStringLiteral("CSV"),
                                         QStringLiteral("CSS"), QStringLiteral("SVG")};
    if (kPathValues.contains(valueName))
        m_pathOptions << names.last();
    if (!valueName.isEmpty())
        m_singleValued << names;
}

void ToolCommand::addRepeatableOption(const QStringList& names, const QString& description, const QString& valueName)
{
    addOption(names, description, valueName);
    m_singleValued.removeAll(names);
}

void ToolCommand::addJsonOption()
{
    addOption({QStringLiteral("json")}, QStringLiteral("Print the result as JSON."));
    m_json = true;
}

QString ToolCommand::validOptions() const
{
    return m_optionNames.join(QStringLiteral(", "));
}

int ToolCommand::parse(const QStringList& arguments, int minPositional, int maxPositional)
{
    if (!m_parser.parse(arguments)) {
        QString error = m_parser.errorText();
        if (error.endsWith(QLatin1Char('.')))
            error.chop(1);
        return fail(ExitUsage, error + QStringLiteral("; valid options: ") + validOptions());
    }
    // Qt's parser offers --help-all beside --help; the tool has no options of Qt's own, so both show
    // the same text.
    if (m_parser.isSet(QStringLiteral("help")) || m_parser.isSet(QStringLiteral("help-all"))) {
        // Qt's help text names the program; the tool's name and the subcommand's arguments stand there.
        QString help = m_parser.helpText();
        const int firstLineEnd = help.indexOf(QLatin1Char('\n'));
        help.replace(0, firstLineEnd, QStringLiteral("Usage: supportqt %1 %2").arg(m_name, m_synopsis).trimmed());
        writeStream(stdout, help.toUtf8());
        return ExitOk;
    }
    // A value given twice would leave the first unused without a word: a single value is given once.
    for (const QStringList& names : m_singleValued) {
        const QStringList given = m_parser.values(names.last());
        if (given.size() > 1) {
            QStringList shown;
            for (const QString& n : names)
                shown << (n.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + n;
            return fail(ExitUsage, QStringLiteral("%1 is given more than once ('%2', then '%3'); give it once")
                                       .arg(shown.join(QLatin1Char('/')), given.at(0), given.at(1)));
        }
    }
    // An empty path would name the current folder, or nothing: it is no path.
    for (const QString& option : m_pathOptions) {
        if (m_parser.isSet(option) && m_parser.values(option).contains(QString()))
            return fail(ExitUsage, QStringLiteral("--%1 needs a path, not an empty text").arg(option));
    }
    const int count = m_parser.positionalArguments().size();
    if (count < minPositional)
        return fail(ExitUsage, QStringLiteral("missing argument; usage: supportqt %1 %2").arg(m_name, m_synopsis));
    if (maxPositional >= 0 && count > maxPositional)
        return fail(ExitUsage, QStringLiteral("unexpected argument '%1'; usage: supportqt %2 %3")
                                   .arg(m_parser.positionalArguments().at(maxPositional), m_name, m_synopsis));
    return -1;
}

bool ToolCommand::intValue(const QString& name, long long* result) const
{
    bool ok = false;
    *result = m_parser.value(name).toLongLong(&ok);
    if (!ok)
        fail(ExitUsage, QStringLiteral("--%1 takes an integer, not '%2'").arg(name, m_parser.value(name)));
    return ok;
}

namespace {
// Set once a command has said on standard error why it failed.
bool g_failureReported = false;

// The temporary copy of standard input, once it is made, and its folder with a separator after it;
// whether making it failed for want of room to write it rather than of input to read.
QString g_standardInputCopy;
QString g_standardInputFolder;
bool g_standardInputUnwritten = false;
} // namespace

QString namingStandardInput(QString text)
{
    if (!g_standardInputCopy.isEmpty()) {
        // The copy where its name ends there; "stdin.inc" beside it is another file.
        static const QRegularExpression copy(QRegularExpression::escape(g_standardInputCopy) +
                                             QStringLiteral("(?![^\\s:;,()'\"])"));
        text.replace(copy, QStringLiteral("-"));
        text.replace(g_standardInputFolder, QStringLiteral("-/"));
    }
    return text;
}

int ToolCommand::fail(int code, const QString& message) const
{
    std::fflush(stdout);
    writeMessageLine("supportqt " + m_name.toStdString() + ": " + oneLine(namingStandardInput(message)) + "\n");
    if (code != ExitOk)
        g_failureReported = true;
    return code;
}

bool ToolCommand::failureReported() { return g_failureReported; }

bool ToolCommand::checkInput(const QString& path) const
{
    if (QFileInfo(path).isDir()) {
        fail(ExitFailure, QStringLiteral("%1 is a folder, not a file").arg(path));
        return false;
    }
    const YString name = toYs(path);
    if (sp_CheckFileOpen(name, GfnRead))
        return true;
    YString message;
    sp_FileOpenForensicMsg(name, GfnRead, &message);
    fail(ExitFailure, toQs(message));
    return false;
}

namespace {

// Standard input read to its end into a temporary file, once; the file goes when the tool ends.
QString standardInputFile()
{
    static QTemporaryDir folder;
    QString& path = g_standardInputCopy;
    static bool read = false;
    if (read)
        return path;
    read = true;
    g_standardInputUnwritten = true;
    if (!folder.isValid())
        return QString();
    // The copy is written through the library, whose files others may delete while they are open: an
    // interrupt removes it even in the middle of the copying.
    const QString name = folder.filePath(QStringLiteral("stdin"));
    FILE* copy = fopen_utf8(name.toUtf8().constData(), "wb");
    if (!copy)
        return QString();
    removeWhenInterrupted(name, folder.path());
    // Read with the C runtime, which takes a pipe, a file or a console alike on every platform.
    char chunk[65536];
    bool copied = true;
    for (;;) {
        const size_t got = std::fread(chunk, 1, sizeof chunk, stdin);
        if (got > 0 && std::fwrite(chunk, 1, got, copy) != got) {
            copied = false;
            break;
        }
        if (got < sizeof chunk) {
            copied = !std::ferror(stdin);
            break;
        }
    }
    const bool closed = std::fclose(copy) == 0;
    g_standardInputUnwritten = !closed || (!copied && !std::ferror(stdin));
    if (!closed || !copied)
        return QString();
    path = name;
    g_standardInputFolder = folder.path() + QLatin1Char('/');
    return path;
}

} // namespace

QString shownPath(const QString& path)
{
    return !g_standardInputCopy.isEmpty() && path == g_standardInputCopy ? QStringLiteral("-") : path;
}

bool ToolCommand::input(QString* path) const
{
    if (isStandardStream(*path)) {
        if (m_standardInputTaken) {
            m_inputFailure = fail(ExitUsage, QStringLiteral("standard input is the text of one input only, and '-' is given for two"));
            return false;
        }
        m_standardInputTaken = true;
        *path = standardInputFile();
        if (path->isEmpty()) {
            fail(ExitFailure, g_standardInputUnwritten ? QStringLiteral("cannot write the temporary copy of standard input that it is read from")
                                                       : QStringLiteral("cannot read standard input"));
            return false;
        }
    }
    // A device by a name Windows reserves reads as no file does (NUL as empty, CON from the console, COM1
    // waits for a serial port): its text is given on standard input instead.
    if (isReservedDeviceName(*path)) {
        fail(ExitFailure, QStringLiteral("%1 is not a regular file; give its text on standard input as '-'").arg(*path));
        return false;
    }
    const QString refusal = inputNameRefusal(*path);
    if (!refusal.isEmpty()) {
        fail(ExitFailure, refusal);
        return false;
    }
    return checkInput(*path);
}

bool ToolCommand::regularInput(QString* path) const
{
    const QFileInfo info(*path);
    if (!isStandardStream(*path) && info.exists() && !info.isFile() && !info.isDir()) {
        fail(ExitFailure, QStringLiteral("%1 is not a regular file; give its text on standard input as '-'").arg(*path));
        return false;
    }
    return input(path);
}

bool ToolCommand::checkOutput(const QString& path) const
{
    if (isStandardStream(path))
        return true;
    const QString refusal = outputNameRefusal(path);
    if (!refusal.isEmpty()) {
        fail(ExitFailure, refusal);
        return false;
    }
    // The null device by its reserved name (NUL, as /dev/null elsewhere) is written to as it is; the
    // checks of a file to create do not apply to it.
    if (isReservedDeviceName(path))
        return true;
    if (QFileInfo(path).isDir()) {
        fail(ExitFailure, QStringLiteral("%1 is a folder, not a file").arg(path));
        return false;
    }
    const YString name = toYs(path);
    if (sp_CheckFileOpen(name, GfnWrite))
        return true;
    YString message;
    sp_FileOpenForensicMsg(name, GfnWrite, &message);
    fail(ExitFailure, toQs(message));
    return false;
}

MadeFolders::~MadeFolders()
{
    for (const QString& folder : m_made)
        if (!QDir().rmdir(folder))
            break; // not empty, or not ours to remove: nor are its parents then
}

bool MadeFolders::make(const QString& path)
{
    QStringList missing;
    QString folder = QDir::cleanPath(QDir(path).absolutePath());
    while (!QFileInfo::exists(folder)) {
        missing << folder;
        const QString parent = QFileInfo(folder).absolutePath();
        if (parent == folder)
            break;
        folder = parent;
    }
    // Made from the top down, each folder recorded as soon as it is made: one that cannot be made (a
    // reserved or too long name) leaves the parents made before it to be removed too.
    for (auto it = missing.crbegin(); it != missing.crend(); ++it) {
        if (QDir().mkdir(*it))
            m_made.prepend(*it);
        else if (!QFileInfo(*it).isDir())
            return false;
    }
    return QFileInfo(QDir(path).absolutePath()).isDir();
}

namespace {

// Copies the finished output `temporary` to standard output. Kept out of writeFileAtomically, whose
// frame a set of files written together stacks once per file, so that its buffer is not stacked too.
[[gnu::noinline]] bool copyToStandardOutput(const QString& temporary)
{
    // Opened by the core library, which shares the file's deletion: on Windows the interrupt's removal
    // would otherwise fail while the file is copied out.
    FILE* file = fopen_utf8(temporary.toUtf8().constData(), "rb");
    if (!file)
        return false;
    std::fflush(stdout);
    std::vector<char> chunk(65536);
    bool copied = true;
    for (;;) {
        const size_t got = std::fread(chunk.data(), 1, chunk.size(), file);
        if (got > 0 && !writeStream(stdout, chunk.data(), got)) {
            copied = false;
            break;
        }
        if (got < chunk.size()) {
            copied = !std::ferror(file);
            break;
        }
    }
    std::fclose(file);
    return copied && std::fflush(stdout) == 0;
}

} // namespace

bool writeFileAtomically(const QString& target, const std::function<bool(const YString& temporaryPath)>& write)
{
    if (!isStandardStream(target))
        return sp_ReplaceFileWith(toYs(target), write);
    QTemporaryDir folder;
    if (!folder.isValid())
        return false;
    const QString temporary = folder.filePath(QStringLiteral("output"));
    // A closed pipe or an interrupt while the output is copied out removes it too.
    removeWhenInterrupted(temporary, folder.path());
    return write(toYs(temporary)) && copyToStandardOutput(temporary);
}

bool writeFilesTogether(const std::vector<FileWrite>& files, QString* failed, int* replaced)
{
    failed->clear();
    *replaced = 0;
    std::function<bool(size_t)> writeFrom = [&](size_t i) {
        if (i == files.size())
            return true;
        const bool written = writeFileAtomically(files[i].target, [&](const YString& temporary) {
            if (!files[i].write(temporary)) {
                *failed = files[i].target;
                return false;
            }
            return writeFrom(i + 1);
        });
        if (failed->isEmpty() && !written)
            *failed = files[i].target;
        *replaced += written;
        return written;
    };
    // The writes nest one level per file: they run on a thread whose stack has room for as many levels
    // as there are files (a few KiB each), whatever stack this process was given.
    bool written = false;
    const size_t stack = std::min<size_t>((size_t(1) << 20) + files.size() * (size_t(32) << 10), size_t(1) << 30);
    std::unique_ptr<QThread> writer(QThread::create([&] { written = writeFrom(0); }));
    writer->setStackSize(static_cast<uint>(stack));
    writer->start();
    writer->wait();
    if (!written && failed->isEmpty() && !files.empty())
        *failed = files.front().target;
    return written;
}

bool writeTextFile(const QString& target, const std::string& text)
{
    return writeFileAtomically(target, [&](const YString& temporary) {
        FILE* file = fopen_utf8(temporary.c_str(), "wb");
        if (!file)
            return false;
        const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
        return std::fclose(file) == 0 && written;
    });
}

size_t textColumns(std::string_view text)
{
    size_t columns = 0;
    for (unsigned char c : text)
        columns += (c & 0xC0) != 0x80;
    return columns;
}

Output& Output::pad(const std::string& text, int width)
{
    const size_t w = static_cast<size_t>(width < 0 ? -width : width);
    // Width counts characters, not bytes.
    const size_t columns = textColumns(text);
    const std::string fill(columns < w ? w - columns : 0, ' ');
    if (width < 0)
        m_text.append(fill).append(text);
    else
        m_text.append(text).append(fill);
    return *this;
}

// The text with the control characters that a terminal would obey (escape sequences that retitle or
// clear it, bells, carriage returns, backspaces; C1 controls in UTF-8) shown as visible escapes, as ls
// and git show them: a file's text must not drive the user's terminal. Line feeds and tabs stay.
std::string visibleControls(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    char escape[8];
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7f) {
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            out.append(escape);
        } else if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(text[i + 1]));
            out.append(escape);
            ++i;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

std::string counted(long long n, const char* noun)
{
    return std::to_string(n) + ' ' + noun + (n == 1 ? "" : "s");
}

std::string oneLine(const QString& text)
{
    const std::string shown = visibleControls(text.toStdString());
    std::string out;
    out.reserve(shown.size());
    for (char c : shown) {
        if (c == '\n')
            out += "\\n";
        else
            out.push_back(c);
    }
    return out;
}

void Output::flush()
{
    if (!m_text.empty()) {
        const std::string shown = visibleControls(m_text);
        writeStream(stdout, shown);
    }
    m_text.clear();
    std::fflush(stdout);
}

const char* utf8VerdictName(UTF8DetectEncoding encoding)
{
    switch (encoding) {
    case Ascii: return "ASCII";
    case Utf8: return "UTF-8";
    case Utf8Extended: return "extended UTF-8";
    case Invalid: break;
    }
    return "not UTF-8";
}

void printJson(const QJsonValue& value)
{
    const QJsonDocument document = value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    const QByteArray text = document.toJson(QJsonDocument::Indented);
    writeStream(stdout, text);
    std::fflush(stdout);
}

QJsonValue jsonReal(double value)
{
    return std::isfinite(value) ? QJsonValue(value) : QJsonValue(QJsonValue::Null);
}

std::string realText(double value)
{
    return sp_RealToShortestText(value).str();
}

std::string percentText(double p, int digits)
{
    if (std::isnan(p))
        return "n/a";
    char text[48];
    for (;; ++digits) {
        std::snprintf(text, sizeof text, "%.*g%%", digits, 100.0 * p);
        if (p >= 1.0 || std::strtod(text, nullptr) < 100.0 || digits >= 17)
            return text;
    }
}

namespace {
// The progress line being shown, if any; guarded by g_shownProgressMutex.
std::mutex g_shownProgressMutex;
ProgressLine::Impl* g_shownProgress = nullptr;
} // namespace

struct ProgressLine::Impl {
    QByteArray prefix;
    QByteArray detail;
    std::mutex mutex;
    std::condition_variable wake;
    bool done = false;
    bool drawn = false;
    std::thread thread;

    void draw(int seconds)
    {
        const QByteArray line = prefix + " ... " + QByteArray::number(seconds) + " s" +
                                (detail.isEmpty() ? QByteArray() : " " + detail);
        writeStream(stderr, "\r" + line + "\x1b[K");
        std::fflush(stderr);
        drawn = true;
    }
};

void writeMessageLine(const std::string& line)
{
    std::lock_guard<std::mutex> shownLock(g_shownProgressMutex);
    if (!g_shownProgress) {
        writeStream(stderr, line);
        return;
    }
    // The progress line is cleared first, so that the message starts a line of its own; the progress
    // line is drawn again below it at its next tick.
    std::lock_guard<std::mutex> lock(g_shownProgress->mutex);
    if (g_shownProgress->drawn)
        writeStream(stderr, std::string("\r\x1b[K"));
    g_shownProgress->drawn = false;
    writeStream(stderr, line);
    std::fflush(stderr);
}

ProgressLine::ProgressLine(const QString& what, bool shown)
{
    if (!shown || !standardErrorIsTerminal())
        return;
    m_impl = new Impl;
    {
        std::lock_guard<std::mutex> shownLock(g_shownProgressMutex);
        g_shownProgress = m_impl;
    }
    m_impl->prefix = "supportqt: " + namingStandardInput(what).toUtf8();
    m_impl->thread = std::thread([impl = m_impl] {
        const auto start = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(impl->mutex);
        while (!impl->done) {
            const auto elapsed = std::chrono::steady_clock::now() - start;
            impl->draw(static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));
            impl->wake.wait_for(lock, std::chrono::milliseconds(500));
        }
        if (impl->drawn) {
            writeStream(stderr, std::string("\r\x1b[K"));
            std::fflush(stderr);
        }
    });
}

ProgressLine::~ProgressLine()
{
    if (!m_impl)
        return;
    {
        std::lock_guard<std::mutex> shownLock(g_shownProgressMutex);
        if (g_shownProgress == m_impl)
            g_shownProgress = nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->done = true;
    }
    m_impl->wake.notify_all();
    m_impl->thread.join();
    delete m_impl;
}

void ProgressLine::setDetail(const QString& detail)
{
    if (!m_impl)
        return;
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->detail = detail.toUtf8();
}

std::string csvField(const std::string& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (char c : text) {
        quoted += c;
        if (c == '"')
            quoted += '"';
    }
    return quoted + '"';
}

bool splitCsvLine(const QString& line, QStringList* fields)
{
    fields->clear();
    const int n = line.size();
    const auto skipBlanks = [&](int i) {
        while (i < n && (line[i] == QLatin1Char(' ') || line[i] == QLatin1Char('\t')))
            ++i;
        return i;
    };
    for (int i = 0;;) {
        int j = skipBlanks(i);
        if (j < n && line[j] == QLatin1Char('"')) {
            QString field;
            for (++j;; ++j) {
                if (j >= n)
                    return false;
                if (line[j] == QLatin1Char('"')) {
                    if (j + 1 < n && line[j + 1] == QLatin1Char('"')) {
                        field += QLatin1Char('"');
                        ++j;
                        continue;
                    }
                    break;
                }
                field += line[j];
            }
            j = skipBlanks(j + 1);
            if (j < n && line[j] != QLatin1Char(','))
                return false;
            *fields << field;
        } else {
            j = line.indexOf(QLatin1Char(','), i);
            if (j < 0)
                j = n;
            *fields << line.mid(i, j - i).trimmed();
        }
        if (j >= n)
            return true;
        i = j + 1;
    }
}

QStringList meritKeys(const XMLReportHeader& header)
{
    QStringList names, definitions;
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        names << toQs(header.meritFunctions[m].name);
        definitions << toQs(header.meritFunctions[m].value);
    }
    // The unique names first, so that no other key takes one of them.
    QStringList keys = names;
    QSet<QString> used;
    for (const QString& name : names)
        if (names.count(name) == 1)
            used.insert(name);
    for (int m = 0; m < names.size(); ++m) {
        if (names.count(names.at(m)) == 1)
            continue;
        QString key = definitions.at(m);
        // A definition that is empty, or that is some function's display name, would be read as a name.
        if (key.isEmpty() || names.contains(key) || definitions.count(key) != 1 || used.contains(key)) {
            key = names.at(m) + QLatin1Char('#') + QString::number(m + 1);
            while (used.contains(key))
                key += QLatin1Char('#');
        }
        keys[m] = key;
        used.insert(key);
    }
    return keys;
}

bool sameOutputFile(const QString& a, const QString& b)
{
    return sameFileName(QFileInfo(a).absoluteFilePath(), QFileInfo(b).absoluteFilePath()) || sameExistingFile(a, b);
}
