// ToolTerminal_win.cpp - the console and the standard streams, on Windows.
#include "Tool.h"

#include <cstdio>
#include <fcntl.h>
#include <io.h>

bool standardErrorIsTerminal()
{
    return _isatty(_fileno(stderr)) != 0;
}

void useBinaryStandardStreams()
{
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}
