// FileReplace.cpp - replacing a file's content as an editor saves it.
#include "FileReplace.h"
#include "FileReplace_p.h"

bool sp_ReplaceFileContent(const YString& path, SpContentWriter write, void* context)
{
    if (path.isEmpty() || !write)
        return false;
    try {
        return filereplace::replace(path, write, context);
    } catch (...) {
        return false;
    }
}
