// kvstream.cpp - buffered byte streams over files and memory.
#include "kvstream.h"
#include "Platform_p.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

/// Where a stream's bytes come from and go to.
class kvstreamSource {
public:
    virtual ~kvstreamSource() = default;
    virtual void makeBuffer() {}
    /// Delivers the next chunk; 0 at end. The chunk stays valid until the next call of fill, seek or write.
    virtual size_t fill(const char** data) = 0;
    /// Positions the next chunk at `offset`; false when the offset lies outside the source.
    virtual bool seek(long long offset) = 0;
    /// Offset of the byte after the last chunk delivered.
    virtual long long position() const = 0;
    virtual size_t write(const char* data, size_t length) = 0;
};

namespace {

class FileSource : public kvstreamSource {
public:
    explicit FileSource(FILE* file) : m_file(file) {}
    ~FileSource() override
    {
        if (m_file)
            std::fclose(m_file);
    }
    void makeBuffer() override
    {
        if (m_buffer.empty())
            m_buffer.resize(64 * 1024);
    }
    size_t fill(const char** data) override
    {
        makeBuffer();
        if (!m_file)
            return 0;
        size_t n = std::fread(m_buffer.data(), 1, m_buffer.size(), m_file);
        m_position += static_cast<long long>(n);
        *data = m_buffer.data();
        return n;
    }
    bool seek(long long offset) override
    {
        if (!m_file || offset < 0 || platform::seekFile(m_file, offset) != 0)
            return false;
        m_position = offset;
        return true;
    }
    long long position() const override { return m_position; }
    size_t write(const char* data, size_t length) override
    {
        // Writes go to the end of the file, as a memory source's append to its text: the stream moves
        // back to where it was reading after each one.
        if (!m_file || platform::seekFileToEnd(m_file) != 0)
            return 0;
        size_t n = std::fwrite(data, 1, length, m_file);
        std::fflush(m_file);
        return n;
    }

private:
    FILE* m_file;
    std::vector<char> m_buffer;
    long long m_position = 0;
};

class MemorySource : public kvstreamSource {
public:
    MemorySource(const char* data, size_t length, size_t chunkSize)
        : m_text(data ? data : "", data ? length : 0), m_chunkSize(chunkSize == 0 ? static_cast<size_t>(-1) : chunkSize)
    {
    }
    size_t fill(const char** data) override
    {
        size_t n = m_text.size() - m_position;
        if (n > m_chunkSize)
            n = m_chunkSize;
        *data = m_text.data() + m_position;
        m_position += n;
        return n;
    }
    bool seek(long long offset) override
    {
        if (offset < 0 || static_cast<unsigned long long>(offset) > m_text.size())
            return false;
        m_position = static_cast<size_t>(offset);
        return true;
    }
    long long position() const override { return static_cast<long long>(m_position); }
    size_t write(const char* data, size_t length) override
    {
        m_text.append(data, length);
        return length;
    }
    const std::string& text() const { return m_text; }

private:
    std::string m_text;
    size_t m_chunkSize;
    size_t m_position = 0;
};

int base64Value(int c)
{
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

} // namespace

kvstream::kvstream() = default;

kvstream::~kvstream() { close(); }

void kvstream::makeBuffer()
{
    if (m_source)
        m_source->makeBuffer();
}

void kvstream::openBase64()
{
    if (m_flag)
        return;
    m_flag = true;
    m_ownCount = 0;
    m_b64Bits = 0;
    m_b64BitCount = 0;
    m_hiddenEnd = m_end;
    m_end = m_cur;
}

void kvstream::closeBase64()
{
    if (!m_flag)
        return;
    m_flag = false;
    m_end = m_hiddenEnd;
    m_hiddenEnd = nullptr;
}

bool kvstream::fill()
{
    if (!m_source)
        return false;
    const char* data = nullptr;
    size_t n = m_source->fill(&data);
    if (n == 0) {
        m_cur = m_end = nullptr;
        if (m_flag)
            m_hiddenEnd = nullptr;
        return false;
    }
    m_cur = data;
    if (m_flag) {
        m_hiddenEnd = data + n;
        m_end = m_cur;
    } else {
        m_end = data + n;
    }
    return true;
}

int kvstream::underflow()
{
    if (m_flag)
        return getBase64();
    if (!fill())
        return -1;
    return static_cast<unsigned char>(*m_cur++);
}

int kvstream::getBase64()
{
    for (;;) {
        if (m_cur >= m_hiddenEnd && !fill())
            return -1;
        int c = static_cast<unsigned char>(*m_cur++);
        int v = base64Value(c);
        if (v < 0)
            continue; // blanks, line ends and padding carry no bits
        m_b64Bits = (m_b64Bits << 6) | static_cast<unsigned>(v);
        m_b64BitCount += 6;
        if (m_b64BitCount >= 8) {
            m_b64BitCount -= 8;
            if (m_ownCount < INT_MAX) // the count stops there rather than overflow
                ++m_ownCount;
            int byte = static_cast<int>((m_b64Bits >> m_b64BitCount) & 0xFF);
            m_b64Bits &= (1u << m_b64BitCount) - 1;
            m_end = m_cur; // keep the inline path closed
            return byte;
        }
    }
}

int kvstream::seekg(long long offset)
{
    if (!m_source || offset < 0)
        return -1;
    if (!m_source->seek(offset))
        return -1;
    m_cur = m_end = nullptr;
    // Decoding starts afresh at the new place: bits left of the old one belong to no byte there.
    m_b64Bits = 0;
    m_b64BitCount = 0;
    if (m_flag)
        m_hiddenEnd = nullptr;
    return 0;
}

long long kvstream::tellg() const
{
    if (!m_source)
        return 0;
    const char* end = m_flag ? m_hiddenEnd : m_end;
    long long unread = (m_cur && end) ? static_cast<long long>(end - m_cur) : 0;
    return m_source->position() - unread;
}

void kvstream::close()
{
    delete m_source;
    m_source = nullptr;
    m_cur = m_end = m_hiddenEnd = nullptr;
}

size_t kvstream::write(const char* data, size_t length)
{
    if (!m_source || !data || length == 0)
        return 0;
    // A write may move a memory source's text: drop the buffer and come back to the same offset.
    long long position = tellg();
    size_t n = m_source->write(data, length);
    m_source->seek(position);
    m_cur = m_end = nullptr;
    if (m_flag)
        m_hiddenEnd = nullptr;
    return n;
}

size_t kvstream::write(const char* text)
{
    return text ? write(text, std::strlen(text)) : 0;
}

void kvstream::transferBuffer(kvstream* from, kvstream* to)
{
    if (!from || !to || from == to)
        return;
    to->close();
    to->m_source = from->m_source;
    to->m_cur = from->m_cur;
    to->m_end = from->m_end;
    to->m_hiddenEnd = from->m_hiddenEnd;
    to->m_flag = from->m_flag;
    to->m_ownCount = from->m_ownCount;
    to->m_b64Bits = from->m_b64Bits;
    to->m_b64BitCount = from->m_b64BitCount;
    from->m_source = nullptr;
    from->m_cur = from->m_end = from->m_hiddenEnd = nullptr;
    from->m_flag = false;
    from->m_ownCount = 0;
}

bool kvstream::isOpen() const { return m_source != nullptr; }

void kvstream::attach(kvstreamSource* source)
{
    close();
    m_source = source;
}

kvfstream::kvfstream(const char* fileName, int mode, bool)
{
    std::string m;
    if (mode & kvfstreamWrite)
        m = (mode & kvfstreamAppend) ? "a" : "w";
    else
        m = "r";
    if (mode & kvfstreamBinary)
        m += "b";
    FILE* f = fileName ? platform::openFile(fileName, m.c_str()) : nullptr;
    attach(new FileSource(f));
    if (!f)
        close(); // an unopened file reads as empty input
}

kvfstream::~kvfstream() = default;

kvstrstream::kvstrstream(const char* text) : kvstrstream(text, text ? std::strlen(text) : 0) {}

kvstrstream::kvstrstream(const char* data, size_t length, size_t chunkSize)
{
    attach(new MemorySource(data, length, chunkSize));
}

kvstrstream::~kvstrstream() = default;

YString kvstrstream::str() const
{
    auto* memory = dynamic_cast<MemorySource*>(source());
    return memory ? YString(memory->text().data(), static_cast<int>(memory->text().size())) : YString();
}
