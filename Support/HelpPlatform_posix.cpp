// HelpPlatform_posix.cpp - web pages through the desktop's own handlers (xdg-open, xdg-mime and the
// applications' .desktop files).
#include "HelpPlatform_p.h"
#include "Processes_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QStringList>
#include <QTextStream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace helpplatform {
namespace {

// The output of a short helper command, trimmed; empty when it cannot be run or fails.
QString commandOutput(const QString& program, const QStringList& arguments)
{
    const QString path = QStandardPaths::findExecutable(program);
    if (path.isEmpty())
        return QString();
    QProcess process;
    process.start(path, arguments);
    if (!process.waitForFinished(10000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return QString();
    return QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
}

// The .desktop file of that name in the XDG application folders, user's first.
QString findDesktopFile(const QString& name)
{
    const QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    QString home = env.value("XDG_DATA_HOME");
    if (home.isEmpty())
        home = QDir::homePath() + "/.local/share";
    QString dirs = env.value("XDG_DATA_DIRS");
    if (dirs.isEmpty())
        dirs = "/usr/local/share:/usr/share";
    QStringList roots{home};
    roots += dirs.split(':', Qt::SkipEmptyParts);
    for (const QString& root : roots) {
        const QString candidate = root + "/applications/" + name;
        if (QFileInfo::exists(candidate))
            return candidate;
    }
    return QString();
}

// The command line of the desktop entry's Exec key, split into words (double quotes group words).
QStringList execWords(const QString& desktopFile)
{
    QFile file(desktopFile);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    QTextStream in(&file);
    bool inEntry = false;
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line.startsWith('['))
            inEntry = line == "[Desktop Entry]";
        else if (inEntry && line.startsWith("Exec="))
            return QProcess::splitCommand(line.mid(5));
    }
    return {};
}

} // namespace

bool openWithSystemHandler(const QString& url)
{
    const QString xdgOpen = QStandardPaths::findExecutable("xdg-open");
    return !xdgOpen.isEmpty() && processes::startDetachedChild(xdgOpen, {url});
}

QString programForFile(const QString& localFile)
{
    // The file was named in UTF-8 (as the library's own opens name it), whatever the locale codec says.
    struct stat st;
    if (::stat(localFile.toUtf8().constData(), &st) != 0)
        return QString();
    const QString desktop = commandOutput("xdg-mime", {"query", "default", "text/html"});
    if (desktop.isEmpty())
        return QString();
    const QString path = findDesktopFile(desktop);
    return path.isEmpty() || execWords(path).isEmpty() ? QString() : path;
}

bool startProgram(const QString& program, const QString& argument)
{
    // `program` is the registered desktop entry: its Exec line with the URL in place of the field code.
    QStringList words = execWords(program);
    if (words.isEmpty())
        return false;
    QStringList arguments;
    bool placed = false;
    for (int i = 1; i < words.size(); ++i) {
        const QString& w = words[i];
        if (w == "%u" || w == "%U" || w == "%f" || w == "%F") {
            if (!placed)
                arguments << argument;
            placed = true;
        } else if (!(w.size() == 2 && w[0] == '%')) {
            arguments << w;
        }
    }
    if (!placed)
        arguments << argument;
    return processes::startDetachedChild(words[0], arguments);
}

bool hasProgramForFile(const QString& localFile) { return !programForFile(localFile).isEmpty(); }

bool createNewFile(const QByteArray& path)
{
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    return fd >= 0 && ::close(fd) == 0;
}

} // namespace helpplatform
