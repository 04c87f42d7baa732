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

namespace {

const char CR = 0x0D;
const char LF = 0x0A;
// The largest regular file sp_LoadFile loads (its text in UTF-16 must fit one QString), and the most
// it reads from a device or pipe.
const qint64 kMaxLoadFileBytes = qint64(512) << 20;
const qint64 kMaxLoadStreamBytes = qint64(64) << 20;

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
    if (len < 1)
        return;
    auto wideCr = [&](long long i) {
        if (i + 2 >= len)
            isMac = true;
        else if (b[i + 2] == LF)
            isDos = true;
        else
            isMac = true;
    };
    if (isLittleEndian) {
        for (long long i = 0; i < len; ++i) {
            if (b[i] == CR && i + 1 < len) {
                if (b[i + 1] == LF) {
                    isDos = true;
                } else if (b[i + 1] == 0) {
                    isWide = true;
                    wideCr(i);
                } else {
                    isMac = true;
                }
                return;
            }
            if (b[i] == LF) {
                if (i + 1 < len && b[i + 1] == 0)
                    isWide = true;
                return;
            }
        }
    } else {
        for (long long i = 2; i < len; ++i) {
            if (b[i] == CR && b[i - 1] == 0) {
                wideCr(i);
                return;
            }
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

// The one-pass form of normalising and decoding little-endian UTF-16 that starts with its byte-order
// mark: the mark is dropped, line ends are normalised exactly as `normaliseLineEnds` does (a unit that
// holds a CR byte beside a zero byte, in either order, counts as a CR), and a trailing odd byte is lost.
QString decodeUtf16LeWithMark(const QByteArray& bytes, bool isDos, bool isMac)
{
    const unsigned char* d = reinterpret_cast<const unsigned char*>(bytes.constData());
    const int units = bytes.size() / 2;
    QString text(units - 1, Qt::Uninitialized);
    QChar* out = text.data();
    int w = 0;
    for (int i = 1; i < units; ++i) {
        ushort unit = static_cast<ushort>(d[2 * i] | (d[2 * i + 1] << 8));
        if ((isDos || isMac) && (unit == 0x000D || unit == 0x0D00)) {
            if (isDos)
                continue;
            unit = unit == 0x000D ? 0x000A : 0x0A00;
        }
        out[w++] = QChar(unit);
    }
    text.truncate(w);
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

// Writes the encoded text from the start of the file (not truncated); true when every byte reached it.
bool writeEncoded(const QString& path, const QString& text, QTextCodec* codec)
{
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadWrite))
        return false;
    const QByteArray bytes = codec->fromUnicode(text);
    const bool written = file.write(bytes) == bytes.size() && file.flush();
    file.close();
    return written && file.error() == QFileDevice::NoError;
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
    QByteArray bytes = info.isFile() ? file.readAll() : file.read(kMaxLoadStreamBytes + 1);
    file.close();
    if (bytes.size() > (info.isFile() ? kMaxLoadFileBytes : kMaxLoadStreamBytes))
        return QString();
    *ok = true;

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

void sp_WriteTextFile(const QString& path, const QString& text, const char* encoding)
{
    QTextCodec* codec = encoding ? QTextCodec::codecForName(encoding) : nullptr;
    if (!codec)
        return;
    writeEncoded(path, text, codec);
}

namespace {

// The UTF-16 file decoded for its UTF-8 copy; false when it is no UTF-16 file (or cannot be decoded).
bool decodeWide(const QString& path, QString* text)
{
    QByteArray head;
    if (!readHead(path, &head))
        return false;
    bool isWide, isDos, isMac, isLittleEndian;
    classify(head.constData(), head.size(), isWide, isDos, isMac, isLittleEndian);
    if (!isWide)
        return false;
    bool ok = false;
    *text = sp_LoadFile(path, "auto", &ok);
    // The copy carries no byte-order mark: the big-endian codec keeps the file's mark as U+FEFF.
    if (text->startsWith(QChar(0xFEFF)))
        text->remove(0, 1);
    return ok;
}

} // namespace

bool sp_ConvertWideTextFile(const YString& path, YString* tempPath)
{
    QString text;
    if (!decodeWide(toQs(path), &text))
        return false;
    YString temp = sp_GetTempFile();
    if (tempPath)
        *tempPath = temp;
    writeEncoded(toQs(temp), text, QTextCodec::codecForName("UTF-8"));
    return true;
}

bool textfile::convertWide(const YString& path, YString* tempPath, QByteArray* utf8)
{
    QString text;
    if (!decodeWide(toQs(path), &text))
        return false;
    const YString temp = sp_GetTempFile();
    if (!temp.isEmpty() && writeEncoded(toQs(temp), text, QTextCodec::codecForName("UTF-8"))) {
        *tempPath = temp;
        return true;
    }
    if (!temp.isEmpty())
        QFile::remove(toQs(temp));
    *utf8 = text.toUtf8();
    return true;
}

void textfile::openNetlist(const YString& path, YString* tempPath, kvstream* reader)
{
    QByteArray decoded;
    if (!path.isEmpty())
        convertWide(path, tempPath, &decoded);
    if (!decoded.isEmpty()) {
        kvstrstream text(decoded.constData(), static_cast<size_t>(decoded.size()));
        kvstream::transferBuffer(&text, reader);
    } else {
        kvfstream file(tempPath->isEmpty() ? path.c_str() : tempPath->c_str(), kvfstreamRead | kvfstreamBinary, false);
        kvstream::transferBuffer(&file, reader);
    }
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
