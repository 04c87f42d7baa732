// Compress.cpp - the data compressor behind "makeDataCompressor".
#include "Compress.h"
#include "FileOpenCheck_p.h"
#include "FileReplace.h"
#include "FileServices.h"
#include "QtSupport.h"

#include <QByteArray>
#include <QFileInfo>

#include <zlib.h>

#include <cstdio>
#include <new>

namespace {

// zlib cannot expand data by more than about 1032 to 1: the most a stream can produce, and so the most
// worth allocating whatever its header claims.
const long long kMaxZlibRatio = 1032;
// The largest buffer qUncompress asks for: Qt's allocation limit less its array header.
const unsigned long long kQtMaxAlloc = 0x7fffffffULL - 24;

// What qUncompress returns for `block`, computed without trusting the claimed size for the allocation
// and without Qt's warnings. The claimed size is only where qUncompress starts: it gives up when the
// claim, or the doubling of it that the real size needs, reaches Qt's allocation limit; otherwise the
// result is the stream's whole output (empty when the stream is not complete and valid).
QByteArray uncompress(const QByteArray& block)
{
    if (block.size() <= 4)
        return QByteArray();
    const unsigned char* p = reinterpret_cast<const unsigned char*>(block.constData());
    const unsigned long long claimed =
        (static_cast<unsigned long long>(p[0]) << 24) | (static_cast<unsigned long long>(p[1]) << 16) |
        (static_cast<unsigned long long>(p[2]) << 8) | static_cast<unsigned long long>(p[3]);
    if (claimed >= kQtMaxAlloc)
        return QByteArray();
    const long long streamLength = block.size() - 4;
    const long long limit = streamLength * kMaxZlibRatio + 64;

    z_stream z{};
    if (inflateInit(&z) != Z_OK)
        return QByteArray();
    QByteArray out;
    long long produced = 0;
    int status = Z_OK;
    // Memory that runs out as the output grows ends the stream as a bad one, with zlib's state freed.
    try {
        const long long first = claimed == 0 ? 1 : static_cast<long long>(claimed);
        out.resize(static_cast<int>(first < limit ? first : limit));
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(block.constData() + 4));
        z.avail_in = static_cast<uInt>(streamLength);
        while (status == Z_OK) {
            if (produced == out.size()) {
                long long grown = static_cast<long long>(out.size()) * 2;
                if (grown > limit)
                    grown = limit;
                if (grown <= out.size() || grown >= static_cast<long long>(kQtMaxAlloc)) {
                    status = Z_DATA_ERROR; // more than any stream of this length can hold
                    break;
                }
                out.resize(static_cast<int>(grown));
            }
            z.next_out = reinterpret_cast<Bytef*>(out.data() + produced);
            z.avail_out = static_cast<uInt>(out.size() - produced);
            status = inflate(&z, Z_NO_FLUSH);
            produced = static_cast<long long>(z.total_out);
            if (status == Z_BUF_ERROR && z.avail_in == 0)
                break; // truncated stream
            if (status == Z_BUF_ERROR)
                status = Z_OK;
        }
    } catch (const std::bad_alloc&) {
        status = Z_MEM_ERROR;
    }
    inflateEnd(&z);
    if (status != Z_STREAM_END)
        return QByteArray();
    // qUncompress doubles its buffer from the claimed size until the output fits, and gives up when
    // that reaches its allocation limit.
    unsigned long long size = claimed == 0 ? 1 : claimed;
    while (size < static_cast<unsigned long long>(produced)) {
        size *= 2;
        if (size >= kQtMaxAlloc)
            return QByteArray();
    }
    out.resize(static_cast<int>(produced));
    return out;
}

// Writes what qCompress at the default level gives for `data` (its length in 4 bytes, big-endian, then
// the zlib stream; 4 zero bytes alone for no data), streamed to `f` a block at a time: qCompress sizes
// its result in an int, which overflows for data past some 2.1 GB, and then writes past its end. The
// stream is compress2's own, whose bytes do not depend on how its output is taken; nothing here
// allocates but zlib. False when a write fails or zlib cannot finish the stream.
bool writeCompressed(FILE* f, const QByteArray& data)
{
    const unsigned long long n = static_cast<unsigned long long>(data.size());
    const unsigned char length[4] = {static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                                     static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    if (std::fwrite(length, 1, sizeof length, f) != sizeof length)
        return false;
    if (n == 0)
        return true;
    z_stream z{};
    if (deflateInit(&z, Z_DEFAULT_COMPRESSION) != Z_OK)
        return false;
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    z.avail_in = static_cast<uInt>(n);
    unsigned char block[1 << 14];
    int status = Z_OK;
    bool written = true;
    while (status == Z_OK && written) {
        z.next_out = block;
        z.avail_out = sizeof block;
        status = deflate(&z, Z_FINISH);
        const size_t produced = sizeof block - z.avail_out;
        written = std::fwrite(block, 1, produced, f) == produced;
    }
    deflateEnd(&z);
    return written && status == Z_STREAM_END;
}

class DataCompressor_Impl : public DataCompressor {
public:
    void load(YString path) override
    {
        // A FIFO, whose open would wait for a writer that may never come, counts as a file that cannot be
        // opened, and so does a socket; so does a folder, which the C library opens on POSIX systems only.
        if (fileopencheck::waitsToOpen(QByteArray(path.c_str())) || QFileInfo(toQs(path)).isDir())
            return;
        FILE* f = nullptr;
        if (fopen_s_utf8(&f, path.c_str(), "rb") != 0 || !f)
            return;
        long long size = sp_GetFileSize64(path.c_str());
        if (size < 0 || size > 0x7fffffffLL - 64) {
            std::fclose(f);
            return;
        }
        char* block = new (std::nothrow) char[static_cast<size_t>(size) + 1];
        if (!block) {
            std::fclose(f);
            return;
        }
        size_t read = std::fread(block, 1, static_cast<size_t>(size), f);
        std::fclose(f);
        // Memory that runs out, while the block joins the buffer or the stream expands, leaves the
        // buffer empty, as data that does not decompress does.
        try {
            m_buffer.append(block, static_cast<int>(read));
            delete[] block;
            block = nullptr;
            m_buffer = uncompress(m_buffer);
        } catch (const std::bad_alloc&) {
            delete[] block;
            m_buffer = QByteArray();
        }
    }
    void append(const char* data, int length) override
    {
        // Bytes that memory cannot hold (or that would pass a buffer's 2 GiB) leave the buffer as it was.
        if (data && length > 0 && length <= 0x7fffffff - 64 - m_buffer.size()) {
            try {
                m_buffer.append(data, length);
            } catch (const std::bad_alloc&) {
            }
        }
    }
    const char* data() override { return m_buffer.constData(); }
    int size() override { return m_buffer.size(); }
    bool save(YString path) override
    {
        // A FIFO, whose open would wait for a reader that may never come, cannot be saved to, as load
        // cannot read one; nor can a socket.
        if (fileopencheck::waitsToOpen(QByteArray(path.c_str())))
            return false;
        // The file is replaced whole or not at all: a write that fails (a full disk) leaves the old file as
        // it was. The result still says whether the file could be opened, not whether every byte was
        // written: true for a write that failed, false when the file could not be replaced at all.
        bool writeFailed = false;
        const bool replaced = sp_ReplaceFileWith(path, [&](const YString& target) {
            FILE* f = nullptr;
            if (fopen_s_utf8(&f, target.c_str(), "wb") != 0 || !f)
                return false;
            const bool written = writeCompressed(f, m_buffer);
            writeFailed = !(std::fclose(f) == 0 && written);
            return !writeFailed;
        });
        return replaced || writeFailed;
    }

private:
    QByteArray m_buffer;
};

} // namespace

DataCompressor* sp_MakeDataCompressor() { return new DataCompressor_Impl; }
