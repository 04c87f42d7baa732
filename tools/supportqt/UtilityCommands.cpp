// UtilityCommands.cpp - `text`, `why`, `glob`, `regex`, `run` and `help-url`: the library's smaller
// services, one question each.
#include "Commands.h"
#include "Tool.h"

#include "FileOpenCheck.h"
#include "FileServices.h"
#include "Help.h"
#include "PatternCheck.h"
#include "PatternMatch.h"
#include "Processes.h"
#include "QtSupport.h"
#include "SpawnOutcome.h"
#include "TextFile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtEndian>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

// The bytes of a file that sp_LoadFile's verdict on it reads, taken a block at a time: the byte-order
// mark and the bytes up to two past the first line end, wherever that lies (a line feed or carriage
// return; in big-endian text only a carriage return after a zero byte). The bytes before the line end
// are not kept: in their place stand the mark, a byte that is no line end and the last of them, which
// the big-endian rule looks back at.
class LoadVerdictBytes {
public:
    void add(const QByteArray& block)
    {
        if (complete())
            return;
        if (m_end < 0 && m_head.size() > 4)
            m_head = m_head.left(2) + '\x01' + m_head.right(1);
        const qint64 from = m_head.size();
        m_head += block;
        if (from < 2 && m_head.size() >= 2)
            m_bigEndian = static_cast<unsigned char>(m_head[0]) == 0xFE && static_cast<unsigned char>(m_head[1]) == 0xFF;
        const char* const b = m_head.constData();
        for (qint64 i = std::max<qint64>(from, m_bigEndian ? 2 : 0); m_end < 0 && i < m_head.size(); ++i)
            if (m_bigEndian ? b[i] == '\r' && b[i - 1] == 0 : b[i] == '\r' || b[i] == '\n')
                m_end = i;
    }
    // Whether the verdict's bytes are all there; before that, the file ended where they stop.
    bool complete() const { return m_end >= 0 && m_head.size() >= m_end + 3; }
    void classify(bool* wide, bool* dos, bool* mac, bool* little) const
    {
        sp_DetectTextFileFormat(m_head.constData(), m_head.size(), *wide, *dos, *mac, *little);
    }

private:
    QByteArray m_head;
    bool m_bigEndian = false;
    qint64 m_end = -1; // the first line end in m_head
};

// The line ends of UTF-32 text by its first CR or LF character, fed a block at a time: a CR followed by
// an LF is CR LF, any other CR (the last character too) a bare CR, as text convert reads them.
class Utf32LineEnds {
public:
    explicit Utf32LineEnds(bool little) : m_little(little) {}
    void add(const QByteArray& block)
    {
        if (m_done)
            return;
        m_rest += block;
        int i = 0;
        for (; !m_done && m_rest.size() - i >= 4; i += 4) {
            const uchar* const unit = reinterpret_cast<const uchar*>(m_rest.constData() + i);
            const quint32 c = m_little ? qFromLittleEndian<quint32>(unit) : qFromBigEndian<quint32>(unit);
            if (m_afterCr) {
                m_dos = c == '\n';
                m_done = true;
            } else {
                m_afterCr = c == '\r';
                m_done = c == '\n';
            }
        }
        m_rest.remove(0, i);
    }
    bool complete() const { return m_done; }
    bool little() const { return m_little; }
    bool dos() const { return m_dos; }
    bool mac() const { return m_afterCr && !m_dos; }

private:
    bool m_little;
    bool m_done = false, m_afterCr = false, m_dos = false;
    QByteArray m_rest; // the bytes of a character that a block cut
};

// What text detect learns of a file's bytes, read once in blocks: all of a file, the first 64 MiB of a
// device or pipe (which may never end, and gives its bytes to one reading only). The line-end and UTF-16
// classification is the load's, from the mark and the first line end, the UTF-8 verdict from all of them.
struct DetectedText {
    bool read = false;
    bool wide = false, dos = false, mac = false, little = true;
    bool utf32 = false; // begins with a UTF-32 byte-order mark: the line ends are its characters'
    UTF8DetectEncoding utf8 = Ascii;
};

DetectedText detectText(const QString& path)
{
    DetectedText detected;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return detected;
    UTF8Detect detect;
    LoadVerdictBytes verdict;
    std::unique_ptr<Utf32LineEnds> utf32;
    qint64 left = QFileInfo(path).isFile() ? -1 : qint64(64) << 20;
    QByteArray block;
    for (bool first = true; left != 0 && !(block = file.read(1 << 20)).isEmpty(); first = false) {
        if (left > 0) {
            block.truncate(static_cast<int>(std::min<qint64>(left, block.size())));
            left -= block.size();
        }
        if (first && (block.startsWith(QByteArray("\xFF\xFE\0\0", 4)) || block.startsWith(QByteArray("\0\0\xFE\xFF", 4))))
            utf32.reset(new Utf32LineEnds(block.startsWith('\xFF')));
        verdict.add(block);
        if (utf32)
            utf32->add(block);
        // Once the bytes are found not to be UTF-8 the rest cannot change that verdict.
        if (detect.getEncoding() != Invalid)
            for (char c : block)
                detect.add(static_cast<unsigned char>(c));
        else if (verdict.complete() && (!utf32 || utf32->complete()))
            break;
    }
    if (file.error() != QFileDevice::NoError)
        return detected;
    detected.read = true;
    verdict.classify(&detected.wide, &detected.dos, &detected.mac, &detected.little);
    if (utf32) {
        detected.utf32 = true;
        detected.wide = false;
        detected.little = utf32->little();
        detected.dos = utf32->dos();
        detected.mac = utf32->mac();
    }
    detected.utf8 = detect.getEncoding();
    // The detector forgives a sequence cut short, as more bytes may follow; at the end of all of them a
    // cut sequence makes the text no UTF-8, as convert finds it. (A device's first 64 MiB may cut one.)
    if (left != 0 && detected.utf8 != Invalid && !detect.isBetweenSequences())
        detected.utf8 = Invalid;
    return detected;
}

int runTextDetect(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("text detect"), QStringLiteral("FILE [--json]"),
                        QStringLiteral("Tells whether a text file is UTF-16 (and its byte order) or 8-bit (and whether UTF-8),\n"
                                       "and its line-end style as its first line end shows it. A file that begins with a\n"
                                       "UTF-32 byte-order mark is said to be UTF-32, which text convert reads when it is named.\n"
                                       "Of a device or pipe the first 64 MiB are read."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    QString path;
    if (!command.inputArgument(&path))
        return command.inputFailure();
    const DetectedText detected = detectText(path);
    if (!detected.read)
        return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
    const bool wide = detected.wide, dos = detected.dos, mac = detected.mac, little = detected.little;
    // A file that is not UTF-8 is said to be 8-bit.
    const QString encoding = detected.utf32 ? (little ? QStringLiteral("UTF-32 LE") : QStringLiteral("UTF-32 BE"))
                           : wide ? (little ? QStringLiteral("UTF-16 LE") : QStringLiteral("UTF-16 BE"))
                           : detected.utf8 == Invalid ? QStringLiteral("8-bit, not UTF-8")
                                                      : QString::fromLatin1(utf8VerdictName(detected.utf8));
    const QString lineEnds = dos ? QStringLiteral("CR LF") : mac ? QStringLiteral("CR") : QStringLiteral("LF");
    if (command.json()) {
        printJson(QJsonObject{{QStringLiteral("file"), shownPath(path)},
                              {QStringLiteral("wide"), wide},
                              {QStringLiteral("littleEndian"), little},
                              {QStringLiteral("dos"), dos},
                              {QStringLiteral("mac"), mac},
                              {QStringLiteral("encoding"), encoding},
                              {QStringLiteral("lineEnds"), lineEnds}});
        return ExitOk;
    }
    Output out;
    out << "encoding: " << encoding << "\nline ends: " << lineEnds << '\n';
    return ExitOk;
}

// How sp_LoadFile classifies the file `path`: whether as UTF-16 and in which byte order, and whether
// its first line end is a CR LF (for 8-bit text, the load then deletes every CR byte before decoding).
// False when the file cannot be read.
bool loadClassification(const QString& path, bool* wide, bool* little, bool* dos)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    LoadVerdictBytes verdict;
    for (QByteArray block; !verdict.complete() && !(block = file.read(1 << 20)).isEmpty();)
        verdict.add(block);
    if (file.error() != QFileDevice::NoError)
        return false;
    bool mac = false;
    verdict.classify(wide, dos, &mac, little);
    return true;
}

// Whether the codec is one of Qt's UTF-32 codecs (MIBs 1017 to 1019).
bool isUtf32Codec(const QTextCodec* codec) { return codec && codec->mibEnum() >= 1017 && codec->mibEnum() <= 1019; }

// What decoding the regular file `path` as sp_LoadFile does with `from` loses: the characters that
// become U+FFFD, byte sequences that are not text in the encoding it decodes with, and the bytes at the
// end that make no whole character of a UTF-16 or UTF-32 text, which its decoders drop. "auto" decodes
// UTF-16 by its detected byte order, or UTF-8 as it is unless the UTF-8 has invalid or unfinished
// sequences: then it decodes with the locale's codec. The file is decoded again a block at a time, the
// codec's state carried over, and without its CR bytes when the load deletes them (8-bit text whose
// first line end is CR LF), since a CR inside a multi-byte sequence does not break it there; a UTF-8
// sequence left unfinished at the end makes one replacement for each of its bytes, as a whole decoding
// does. The system's code-page codec on Windows reports nothing and drops what it cannot read: its
// losses are counted apart, as `skipped`. `readable` is false when the file cannot be read.
struct DecodingLosses {
    qint64 replaced = 0;
    qint64 dropped = 0;
    qint64 skipped = 0; // byte sequences the silent system codec drops
    bool skipsFromNul = false; // and the text from the first NUL byte on
    QString codec;      // the name of the codec it decodes with
    bool readable = true;
};

DecodingLosses decodingLosses(const QString& path, const QByteArray& from)
{
    bool wide = false, little = true, dos = false;
    if (!loadClassification(path, &wide, &little, &dos)) {
        DecodingLosses unreadable;
        unreadable.readable = false;
        return unreadable;
    }
    const bool deletesCarriageReturns = dos && !wide;
    const auto losses = [&](QTextCodec* codec) {
        DecodingLosses result;
        QFile file(path);
        if (!codec || !file.open(QIODevice::ReadOnly)) {
            result.readable = false;
            return result;
        }
        const bool silent = isSilentSystemCodec(codec);
        result.codec = silent ? silentSystemCodecName() : QString::fromLatin1(codec->name());
        // The UTF-16 and UTF-32 codecs (MIBs 1013 to 1019) keep the bytes of an unfinished unit, and
        // drop them at the end; the others replace an unfinished sequence.
        const bool wideCodec = codec->mibEnum() >= 1013 && codec->mibEnum() <= 1019;
        // Some 8-bit decoders (those of the system's conversion library) make U+FFFD of what they cannot
        // read without counting it: the U+FFFD that decoding makes are counted as well. Qt's own UTF-8
        // decoder counts exactly, and a UTF-8 source may hold U+FFFD in its own right, so it is left to
        // its count. (A source in GB18030 or UTF-7 that holds U+FFFD is refused for it: their bytes for
        // it cannot be told apart from a match across characters without decoding; --lossy writes it.)
        const bool countsReplacements = !wideCodec && !silent && codec->mibEnum() != 106;
        const QChar replacement(QChar::ReplacementCharacter);
        qint64 madeReplacements = 0;
        QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
        CodePageReader codePage;
        QByteArray block;
        while (!(block = file.read(1 << 20)).isEmpty()) {
            if (deletesCarriageReturns && !isUtf32Codec(codec))
                block.replace('\r', QByteArray());
            if (silent) {
                codePage.feed(block);
                continue;
            }
            const QString text = codec->toUnicode(block.constData(), block.size(), &state);
            if (countsReplacements)
                madeReplacements += text.count(replacement);
        }
        result.readable = file.error() == QFileDevice::NoError;
        if (silent) {
            result.skipped = codePage.finish();
            result.skipsFromNul = codePage.dropsFromFirstNul();
            return result;
        }
        result.replaced = std::max<qint64>(state.invalidChars + (wideCodec ? 0 : state.remainingChars), madeReplacements);
        result.dropped = wideCodec ? state.remainingChars : 0;
        return result;
    };
    if (from == "auto") {
        if (wide)
            return losses(QTextCodec::codecForName(little ? "UTF-16LE" : "UTF-16BE"));
        const DecodingLosses asUtf8 = losses(QTextCodec::codecForName("UTF-8"));
        return !asUtf8.readable || asUtf8.replaced > 0 ? losses(QTextCodec::codecForLocale()) : asUtf8;
    }
    return losses(from == "locale" ? QTextCodec::codecForLocale() : QTextCodec::codecForName(from));
}

// The text with each character that `codec` cannot write made '?', as the tool says it becomes: some
// encoders leave such a character out instead (GBK in a Qt without a conversion library). Blocks that
// the codec writes whole are taken whole; only the others are looked at character by character.
QString withQuestionMarks(const QString& text, const QTextCodec* codec)
{
    const int kBlock = 4096;
    QString marked;
    marked.reserve(text.size());
    for (int start = 0; start < text.size();) {
        int end = std::min(start + kBlock, text.size());
        // A block does not end between the two halves of a pair.
        if (end < text.size() && text.at(end - 1).isHighSurrogate() && text.at(end).isLowSurrogate())
            ++end;
        const QString block = text.mid(start, end - start);
        if (codec->canEncode(block)) {
            marked += block;
        } else {
            for (int i = 0; i < block.size();) {
                const int units = block.at(i).isHighSurrogate() && i + 1 < block.size() && block.at(i + 1).isLowSurrogate() ? 2 : 1;
                const QString character = block.mid(i, units);
                if (codec->canEncode(character))
                    marked += character;
                else
                    marked += QLatin1Char('?');
                i += units;
            }
        }
        start = end;
    }
    return marked;
}

// The text of the regular file `path` in a UTF-32 encoding, its line ends made LF as its first line end
// says. sp_LoadFile judges line ends on the raw bytes as 8-bit or UTF-16 text, which would split a
// UTF-32 CR LF into two line ends and take a 0x0D byte inside another character for a CR; here they are
// judged on the decoded characters. `*loaded` is false when the file cannot be read or passes
// sp_LoadFile's limit for a file (512 MiB), or memory runs out.
QString loadUtf32Text(const QString& path, QTextCodec* codec, bool* loaded)
{
    *loaded = false;
    const qint64 limit = qint64(512) << 20;
    QFile file(path);
    if (QFileInfo(path).size() > limit || !file.open(QIODevice::ReadOnly))
        return QString();
    try {
        const QByteArray bytes = file.read(limit + 1);
        if (file.error() != QFileDevice::NoError || bytes.size() > limit)
            return QString();
        QString text = codec->toUnicode(bytes);
        const QChar* const begin = text.constData();
        const QChar* const end = begin + text.size();
        const QChar* const first = std::find_if(begin, end, [](QChar c) { return c == QLatin1Char('\r') || c == QLatin1Char('\n'); });
        // A CR as the last character is a bare CR, as it is in UTF-16 text.
        if (first != end && *first == QLatin1Char('\r')) {
            if (first + 1 != end && first[1] == QLatin1Char('\n'))
                text.remove(QLatin1Char('\r'));
            else
                text.replace(QLatin1Char('\r'), QLatin1Char('\n'));
        }
        *loaded = true;
        return text;
    } catch (const std::bad_alloc&) {
        return QString();
    }
}

// `text` without its unpaired UTF-16 surrogates (a UTF-16 source may hold them), and how many there
// were. Only UTF-16 can hold one; the other encoders make '?' or U+FFFD of it or drop it, and some do
// so without a word.
QString withoutUnpairedSurrogates(const QString& text, qint64* unpaired)
{
    // Pairs are passed over whole, so a surrogate met alone is unpaired; the spans between such are
    // copied at once.
    QString kept;
    *unpaired = 0;
    int from = 0;
    const int n = text.size();
    for (int i = 0; i < n; ++i) {
        const QChar c = text.at(i);
        if (!c.isSurrogate())
            continue;
        if (c.isHighSurrogate() && i + 1 < n && text.at(i + 1).isLowSurrogate()) {
            ++i;
            continue;
        }
        kept.append(text.constData() + from, i - from);
        from = i + 1;
        ++*unpaired;
    }
    if (*unpaired == 0)
        return text;
    kept.append(text.constData() + from, n - from);
    return kept;
}

// Copies the pipe or device `path` to `copy`, up to one byte past the 64 MiB that sp_LoadFile reads of
// one, so that its text can be read twice; false when it cannot be read or written.
bool copyStream(const QString& path, const QString& copy)
{
    QFile in(path);
    QFile out(copy);
    if (!in.open(QIODevice::ReadOnly) || !out.open(QIODevice::WriteOnly))
        return false;
    qint64 left = (qint64(64) << 20) + 1;
    QByteArray block;
    while (left > 0 && !(block = in.read(std::min<qint64>(left, 1 << 20))).isEmpty()) {
        if (out.write(block) != block.size())
            return false;
        left -= block.size();
    }
    return in.error() == QFileDevice::NoError && out.flush();
}

int runTextConvert(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("text convert"), QStringLiteral("FILE -o OUT [--from ENCODING] [--to ENCODING]"),
                        QStringLiteral("Decodes a text file and writes it in another encoding, its line ends made LF as its first\n"
                                       "line end says: after a CR LF every CR is deleted, after a bare CR every CR becomes LF.\n"
                                       "ENCODING is a codec name such as UTF-8, UTF-16LE or ISO-8859-1; --from also takes \"auto\"\n"
                                       "(UTF-16 by its marks, else UTF-8, else the locale's codec) and \"locale\"."));
    command.addOption({QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("The converted file."), QStringLiteral("OUT"));
    command.addOption({QStringLiteral("from")}, QStringLiteral("Encoding of FILE (default auto)."), QStringLiteral("ENCODING"), QStringLiteral("auto"));
    command.addOption({QStringLiteral("to")}, QStringLiteral("Encoding of OUT (default UTF-8)."), QStringLiteral("ENCODING"), QStringLiteral("UTF-8"));
    command.addOption({QStringLiteral("lossy")},
                      QStringLiteral("Write even when bytes of FILE are not text in its encoding (they become U+FFFD, or "
                                     "are dropped when they end it short of a whole UTF-16 or UTF-32 character) or "
                                     "characters cannot be held by the target encoding (they become '?'; a UTF-16 "
                                     "surrogate without its pair, which only UTF-16 holds, may also be dropped or become "
                                     "U+FFFD). On Windows the system's code page (\"locale\", \"System\") drops the bytes "
                                     "and writes a similar character where it has one."));
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    if (!command.isSet(QStringLiteral("output")))
        return command.fail(ExitUsage, QStringLiteral("-o OUT is required"));
    const QByteArray from = command.value(QStringLiteral("from")).toLatin1();
    const QByteArray to = command.value(QStringLiteral("to")).toLatin1();
    if (from != "auto" && from != "locale" && !QTextCodec::codecForName(from))
        return command.fail(ExitUsage, QStringLiteral("unknown encoding '%1'").arg(QString::fromLatin1(from)));
    if (!QTextCodec::codecForName(to))
        return command.fail(ExitUsage, QStringLiteral("unknown encoding '%1'").arg(QString::fromLatin1(to)));
    QString path = command.positional().at(0);
    const QString output = command.value(QStringLiteral("output"));
    if (!command.input(&path) || !command.checkOutput(output))
        return command.inputFailure();
    if (sameExistingFile(path, output))
        return command.fail(ExitUsage, QStringLiteral("the output would replace the input; name another file"));
    // A pipe or device gives its bytes once: they are copied, so that the copy is both loaded and
    // checked for bytes that are not text. One byte past the limit makes the copy too large to load.
    const QString named = path;
    std::unique_ptr<QTemporaryDir> streamFolder;
    const QFileInfo source(path);
    if (source.exists() && !source.isFile() && !source.isDir()) {
        streamFolder.reset(new QTemporaryDir);
        if (!streamFolder->isValid())
            return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
        const QString copy = streamFolder->filePath(QStringLiteral("input"));
        removeWhenInterrupted(copy, streamFolder->path());
        if (!copyStream(path, copy))
            return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
        if (QFileInfo(copy).size() > (qint64(64) << 20))
            return command.fail(ExitFailure, QStringLiteral("cannot load %1: a pipe or device is read up to 64 MiB, and it gives more; "
                                                            "give its text on standard input as '-'")
                                                 .arg(path));
        path = copy;
    }
    // "auto" knows the UTF-16 marks only, and would read a UTF-32 file by the UTF-16 mark that its own
    // begins with: the user is told to name it.
    if (from == "auto") {
        QFile head(path);
        const QByteArray mark = head.open(QIODevice::ReadOnly) ? head.read(4) : QByteArray();
        const bool little = mark == QByteArray("\xFF\xFE\0\0", 4), big = mark == QByteArray("\0\0\xFE\xFF", 4);
        if (little || big)
            return command.fail(ExitUsage, QStringLiteral("%1 begins with a UTF-32 byte-order mark, which auto does not read; "
                                                          "give --from %2")
                                               .arg(named, little ? QStringLiteral("UTF-32LE") : QStringLiteral("UTF-32BE")));
    }
    const qint64 size = QFileInfo(path).size();
    bool loaded = false, ok = false;
    QString text;
    {
        ProgressLine progress(QStringLiteral("converting %1 (%2 MiB)").arg(named).arg(size >> 20), size > (qint64(64) << 20));
        QTextCodec* const source = from == "auto" || from == "locale" ? nullptr : QTextCodec::codecForName(from);
        text = isUtf32Codec(source) ? loadUtf32Text(path, source, &loaded) : sp_LoadFile(path, from.constData(), &loaded);
        ok = loaded;
        if (ok) {
            // Bytes that are not text in the source encoding are counted the same way, before.
            const DecodingLosses unread = decodingLosses(path, from);
            if (!unread.readable)
                return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(named));
            // Named as the user named it, or by the codec "auto" or "locale" chose (the system's code-page
            // codec by its code page too).
            const QString codec = from == "auto" || from == "locale" || unread.skipped > 0 ? unread.codec : QString::fromLatin1(from);
            QStringList lost;
            if (unread.replaced > 0)
                lost << QStringLiteral("%1 character%2 of %3 cannot be read as %4 and %5 U+FFFD")
                            .arg(unread.replaced)
                            .arg(unread.replaced == 1 ? "" : "s")
                            .arg(named, codec, unread.replaced == 1 ? QStringLiteral("becomes") : QStringLiteral("become"));
            if (unread.skipped > 0)
                lost << QStringLiteral("%1 byte sequence%2 of %3 cannot be read as %4 and %5 dropped%6")
                            .arg(unread.skipped)
                            .arg(unread.skipped == 1 ? "" : "s")
                            .arg(named, codec, unread.skipped == 1 ? QStringLiteral("is") : QStringLiteral("are"),
                                 unread.skipsFromNul ? QStringLiteral(", and so is all the text from its first NUL byte on") : QString());
            if (unread.dropped == 1)
                lost << QStringLiteral("the last byte of %1 is not a whole character in %2 and is dropped").arg(named, codec);
            else if (unread.dropped > 1)
                lost << QStringLiteral("the last %1 bytes of %2 are not a whole character in %3 and are dropped")
                            .arg(unread.dropped)
                            .arg(named, codec);
            for (const QString& loss : lost) {
                if (!command.isSet(QStringLiteral("lossy")))
                    return command.fail(ExitFailure, loss + QStringLiteral("; nothing written (--lossy writes it)"));
                command.warn(loss);
            }
            // Characters the target encoding cannot hold are counted before anything is written, the
            // unpaired surrogates here and the rest by its codec: without --lossy nothing is written and
            // the user is told.
            QTextCodec* const target = QTextCodec::codecForName(to);
            const bool utf16Target = target->mibEnum() >= 1013 && target->mibEnum() <= 1015;
            qint64 unpaired = 0;
            const QString held = utf16Target ? text : withoutUnpairedSurrogates(text, &unpaired);
            if (unpaired > 0) {
                const QString lost = QStringLiteral("%1 unpaired UTF-16 surrogate%2 of %3 cannot be written in %4")
                                         .arg(unpaired)
                                         .arg(unpaired == 1 ? "" : "s")
                                         .arg(named, QString::fromLatin1(to));
                if (!command.isSet(QStringLiteral("lossy")))
                    return command.fail(ExitFailure, lost + QStringLiteral("; nothing written (--lossy writes it)"));
                command.warn(lost);
            }
            // The system's code-page codec reports nothing, and writes a similar character where it has one.
            const bool silent = isSilentSystemCodec(target);
            QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
            if (!silent)
                target->fromUnicode(held.constData(), held.size(), &state);
            const qint64 unwritable = silent ? codePageUnwritable(held) : state.invalidChars;
            if (unwritable > 0) {
                const QString lost = QStringLiteral("%1 character%2 cannot be written in %3 and %4")
                                         .arg(unwritable)
                                         .arg(unwritable == 1 ? "" : "s")
                                         .arg(silent ? silentSystemCodecName() : QString::fromLatin1(to),
                                              silent ? (unwritable == 1 ? QStringLiteral("becomes a similar character or '?'")
                                                                        : QStringLiteral("become similar characters or '?'"))
                                                     : (unwritable == 1 ? QStringLiteral("becomes '?'") : QStringLiteral("become '?'")));
                if (!command.isSet(QStringLiteral("lossy")))
                    return command.fail(ExitFailure, lost + QStringLiteral("; nothing written (--lossy writes it)"));
                command.warn(lost);
            }
            // What cannot be written, unpaired surrogates too, is written '?' whatever the encoder does.
            if (!silent && (unwritable > 0 || unpaired > 0))
                text = withQuestionMarks(text, target);
        }
        // The library's writer reports nothing, so the file it wrote is measured against the bytes
        // the codec makes of the text: a shorter file is a write that failed part way. A device or
        // FIFO named as the output (NUL on Windows, which no file check sees) has no size to compare:
        // those bytes are written to it here, each write checked.
        // (Qt's UTF-32 encoders add a unit at the end for each character beyond 16 bits; the library's
        // writer cuts the output to its byte-order mark and one unit per character, and so is it here.)
        QByteArray encoded = ok ? QTextCodec::codecForName(to)->fromUnicode(text) : QByteArray();
        if (ok && isUtf32Codec(QTextCodec::codecForName(to)))
            encoded.truncate(4 + 4 * text.toUcs4().size());
        ok = ok && writeFileAtomically(output, [&](const YString& temporary) {
            if (isReservedDeviceName(toQs(temporary)) || (!QFileInfo(toQs(temporary)).isFile() && QFileInfo::exists(toQs(temporary)))) {
                FILE* const device = fopen_utf8(temporary.c_str(), "wb");
                if (!device)
                    return false;
                const bool written = std::fwrite(encoded.constData(), 1, static_cast<size_t>(encoded.size()), device) ==
                                     static_cast<size_t>(encoded.size());
                return std::fclose(device) == 0 && written;
            }
            sp_WriteTextFile(toQs(temporary), text, to.constData());
            return QFileInfo(toQs(temporary)).size() == encoded.size();
        });
    }
    // The input was found readable before: a load that fails found it larger than a text may be (512 MiB
    // of a file, 64 MiB of a pipe or device) or than memory can hold.
    if (!loaded)
        return command.fail(ExitFailure, QStringLiteral("cannot load %1: it is too large to hold in memory").arg(named));
    if (!ok)
        return command.fail(ExitFailure, QStringLiteral("cannot write %1").arg(output));
    if (isStandardStream(output))
        return ExitOk; // the converted text is the output
    Output out;
    out << "wrote " << output << ": " << static_cast<long long>(text.size()) << " UTF-16 units, " << QString::fromLatin1(to)
        << '\n';
    return ExitOk;
}

} // namespace

int runText(const QStringList& arguments)
{
    const QString action = arguments.value(1);
    QStringList rest = arguments;
    rest.removeAt(1);
    if (action == QLatin1String("detect"))
        return runTextDetect(rest);
    if (action == QLatin1String("convert"))
        return runTextConvert(rest);
    if (action == QLatin1String("--help") || action == QLatin1String("--help-all") || action == QLatin1String("-h")) {
        std::fputs("Usage: supportqt text detect FILE [--json]\n"
                    "       supportqt text convert FILE -o OUT [--from ENCODING] [--to ENCODING]\n"
                    "\nDetects a text file's encoding and line ends, or converts it to another encoding.\n"
                    "Run 'supportqt text detect --help' or 'supportqt text convert --help' for the options.\n",
                    stdout);
        return ExitOk;
    }
    writeStream(stderr, "supportqt text: " +
                            (action.isEmpty() ? std::string("missing action") : oneLine(QStringLiteral("unknown action '%1'").arg(action))) +
                            "; valid actions: detect, convert\n");
    return ExitUsage;
}

int runWhy(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("why"), QStringLiteral("FILE [--read|--write|--write-new] [--json]"),
                        QStringLiteral("Tells whether a file can be opened now and, when it cannot, why: the diagnosis keyword\n"
                                       "and the message the library shows to users. Exits with 0 when the file can be opened and\n"
                                       "3 when it cannot."));
    command.addOption({QStringLiteral("read")}, QStringLiteral("Open an existing file for reading (the default)."));
    command.addOption({QStringLiteral("write")}, QStringLiteral("Open for writing, replacing the file."));
    command.addOption({QStringLiteral("write-new")}, QStringLiteral("Create the file; an existing file is not to be replaced."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    const int modes = command.isSet(QStringLiteral("read")) + command.isSet(QStringLiteral("write")) +
                      command.isSet(QStringLiteral("write-new"));
    if (modes > 1)
        return command.fail(ExitUsage, QStringLiteral("give one of --read, --write and --write-new"));
    const GfnOpenMode mode = command.isSet(QStringLiteral("write")) ? GfnWrite
        : command.isSet(QStringLiteral("write-new"))               ? GfnWriteNew
                                                                   : GfnRead;
    const YString path = toYs(command.positional().at(0));
    // A folder opens as a file on some systems, but no file can be read or written there: the tool says
    // so itself, beside the library's diagnosis (which has no keyword for it).
    const bool isFolder = QFileInfo(command.positional().at(0)).isDir();
    const bool canOpen = !isFolder && sp_CheckFileOpen(path, mode);
    FileOpenForensic code = FileOpenNoError;
    YString message;
    if (!canOpen) {
        sp_FileOpenForensic(path, mode, &code);
        sp_FileOpenForensicMsg(path, mode, &message);
    }
    const YString keyword = sp_ForensicCodeToString(code);
    if (command.json()) {
        printJson(QJsonObject{{QStringLiteral("file"), toQs(path)},
                              {QStringLiteral("canOpen"), canOpen},
                              {QStringLiteral("code"), static_cast<int>(code)},
                              {QStringLiteral("keyword"), toQs(keyword)},
                              {QStringLiteral("message"), toQs(message)},
                              {QStringLiteral("isFolder"), isFolder}});
        return canOpen ? ExitOk : ExitNegative;
    }
    Output out;
    if (canOpen)
        out << keyword << ": the file can be opened\n";
    else
        out << keyword << ": " << message << (isFolder ? " (it is a folder)\n" : "\n");
    return canOpen ? ExitOk : ExitNegative;
}

int runGlob(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("glob"), QStringLiteral("PATTERN TEXT [--json]"),
                        QStringLiteral("Prints the position of the first match of a wildcard pattern anywhere in TEXT (\"*\" one\n"
                                       "or more characters, \"?\" one), or -1. Exits with 3 when there is no match."));
    command.addJsonOption();
    const int early = command.parse(arguments, 2, 2);
    if (early >= 0)
        return early;
    const int position = sp_GlobMatch(command.positional().at(0).toUtf8().constData(), command.positional().at(1).toUtf8().constData());
    if (command.json())
        printJson(QJsonObject{{QStringLiteral("pattern"), command.positional().at(0)},
                              {QStringLiteral("text"), command.positional().at(1)},
                              {QStringLiteral("position"), position}});
    else
        Output() << position << '\n';
    return position >= 0 ? ExitOk : ExitNegative;
}

int runRegex(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("regex"), QStringLiteral("PATTERN TEXT [-i] [--json]"),
                        QStringLiteral("Prints the position of the first match of a regular expression in TEXT, or -1, then the\n"
                                       "whole match and every group of the first match (without -i). Exits with 3 when there\n"
                                       "is no match."));
    command.addOption({QStringLiteral("i"), QStringLiteral("ignore-case")}, QStringLiteral("Ignore case."));
    command.addJsonOption();
    const int early = command.parse(arguments, 2, 2);
    if (early >= 0)
        return early;
    const QByteArray pattern = command.positional().at(0).toUtf8();
    const QByteArray text = command.positional().at(1).toUtf8();
    // A pattern the matchers refuse is a usage error with the reason, not a pattern that found nothing.
    YString reason;
    if (!sp_CheckRegexp(pattern.constData(), &reason))
        return command.fail(ExitUsage, QStringLiteral("invalid pattern '%1': %2").arg(command.positional().at(0), toQs(reason)));
    const int position = command.isSet(QStringLiteral("ignore-case")) ? sp_RegexpMatch_i(pattern.constData(), text.constData())
                                                                      : sp_RegexpMatch(pattern.constData(), text.constData());
    // The captures come from the case-sensitive matcher only: with -i, whether it matched is the position's.
    YArray<YString> captures;
    const bool matched = command.isSet(QStringLiteral("ignore-case"))
                             ? position >= 0
                             : sp_RegularExpressionMatch(YString(text.constData()), YString(pattern.constData()), &captures);
    if (command.json()) {
        QJsonArray groups;
        for (const YString& c : captures)
            groups.append(toQs(c));
        printJson(QJsonObject{{QStringLiteral("pattern"), command.positional().at(0)},
                              {QStringLiteral("text"), command.positional().at(1)},
                              {QStringLiteral("position"), position},
                              {QStringLiteral("matched"), matched},
                              {QStringLiteral("captures"), groups}});
        return position >= 0 ? ExitOk : ExitNegative;
    }
    Output out;
    out << "position: " << position << '\n';
    for (int i = 0; i < captures.count(); ++i)
        out << (i == 0 ? "match: " : ("group " + std::to_string(i) + ": ").c_str()) << captures[i] << '\n';
    return position >= 0 ? ExitOk : ExitNegative;
}

int runRun(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("run"), QStringLiteral("COMMANDLINE [--capture] [--json]"),
                        QStringLiteral("Starts a program from a command line (blanks separate the words; double quotes group a\n"
                                       "path with blanks), waits for it, and exits with its exit code. Its output goes to\n"
                                       "this terminal as it writes it. With --capture its standard output and error are\n"
                                       "collected (64 MiB at most; the rest is counted and dropped) and printed in the\n"
                                       "order they arrived, followed by \"exit code: N\". A program killed by a signal is\n"
                                       "reported on standard error and the tool exits with 128 + the signal's number.\n"
                                       "The program ends when the tool is ended."));
    command.addOption({QStringLiteral("capture")}, QStringLiteral("Collect the program's output and print it with its exit code."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    const QByteArray commandLine = command.positional().at(0).toUtf8();
    // A batch file would read characters of the command interpreter's syntax in its arguments as
    // commands; the library refuses to run it, and the tool says why.
    YString program;
    const char syntax = sp_CommandInterpreterSyntax(commandLine.constData(), &program);
    if (toQs(program).trimmed().isEmpty())
        return command.fail(ExitUsage, QStringLiteral("the command line names no program"));
    if (syntax)
        return command.fail(ExitUsage, QStringLiteral("the arguments hold '%1', which the command interpreter that runs the batch "
                                                      "file %2 would read as its own syntax; a batch file cannot be given it")
                                           .arg(syntax == '\n' || syntax == '\r' ? QStringLiteral("a line break") : QString(QLatin1Char(syntax)),
                                                toQs(program)));
    const bool capture = command.isSet(QStringLiteral("capture")) || command.json();
    YRef<kvstream> output(capture ? new kvstrstream("") : nullptr);
    unsigned exitCode = 0;
    // What the tool prints it holds in memory first, so it keeps less than the library would.
    sp_SetSpawnCaptureLimit(64LL << 20);
    std::fflush(stdout);
    std::fflush(stderr);
    const SSPError status =
        sp_SpawnApplication(commandLine.constData(),
                            SpawnWait | SpawnEndWithCaller | SpawnPassThrough | (capture ? SpawnCaptureOutput | SpawnCaptureError : 0),
                            output, &exitCode, nullptr);
    const SpawnOutcome outcome = sp_LastSpawnOutcome();
    if (status != SSPE_Ok) {
        const QString reason = status == SSPE_NotFound        ? QStringLiteral("the program does not exist")
            : status == SSPE_NotExecutable                   ? QStringLiteral("the program may not be executed")
                                                             : QStringLiteral("the program could not be started");
        return command.fail(ExitFailure, QStringLiteral("%1: %2").arg(command.positional().at(0), reason));
    }
    const std::string captured = capture ? static_cast<kvstrstream*>(output.get())->str().str() : std::string();
    // A signal's ending is told apart from an exit with the same number, as shells do.
    const int toolExit = outcome.signal > 0 ? 128 + outcome.signal : static_cast<int>(exitCode);
    const QString name = signalName(outcome.signal);
    const QString signalText = QStringLiteral("killed by signal %1").arg(outcome.signal) +
                               (name.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(name));
    if (outcome.discardedBytes > 0)
        std::fprintf(stderr, "supportqt run: the program wrote %lld bytes more than the %lld kept\n", outcome.discardedBytes,
                     sp_SpawnCaptureLimit());
    if (command.json()) {
        QJsonObject o{{QStringLiteral("commandLine"), command.positional().at(0)},
                      // A program a signal ended has no exit code of its own: "signal" tells why it ended.
                      {QStringLiteral("exitCode"), outcome.signal > 0 ? QJsonValue() : QJsonValue(static_cast<int>(exitCode))},
                      {QStringLiteral("signal"), outcome.signal},
                      {QStringLiteral("output"), programOutputText(captured)},
                      {QStringLiteral("discardedBytes"), static_cast<double>(outcome.discardedBytes)}};
        printJson(o);
        return toolExit;
    }
    if (capture) {
        writeStream(stdout, captured.data(), captured.size());
        Output out;
        // The exit-code line is a line of its own, even after output whose last line has no line feed.
        if (!captured.empty() && captured.back() != '\n')
            out << '\n';
        if (outcome.signal > 0)
            out << signalText << '\n';
        else
            out << "exit code: " << static_cast<int>(exitCode) << '\n';
    }
    if (outcome.signal > 0) {
        std::fflush(stdout);
        writeStream(stderr, QStringLiteral("supportqt run: %1\n").arg(signalText).toUtf8());
    }
    return toolExit;
}

int runHelpUrl(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("help-url"), QStringLiteral("LINK [--json]"),
                        QStringLiteral("Prints the URL that a help link \"kvhlp://PAGE[#ID]\" opens."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    // The library turns any text into a page of the help site; only a help link makes sense here.
    if (!command.positional().at(0).startsWith(QLatin1String("kvhlp://")))
        return command.fail(ExitUsage, QStringLiteral("'%1' is no help link; a help link starts with kvhlp://")
                                           .arg(command.positional().at(0)));
    const YString url = sp_ConvertKvhlpToUrl(toYs(command.positional().at(0)));
    if (command.json())
        printJson(QJsonObject{{QStringLiteral("link"), command.positional().at(0)}, {QStringLiteral("url"), toQs(url)}});
    else
        Output() << url << '\n';
    return ExitOk;
}
