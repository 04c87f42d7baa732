// ToolPlatform_win.cpp - the console, the standard streams and file identity, on Windows.
#include "Tool.h"
#include "TextServices.h"
#include "../../SupportDll/Source/SystemPath_p.h"

#include <QDir>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>
#include <windows.h>

#include <atomic>
#include <fcntl.h>
#include <io.h>

#include <cstdlib>

#ifndef ENABLE_VIRTUAL_TERMINAL_PROCESSING
#define ENABLE_VIRTUAL_TERMINAL_PROCESSING 0x0004
#endif

namespace {
// The console whose mode the tool changed, and the mode it had: the console is the shell's too, which
// gets it back as it was when the tool ends.
HANDLE g_changedConsole = nullptr;
DWORD g_consoleMode = 0;

void restoreConsoleMode() { SetConsoleMode(g_changedConsole, g_consoleMode); }
} // namespace

bool standardErrorIsTerminal()
{
    // A console, not any character device: the null device is one too, and a progress line there is
    // work for nothing. The line clears itself with an escape sequence, which a console obeys only in
    // its terminal mode; a console that cannot take that mode gets no progress line.
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stderr)));
    DWORD mode = 0;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode))
        return false;
    if (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING)
        return true;
    if (!SetConsoleMode(h, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING))
        return false;
    if (!g_changedConsole) {
        g_changedConsole = h;
        g_consoleMode = mode;
        std::atexit(restoreConsoleMode);
    }
    return true;
}

// Children on Windows do not end by signals.
QString signalName(int) { return QString(); }

namespace {

bool fileIdentity(const QString& path, BY_HANDLE_FILE_INFORMATION* info)
{
    const HANDLE h = CreateFileW(platform::systemPath(QDir::toNativeSeparators(path).toStdWString()).c_str(), 0,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    const bool ok = GetFileInformationByHandle(h, info) != 0;
    CloseHandle(h);
    return ok;
}

} // namespace

bool sameExistingFile(const QString& a, const QString& b)
{
    BY_HANDLE_FILE_INFORMATION ia, ib;
    return fileIdentity(a, &ia) && fileIdentity(b, &ib) && ia.dwVolumeSerialNumber == ib.dwVolumeSerialNumber &&
           ia.nFileIndexHigh == ib.nFileIndexHigh && ia.nFileIndexLow == ib.nFileIndexLow;
}

QByteArray existingFileIdentity(const QString& path)
{
    // A file system that numbers no file (some network shares give every file 0) tells nothing apart.
    BY_HANDLE_FILE_INFORMATION info;
    if (!fileIdentity(path, &info) || (info.nFileIndexHigh == 0 && info.nFileIndexLow == 0))
        return QByteArray();
    return QByteArray::number(static_cast<qulonglong>(info.dwVolumeSerialNumber)) + ':' +
           QByteArray::number((static_cast<qulonglong>(info.nFileIndexHigh) << 32) | info.nFileIndexLow);
}

// Windows compares file names without regard to case: "rep.html" and "REP.HTML" are one file.
bool sameFileName(const QString& a, const QString& b) { return a.compare(b, Qt::CaseInsensitive) == 0; }

namespace {
// The device that the last part of `path` names, in capitals ("AUX"), or empty when it names none: the
// part up to its first dot, without the blanks that Windows drops at its end.
QString reservedDevice(const QString& path)
{
    const int slash = std::max(path.lastIndexOf(QLatin1Char('/')), path.lastIndexOf(QLatin1Char('\\')));
    QString base = path.mid(slash + 1);
    if (slash < 0 && base.size() >= 2 && base.at(1) == QLatin1Char(':'))
        base = base.mid(2);
    base = base.left(base.indexOf(QLatin1Char('.')) < 0 ? base.size() : base.indexOf(QLatin1Char('.')));
    while (base.endsWith(QLatin1Char(' ')))
        base.chop(1);
    base = base.toUpper();
    if (base == QLatin1String("CON") || base == QLatin1String("PRN") || base == QLatin1String("AUX") || base == QLatin1String("NUL"))
        return base;
    const bool numbered = base.size() == 4 && (base.startsWith(QLatin1String("COM")) || base.startsWith(QLatin1String("LPT"))) &&
                          base.at(3).isDigit() && base.at(3).unicode() < 128;
    return numbered ? base : QString();
}
} // namespace

bool isReservedDeviceName(const QString& path) { return !reservedDevice(path).isEmpty(); }

namespace {
// The ANSI code page, which Qt's "System" codec converts with, and its lead bytes: the first bytes of
// its two-byte characters, none in a code page of single bytes.
struct AnsiCodePage {
    UINT number = GetACP();
    bool lead[256] = {};
    AnsiCodePage()
    {
        CPINFO info;
        if (!GetCPInfo(number, &info))
            return;
        for (int i = 0; i + 1 < MAX_LEADBYTES && info.LeadByte[i] != 0; i += 2)
            for (int b = info.LeadByte[i]; b <= info.LeadByte[i + 1]; ++b)
                lead[b] = true;
    }
    int characterLength(char first) const { return lead[static_cast<unsigned char>(first)] ? 2 : 1; }
};

const AnsiCodePage& ansiCodePage()
{
    static const AnsiCodePage page;
    return page;
}

bool readableInCodePage(UINT codePage, const char* bytes, int size)
{
    return MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, bytes, size, nullptr, 0) > 0;
}

// Whether some character of `chars` has no exact counterpart in the code page (a similar one or the
// default character would be written for it).
bool unwritableInCodePage(UINT codePage, const QChar* chars, int size)
{
    BOOL usedDefault = FALSE;
    return WideCharToMultiByte(codePage, WC_NO_BEST_FIT_CHARS, reinterpret_cast<const wchar_t*>(chars), size, nullptr, 0,
                               nullptr, &usedDefault) <= 0 ||
           usedDefault;
}
} // namespace

bool isSilentSystemCodec(const QTextCodec* codec) { return codec && codec->mibEnum() == 0 && codec->name() == "System"; }

QString silentSystemCodecName() { return QStringLiteral("System (code page %1)").arg(ansiCodePage().number); }

void CodePageReader::feed(const QByteArray& block)
{
    const AnsiCodePage& page = ansiCodePage();
    if (page.number == CP_UTF8) {
        QTextCodec::codecForMib(106)->toUnicode(block.constData(), block.size(), &m_utf8);
        return;
    }
    m_nulSeen = m_nulSeen || block.contains('\0');
    const QByteArray bytes = m_carry + block;
    // The block's whole characters are checked at once, and one by one only when they hold one that
    // cannot be read; a lead byte that ends the block waits for the next.
    int end = 0;
    for (int length; end < bytes.size() && end + (length = page.characterLength(bytes.at(end))) <= bytes.size();)
        end += length;
    m_carry = bytes.mid(end);
    if (end == 0 || readableInCodePage(page.number, bytes.constData(), end))
        return;
    for (int i = 0, length; i < end; i += length) {
        length = page.characterLength(bytes.at(i));
        m_unreadable += !readableInCodePage(page.number, bytes.constData() + i, length);
    }
}

qint64 CodePageReader::finish()
{
    if (ansiCodePage().number == CP_UTF8)
        return m_utf8.invalidChars + m_utf8.remainingChars;
    return m_unreadable + (m_carry.isEmpty() ? 0 : 1);
}

qint64 codePageUnwritable(const QString& text)
{
    const UINT codePage = ansiCodePage().number;
    // UTF-8 holds every character (the unpaired surrogates are counted apart).
    if (codePage == CP_UTF8)
        return 0;
    // Spans of 4,096 characters, never splitting a surrogate pair, are checked at once, and the
    // characters of a span one by one only when it holds one that cannot be written.
    qint64 count = 0;
    const int n = text.size();
    for (int start = 0; start < n;) {
        int end = std::min(n, start + 4096);
        if (end < n && text.at(end - 1).isHighSurrogate())
            ++end;
        if (unwritableInCodePage(codePage, text.constData() + start, end - start)) {
            for (int i = start; i < end;) {
                const int length = text.at(i).isHighSurrogate() && i + 1 < end && text.at(i + 1).isLowSurrogate() ? 2 : 1;
                count += unwritableInCodePage(codePage, text.constData() + i, length);
                i += length;
            }
        }
        start = end;
    }
    return count;
}

namespace {
// Whether a part of a name (not "." or "..") ends in a dot or blank, which Windows drops from it, and
// the sentence that refuses the name `path` for it outside the "\\?\" form.
bool endsInDroppedCharacter(const QString& part)
{
    return part != QLatin1String(".") && part != QLatin1String("..") && (part.endsWith(QLatin1Char('.')) || part.endsWith(QLatin1Char(' ')));
}

QString droppedCharacterRefusal(const QString& path)
{
    return QStringLiteral("'%1' has a part that ends in a dot or blank, which Windows drops from file names; name it without").arg(path);
}
} // namespace

QString inputNameRefusal(const QString& path)
{
    const QString given = QDir::toNativeSeparators(path);
    if (given.startsWith(QLatin1String("\\\\?\\")))
        return QString();
    const QStringList parts = given.split(QLatin1Char('\\'));
    return std::any_of(parts.begin(), parts.end(), endsInDroppedCharacter) ? droppedCharacterRefusal(path) : QString();
}

QString outputNameRefusal(const QString& path)
{
    const QString given = QDir::toNativeSeparators(path);
    // In the "\\?\" form the name is taken as written: '/' is no separator and "." and ".." are no steps,
    // so the name would not be the one meant.
    const bool literal = given.startsWith(QLatin1String("\\\\?\\"));
    if (literal && (path.contains(QLatin1Char('/')) || given.contains(QLatin1String("\\.\\")) || given.contains(QLatin1String("\\..\\")) ||
                    given.endsWith(QLatin1String("\\.")) || given.endsWith(QLatin1String("\\.."))))
        return QStringLiteral("'%1' is in the \\\\?\\ form, which is taken as written: '/' is no separator there, nor are '.' and "
                              "'..' steps; name it with '\\' and whole folder names")
            .arg(path);
    // The name after the prefix of the forms "\\?\UNC\", "\\?\" and "\\.\" or of a UNC path: only an
    // ordinary path (with a drive, or relative) has its last part read as a device's name.
    QString native = given;
    bool ordinary = true;
    for (const QLatin1String prefix : {QLatin1String("\\\\?\\UNC\\"), QLatin1String("\\\\?\\"), QLatin1String("\\\\.\\"),
                                       QLatin1String("\\\\")})
        if (native.startsWith(prefix)) {
            native = native.mid(prefix.size());
            ordinary = false;
            break;
        }
    const bool deviceForm = !ordinary && !literal && given.startsWith(QLatin1String("\\\\.\\"));
    // A drive's colon is the only one a name may hold: any other names a stream of a file.
    const int drive = native.size() >= 2 && native.at(1) == QLatin1Char(':') && native.at(0).unicode() < 128 && native.at(0).isLetter() ? 2 : 0;
    const QString name = native.mid(drive);
    for (const QChar c : name) {
        if (c == QLatin1Char(':'))
            return QStringLiteral("'%1' holds ':' after its drive, which Windows reads as naming a stream of a file; name a file")
                .arg(path);
        if (c.unicode() < 32 || QStringLiteral("<>\"|?*").contains(c))
            return QStringLiteral("'%1' holds %2, which Windows does not allow in file names")
                .arg(path, c.unicode() < 32 ? QStringLiteral("a control character") : QStringLiteral("'%1'").arg(c));
    }
    const QStringList parts = name.split(QLatin1Char('\\'));
    for (const QString& part : parts) {
        if (endsInDroppedCharacter(part))
            return literal ? QStringLiteral("'%1' has a part that ends in a dot or blank, which the \\\\?\\ form keeps and Windows "
                                            "programs then cannot open by that name; name it without")
                                 .arg(path)
                           : droppedCharacterRefusal(path);
    }
    // A device's name takes an output and keeps nothing, or waits (NUL is the null device, and takes it
    // as /dev/null does elsewhere). Where the form makes it a file's name, no program could open that
    // file by its name.
    const QString device = reservedDevice(parts.last());
    if (!device.isEmpty() && (ordinary || (deviceForm && parts.size() == 1)))
        return device == QLatin1String("NUL")
                   ? QString()
                   : QStringLiteral("%1 names the device %2, which Windows reserves, not a file; name another file").arg(path, device);
    if (!device.isEmpty())
        return QStringLiteral("'%1' would make a file named %2, which Windows programs cannot open by that name; name another file")
            .arg(path, parts.last());
    const DWORD attributes = GetFileAttributesW(platform::systemPath(given.toStdWString()).c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY) && (attributes & FILE_ATTRIBUTE_READONLY))
        return QStringLiteral("%1 is read-only; clear its read-only attribute to replace it").arg(path);
    return QString();
}

// Console programs write to a pipe in the console's code page ("cmd /c echo" an "é" gives 0x82 in code
// page 850): output that is no UTF-8 is read in that code page.
QString programOutputText(const std::string& bytes)
{
    const int size = static_cast<int>(bytes.size());
    if (size == 0)
        return QString();
    UINT page = CP_UTF8;
    DWORD flags = MB_ERR_INVALID_CHARS;
    int n = MultiByteToWideChar(page, flags, bytes.data(), size, nullptr, 0);
    if (n <= 0) {
        page = GetConsoleOutputCP();
        if (page == 0)
            page = GetOEMCP();
        flags = 0; // a console page of UTF-8 itself then shows the invalid bytes as U+FFFD
        n = MultiByteToWideChar(page, flags, bytes.data(), size, nullptr, 0);
    }
    std::wstring text(static_cast<size_t>(n > 0 ? n : 0), L'\0');
    if (n <= 0 || MultiByteToWideChar(page, flags, bytes.data(), size, &text[0], n) != n)
        return QString::fromUtf8(bytes.data(), size);
    return QString::fromStdWString(text);
}

namespace {
// What a write to a console held back of each standard stream (output, error): the start of a UTF-8
// sequence that the write ended in the middle of.
std::mutex g_pendingMutex;
std::string g_pending[2];

bool writeBytes(FILE* stream, const std::string& bytes)
{
    return std::fwrite(bytes.data(), 1, bytes.size(), stream) == bytes.size();
}

// At exit, what is still held back is no UTF-8 to come: it goes as its bytes.
void writePendingBytes()
{
    std::lock_guard<std::mutex> lock(g_pendingMutex);
    for (int i = 0; i < 2; ++i) {
        FILE* stream = i == 1 ? stderr : stdout;
        if (!g_pending[i].empty()) {
            writeBytes(stream, g_pending[i]);
            g_pending[i].clear();
            std::fflush(stream);
        }
    }
}
} // namespace

bool writeStream(FILE* stream, const char* data, size_t size)
{
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
    DWORD mode = 0;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode) || (stream != stdout && stream != stderr))
        return std::fwrite(data, 1, size, stream) == size;
    // A console shows bytes in its own code page, not UTF-8: UTF-8 text goes to it as UTF-16, after
    // what the C runtime still holds. The start of a sequence that a write ends in the middle of waits
    // for the next write. Text that is not UTF-8 (a child's output in the console's code page, a
    // conversion to another encoding) goes as its bytes, with whatever was held back before it, as does
    // any text the console refuses.
    std::fflush(stream);
    std::lock_guard<std::mutex> lock(g_pendingMutex);
    std::string& pending = g_pending[stream == stderr ? 1 : 0];
    static bool flushAtExit = false;
    if (!flushAtExit) {
        flushAtExit = true;
        std::atexit(writePendingBytes);
    }
    pending.append(data, size);
    const size_t complete = pending.size() - sp_UnfinishedUtf8Tail(pending.data(), pending.size());
    if (complete == 0)
        return true;
    const int n = complete <= (1u << 28)
                      ? MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, pending.data(), static_cast<int>(complete), nullptr, 0)
                      : 0;
    if (n <= 0) {
        const bool ok = writeBytes(stream, pending);
        pending.clear();
        return ok;
    }
    std::wstring text(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, pending.data(), static_cast<int>(complete), &text[0], n);
    const std::string bytes = pending.substr(0, complete);
    pending.erase(0, complete);
    // A console may take less than it is given: the rest is offered again, and what it refuses goes as
    // UTF-8 bytes.
    for (size_t done = 0; done < text.size();) {
        DWORD written = 0;
        if (!WriteConsoleW(h, text.data() + done, static_cast<DWORD>(std::min<size_t>(text.size() - done, 1u << 24)), &written,
                           nullptr) ||
            written == 0) {
            if (done == 0)
                return writeBytes(stream, bytes);
            const std::wstring rest = text.substr(done);
            const int length = WideCharToMultiByte(CP_UTF8, 0, rest.data(), static_cast<int>(rest.size()), nullptr, 0, nullptr, nullptr);
            std::string restBytes(static_cast<size_t>(length > 0 ? length : 0), '\0');
            if (length > 0)
                WideCharToMultiByte(CP_UTF8, 0, rest.data(), static_cast<int>(rest.size()), &restBytes[0], length, nullptr, nullptr);
            return writeBytes(stream, restBytes);
        }
        done += written;
    }
    return true;
}

// Windows has no file-size limit that ends a process.
void failWritesBeyondTheSizeLimit() {}

void useBinaryStandardStreams()
{
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdin), _O_BINARY); // "-" reads the bytes as they are, carriage returns included
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

namespace {
// The files and folders that a console event ending the tool removes first: the copy of standard input,
// and the output that goes to standard output once complete. Registered before the handler is.
constexpr int kRemovedSlots = 4;
std::wstring g_removedFiles[kRemovedSlots];
std::wstring g_removedFolders[kRemovedSlots];
std::atomic<int> g_removedCount{0};

BOOL WINAPI removeAndEnd(DWORD event)
{
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT || event == CTRL_CLOSE_EVENT) {
        for (int i = 0; i < g_removedCount; ++i) {
            DeleteFileW(g_removedFiles[i].c_str());
            RemoveDirectoryW(g_removedFolders[i].c_str());
        }
        if (g_changedConsole)
            restoreConsoleMode();
    }
    return FALSE; // the next handler, in the end the system's, ends the tool
}
} // namespace

void removeWhenInterrupted(const QString& file, const QString& folder)
{
    const int slot = g_removedCount;
    if (slot >= kRemovedSlots)
        return;
    g_removedFiles[slot] = platform::systemPath(QDir::toNativeSeparators(file).toStdWString());
    g_removedFolders[slot] = platform::systemPath(QDir::toNativeSeparators(folder).toStdWString());
    g_removedCount = slot + 1;
    SetConsoleCtrlHandler(removeAndEnd, TRUE);
}
