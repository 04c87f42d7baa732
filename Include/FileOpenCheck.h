// FileOpenCheck.h - whether a file can be opened now, and why an open fails, in one sentence.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

/// The intended use of a file.
enum GfnOpenMode : int {
    GfnRead = 0,     ///< open an existing file for reading
    GfnWriteNew = 1, ///< create a file; an existing file of that name is not to be replaced
    GfnWrite = 2     ///< open for writing; an existing file may be replaced
};

/// Why an open fails.
enum FileOpenForensic : int {
    FileOpenNoError = 0,      ///< "noerror"
    FileOpenOverwrite = 1,    ///< "overwrite": another file of that name exists
    FileOpenNotExist = 2,     ///< "notexist"
    FileOpenReadLocked = 3,   ///< "readlocked": locked or no privilege to read
    FileOpenDirNotExist = 4,  ///< "dirnotexist"
    FileOpenDirPriv = 5,      ///< "dirpriv": no privilege to create in the directory
    FileOpenWritePriv = 6,    ///< "writepriv": the file is read-only
    FileOpenWriteLocked = 7,  ///< "writelocked": locked or no privilege to write
    FileOpenInvalidParams = 8 ///< "invalidparams": not a valid mode
};

/// True when the file can be opened in `mode` now. Leaves no trace: a file the test creates is removed,
/// and an existing file's content is never touched.
[[nodiscard]] SUPPORTQT_API bool sp_CheckFileOpen(const YString& path, GfnOpenMode mode);
/// Diagnoses why an open in `mode` fails (never 0) and stores the code; always returns true.
SUPPORTQT_API bool sp_FileOpenForensic(const YString& path, GfnOpenMode mode, FileOpenForensic* code);
/// The same, returning the code.
SUPPORTQT_API FileOpenForensic sp_FileOpenForensic(const YString& path, GfnOpenMode mode);
/// Diagnoses as above and writes the user message, "The file PATH does not exist" and the like, into
/// `*message`. Returns true.
SUPPORTQT_API bool sp_FileOpenForensicMsg(const YString& path, GfnOpenMode mode, YString* message);
/// The code's keyword ("noerror" ... "invalidparams"); empty above 8.
SUPPORTQT_API YString sp_ForensicCodeToString(FileOpenForensic code);
