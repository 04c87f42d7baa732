// ToolTerminal_posix.cpp - the terminal and the standard streams, on POSIX systems.
#include "Tool.h"

#include <unistd.h>

bool standardErrorIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

void useBinaryStandardStreams() {}
