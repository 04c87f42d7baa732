// ToolPlatform_posix.cpp - the terminal, the standard streams and file identity, on POSIX systems.
#include "Tool.h"

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

bool standardErrorIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

void useBinaryStandardStreams() {}

bool writeStream(FILE* stream, const char* data, size_t size) { return std::fwrite(data, 1, size, stream) == size; }

QString signalName(int signal)
{
    const char* abbreviation = sigabbrev_np(signal);
    return abbreviation ? QStringLiteral("SIG") + QString::fromLatin1(abbreviation) : QString();
}

bool sameExistingFile(const QString& a, const QString& b)
{
    struct stat sa, sb;
    return ::stat(a.toUtf8().constData(), &sa) == 0 && ::stat(b.toUtf8().constData(), &sb) == 0 &&
           sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}
