// TextFile_p.h - the UTF-8 copy of a wide text file, for the netlist readers.
#pragma once

#include "YString.h"

class kvstream;

#include <QByteArray>

namespace textfile {
/// As sp_ConvertWideTextFile: true when the file is UTF-16, with the path of its UTF-8 copy in
/// `*tempPath`. When the copy could not be written whole (an unusable temporary folder, a full disk),
/// the partial copy is removed, `*tempPath` is left empty and `*text` receives the UTF-8 text itself,
/// so that the reader reads it from memory instead of a shortened file.
bool convertWide(const YString& path, YString* tempPath, QByteArray* text);
/// Opens a netlist for a reader: the file's own bytes, or the UTF-8 text of a UTF-16 file (from the
/// copy whose name goes to `*tempPath`, which the reader deletes, or from memory when the copy could not
/// be written), moved into `reader`. An empty name or a file that cannot be opened reads as empty.
void openNetlist(const YString& path, YString* tempPath, kvstream* reader);
/// For a reader's destructor: closes `reader` and deletes the UTF-8 copy when it read one.
void closeNetlist(const YString& tempPath, kvstream* reader);
} // namespace textfile
