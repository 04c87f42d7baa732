// TextFile.h - text-file formats: UTF-16 or 8-bit, line-end style, loading, writing and wide-file copies.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

#include <QString>

/// Classifies the first `len` bytes of a text: UTF-16 or not, the first line end (CR LF or a lone CR;
/// a bare LF sets neither), and the UTF-16 byte order (little-endian unless a big-endian mark leads).
SUPPORTQT_API void sp_DetectTextFileFormat(const char* buf, int len, bool& isWide, bool& isDos, bool& isMac,
                                           bool& isLittleEndian);
/// Classifies the first 1024 bytes of a file. Any pointer may be null. False when the file cannot be
/// opened (the outputs are then false, false, false, true).
[[nodiscard]] SUPPORTQT_API bool sp_DetectTextFileFormat(const QString& path, bool* isWide, bool* isDos, bool* isMac,
                                                         bool* isLittleEndian);
/// The same for a UTF-8 path.
[[nodiscard]] SUPPORTQT_API bool sp_DetectTextFileFormat(const YString& path, bool* isWide, bool* isDos, bool* isMac,
                                           bool* isLittleEndian);

/// Loads and decodes a whole file with its line ends normalised to LF as its first line end dictates.
/// `encoding` is "auto" (UTF-16 by its marks and zero bytes, else UTF-8, else the locale codec when
/// UTF-8 decoding finds invalid or unfinished sequences), "locale", or a codec name (an unknown name
/// decodes as UTF-8). `*ok` is false, with an empty result, when the file cannot be opened, is a folder,
/// is a regular file larger than 512 MiB, or is a device or pipe that gives more than 64 MiB before
/// its end (/dev/zero never ends), or when memory runs out while it is read or decoded (nothing is
/// thrown); `ok` must not be null.
SUPPORTQT_API QString sp_LoadFile(const QString& path, const char* encoding, bool* ok);

/// Writes `text` encoded with the named codec from the start of the file, which is opened for reading
/// and writing and deliberately not truncated: a shorter text leaves the old tail behind it. An unknown
/// codec writes nothing. Reports nothing.
SUPPORTQT_API void sp_WriteTextFile(const QString& path, const QString& text, const char* encoding);

/// When the file is UTF-16, writes a UTF-8 copy (line ends LF) to a fresh temporary file, a block at a
/// time so that a file of any size takes bounded memory, stores its path in `*tempPath` and returns true;
/// otherwise returns false and leaves `*tempPath` alone. A UTF-16 file whose text cannot be read (or, for
/// a pipe or device, which is decoded whole, loaded) also gives false, with the path stored and no copy
/// left there; errors writing the copy are not reported. A pipe or device is read once, whole (up to 64
/// MiB): what it gave is then gone from it, so a false result for one leaves nothing to read there.
[[nodiscard]] SUPPORTQT_API bool sp_ConvertWideTextFile(const YString& path, YString* tempPath);

/// Scope guard over `sp_ConvertWideTextFile`: `getPath` is the UTF-8 copy of a UTF-16 file, or the given
/// path; the copy is deleted when the object is destroyed. Copies share the temporary path and each one
/// deletes it again (only the first deletion finds a file).
class SUPPORTQT_API WideTextFileConverter {
public:
    explicit WideTextFileConverter(const YString& path);
    WideTextFileConverter(const WideTextFileConverter&) = default;
    WideTextFileConverter& operator=(const WideTextFileConverter&) = default;
    ~WideTextFileConverter();
    YString getPath() const { return m_path; }

private:
    YString m_tempPath;
    YString m_path;
};
