// Compress.cpp - the data compressor behind "makeDataCompressor".
#include "Compress.h"
#include "FileServices.h"

#include <QByteArray>

#include <zlib.h>

#include <cstdio>
#include <new>

namespace {

// zlib cannot expand data by more than about 1032 to 1; a header that claims more is not ours.
const long long kMaxZlibRatio = 1032;

// The inverse of qCompress, without Qt's warnings and without trusting the claimed size for the
// allocation: empty for anything that is not a complete compressed stream.
QByteArray uncompress(const QByteArray& block)
{
    if (block.size() < 4)
        return QByteArray();
    const unsigned char* p = reinterpret_cast<const unsigned char*>(block.constData());
    const unsigned long long expected =
        (static_cast<unsigned long long>(p[0]) << 24) | (static_cast<unsigned long long>(p[1]) << 16) |
        (static_cast<unsigned long long>(p[2]) << 8) | static_cast<unsigned long long>(p[3]);
    const long long streamLength = block.size() - 4;
    if (streamLength == 0 || expected > static_cast<unsigned long long>(streamLength) * kMaxZlibRatio + 64)
        return QByteArray();
    const long long limit = static_cast<long long>(streamLength) * kMaxZlibRatio + 64;

    z_stream z{};
    if (inflateInit(&z) != Z_OK)
        return QByteArray();
    QByteArray out;
    out.resize(static_cast<int>(expected > 0 ? expected : 1));
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(block.constData() + 4));
    z.avail_in = static_cast<uInt>(streamLength);
    long long produced = 0;
    int status = Z_OK;
    while (status == Z_OK) {
        if (produced == out.size()) {
            long long grown = static_cast<long long>(out.size()) * 2;
            if (grown > limit)
                grown = limit;
            if (grown <= out.size() || grown > 0x7fffffffLL - 64) {
                status = Z_DATA_ERROR;
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
    inflateEnd(&z);
    if (status != Z_STREAM_END)
        return QByteArray();
    out.resize(static_cast<int>(produced));
    return out;
}

class DataCompressor_Impl : public DataCompressor {
public:
    void load(YString path) override
    {
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
        m_buffer.append(block, static_cast<int>(read));
        delete[] block;
        m_buffer = uncompress(m_buffer);
    }
    void append(const char* data, int length) override
    {
        if (data && length > 0)
            m_buffer.append(data, length);
    }
    const char* data() override { return m_buffer.constData(); }
    int size() override { return m_buffer.size(); }
    bool save(YString path) override
    {
        QByteArray compressed = qCompress(m_buffer, -1);
        FILE* f = nullptr;
        if (fopen_s_utf8(&f, path.c_str(), "wb") != 0 || !f)
            return false;
        bool ok = std::fwrite(compressed.constData(), 1, static_cast<size_t>(compressed.size()), f) ==
                  static_cast<size_t>(compressed.size());
        ok = std::fclose(f) == 0 && ok;
        return ok;
    }

private:
    QByteArray m_buffer;
};

} // namespace

DataCompressor* sp_MakeDataCompressor() { return new DataCompressor_Impl; }
