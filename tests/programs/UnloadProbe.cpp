// UnloadProbe.cpp - loads the library given as argument, reports its "makeDataCompressor" definition
// and its option declarations before and after unloading it.
#include "DynFunc.h"
#include "Options.h"

#include <QLibrary>

#include <cstdio>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

static void report(const char* when)
{
    std::printf("%s makeDataCompressor=%s DefaultEncoding=%s WriteXMLAsciiReals=%s\n", when,
                sp_FindDynFuncDef("makeDataCompressor") ? "defined" : "absent",
                sp_IsOptionDeclared("DefaultEncoding") ? "declared" : "absent",
                sp_IsOptionDeclared("WriteXMLAsciiReals") ? "declared" : "absent");
}

int main(int argc, char** argv)
{
#ifdef _WIN32
    // Lines end in a line feed alone, as on every other system.
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    if (argc < 2) {
        std::fprintf(stderr, "usage: UnloadProbe LIBRARY\n");
        return 2;
    }
    report("before");
    QLibrary library(QString::fromLocal8Bit(argv[1]));
    if (!library.load()) {
        std::fprintf(stderr, "cannot load %s: %s\n", argv[1], library.errorString().toLocal8Bit().constData());
        return 1;
    }
    report("loaded");
    if (!library.unload()) {
        std::fprintf(stderr, "cannot unload %s\n", argv[1]);
        return 1;
    }
    report("unloaded");
    YArray<YString> log;
    sp_GetDynRegistryLog(&log);
    for (const YString& line : log)
        std::printf("log %s\n", line.c_str());
    return 0;
}
