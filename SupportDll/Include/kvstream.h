// kvstream.h - buffered byte streams over files and memory, the base of the netlist readers.
#pragma once

#include "SupportDllExport.h"
#include "YContainers.h"
#include "YString.h"

#include <cstddef>

class kvstreamSource;

/// Buffered byte stream. `get` is an inline read from the buffer, refilled from the stream's source.
///
/// The stream's own flag is set while a base64 section is open (`openBase64`): bytes are then decoded
/// from base64 as they are read, and the stream keeps its own count of the decoded bytes, which
/// `getCharCount` returns; `keepsOwnCount` says whether it does. Without a source the stream is empty.
class SUPPORTDLL_API kvstream : public YRefCounted {
public:
    kvstream();
    ~kvstream() override;
    kvstream(const kvstream&) = delete;
    kvstream& operator=(const kvstream&) = delete;

    /// Allocates the read buffer when it has none yet.
    virtual void makeBuffer();
    /// Starts decoding base64 from the following input; sets the flag and zeroes the own count.
    virtual void openBase64();
    /// Ends the base64 section; input is read as plain bytes again.
    virtual void closeBase64();

    /// The next byte (0 to 255), or -1 at end of input.
    int get()
    {
        if (m_cur < m_end)
            return static_cast<unsigned char>(*m_cur++);
        return underflow();
    }
    /// Positions the next read at byte `offset` of the source; 0 on success, -1 when it cannot. In a base64
    /// section decoding starts afresh there: an offset of the source where a group of four base64
    /// characters begins gives the decoded byte that group begins with.
    int seekg(long long offset);
    /// Byte offset of the next read in the source.
    long long tellg() const;
    /// Releases the source; the stream reads as empty afterwards.
    void close();
    /// The stream's own character count (decoded bytes of the current base64 section); it stops at INT_MAX.
    int getCharCount() const { return m_ownCount; }
    bool keepsOwnCount() const { return m_flag; }
    /// The stream's own flag: true while a base64 section is open.
    bool getFlag() const { return m_flag; }
    /// Writes raw bytes to the source (a file opened for writing, or the text of a memory stream);
    /// returns the number of bytes written, 0 when the stream cannot be written.
    size_t write(const char* data, size_t length);
    /// Writes a NUL-terminated text.
    size_t write(const char* text);
    /// Moves the open input (source, buffer and position) of `from` to `to`; `from` is left empty and may
    /// then be destroyed. Whatever `to` had open is closed first.
    static void transferBuffer(kvstream* from, kvstream* to);
    /// True when a source is attached.
    bool isOpen() const;

    /// Bulk access for readers: the unread bytes of the buffer. After using `n` of them, call `advance(n)`.
    const char* bufferBegin() const { return m_cur; }
    const char* bufferEnd() const { return m_end; }
    void advance(size_t n) { m_cur += n; }
    /// Refills the buffer; false at end of input.
    bool fill();

protected:
    void attach(kvstreamSource* source);
    /// Sets the stream's own character count (readers reset it).
    void setOwnCount(int count) { m_ownCount = count; }
    kvstreamSource* source() const { return m_source; }

private:
    int underflow();
    int getBase64();

    kvstreamSource* m_source = nullptr;
    const char* m_cur = nullptr;
    const char* m_end = nullptr;
    const char* m_hiddenEnd = nullptr; // end of the raw buffer while a base64 section hides it from get()
    bool m_flag = false;
    int m_ownCount = 0;
    unsigned m_b64Bits = 0;
    int m_b64BitCount = 0;
};

/// Mode bits of `kvfstream`.
enum kvfstreamMode {
    kvfstreamRead = 1,    ///< open for reading
    kvfstreamWrite = 2,   ///< open for writing, creating or truncating the file
    kvfstreamAppend = 4,  ///< with kvfstreamWrite: append instead of truncating
    kvfstreamBinary = 128 ///< bytes as they are, no line-end translation
};

/// File stream. Read and binary (the default) is what the netlist readers use; a file that cannot be opened
/// reads as empty input. With `kvfstreamWrite` the file is created or truncated (with
/// `kvfstreamAppend`, appended to); the flag argument is reserved and ignored.
class SUPPORTDLL_API kvfstream : public kvstream {
public:
    kvfstream(const char* fileName, int mode = kvfstreamRead | kvfstreamBinary, bool flag = false);
    ~kvfstream() override;
};

/// Stream over text in memory; writes append to the text.
class SUPPORTDLL_API kvstrstream : public kvstream {
public:
    explicit kvstrstream(const char* text = "");
    /// With a `chunkSize`, the text is delivered at most that many bytes per refill, as from a pipe or a
    /// slow device (readers then meet every buffer boundary); 0 delivers it whole.
    kvstrstream(const char* data, size_t length, size_t chunkSize = 0);
    ~kvstrstream() override;
    /// Everything written or given so far.
    YString str() const;
};
