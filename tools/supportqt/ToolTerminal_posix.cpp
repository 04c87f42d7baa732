// ToolTerminal_posix.cpp - whether standard error is a terminal, on POSIX systems.
#include "Tool.h"

#include <unistd.h>

bool standardErrorIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}
