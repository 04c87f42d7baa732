// HelpPlatform_win.cpp - web pages through the Windows shell.
#include "HelpPlatform_p.h"

#include <QDir>

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
    // The ANSI form, with the path in the system's code page.
    char program[MAX_PATH] = {0};
    const QByteArray path = QDir::toNativeSeparators(localFile).toLocal8Bit();
    return reinterpret_cast<INT_PTR>(FindExecutableA(path.constData(), nullptr, program)) > 32;
}

} // namespace helpplatform
