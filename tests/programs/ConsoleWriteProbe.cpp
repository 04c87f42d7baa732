// ConsoleWriteProbe.cpp - writes non-ASCII text through kv_write, as a console program of the suite does:
// one sequence split between two calls, then whole ones. Run on a console, it must show as written.
#include "Console.h"

int main()
{
    kv_write("caf\xC3");
    kv_write("\xA9 1\xC2\xB5"
             "F \xE2\x84");
    kv_write("\xA6 done\n");
    return 0;
}
