// DatesAndUrls.cpp - dates and times as text, file URLs, unique identifiers and the GUI test.
#include "DatesAndUrls.h"
#include "DatesAndUrls_p.h"
#include "FileServices.h"
#include "QtSupport.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QUrl>
#include <QUuid>

#include <algorithm>
#include <climits>

namespace {

// The most milliseconds from 1970 that a local date and time can stand for: two days short of the 64-bit
// limit, so that neither the milliseconds nor a time zone's offset added to them wraps around.
const long long kMaxMilliseconds = LLONG_MAX - 2 * 86400000LL;

// The local reading of local midnight of 1970-01-01 plus `seconds`; invalid for a negative time, and for
// one too far off to be shown (the date would wrap round to the far past).
QDateTime fileDateTime(long long seconds)
{
    if (seconds < 0 || seconds > kMaxMilliseconds / 1000)
        return QDateTime();
    return QDateTime(QDate(1970, 1, 1), QTime(0, 0), Qt::LocalTime).addSecs(seconds);
}

YString fileDate(long long seconds)
{
    const QDateTime t = fileDateTime(seconds);
    return t.isValid() ? toYs(QLocale::system().toString(t.date(), QLocale::ShortFormat)) : YString();
}

YString fileTime(long long seconds)
{
    const QDateTime t = fileDateTime(seconds);
    return t.isValid() ? toYs(QLocale::system().toString(t.time(), QLocale::ShortFormat)) : YString();
}

QString forwardSlashes(const QString& text)
{
    if (QDir::separator() == QLatin1Char('\\')) {
        QString copy = text;
        return copy.replace(QLatin1Char('\\'), QLatin1Char('/'));
    }
    return text;
}

} // namespace

namespace {
// Whether the format has an "a" or "A" outside quotes, which makes every "h" of it count 12 hours.
bool hasAmPm(const QString& format)
{
    bool quoted = false;
    for (const QChar c : format) {
        if (c == QLatin1Char('\''))
            quoted = !quoted;
        else if (!quoted && (c == QLatin1Char('a') || c == QLatin1Char('A')))
            return true;
    }
    return false;
}
} // namespace

QString datesandurls::formatDateTime(const QDateTime& time, const QString& format, int pieceLength)
{
    pieceLength = std::max(pieceLength, 12);
    const int inRun = pieceLength - pieceLength % 12; // the letters of a run that one piece takes
    // A piece is read with the clock of the whole format: one without "a" of its own that must count
    // 12 hours gets one before it (a piece starts outside quotes), and the text it gives is cut off
    // again. Before a "p" it is an "A", which "p" does not join.
    const bool twelveHours = hasAmPm(format);
    const auto formatted = [&](const QString& part) {
        if (!twelveHours || hasAmPm(part))
            return time.toString(part);
        const QString mark = part.startsWith(QLatin1Char('p')) ? QStringLiteral("A") : QStringLiteral("a");
        return time.toString(mark + part).mid(time.toString(mark).size());
    };
    QString out;
    int start = 0; // where the text not formatted yet starts
    const auto cutAt = [&](int cut) {
        out += formatted(format.mid(start, cut - start));
        start = cut;
    };
    bool quoted = false;
    for (int i = 0; i < format.size();) {
        const QChar c = format.at(i);
        if (c == QLatin1Char('\'')) {
            // Two quotes in a row, inside quotes or out, leave the state as it was.
            quoted = !quoted;
            ++i;
            continue;
        }
        int run = 1;
        while (i + run < format.size() && format.at(i + run) == c)
            ++run;
        if (!quoted) {
            // Before a run, once the piece is long enough, unless the run's "p" ends an "ap".
            const bool endsAmPm = i > 0 && (c == QLatin1Char('p') || c == QLatin1Char('P')) &&
                                  (format.at(i - 1) == QLatin1Char('a') || format.at(i - 1) == QLatin1Char('A'));
            if (i - start >= pieceLength && !endsAmPm)
                cutAt(i);
            // Inside a long run: the last 1 to 12 letters go with what follows the run, which may read the
            // run's last letter with its own first ("ap").
            if (run > pieceLength) {
                const int end = i + run - (run % 12 == 0 ? 12 : run % 12);
                for (int cut = i + 12;; cut = std::min(cut + inRun, end)) {
                    cutAt(cut);
                    if (cut == end)
                        break;
                }
            }
        }
        i += run;
    }
    return start == 0 ? time.toString(format) : out + formatted(format.mid(start));
}

YString sp_GetDateUserFormat(YString format)
{
    return toYs(datesandurls::formatDateTime(QDateTime::currentDateTime(), toQs(format)));
}

YString sp_GetFormattedDate(bool iso)
{
    const QDate today = QDate::currentDate();
    return toYs(iso ? today.toString(Qt::ISODate) : QLocale::system().toString(today, QLocale::ShortFormat));
}

YString sp_GetFormattedTime(bool precise)
{
    const QTime now = QTime::currentTime();
    return toYs(precise ? now.toString("hh:mm:ss.zzz") : QLocale::system().toString(now, QLocale::ShortFormat));
}

long long sp_GetNormalisedTime() { return QDateTime::currentMSecsSinceEpoch(); }

YString sp_GetFormattedNormalisedTime(long long ms, bool iso)
{
    // A time too far off to be shown gives empty text, not a date wrapped round to the other end.
    if (ms > kMaxMilliseconds || ms < -kMaxMilliseconds)
        return YString();
    const QDateTime t = QDateTime::fromMSecsSinceEpoch(ms, Qt::LocalTime);
    return toYs(iso ? t.toString(Qt::ISODate) : QLocale::system().toString(t, QLocale::ShortFormat));
}

YString sp_GetFormattedFileDate(FILE* file) { return file ? fileDate(sp_GetFileModifiedTime(file)) : YString(); }
YString sp_GetFormattedFileDate(const char* path) { return path ? fileDate(sp_GetFileModifiedTime(YString(path))) : YString(); }
YString sp_GetFormattedFileTime(FILE* file) { return file ? fileTime(sp_GetFileModifiedTime(file)) : YString(); }
YString sp_GetFormattedFileTime(const char* path) { return path ? fileTime(sp_GetFileModifiedTime(YString(path))) : YString(); }

QString sp_GetLocalFileFromUrl(QString url)
{
    const QString text = forwardSlashes(url);
    const QUrl parsed = text.startsWith(QLatin1String("file://")) ? QUrl(text) : QUrl::fromLocalFile(text);
    const QString path = parsed.toLocalFile();
    // A NUL (a "%00" in the URL) is in no file's name; a caller reading the name as C text would open
    // the file named by the part before it.
    return path.contains(QChar(0)) ? QString() : path;
}

YString sp_GetLocalFileFromUrl(YString url) { return toYs(sp_GetLocalFileFromUrl(toQs(url))); }

QString sp_MakeFileUrl(QString path)
{
    const QString text = forwardSlashes(path);
    const QUrl url = text.startsWith(QLatin1String("file://")) ? QUrl(text)
                                                                : QUrl::fromLocalFile(QFileInfo(text).absoluteFilePath());
    return url.toString();
}

YString sp_MakeFileUrl(YString path) { return toYs(sp_MakeFileUrl(toQs(path))); }

YString sp_GetGUID() { return toYs(QUuid::createUuid().toString()); }

bool sp_HasGui()
{
    const QCoreApplication* app = QCoreApplication::instance();
    return app && app->inherits("QApplication");
}
