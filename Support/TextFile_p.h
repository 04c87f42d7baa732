// TextFile_p.h - the UTF-8 copy of a wide text file, for the netlist readers.
#pragma once

#include "YString.h"

class kvstream;

#include <QByteArray>

namespace textfile {
/// What `convertWide` made of a file.
enum class WideText {
    NotWide,  ///< no UTF-16 file: it reads as it is
    Copied,   ///< the path of its UTF-8 copy is in `*tempPath`
    InMemory, ///< the copy could not be written whole (an unusable temporary folder, a full disk): the
              ///< partial copy is removed and `*text` holds the UTF-8 text, so that no shortened file is read;
              ///< and any pipe, device or socket, which is read once, whole (up to 64 MiB): `*text` holds
              ///< its bytes, or the UTF-8 text of UTF-16 ones
    Unheld,   ///< the text could not be read (a read error, memory that cannot hold a block, a pipe or
              ///< device beyond sp_LoadFile's limits), or, when no copy could be written, held in memory
};
/// As sp_ConvertWideTextFile, a block at a time (a pipe or device whole), so that a UTF-16 file of any
/// size is copied in bounded memory; `*tempPath` and `*text` are set as the result says.
WideText convertWide(const YString& path, YString* tempPath, QByteArray* text);
/// Opens a netlist for a reader: the file's own bytes, or the UTF-8 text of a UTF-16 file (from the
/// copy whose name goes to `*tempPath`, which the reader deletes, or from memory when the copy could not
/// be written), moved into `reader`. An empty name or a file that cannot be opened reads as empty; so
/// does a UTF-16 file whose text nothing could hold, or a pipe or device that gives more than 64 MiB, and
/// then the result is false.
bool openNetlist(const YString& path, YString* tempPath, kvstream* reader);
/// For a reader's destructor: closes `reader` and deletes the UTF-8 copy when it read one.
void closeNetlist(const YString& tempPath, kvstream* reader);
} // namespace textfile
