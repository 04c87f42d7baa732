// LiteralNetlistStream.cpp - NewSpiceStream: logical lines with the literal text kept.
#include "LiteralNetlistStream.h"
#include "NetlistFilter_p.h"
#include "TextFile_p.h"

#include <climits>
#include <cstddef>
#include <cstring>
#include <new>

// The stop bytes of a comment line's runs (bytes above 127 are ordinary: no UTF-8 detector here).
static constexpr netlist::RunStops kCommentStops{{'\n', '\n', '\n'}, false};

NewSpiceStream::NewSpiceStream(const char* fileName) : m_sourceFile(fileName)
{
    m_memoryRanOut = !textfile::openNetlist(m_sourceFile, &m_tempFile, this);
    init();
}

NewSpiceStream::NewSpiceStream(kvstream& source)
{
    kvstream::transferBuffer(&source, this);
    init();
}

NewSpiceStream::~NewSpiceStream() { textfile::closeNetlist(m_tempFile, this); }

void NewSpiceStream::init()
{
    m_state = Start;
    clearCounts();
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
            netlist::countUp(m_charCount);
        }
        if (c == 13) {
            int next = kvstream::get();
            netlist::countUp(m_charCount);
            if (next != 10)
                m_pendingChar = next;
            c = 10;
        }
        if (c == -1 || m_charCount > m_charLimit) {
            m_atEnd = true;
            c = 10; // the final line feed
        }
        if (c == 10) {
            netlist::countUp(m_lineCount);
            m_litQueue.add('\n');
            return 10;
        }
        if (c > 255 || !netlist::keeps(c))
            continue;
        m_litQueue.add(static_cast<char>(c));
        return c;
    }
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
    netlist::countUp(m_litCharCount, n);
    m_litQueue.discard(n);
    m_litQueueWithoutLineEnd = count - n;
}

// How many bytes at the read position may be taken straight from the buffer, as the character source
// would deliver them: none with a pending character or at the end, none past the character limit (the
// byte that crosses it ends the input), one window at most. (An open base64 section hides the buffer.)
// A limit of INT_MAX is none: the count stops there, so no byte crosses it.
size_t NewSpiceStream::directWindow() const
{
    const long long room = m_pendingChar != -1 || m_atEnd ? 0
                           : m_charLimit == INT_MAX       ? LLONG_MAX
                                                          : static_cast<long long>(m_charLimit) - m_charCount;
    const size_t available = static_cast<size_t>(bufferEnd() - bufferBegin());
    const size_t window = available < netlist::kRunWindow ? available : netlist::kRunWindow;
    return static_cast<long long>(window) <= room ? window : room > 0 ? static_cast<size_t>(room) : 0;
}

// The rest of a comment line, its line end (or the end) included, into the look-ahead queue, and as the
// character source delivers it into the literal queue too; its ordinary bytes come in runs.
void NewSpiceStream::readRestOfLineIntoLookahead()
{
    for (;;) {
        if (const size_t window = directWindow()) {
            const int reserve = static_cast<int>(window) + netlist::kRunSlack;
            const size_t n = netlist::activeKernels().copy2(bufferBegin(), bufferBegin() + window, kCommentStops,
                                                            m_litQueue.reserveTail(reserve), m_lookahead.reserveTail(reserve));
            m_litQueue.expand(static_cast<int>(n));
            m_lookahead.expand(static_cast<int>(n));
            netlist::countUp(m_charCount, static_cast<long long>(n));
            advance(n);
        }
        const int c = getChar();
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
// Its working state lives in locals, so that it stays in registers: the read position, the state, the
// counts, and write positions in room reserved at the end of the literal queue and of the line. A byte
// read writes at most one byte to each, so the room covers the bytes below `stop` (one window at most,
// and no further than the character limit) and a little more; characters from the look-ahead queue
// reserve more when they need it. `store` writes it all back before anything else looks at the reader;
// `load` takes it up again.
int NewSpiceStream::machine(Buf* line, int* lineNumber)
{
    constexpr int kRoom = netlist::kRunSlack + 8; // the kernel's whole-block stores, and a few bytes more
    const char* p;
    const char* stop; // the common bytes are read below it; p itself while getChar must read
    int state;
    long long chars, lines; // wider than the counts, which stop at INT_MAX (see capCounts)
    char* litStart;
    char* lit;
    char* litEnd; // the end of the room reserved for the literal queue
    char* textStart = nullptr;
    char* text = nullptr; // null until the line's first character
    char* textEnd = nullptr; // the end of the room reserved for the line
    const auto load = [&]() NETLIST_INLINE {
        p = bufferBegin();
        state = m_state;
        chars = m_charCount;
        lines = m_lineCount;
        const size_t window = directWindow();
        stop = p + window;
        litStart = lit = m_litQueue.reserveTail(static_cast<int>(window) + kRoom);
        litEnd = lit + window + kRoom;
        if (text) {
            textStart = text = line->reserveTail(static_cast<int>(window) + kRoom);
            textEnd = text + window + kRoom;
        }
    };
    const auto store = [&]() NETLIST_INLINE {
        m_litQueue.expand(static_cast<int>(lit - litStart));
        if (text)
            line->expand(static_cast<int>(text - textStart));
        advance(static_cast<size_t>(p - bufferBegin()));
        m_state = state;
        m_charCount = static_cast<int>(chars);
        m_lineCount = static_cast<int>(lines);
        if (chars >= INT_MAX)
            capCounts(chars, lines, text ? lineNumber : nullptr);
    };
    // The character source: the look-ahead queue first, then the common bytes (those the filter keeps,
    // and line ends) straight from the buffer with the effects getChar would have, every other through
    // getChar.
    const auto next = [&]() NETLIST_INLINE -> int {
        if (!m_lookahead.isEmpty()) {
            const int c = m_lookahead.pop();
            return c == 255 ? -1 : c; // the queued end
        }
        int c = netlist::directChar(
            p, stop, chars, lines, [](unsigned char b) { return (b >= 32 && b != 255) || b == 9; },
            [&](int taken) { *lit++ = static_cast<char>(taken); });
        if (c != -2)
            return c;
        store();
        c = getChar();
        load();
        return c == 255 ? -1 : c;
    };
    // Moves the queued lines to the literal buffer. Right after a line end read from the source, that is
    // the whole queue: an empty literal buffer takes the queue's storage, lines and all, as a caller that
    // empties it after each line makes it; else a line of up to 64 bytes moves as one block (the queue's
    // reserved room follows it).
    const auto moveLines = [&]() NETLIST_INLINE {
        if (lit > litStart && lit[-1] == '\n') {
            const char* const queued = m_litQueue.unread();
            const int n = static_cast<int>(lit - queued);
            m_litQueue.expand(static_cast<int>(lit - litStart));
            if (!m_litBuffer.takeQueued(m_litQueue)) {
                netlist::copyRun(m_litBuffer.reserveTail(n + netlist::kRunSlack), queued, static_cast<size_t>(n), litEnd);
                m_litBuffer.expand(n);
                m_litQueue.flush();
            }
            m_litCharCount = static_cast<int>(m_litCharCount + static_cast<long long>(n));
            m_litQueueWithoutLineEnd = 0;
            litStart = lit = m_litQueue.reserveTail(static_cast<int>(stop - p) + kRoom);
            litEnd = lit + (stop - p) + kRoom;
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
                *lineNumber = static_cast<int>(lines + 1);
            textStart = text = line->reserveTail(static_cast<int>(stop - p) + kRoom);
            textEnd = text + (stop - p) + kRoom;
        }
        if (c == 10)
            return true;
        // A character from the look-ahead queue is written without a byte read: new room is reserved
        // before the room for the window's bytes and the kernel's stores runs short.
        if (textEnd - text <= (stop - p) + netlist::kRunSlack) {
            store();
            load();
        }
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
    const auto takeRun = [&](bool inLine) NETLIST_INLINE {
        const size_t n = inLine ? kernels.copy2(p, stop, lineStops, lit, text) : kernels.copy1(p, stop, kCommentStops, lit, nullptr);
        p += n;
        chars += static_cast<long long>(n);
        lit += n;
        if (inLine)
            text += n;
    };
    // In the replay states, gathered text from the look-ahead queue up to its next line end, comment
    // character (Replay) or end mark, to the line or skipped; the state moves on as after its last byte.
    const auto replayRun = [&](bool toLine) NETLIST_INLINE {
        const char* const queued = m_lookahead.unread();
        const size_t n = kernels.skip(queued, queued + m_lookahead.count(), toLine ? lineStops : kCommentStops, nullptr, nullptr);
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
    case ReplayComment:
        goto replay;
    case LineComment:
    case InlineComment:
        goto comment;
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
    if (c == m_commentChar) {
        state = LineComment;
        goto comment;
    }
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
    // A line's first character, queued alone when the line before ended, is delivered here as the
    // character source would hand it over when it is an ordinary one.
    if (!text && line && m_lookahead.count() == 1) {
        const int first = m_lookahead.peek();
        if (first != '\n' && first != m_commentChar && first != 0xFF) {
            m_lookahead.pop();
            if (deliver(first))
                return leave(first);
        }
    }
    // The line's ordinary bytes in one step, once the line is under way.
    if (text && p < stop && m_lookahead.isEmpty())
        takeRun(true);
    c = next();
    if (c == 10) {
        moveLines();
        goto afterNewline;
    }
    if (c == m_commentChar) {
        state = InlineComment;
        goto comment;
    }
    if (c == -1)
        return leave(-1);
    if (deliver(c))
        return leave(c);
    goto inLine;

replay:
    // Replay and ReplayComment share their steps; `state` tells them apart. When the queue runs out,
    // the state is the one its last byte left.
    if (!m_lookahead.isEmpty() && (state == ReplayComment || text))
        replayRun(state == Replay);
    if (state == InLine)
        goto inLine;
    if (state == InlineComment)
        goto comment;
    c = next();
    if (c == 10)
        moveLines();
    if (c == 10 || c == -1)
        state = Replay; // a line end ends a comment, and the end is never skipped
    else if (state == Replay && c == m_commentChar)
        state = ReplayComment;
    if (state == Replay) {
        if (m_lookahead.isEmpty())
            state = InLine;
        if (c == -1)
            return leave(-1);
        if (deliver(c))
            return leave(c);
    } else if (m_lookahead.isEmpty()) {
        state = InlineComment;
    }
    goto replay;

comment:
    // LineComment and InlineComment share their steps; `state` tells them apart. Only an inline
    // comment's line end moves the queued lines on: a comment line's text moves with the next line's.
    if (p < stop && m_lookahead.isEmpty())
        takeRun(false);
    c = next();
    if (c == 10) {
        if (state == InlineComment)
            moveLines();
        goto afterNewline;
    }
    if (c == -1) {
        state = InLine;
        return leave(-1);
    }
    goto comment;
}

// A netlist of more than 2 GiB: the counts the state machine took past INT_MAX wrapped below zero, and
// stop at INT_MAX instead; so does the number of the line it started (`lineNumber`, when it did). The
// line and literal counts start with the character count and grow no faster (each line end and literal
// byte took a character), so they pass INT_MAX only after it.
void NewSpiceStream::capCounts(long long chars, long long lines, int* lineNumber)
{
    m_charCount = netlist::capped(chars);
    m_lineCount = netlist::capped(lines);
    if (m_litCharCount < 0)
        m_litCharCount = INT_MAX;
    if (lineNumber && *lineNumber < 0)
        *lineNumber = INT_MAX;
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

// Memory ran out in the middle of a line: the input ends there. The source is closed, so that nothing
// after the lost part is read as if it followed on; what was gathered of the line is dropped, and the
// literal buffer goes back to the `litKept` bytes it held before it.
void NewSpiceStream::endInputOnExhaustion(int litKept)
{
    close();
    m_memoryRanOut = true;
    m_atEnd = true;
    m_pendingChar = -1;
    m_state = InLine;
    m_lookahead.flush();
    m_litQueue.flush();
    m_litQueueWithoutLineEnd = 0;
    m_lineBuffer.flush();
    m_litBuffer.truncate(litKept);
}

int NewSpiceStream::get()
{
    const int litKept = m_litBuffer.length();
    try {
        int c = machine(nullptr, nullptr);
        return c == -1 ? -1 : static_cast<int>(static_cast<signed char>(c));
    } catch (const std::bad_alloc&) {
        endInputOnExhaustion(litKept);
        return -1;
    }
}

NewSpiceStream::LineResult NewSpiceStream::readLine(int* lineNumber)
{
    const int litKept = m_litBuffer.length();
    try {
        const int c = machine(&m_lineBuffer, lineNumber);
        return c == -1 && m_lineBuffer.isEmpty() ? InputEnded : LineEnded;
    } catch (const std::bad_alloc&) {
        endInputOnExhaustion(litKept);
        return InputEnded;
    }
}

bool NewSpiceStream::gets(YString* line, int* lineNumber)
{
    const int litKept = m_litBuffer.length();
    const LineResult result = readLine(lineNumber);
    try {
        if (line)
            line->assign(m_lineBuffer.data(), m_lineBuffer.length());
    } catch (const std::bad_alloc&) {
        endInputOnExhaustion(litKept);
        line->clear();
        return false;
    }
    return result != InputEnded;
}
