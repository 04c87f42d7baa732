// FileOpenProbe.cpp - prints "<check> <code> <keyword>|<message>" for one path and mode, so that the
// file-open tests can observe real failed opens under another user's privileges.
#include "FileOpenCheck.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: FileOpenProbe PATH MODE\n");
        return 2;
    }
    const YString path(argv[1]);
    const GfnOpenMode mode = static_cast<GfnOpenMode>(std::atoi(argv[2]));
    const bool check = sp_CheckFileOpen(path, mode);
    const FileOpenForensic code = sp_FileOpenForensic(path, mode);
    YString message;
    sp_FileOpenForensicMsg(path, mode, &message);
    std::printf("%d %d %s|%s\n", check ? 1 : 0, static_cast<int>(code), sp_ForensicCodeToString(code).c_str(),
                message.c_str());
    return 0;
}
