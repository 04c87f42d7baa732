// TextFile_p.h - the UTF-8 copy of a wide text file, for the netlist readers.
#pragma once

#include "YString.h"

#include <QByteArray>

namespace textfile {
/// As sp_ConvertWideTextFile: true when the file is UTF-16, with the path of its UTF-8 copy in
/// `*tempPath`. When the copy could not be written whole (an unusable temporary folder, a full disk),
/// the partial copy is removed, `*tempPath` is left empty and `*text` receives the UTF-8 text itself,
/// so that the reader reads it from memory instead of a shortened file.
bool convertWide(const YString& path, YString* tempPath, QByteArray* text);
} // namespace textfile
