// HelpPlatform_win.cpp - web pages through the Windows shell.
#include "HelpPlatform_p.h"

#include <QDir>

#include <vector>
#include <windows.h>
#include <shellapi.h>

namespace {
// `argument` as one parameter of a command line, in double quotes as the system's parser reads them: a
// quote inside is escaped, and the backslashes before it or before the closing quote are doubled.
std::wstring quotedParameter(const std::wstring& argument)
{
    std::wstring quoted(1, L'"');
    size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        quoted += c;
        backslashes = 0;
    }
    quoted.append(backslashes * 2, L'\\');
    quoted += L'"';
    return quoted;
}
} // namespace

namespace helpplatform {

bool openWithSystemHandler(const QString& url)
{
    const std::wstring wide = url.toStdWString();
    const INT_PTR result = reinterpret_cast<INT_PTR>(ShellExecuteW(nullptr, L"open", wide.c_str(), nullptr, nullptr, SW_SHOW));
    return result > 32;
}

QString programForFile(const QString& localFile)
{
    wchar_t program[MAX_PATH] = {0};
    const std::wstring wide = QDir::toNativeSeparators(localFile).toStdWString();
    const INT_PTR result = reinterpret_cast<INT_PTR>(FindExecutableW(wide.c_str(), nullptr, program));
    return result > 32 ? QString::fromWCharArray(program) : QString();
}

bool startProgram(const QString& program, const QString& argument)
{
    const std::wstring wideProgram = program.toStdWString();
    const std::wstring parameters = quotedParameter(argument.toStdWString());
    const INT_PTR result = reinterpret_cast<INT_PTR>(
        ShellExecuteW(nullptr, L"open", wideProgram.c_str(), parameters.c_str(), nullptr, SW_SHOW));
    return result > 32;
}

bool hasProgramForFile(const QString& localFile)
{
    // The ANSI form, with the path in the system's code page. A folder that the code page cannot spell (a
    // temporary folder named in another script) goes by its short form, which it can where the volume
    // keeps short names; the file keeps its own name, whose short form would end in ".HTM".
    const QString native = QDir::toNativeSeparators(localFile);
    QByteArray path = native.toLocal8Bit();
    const int cut = native.lastIndexOf(QLatin1Char('\\'));
    if (QString::fromLocal8Bit(path) != native && cut > 0) {
        const std::wstring folder = native.left(cut).toStdWString();
        std::vector<wchar_t> shortName(32768);
        const DWORD n = GetShortPathNameW(folder.c_str(), shortName.data(), static_cast<DWORD>(shortName.size()));
        if (n > 0 && n < shortName.size())
            path = (QString::fromWCharArray(shortName.data(), static_cast<int>(n)) + native.mid(cut)).toLocal8Bit();
    }
    char program[MAX_PATH] = {0};
    return reinterpret_cast<INT_PTR>(FindExecutableA(path.constData(), nullptr, program)) > 32;
}

bool createNewFile(const QByteArray& path)
{
    const std::wstring wide = QDir::toNativeSeparators(QString::fromUtf8(path)).toStdWString();
    const HANDLE h = CreateFileW(wide.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    return h != INVALID_HANDLE_VALUE && CloseHandle(h) != 0;
}

} // namespace helpplatform
