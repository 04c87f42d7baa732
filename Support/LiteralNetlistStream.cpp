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

// Replay and ReplayComment over gathered text: the look-ahead queue's bytes up to its next line end,
// comment character (in Replay) or end mark are delivered to `text` (or skipped) in one step; the state
// changes as it would after the last of them.
void NewSpiceStream::replayRun(Buf* text)
{
    const char* const queued = m_lookahead.unread();
    const netlist::RunStops stops{{text ? m_commentChar : '\n', '\n', '\n'}, false};
    const size_t n = netlist::activeKernels().skip(queued, queued + m_lookahead.count(), stops, nullptr, nullptr);
    if (n == 0)
        return;
    if (text)
        text->append(queued, static_cast<int>(n));
    m_lookahead.discard(static_cast<int>(n));
    if (m_lookahead.isEmpty())
        m_state = text ? InLine : InlineComment;
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

int NewSpiceStream::machine(Buf* sink)
{
    for (;;) {
        // The states that loop over ordinary bytes take a whole run of them at once: from the source
        // when nothing is queued, from the look-ahead queue in the replay states. A line's bytes go to
        // `sink` once the caller has taken the line's first character.
        if (m_lookahead.isEmpty()) {
            if (m_state == InLine && sink)
                takeRun(true, sink, nullptr);
            else if (m_state == InlineComment || m_state == LineComment)
                takeRun(false, nullptr, nullptr);
        } else if ((m_state == Replay && sink) || m_state == ReplayComment) {
            replayRun(m_state == Replay ? sink : nullptr);
        }
        int c = next();
        switch (m_state) {
        case Start:
            if (c == ' ' || c == '\t' || c == 10 || c == m_commentChar)
                continue;
            m_state = InLine;
            return c;
        case AfterNewline:
            if (c == ' ' || c == '\t' || c == 10)
                continue;
            if (c == '+') {
                m_lookahead.add(' ');
                m_state = InLine;
                continue;
            }
            if (c == '*') {
                m_lookahead.add('*');
                m_state = StarComment;
                continue;
            }
            if (c == m_commentChar) {
                m_state = LineComment;
                continue;
            }
            m_lookahead.add(asQueued(c));
            m_state = InLine;
            return 10;
        case StarComment: {
            // Gather the block of comment lines that starts with this "*".
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
                continue;
            }
            m_lookahead.add(asQueued(d));
            m_state = Replay;
            return 10;
        }
        case InLine:
            if (c == 10) {
                fillOutputLitBuffer();
                m_state = AfterNewline;
                continue;
            }
            if (c == m_commentChar) {
                m_state = InlineComment;
                continue;
            }
            return c;
        case Replay:
        case ReplayComment: {
            int result = -2; // nothing delivered
            if (c == 10) {
                fillOutputLitBuffer();
                m_state = Replay;
                result = 10;
            } else if (m_state == Replay && c == m_commentChar) {
                m_state = ReplayComment;
            } else if (m_state == Replay) {
                result = c;
            } else if (c == -1) {
                m_state = Replay; // the end is never skipped
                result = -1;
            }
            if (m_lookahead.isEmpty())
                m_state = (m_state == Replay) ? InLine : InlineComment;
            if (result != -2)
                return result;
            continue;
        }
        case LineComment:
            if (c == 10)
                m_state = AfterNewline;
            else if (c == -1) {
                m_state = InLine;
                return -1;
            }
            continue;
        case InlineComment:
            if (c == 10) {
                fillOutputLitBuffer();
                m_state = AfterNewline;
            } else if (c == -1) {
                m_state = InLine;
                return -1;
            }
            continue;
        }
    }
}

int NewSpiceStream::get()
{
    int c = machine(nullptr);
    return c == -1 ? -1 : static_cast<int>(static_cast<signed char>(c));
}

NewSpiceStream::LineResult NewSpiceStream::readLine(int* lineNumber)
{
    m_lineBuffer.flush();
    bool first = true;
    for (;;) {
        // After the first character has set the line's number, the rest may come in runs.
        const int c = machine(first ? nullptr : &m_lineBuffer);
        if (c == -1)
            return m_lineBuffer.isEmpty() ? InputEnded : LineEnded;
        if (first) {
            if (lineNumber)
                *lineNumber = m_lineCount + 1;
            first = false;
        }
        if (c == 10)
            return LineEnded;
        m_lineBuffer.add(static_cast<char>(c));
    }
}

bool NewSpiceStream::gets(YString* line, int* lineNumber)
{
    const LineResult result = readLine(lineNumber);
    if (line)
        line->assign(m_lineBuffer.data(), m_lineBuffer.length());
    return result != InputEnded;
}
