// FileOpenCheck.cpp - whether a file can be opened now, and why an open fails.
#include "FileOpenCheck.h"
#include "FileOpenCheck_p.h"

namespace {

struct CodeText {
    const char* keyword;
    const char* message; // follows "The file " and the path
};

const CodeText kCodes[] = {
    {"noerror", nullptr},
    {"overwrite", " cannot be opened because another file of the same name already exists"},
    {"notexist", " does not exist"},
    {"readlocked", " cannot be opened for read; either it is locked by another process or there is insufficient privilege"},
    {"dirnotexist", " cannot be opened because its directory does not exist"},
    {"dirpriv", " cannot be opened for write possibly because of insufficient directory privilege"},
    {"writepriv", " cannot be opened for write because a read-only attribute is set"},
    {"writelocked", " cannot be opened for write; either it is locked by another process or there is insufficient privilege"},
    {"invalidparams", nullptr},
};

} // namespace

bool sp_CheckFileOpen(const YString& path, GfnOpenMode mode)
{
    if (path.isEmpty())
        return false;
    const QByteArray bytes(path.c_str(), path.length());
    // A symbolic link to nothing is answered without following it: an open would create its target
    // somewhere else, and removing what the check made would remove the link.
    const bool danglingLink = fileopencheck::isDanglingLink(bytes);
    const bool existed = danglingLink || fileopencheck::nameTaken(bytes);
    if (mode == GfnRead)
        return !danglingLink && fileopencheck::opensForReading(bytes);
    if (mode == GfnWriteNew && existed)
        return false;
    if (mode == GfnWriteNew || mode == GfnWrite) {
        if (danglingLink)
            return fileopencheck::danglingLinkTakesNewFile(bytes);
        // Append mode never touches an existing file's content, and only a file this open made is removed.
        bool created = false;
        const bool opened = fileopencheck::opensForAppending(bytes, &created);
        if (created)
            fileopencheck::removeMadeFile(bytes);
        return opened;
    }
    return fileopencheck::opensForReading(bytes);
}

bool sp_FileOpenForensic(const YString& path, GfnOpenMode mode, FileOpenForensic* code)
{
    FileOpenForensic result = FileOpenInvalidParams;
    const QByteArray bytes(path.c_str(), path.length());
    if (mode == GfnWriteNew && sp_CheckFileOpen(path, GfnWrite)) {
        result = FileOpenOverwrite;
    } else if (mode == GfnRead) {
        result = fileopencheck::fileExists(bytes) ? FileOpenReadLocked : FileOpenNotExist;
    } else if (mode == GfnWriteNew || mode == GfnWrite) {
        if (fileopencheck::fileExists(bytes))
            result = fileopencheck::fileWritable(bytes) ? FileOpenWriteLocked : FileOpenWritePriv;
        else
            result = fileopencheck::folderOfFileExists(bytes) ? FileOpenDirPriv : FileOpenDirNotExist;
    }
    if (code)
        *code = result;
    return true;
}

FileOpenForensic sp_FileOpenForensic(const YString& path, GfnOpenMode mode)
{
    FileOpenForensic code = FileOpenInvalidParams;
    sp_FileOpenForensic(path, mode, &code);
    return code;
}

bool sp_FileOpenForensicMsg(const YString& path, GfnOpenMode mode, YString* message)
{
    FileOpenForensic code = FileOpenInvalidParams;
    const bool result = sp_FileOpenForensic(path, mode, &code);
    if (!message || code == FileOpenNoError)
        return result;
    if (code == FileOpenInvalidParams) {
        *message = "Internal error";
    } else {
        // The path stands as given: an empty one leaves two blanks before the verb.
        YString text("The file ");
        text += path;
        text.append(kCodes[code].message);
        *message = text;
    }
    return result;
}

YString sp_ForensicCodeToString(FileOpenForensic code)
{
    const int index = static_cast<int>(code);
    if (index < 0 || index > 8)
        return YString();
    return YString(kCodes[index].keyword);
}
