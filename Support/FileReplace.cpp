// FileReplace.cpp - replacing a file's content as an editor saves it.
#include "FileReplace.h"
#include "FileReplace_p.h"

namespace {
// The caller's writer and its context.
struct Writer {
    SpContentWriter write;
    void* context;
};

// The caller's writer, an exception from which is a failed write: thrown through the replacement, it
// would leave the temporary file behind.
bool guardedWrite(const YString& pathToWrite, void* writer)
{
    const Writer& w = *static_cast<const Writer*>(writer);
    try {
        return w.write(pathToWrite, w.context);
    } catch (...) {
        return false;
    }
}
} // namespace

bool sp_ReplaceFileContent(const YString& path, SpContentWriter write, void* context)
{
    if (path.isEmpty() || !write)
        return false;
    Writer writer{write, context};
    try {
        return filereplace::replace(path, guardedWrite, &writer);
    } catch (...) {
        return false;
    }
}

bool filereplace::sameFile(const YString& a, const YString& b)
{
    unsigned long long deviceA = 0, fileA = 0, deviceB = 0, fileB = 0;
    return fileIdentity(a, &deviceA, &fileA) && fileIdentity(b, &deviceB, &fileB) && deviceA == deviceB && fileA == fileB;
}
