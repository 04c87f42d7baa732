// LiteralNetlistStream.cpp - NewSpiceStream: logical lines with the literal text kept.
#include "LiteralNetlistStream.h"
#include "FileServices.h"
#include "NetlistFilter_p.h"
#include "TextFile.h"
#include "TextFile_p.h"

#include <climits>
#include <cstddef>
#include <cstring>

NewSpiceStream::NewSpiceStream(const char* fileName)
{
    const YString name(fileName);
    QByteArray decoded;
    if (!name.isEmpty())
        textfile::convertWide(name, &m_tempFile, &decoded);
    if (!decoded.isEmpty()) {
        // The UTF-8 copy of a UTF-16 file could not be written whole: the text is read from memory.
        kvstrstream text(decoded.constData(), static_cast<size_t>(decoded.size()));
        kvstream::transferBuffer(&text, this);
    } else {
        kvfstream file(m_tempFile.isEmpty() ? name.c_str() : m_tempFile.c_str(), kvfstreamRead | kvfstreamBinary, false);
        kvstream::transferBuffer(&file, this);
    }
    m_sourceFile = name;
    init();
}

NewSpiceStream::NewSpiceStream(kvstream& source)
{
    kvstream::transferBuffer(&source, this);
    init();
}

NewSpiceStream::~NewSpiceStream()
{
    if (!m_tempFile.isEmpty()) {
        close();
        // A destructor cannot report it: a temporary copy left behind is only litter.
        (void)unlink_utf8(m_tempFile.c_str());
    }
}

void NewSpiceStream::init()
{
    m_state = Start;
    m_lineCount = 0;
    m_charCount = 0;
    m_litCharCount = 0;
    m_atEnd = false;
    m_commentChar = ';';
    m_charLimit = INT_MAX;
}

void NewSpiceStream::clearCounts()
{
    m_lineCount = 0;
    m_charCount = 0;
    m_litCharCount = 0;
}

// The character source: CR handling, the character limit, the literal queue and the filter.
int NewSpiceStream::getChar()
{
    if (m_atEnd)
        return -1;
    for (;;) {
        int c;
        if (m_pendingChar != -1) {
            c = m_pendingChar;
            m_pendingChar = -1;
        } else {
            c = kvstream::get();
            ++m_charCount;
        }
        if (c == 13) {
            int next = kvstream::get();
            ++m_charCount;
            if (next != 10)
                m_pendingChar = next;
            c = 10;
        }
        if (c == -1 || m_charCount > m_charLimit) {
            m_atEnd = true;
            c = 10; // the final line feed
        }
        if (c == 10) {
            ++m_lineCount;
            m_litQueue.add('\n');
            return 10;
        }
        if (c > 255 || !netlist::keeps(c))
            continue;
        m_litQueue.add(static_cast<char>(c));
        return c;
    }
}

int NewSpiceStream::next()
{
    int c = m_lookahead.isEmpty() ? getChar() : m_lookahead.pop();
    return c == 255 ? -1 : c; // 0xFF never comes from the filtered source: it is the queued end
}

void NewSpiceStream::fillOutputLitBuffer()
{
    const char* unread = m_litQueue.unread();
    const int count = m_litQueue.count();
    // The last line end is searched for only among the bytes that came after those an earlier call
    // searched already, so that one very long line costs linear time, not quadratic.
    const int searched = m_litQueueWithoutLineEnd < count ? m_litQueueWithoutLineEnd : count;
    int n = count;
    while (n > searched && unread[n - 1] != '\n')
        --n;
    if (n == searched) {
        m_litQueueWithoutLineEnd = count;
        return;
    }
    m_litBuffer.append(unread, n);
    m_litCharCount += n;
    m_litQueue.discard(n);
    m_litQueueWithoutLineEnd = count - n;
}

// How many bytes may be taken straight from the stream's buffer: none with a pending character, at
// the end, in a base64 section, or at the character limit (the byte that crosses it ends the input).
size_t NewSpiceStream::directWindow() const
{
    if (m_pendingChar != -1 || m_atEnd || getFlag())
        return 0;
    const long long room = static_cast<long long>(m_charLimit) - m_charCount;
    if (room <= 0)
        return 0;
    size_t window = static_cast<size_t>(bufferEnd() - bufferBegin());
    if (window > netlist::kRunWindow)
        window = netlist::kRunWindow;
    return static_cast<long long>(window) > room ? static_cast<size_t>(room) : window;
}

// Takes the run of ordinary bytes at the read position in one step, as the character source would
// deliver them one at a time: counted and queued for the literal text, and copied to `text` or to
// `alsoQueued` when given. Inside a line (`inLine`) the comment character ends a run too; elsewhere only
// line ends, the bytes the filter drops and 0xFF do.
void NewSpiceStream::takeRun(bool inLine, Buf* text, CharQueue* alsoQueued)
{
    const netlist::RunStops stops{{inLine ? m_commentChar : '\n', '\n', '\n'}, false};
    const netlist::ScanKernels& kernels = netlist::activeKernels();
    const netlist::RunKernel kernel = text || alsoQueued ? kernels.copy2 : kernels.copy1;
    for (;;) {
        const size_t window = directWindow();
        if (window == 0)
            return;
        const char* const p = bufferBegin();
        const int room = static_cast<int>(window) + netlist::kRunSlack;
        char* const lit = m_litQueue.reserveTail(room);
        char* const other = text ? text->reserveTail(room) : alsoQueued ? alsoQueued->reserveTail(room) : nullptr;
        const size_t n = kernel(p, p + window, stops, lit, other);
        m_litQueue.expand(static_cast<int>(n));
        if (text)
            text->expand(static_cast<int>(n));
        else if (alsoQueued)
            alsoQueued->expand(static_cast<int>(n));
        m_charCount += static_cast<int>(n);
        advance(n);
        if (n < window)
            return;
    }
}

void NewSpiceStream::readRestOfLineIntoLookahead()
{
    for (;;) {
        takeRun(false, nullptr, &m_lookahead);
        int c = getChar();
        m_lookahead.add(asQueued(c));
        if (c == 10 || c == -1)
            return;
    }
}

// The state machine. With `line`, a line is read: the first character sets `*lineNumber` (when given),
// a line end ends the call and every other character is appended; without, each delivered character
// ends the call (`get`). The end of input always ends it (-1). Each state is a block that goes straight
// to the block of the state it moves to, as the state table reads.
//
// Its working state lives in locals while it runs, so that it stays in registers: the read position in
// the stream's buffer, the state, the counts, and write positions in room reserved at the end of the
// literal queue and of the line. Each byte read writes at most one byte to each, so room for the bytes
// up to `stop` (at most one window of the buffer, and no further than the character limit allows) and a
// little more is reserved, and the common bytes are read only below `stop`. `store` writes everything
// back before anything else reads the stream, the counts or the queues; `load` takes it up again.
int NewSpiceStream::machine(Buf* line, int* lineNumber)
{
    constexpr int kRoom = netlist::kRunSlack + 8; // room beyond the window
    const char* p;
    const char* stop;
    int state, chars, lines;
    bool sourceDirect; // nothing pending from a lone carriage return, not at the end
    char* litStart;
    char* lit;
    char* textStart = nullptr;
    char* text = nullptr; // null until the line's first character
    const auto load = [&]() NETLIST_INLINE {
        p = bufferBegin();
        state = m_state;
        chars = m_charCount;
        lines = m_lineCount;
        sourceDirect = m_pendingChar == -1 && !m_atEnd;
        size_t window = static_cast<size_t>(bufferEnd() - p);
        if (window > netlist::kRunWindow)
            window = netlist::kRunWindow;
        const long long limit = static_cast<long long>(m_charLimit) - chars;
        if (static_cast<long long>(window) > limit)
            window = limit > 0 ? static_cast<size_t>(limit) : 0;
        stop = p + window;
        litStart = lit = m_litQueue.reserveTail(static_cast<int>(window) + kRoom);
        if (text)
            textStart = text = line->reserveTail(static_cast<int>(window) + kRoom);
    };
    const auto store = [&]() NETLIST_INLINE {
        m_litQueue.expand(static_cast<int>(lit - litStart));
        if (text)
            line->expand(static_cast<int>(text - textStart));
        advance(static_cast<size_t>(p - bufferBegin()));
        m_state = state;
        m_charCount = chars;
        m_lineCount = lines;
    };
    // The character source: the look-ahead queue first, then the common bytes (those the filter keeps,
    // and line ends) straight from the buffer with the effects getChar would have, every other through
    // getChar.
    const auto next = [&]() NETLIST_INLINE -> int {
        if (!m_lookahead.isEmpty()) {
            const int c = m_lookahead.pop();
            return c == 255 ? -1 : c; // the queued end
        }
        if (p < stop && sourceDirect) {
            const unsigned char c = static_cast<unsigned char>(*p);
            if ((c >= 32 && c != 255) || c == 9) {
                ++p;
                ++chars;
                *lit++ = static_cast<char>(c);
                return c;
            }
            if (c == '\n' || (c == '\r' && stop - p >= 2 && p[1] == '\n')) {
                const int length = c == '\n' ? 1 : 2;
                p += length;
                chars += length;
                ++lines;
                *lit++ = '\n';
                return 10;
            }
        }
        store();
        const int c = getChar();
        load();
        return c == 255 ? -1 : c;
    };
    // Moves the queued lines to the literal buffer. Right after a line end read from the source, that is
    // the whole queue.
    const auto moveLines = [&]() NETLIST_INLINE {
        if (lit > litStart && lit[-1] == '\n') {
            const char* const queued = m_litQueue.unread();
            const int n = static_cast<int>(lit - queued);
            m_litBuffer.append(queued, n);
            m_litCharCount += n;
            m_litQueue.flush();
            m_litQueueWithoutLineEnd = 0;
            litStart = lit = m_litQueue.reserveTail(static_cast<int>(stop - p) + kRoom);
            return;
        }
        store();
        fillOutputLitBuffer();
        load();
    };
    // Hands a character to the line (true when the call ends there).
    const auto deliver = [&](int c) NETLIST_INLINE -> bool {
        if (!line)
            return true;
        if (!text) {
            if (lineNumber)
                *lineNumber = lines + 1;
            textStart = text = line->reserveTail(static_cast<int>(stop - p) + kRoom);
        }
        if (c == 10)
            return true;
        *text++ = static_cast<char>(c);
        return false;
    };
    const auto leave = [&](int result) NETLIST_INLINE {
        store();
        return result;
    };
    // A run of ordinary bytes from the source, counted and queued for the literal text, and copied to
    // the line in a line (where the comment character ends a run too).
    const netlist::ScanKernels& kernels = netlist::activeKernels();
    const netlist::RunStops lineStops{{m_commentChar, m_commentChar, m_commentChar}, false};
    const netlist::RunStops commentStops{{'\n', '\n', '\n'}, false};
    const auto takeRun = [&](bool inLine) NETLIST_INLINE {
        const size_t n = inLine ? kernels.copy2(p, stop, lineStops, lit, text) : kernels.copy1(p, stop, commentStops, lit, nullptr);
        p += n;
        chars += static_cast<int>(n);
        lit += n;
        if (inLine)
            text += n;
    };
    // In the replay states, gathered text from the look-ahead queue up to its next line end, comment
    // character (Replay) or end mark, to the line or skipped; the state moves on as after its last byte.
    const auto replayRun = [&](bool toLine) NETLIST_INLINE {
        const char* const queued = m_lookahead.unread();
        const size_t n = kernels.skip(queued, queued + m_lookahead.count(), toLine ? lineStops : commentStops, nullptr, nullptr);
        if (n == 0)
            return;
        if (toLine) {
            store();
            line->append(queued, static_cast<int>(n));
            load();
        }
        m_lookahead.discard(static_cast<int>(n));
        if (m_lookahead.isEmpty())
            state = toLine ? InLine : InlineComment;
    };

    load();
    if (line)
        line->flush();
    int c;
    switch (state) {
    case Start:
        goto start;
    case AfterNewline:
        goto afterNewline;
    case StarComment:
        goto starComment;
    case Replay:
        goto replay;
    case LineComment:
        goto lineComment;
    case InlineComment:
        goto inlineComment;
    case ReplayComment:
        goto replayComment;
    default:
        goto inLine;
    }

start:
    state = Start;
    c = next();
    if (c == ' ' || c == '\t' || c == 10 || c == m_commentChar)
        goto start;
    state = InLine;
    if (c == -1)
        return leave(-1);
    if (deliver(c))
        return leave(c);
    goto inLine;

afterNewline:
    state = AfterNewline;
    c = next();
    if (c == ' ' || c == '\t' || c == 10)
        goto afterNewline;
    if (c == '+') {
        m_lookahead.add(' ');
        goto inLine;
    }
    if (c == '*') {
        m_lookahead.add('*');
        goto starComment;
    }
    if (c == m_commentChar)
        goto lineComment;
    m_lookahead.add(asQueued(c));
    state = InLine;
    if (deliver(10))
        return leave(10);
    goto inLine;

starComment:
    // Gather the block of comment lines that starts with this "*", reading on from the stream.
    state = StarComment;
    c = next();
    store();
    gatherCommentBlock(c);
    load();
    if (state == InLine)
        goto inLine;
    if (deliver(10))
        return leave(10);
    goto replay;

inLine:
    state = InLine;
    // The line's ordinary bytes in one step, once the line is under way.
    if (text && p < stop && sourceDirect && m_lookahead.isEmpty())
        takeRun(true);
    c = next();
    if (c == 10) {
        moveLines();
        goto afterNewline;
    }
    if (c == m_commentChar)
        goto inlineComment;
    if (c == -1)
        return leave(-1);
    if (deliver(c))
        return leave(c);
    goto inLine;

replay:
replayComment:
    // Replay and ReplayComment share their steps; `state` tells them apart.
    if (!m_lookahead.isEmpty() && (state == ReplayComment || text))
        replayRun(state == Replay);
    if (state == InLine)
        goto inLine;
    if (state == InlineComment)
        goto inlineComment;
    {
        c = next();
        int result = -2; // nothing delivered
        if (c == 10) {
            moveLines();
            state = Replay;
            result = 10;
        } else if (state == Replay && c == m_commentChar) {
            state = ReplayComment;
        } else if (state == Replay) {
            result = c;
        } else if (c == -1) {
            state = Replay; // the end is never skipped
            result = -1;
        }
        if (m_lookahead.isEmpty())
            state = state == Replay ? InLine : InlineComment;
        if (result == -1)
            return leave(-1);
        if (result != -2 && deliver(result))
            return leave(result);
        if (state == InLine)
            goto inLine;
        if (state == InlineComment)
            goto inlineComment;
        goto replay;
    }

lineComment:
    state = LineComment;
    if (p < stop && sourceDirect && m_lookahead.isEmpty())
        takeRun(false);
    c = next();
    if (c == 10)
        goto afterNewline;
    if (c == -1) {
        state = InLine;
        return leave(-1);
    }
    goto lineComment;

inlineComment:
    state = InlineComment;
    if (p < stop && sourceDirect && m_lookahead.isEmpty())
        takeRun(false);
    c = next();
    if (c == 10) {
        moveLines();
        goto afterNewline;
    }
    if (c == -1) {
        state = InLine;
        return leave(-1);
    }
    goto inlineComment;
}

// The block of comment lines that starts with the "*" `c` (taken back from the look-ahead queue), as
// the comment-block steps read it: gathered with the rest of each line into the look-ahead queue; then
// either a continuation follows (the comments vanish, InLine) or the gathered lines are to be replayed
// (Replay, the line ends).
void NewSpiceStream::gatherCommentBlock(int c)
{
    m_lookahead.add(asQueued(c));
    readRestOfLineIntoLookahead();
    int d;
    for (;;) {
        do
            d = getChar();
        while (d == ' ' || d == '\t' || d == 10);
        if (d != '*' && d != m_commentChar)
            break;
        m_lookahead.add(static_cast<char>(d));
        readRestOfLineIntoLookahead();
    }
    if (d == '+') {
        // The comments stood between a line and its continuation: they vanish.
        fillOutputLitBuffer();
        m_lookahead.flush();
        m_lookahead.add(' ');
        m_state = InLine;
        return;
    }
    m_lookahead.add(asQueued(d));
    m_state = Replay;
}

int NewSpiceStream::get()
{
    int c = machine(nullptr, nullptr);
    return c == -1 ? -1 : static_cast<int>(static_cast<signed char>(c));
}

NewSpiceStream::LineResult NewSpiceStream::readLine(int* lineNumber)
{
    const int c = machine(&m_lineBuffer, lineNumber);
    return c == -1 && m_lineBuffer.isEmpty() ? InputEnded : LineEnded;
}

bool NewSpiceStream::gets(YString* line, int* lineNumber)
{
    const LineResult result = readLine(lineNumber);
    if (line)
        line->assign(m_lineBuffer.data(), m_lineBuffer.length());
    return result != InputEnded;
}
