// TextFile.cpp - text-file formats, loading, writing and wide-file copies.
#include "TextFile.h"
#include "TextFile_p.h"
#include "FileServices.h"
#include "QtSupport.h"
#include "kvstream.h"

#include <QFile>
#include <QFileInfo>
#include <QTextCodec>

#include <cstring>
#include <new>
#include <utility>

namespace {

const char CR = 0x0D;
const char LF = 0x0A;
// The largest regular file sp_LoadFile loads (its text in UTF-16 must fit one QString), and the most
// it reads from a device or pipe.
const qint64 kMaxLoadFileBytes = qint64(512) << 20;
const qint64 kMaxLoadStreamBytes = qint64(64) << 20;

// Where the first line end at or after `from` lies in `b`, -1 when there is none: a CR or LF in
// little-endian text, a CR after a zero byte in big-endian text (`previous` is the byte before `b`).
// It is the line end that classify() judges, and that a wide file's copy seeks past its first block.
long long firstLineEnd(const char* b, long long len, long long from, bool bigEndian, char previous)
{
    for (long long i = from; i < len; ++i) {
        if (bigEndian ? b[i] == CR && (i > 0 ? b[i - 1] : previous) == 0 : b[i] == CR || b[i] == LF)
            return i;
    }
    return -1;
}

// The first-line-end and byte-order verdict; see sp_DetectTextFileFormat.
void classify(const char* b, long long len, bool& isWide, bool& isDos, bool& isMac, bool& isLittleEndian)
{
    isWide = false;
    isDos = false;
    isMac = false;
    isLittleEndian = true;
    if (!b)
        return;
    if (len >= 2) {
        const unsigned char b0 = static_cast<unsigned char>(b[0]), b1 = static_cast<unsigned char>(b[1]);
        if (b0 == 0xFF && b1 == 0xFE) {
            isWide = true;
        } else if (b0 == 0xFE && b1 == 0xFF) {
            isWide = true;
            isLittleEndian = false;
        }
    }
    const long long i = firstLineEnd(b, len, isLittleEndian ? 0 : 2, !isLittleEndian, 'x');
    // A wide CR: CR LF when the next unit is a line feed, a lone CR otherwise (or at the end).
    const auto wideCr = [&] { (i + 2 < len && b[i + 2] == LF ? isDos : isMac) = true; };
    if (i < 0)
        return;
    if (!isLittleEndian) {
        wideCr();
    } else if (b[i] == LF) {
        if (i + 1 < len && b[i + 1] == 0)
            isWide = true;
    } else if (i + 1 < len) { // a CR as the last byte says nothing
        if (b[i + 1] == LF) {
            isDos = true;
        } else if (b[i + 1] == 0) {
            isWide = true;
            wideCr();
        } else {
            isMac = true;
        }
    }
}

// Normalises line ends on the raw bytes as the first line end dictates.
void normaliseLineEnds(QByteArray& bytes, bool isWide, bool isDos, bool isMac)
{
    char* d = bytes.data();
    const int n = bytes.size();
    if (!isWide) {
        if (isDos) {
            int w = 0;
            for (int r = 0; r < n; ++r)
                if (d[r] != CR)
                    d[w++] = d[r];
            bytes.truncate(w);
        } else if (isMac) {
            for (int r = 0; r < n; ++r)
                if (d[r] == CR)
                    d[r] = LF;
        }
        return;
    }
    if (!isDos && !isMac)
        return;
    int w = 0;
    for (int r = 0; r + 1 < n; r += 2) {
        char a = d[r], c = d[r + 1];
        const bool crUnit = (a == CR && c == 0) || (a == 0 && c == CR);
        if (crUnit && isDos)
            continue;
        if (crUnit) { // isMac
            if (a == CR)
                a = LF;
            else
                c = LF;
        }
        d[w++] = a;
        d[w++] = c;
    }
    bytes.truncate(w);
}

// Little-endian UTF-16 units decoded to `out` with their line ends normalised as `normaliseLineEnds`
// does (a unit that holds a CR byte beside a zero byte, in either order, counts as a CR); the number
// of characters written, at most `units`.
int decodeUtf16Le(const char* bytes, int units, bool isDos, bool isMac, QChar* out)
{
    const unsigned char* d = reinterpret_cast<const unsigned char*>(bytes);
    int w = 0;
    for (int i = 0; i < units; ++i) {
        ushort unit = static_cast<ushort>(d[2 * i] | (d[2 * i + 1] << 8));
        if ((isDos || isMac) && (unit == 0x000D || unit == 0x0D00)) {
            if (isDos)
                continue;
            unit = unit == 0x000D ? 0x000A : 0x0A00;
        }
        out[w++] = QChar(unit);
    }
    return w;
}

// The one-pass form of normalising and decoding little-endian UTF-16 that starts with its byte-order
// mark: the mark is dropped, and a trailing odd byte is lost.
QString decodeUtf16LeWithMark(const QByteArray& bytes, bool isDos, bool isMac)
{
    QString text(bytes.size() / 2 - 1, Qt::Uninitialized);
    text.truncate(decodeUtf16Le(bytes.constData() + 2, text.size(), isDos, isMac, text.data()));
    return text;
}

bool readHead(const QString& path, QByteArray* head)
{
    // An empty name is no file; Qt would warn on standard error if asked to open it.
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return false;
    *head = file.read(1024);
    return true;
}

// The text in the codec's bytes. Qt's UTF-32 encoders size their output by the text's UTF-16 units and
// leave one unit more at its end for each surrogate pair they join into one character: the output is
// cut to its byte-order mark and one unit per character.
QByteArray encodedText(QTextCodec* codec, const QString& text)
{
    QByteArray bytes = codec->fromUnicode(text);
    const int mib = codec->mibEnum();
    if (mib == 1017 || mib == 1018 || mib == 1019)
        bytes.truncate(4 + 4 * text.toUcs4().size());
    return bytes;
}

// Writes the encoded text from the start of the file (not truncated); true when every byte reached it.
bool writeEncoded(const QString& path, const QString& text, QTextCodec* codec)
{
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadWrite))
        return false;
    const QByteArray bytes = encodedText(codec, text);
    const bool written = file.write(bytes) == bytes.size() && file.flush();
    file.close();
    return written && file.error() == QFileDevice::NoError;
}

QString decodeBytes(QByteArray bytes, const char* encoding);

// The text of the file sp_LoadFile opened; `*ok` false, with an empty text, when it passes its limit.
QString loadOpenFile(QFile& file, bool isFile, const char* encoding, bool* ok)
{
    QByteArray bytes = isFile ? file.readAll() : file.read(kMaxLoadStreamBytes + 1);
    file.close();
    if (bytes.size() > (isFile ? kMaxLoadFileBytes : kMaxLoadStreamBytes))
        return QString();
    *ok = true;
    return decodeBytes(std::move(bytes), encoding);
}

// The text of a file's bytes, decoded as sp_LoadFile decodes them.
QString decodeBytes(QByteArray bytes, const char* encoding)
{
    bool isWide, isDos, isMac, isLittleEndian;
    classify(bytes.constData(), bytes.size(), isWide, isDos, isMac, isLittleEndian);
    const char* name = encoding ? encoding : "auto";
    if (qstricmp(name, "auto") == 0 && isWide && isLittleEndian && bytes.startsWith("\xFF\xFE"))
        return decodeUtf16LeWithMark(bytes, isDos, isMac);
    normaliseLineEnds(bytes, isWide, isDos, isMac);

    if (qstricmp(name, "auto") == 0) {
        QTextCodec* codec = QTextCodec::codecForName(isWide ? (isLittleEndian ? "UTF-16" : "UTF-16BE") : "UTF-8");
        QTextCodec::ConverterState state;
        QString text = codec->toUnicode(bytes.constData(), bytes.size(), &state);
        // An unfinished final sequence counts as invalid: it is the last letter of an 8-bit text.
        if (state.invalidChars == 0 && (isWide || state.remainingChars == 0))
            return text;
        return QTextCodec::codecForLocale()->toUnicode(bytes);
    }
    if (qstricmp(name, "locale") == 0)
        return QTextCodec::codecForLocale()->toUnicode(bytes);
    QTextCodec* codec = QTextCodec::codecForName(name);
    if (!codec)
        codec = QTextCodec::codecForName("UTF-8");
    return codec->toUnicode(bytes);
}

} // namespace

void sp_DetectTextFileFormat(const char* buf, int len, bool& isWide, bool& isDos, bool& isMac, bool& isLittleEndian)
{
    classify(buf, len, isWide, isDos, isMac, isLittleEndian);
}

bool sp_DetectTextFileFormat(const QString& path, bool* isWide, bool* isDos, bool* isMac, bool* isLittleEndian)
{
    bool wide = false, dos = false, mac = false, little = true;
    QByteArray head;
    bool opened = readHead(path, &head);
    if (opened)
        classify(head.constData(), head.size(), wide, dos, mac, little);
    if (isWide)
        *isWide = wide;
    if (isDos)
        *isDos = dos;
    if (isMac)
        *isMac = mac;
    if (isLittleEndian)
        *isLittleEndian = little;
    return opened;
}

bool sp_DetectTextFileFormat(const YString& path, bool* isWide, bool* isDos, bool* isMac, bool* isLittleEndian)
{
    return sp_DetectTextFileFormat(toQs(path), isWide, isDos, isMac, isLittleEndian);
}

QString sp_LoadFile(const QString& path, const char* encoding, bool* ok)
{
    *ok = false;
    QFile file(path);
    const QFileInfo info(path);
    // A regular file larger than the limit would not fit a QString once decoded; a device or pipe
    // (/dev/zero) may never end, so it is read up to its own, smaller limit.
    if (path.isEmpty() || info.isDir() || (info.isFile() && info.size() > kMaxLoadFileBytes) ||
        !file.open(QIODevice::ReadOnly))
        return QString();
    // Memory that runs out while the file is read or decoded loads nothing.
    try {
        return loadOpenFile(file, info.isFile(), encoding, ok);
    } catch (const std::bad_alloc&) {
        *ok = false;
        return QString();
    }
}

void sp_WriteTextFile(const QString& path, const QString& text, const char* encoding)
{
    QTextCodec* codec = encoding ? QTextCodec::codecForName(encoding) : nullptr;
    if (!codec)
        return;
    writeEncoded(path, text, codec);
}

namespace {

// Whether the path names a pipe, a device or a socket: bytes that can be read once only, which the
// conversion below therefore reads once, whole, up to sp_LoadFile's limit for them.
bool isStream(const QString& path)
{
    const QFileInfo info(path);
    return !path.isEmpty() && info.exists() && !info.isFile() && !info.isDir();
}

enum class StreamRead { Read, NotOpened, Unread };

// The bytes of a stream, read once: Unread when a read fails or the stream passes the limit (`*bytes`
// then holds what was read).
StreamRead readStream(const QString& path, QByteArray* bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return StreamRead::NotOpened;
    *bytes = file.read(kMaxLoadStreamBytes + 1);
    return bytes->size() <= kMaxLoadStreamBytes && file.error() == QFileDevice::NoError ? StreamRead::Read : StreamRead::Unread;
}

bool isWideText(const QByteArray& bytes)
{
    bool isWide, isDos, isMac, isLittleEndian;
    classify(bytes.constData(), bytes.size(), isWide, isDos, isMac, isLittleEndian);
    return isWide;
}

// The UTF-8 text of UTF-16 bytes, without a leading U+FEFF, as decodeWide gives it.
QByteArray wideToUtf8(const QByteArray& bytes)
{
    QString text = decodeBytes(bytes, "auto");
    if (text.startsWith(QChar(0xFEFF)))
        text.remove(0, 1);
    return text.toUtf8();
}

// Whether the file is UTF-16, by the format its first 1,024 bytes show.
bool isWideFile(const QString& path)
{
    QByteArray head;
    if (!readHead(path, &head))
        return false;
    bool isWide, isDos, isMac, isLittleEndian;
    classify(head.constData(), head.size(), isWide, isDos, isMac, isLittleEndian);
    return isWide;
}

// The UTF-16 file decoded whole, without a leading U+FEFF (the copy carries no byte-order mark); false
// when sp_LoadFile cannot load it.
bool decodeWide(const QString& path, QString* text)
{
    bool ok = false;
    *text = sp_LoadFile(path, "auto", &ok);
    if (text->startsWith(QChar(0xFEFF)))
        text->remove(0, 1);
    return ok;
}

// The blocks a wide file is copied in: an even size, so that no block but the last splits a unit.
const int kWideBlock = 1 << 20;

// The whole file's classify() verdict, with `first` its first block and `file` read on from there.
// classify() reads the mark's two bytes and then no further than two bytes past the first line end, so
// the first block decides unless that line end lies in its last two bytes or beyond. Then the line end
// is sought in the rest of the file, and a short text gives the verdict: the mark's two bytes, two
// plain ones, and the byte before the line end, the line end and the two bytes after it.
void classifyFile(QFile& file, const QByteArray& first, bool& isWide, bool& isDos, bool& isMac, bool& isLittleEndian)
{
    const bool bigEndian = first.startsWith("\xFE\xFF");
    qint64 at = firstLineEnd(first.constData(), first.size(), bigEndian ? 2 : 0, bigEndian, 'x');
    if (first.size() < kWideBlock || (at >= 0 && at + 2 < first.size())) {
        classify(first.constData(), first.size(), isWide, isDos, isMac, isLittleEndian);
        return;
    }
    char previous = first.back();
    for (qint64 offset = first.size(); at < 0;) {
        const QByteArray block = file.read(kWideBlock);
        if (block.isEmpty())
            break;
        const long long i = firstLineEnd(block.constData(), block.size(), 0, bigEndian, previous);
        if (i >= 0)
            at = offset + i;
        offset += block.size();
        previous = block.back();
    }
    QByteArray text = first.left(2) + "xx";
    if (at >= 0 && file.seek(at - 1))
        text += file.read(4);
    classify(text.constData(), text.size(), isWide, isDos, isMac, isLittleEndian);
    file.seek(first.size());
}

enum class Copy { Written, Declined, ReadFailed, WriteFailed };

// Writes the UTF-8 text of a UTF-16 file to `out` a block at a time, so that memory holds one block
// however large the file: the text decodeWide gives, byte for byte (Qt's UTF-16 decoders count no
// invalid units, so sp_LoadFile's fall-back to the locale codec never applies). Declined, with nothing
// written, when the file is no regular file: only the whole file's decoding reads a pipe or device.
// A read that comes short is the end of the file.
Copy streamWideCopy(const QString& path, QFile& out)
{
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return Copy::Declined;
    QByteArray block = file.read(kWideBlock);
    bool isWide, isDos, isMac, isLittleEndian;
    classifyFile(file, block, isWide, isDos, isMac, isLittleEndian);
    if (!isWide)
        return Copy::Declined;
    // The decoding sp_LoadFile chooses and its UTF-8 encoding; the codecs' states carry a unit or a
    // surrogate that a block's end splits over to the next block.
    const bool withMark = isLittleEndian && block.startsWith("\xFF\xFE");
    QTextCodec* const codec = QTextCodec::codecForName(isLittleEndian ? "UTF-16" : "UTF-16BE");
    QTextCodec* const utf8 = QTextCodec::codecForName("UTF-8");
    QTextCodec::ConverterState decoding, encoding(QTextCodec::IgnoreHeader);
    bool atStart = true;
    for (int skip = withMark ? 2 : 0;; skip = 0) {
        const bool last = block.size() < kWideBlock;
        QString text;
        if (withMark) {
            text.resize((block.size() - skip) / 2);
            text.truncate(decodeUtf16Le(block.constData() + skip, text.size(), isDos, isMac, text.data()));
        } else {
            normaliseLineEnds(block, true, isDos, isMac);
            text = codec->toUnicode(block.constData(), block.size(), &decoding);
        }
        if (atStart && !text.isEmpty()) {
            atStart = false;
            if (text.startsWith(QChar(0xFEFF)))
                text.remove(0, 1);
        }
        const QByteArray bytes = utf8->fromUnicode(text.constData(), text.size(), &encoding);
        if (out.write(bytes) != bytes.size())
            return Copy::WriteFailed;
        if (last)
            return file.error() == QFileDevice::NoError ? Copy::Written : Copy::ReadFailed;
        block = file.read(kWideBlock);
    }
}

// Writes the UTF-8 copy of a UTF-16 file to `temp`: streamed, or decoded whole when streaming declines.
// Written when every byte reached the file; ReadFailed when the text could not be read, or held in
// memory (a block, or the whole text when it is decoded whole).
Copy writeWideCopy(const QString& path, const QString& temp)
{
    QFile out(temp);
    if (temp.isEmpty() || !out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return Copy::WriteFailed;
    Copy copy;
    try {
        copy = streamWideCopy(path, out);
        if (copy == Copy::Declined) {
            QString text;
            copy = Copy::ReadFailed;
            if (decodeWide(path, &text)) {
                const QByteArray bytes = QTextCodec::codecForName("UTF-8")->fromUnicode(text);
                copy = out.write(bytes) == bytes.size() ? Copy::Written : Copy::WriteFailed;
            }
        }
    } catch (const std::bad_alloc&) {
        copy = Copy::ReadFailed;
    }
    const bool flushed = out.flush();
    out.close();
    return copy != Copy::Written || (flushed && out.error() == QFileDevice::NoError) ? copy : Copy::WriteFailed;
}

} // namespace

bool sp_ConvertWideTextFile(const YString& path, YString* tempPath)
{
    if (isStream(toQs(path))) {
        QByteArray bytes;
        bool read = false;
        try {
            const StreamRead result = readStream(toQs(path), &bytes);
            if (result == StreamRead::NotOpened || !isWideText(bytes))
                return false;
            read = result == StreamRead::Read;
            if (read)
                bytes = wideToUtf8(bytes);
        } catch (const std::bad_alloc&) {
            read = false;
        }
        const YString temp = sp_GetTempFile();
        if (tempPath)
            *tempPath = temp;
        // A UTF-16 text that could not be read or held: false, with the path stored and no copy there.
        if (!read) {
            QFile::remove(toQs(temp));
            return false;
        }
        // As for a file, errors writing the copy are not reported.
        QFile out(toQs(temp));
        if (!temp.isEmpty() && out.open(QIODevice::WriteOnly | QIODevice::Truncate))
            out.write(bytes);
        return true;
    }
    if (!isWideFile(toQs(path)))
        return false;
    YString temp = sp_GetTempFile();
    if (tempPath)
        *tempPath = temp;
    // Write errors are not reported; a text that cannot be read is, and leaves no copy behind.
    if (writeWideCopy(toQs(path), toQs(temp)) != Copy::ReadFailed)
        return true;
    QFile::remove(toQs(temp));
    return false;
}

textfile::WideText textfile::convertWide(const YString& path, YString* tempPath, QByteArray* utf8)
{
    if (isStream(toQs(path))) {
        // Read once, whole: its bytes as they are, or the UTF-8 text of UTF-16 ones. One that cannot be
        // opened reads as empty, as a file does.
        try {
            const StreamRead read = readStream(toQs(path), utf8);
            if (read == StreamRead::NotOpened)
                return WideText::NotWide;
            if (read == StreamRead::Read) {
                if (isWideText(*utf8))
                    *utf8 = wideToUtf8(*utf8);
                return WideText::InMemory;
            }
        } catch (const std::bad_alloc&) {
        }
        utf8->clear();
        return WideText::Unheld;
    }
    if (!isWideFile(toQs(path)))
        return WideText::NotWide;
    const YString temp = sp_GetTempFile();
    const Copy copy = writeWideCopy(toQs(path), toQs(temp));
    if (copy == Copy::Written) {
        *tempPath = temp;
        return WideText::Copied;
    }
    if (!temp.isEmpty())
        QFile::remove(toQs(temp));
    // Only a copy that could not be written is worth holding in memory instead.
    if (copy == Copy::WriteFailed) {
        try {
            QString text;
            if (decodeWide(toQs(path), &text)) {
                *utf8 = text.toUtf8();
                return WideText::InMemory;
            }
        } catch (const std::bad_alloc&) {
        }
    }
    utf8->clear();
    return WideText::Unheld;
}

bool textfile::openNetlist(const YString& path, YString* tempPath, kvstream* reader)
{
    QByteArray decoded;
    const WideText wide = path.isEmpty() ? WideText::NotWide : convertWide(path, tempPath, &decoded);
    if (wide == WideText::Unheld)
        return false;
    if (wide == WideText::InMemory) {
        kvstrstream text(decoded.constData(), static_cast<size_t>(decoded.size()));
        kvstream::transferBuffer(&text, reader);
    } else {
        kvfstream file(tempPath->isEmpty() ? path.c_str() : tempPath->c_str(), kvfstreamRead | kvfstreamBinary, false);
        kvstream::transferBuffer(&file, reader);
    }
    return true;
}

void textfile::closeNetlist(const YString& tempPath, kvstream* reader)
{
    if (tempPath.isEmpty())
        return;
    reader->close();
    // A destructor cannot report it: a temporary copy left behind is only litter.
    (void)unlink_utf8(tempPath.c_str());
}

WideTextFileConverter::WideTextFileConverter(const YString& path)
{
    if (sp_ConvertWideTextFile(path, &m_tempPath))
        m_path = m_tempPath;
    else
        m_path = path;
}

WideTextFileConverter::~WideTextFileConverter()
{
    // A destructor cannot report it, and a copy may already be gone: copies share the path.
    if (!m_tempPath.isEmpty())
        (void)unlink_utf8(m_tempPath.c_str());
}
