// Compress.h - the data compressor offered to other modules as "makeDataCompressor".
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

/// A byte buffer saved to and loaded from a compressed file. The file holds a 4-byte big-endian length
/// of the uncompressed data followed by a zlib stream (the format of Qt's qCompress).
/// Other modules obtain one through the dynamic function "makeDataCompressor" (no arguments, returns a
/// new `DataCompressor*` that the caller deletes).
class DataCompressor {
public:
    virtual ~DataCompressor() = default;
    /// Appends the file's bytes to the buffer, then replaces the buffer by what qUncompress gives for
    /// all of it (meant for a fresh compressor). A file that cannot be opened changes nothing; data that
    /// is not valid compressed data leaves an empty buffer. The 4-byte length is only a size hint, as for
    /// qUncompress (a claim of Qt's allocation limit or more gives an empty buffer), but no more is ever
    /// allocated than the stream could expand to.
    virtual void load(YString path) = 0;
    /// Appends bytes to the buffer.
    virtual void append(const char* data, int length) = 0;
    virtual const char* data() = 0;
    virtual int size() = 0;
    /// Writes the compressed buffer (zlib's default level), replacing the file whole or not at all
    /// (`sp_ReplaceFileContent`): a write that fails leaves the old file as it was. The result says
    /// whether the file could be opened, not whether every byte reached the disk (a full disk still gives
    /// true); a FIFO or socket counts as a file that cannot be opened, as for `load`. The buffer keeps its
    /// uncompressed content.
    virtual bool save(YString path) = 0;
};

typedef DataCompressor* (*makeDataCompressor_t)();

/// The function behind "makeDataCompressor": a new, empty compressor owned by the caller.
SUPPORTQT_API DataCompressor* sp_MakeDataCompressor();
