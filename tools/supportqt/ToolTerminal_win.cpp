// ToolTerminal_win.cpp - whether standard error is a console, on Windows.
#include "Tool.h"

#ifdef Q_OS_WIN
#include <io.h>

bool standardErrorIsTerminal()
{
    return _isatty(_fileno(stderr)) != 0;
}
#endif
