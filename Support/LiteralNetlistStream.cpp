// LiteralNetlistStream.cpp - NewSpiceStream: logical lines with the literal text kept.
#include "LiteralNetlistStream.h"
#include "TextFile_p.h"
#include "FileServices.h"
#include "NetlistFilter_p.h"
#include "TextFile.h"

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

// The end of the buffered bytes that may be read straight from the buffer, or null when none may: not
// with a pending character, at the end, in a base64 section, nor past the character limit (the byte
// that crosses it ends the input).
const char* NewSpiceStream::bulkEnd() const
{
    if (m_pendingChar != -1 || m_atEnd || getFlag())
        return nullptr;
    const long long room = static_cast<long long>(m_charLimit) - m_charCount;
    if (room <= 0)
        return nullptr;
    const char* end = bufferEnd();
    return end - bufferBegin() > room ? bufferBegin() + room : end;
}

// Replays gathered comment text from the look-ahead queue into the line up to its next line end,
// comment character or end mark, as the Replay state does one character at a time.
void NewSpiceStream::replayInBulk()
{
    const char* text = m_lookahead.unread();
    const int count = m_lookahead.count();
    int n = static_cast<int>(netlist::plainRun(text, text + count, m_commentChar, m_commentChar));
    while (n < count && text[n] != '\n' && text[n] != m_commentChar && text[n] != '\xFF')
        ++n;
    m_lineBuffer.append(text, n);
    m_lookahead.discard(n);
    if (m_lookahead.isEmpty())
        m_state = InLine;
}

// For a block of comment lines starting with the "*" at `p`: the end of the block's first byte after it
// (a continuation "+" or a byte that starts a plain line), when the block lies wholly before `end` and
// holds only printable ASCII, blanks and line ends, and its first line has text after the "*";
// otherwise null.
const char* NewSpiceStream::commentBlockEnd(const char* p, const char* end) const
{
    if (end - p < 2 || !netlist::isPrintable(static_cast<unsigned char>(p[1])))
        return nullptr;
    for (;;) {
        // A comment line, then blanks and line ends.
        p += 1 + netlist::plainRun(p + 1, end, '\n', '\n');
        const size_t eol = netlist::lineEndAt(p, end);
        if (eol == 0)
            return nullptr;
        p += eol;
        for (;;) {
            if (p >= end)
                return nullptr;
            if (*p == ' ' || *p == '\t')
                ++p;
            else if (const size_t next = netlist::lineEndAt(p, end))
                p += next;
            else
                break;
        }
        const unsigned char d = static_cast<unsigned char>(*p);
        if (d == '*' || d == static_cast<unsigned char>(m_commentChar))
            continue;
        return d == '+' || netlist::startsPlainLine(d, m_commentChar) ? p + 1 : nullptr;
    }
}

// Reads as much of the current logical line as the buffer allows in bulk, with exactly the effects of
// reading it character by character: runs of printable ASCII up to the comment character, inline
// comments, line ends, blanks and blank lines after them, blocks of "*" comment lines, and "+"
// continuations. Stops, with the state up to date, at anything else. True when the logical line is
// complete (what follows it is then read and waiting in the look-ahead queue).
bool NewSpiceStream::readLineInBulk()
{
    if (m_state == Replay)
        replayInBulk();
    if ((m_state != InLine && m_state != InlineComment) || !m_lookahead.isEmpty())
        return false;
    const char* const begin = bufferBegin();
    const char* const end = bulkEnd();
    if (!end)
        return false;
    const char* const stop = end - begin > netlist::kBulkWindow ? begin + netlist::kBulkWindow : end;
    // The literal text goes behind the literal buffer as it is read, after room for the queued text. A
    // line end inside a line commits everything before it, the queued text first; what follows the last
    // such line end (blank lines included) goes to the queue at the end. The queued text is copied out
    // only when something is committed, so that a very long line is not copied out of the queue and back
    // on every window. Each byte read gives at most one byte of line and one of literal text.
    const int queued = m_litQueue.count();
    const int room = static_cast<int>(stop - begin) + 16;
    char* const litStart = m_litBuffer.reserveTail(queued + room);
    char* const lineStart = m_lineBuffer.reserveTail(room);
    char* const readStart = litStart + queued;
    char* lit = readStart;
    char* line = lineStart;
    char* committed = litStart;
    const char commentChar = m_commentChar;
    const char* p = begin;
    State state = static_cast<State>(m_state);
    bool complete = false;
    int lines = 0;
    for (;;) {
        if (state == InLine) {
            const size_t n = netlist::scanPlainRun<2>(p, stop, commentChar, commentChar, line, lit);
            p += n;
            line += n;
            lit += n;
            if (p < stop && *p == commentChar) {
                // An inline comment: its text goes to the literal text only.
                *lit++ = commentChar;
                ++p;
                state = InlineComment;
            }
        }
        if (state == InlineComment) {
            const size_t n = netlist::scanPlainRun<1>(p, stop, '\n', '\n', lit, nullptr);
            p += n;
            lit += n;
        }
        if (p >= stop)
            break;
        if (state == AfterNewline) {
            const unsigned char c = static_cast<unsigned char>(*p);
            if (c == ' ' || c == '\t' || c == '+') {
                *lit++ = static_cast<char>(c);
                ++p;
                if (c == '+') {
                    *line++ = ' ';
                    state = InLine;
                }
                continue;
            }
            if (netlist::startsPlainLine(c, commentChar)) {
                *lit++ = static_cast<char>(c);
                ++p;
                state = InLine;
                complete = true;
                break;
            }
            if (c == '*') {
                const char* const after = commentBlockEnd(p, stop);
                if (!after)
                    break;
                // The block's text goes to the literal text; its comment lines to the look-ahead queue
                // unless a continuation follows them, which makes them vanish.
                const bool continued = after[-1] == '+';
                char* afterLastLineEnd = lit;
                const char* const last = after - 1;
                while (p < last) {
                    const unsigned char b = static_cast<unsigned char>(*p);
                    if (b == ' ' || b == '\t') {
                        *lit++ = static_cast<char>(b);
                        ++p;
                        continue;
                    }
                    if (b == '*' || b == static_cast<unsigned char>(commentChar)) {
                        const char* const text = p;
                        p += 1 + netlist::plainRun(p + 1, last, '\n', '\n');
                        std::memcpy(lit, text, static_cast<size_t>(p - text));
                        lit += p - text;
                        if (!continued) {
                            m_lookahead.append(text, static_cast<int>(p - text));
                            m_lookahead.add('\n');
                        }
                    }
                    // A line end: the comment line's or a blank line's.
                    p += netlist::lineEndAt(p, last);
                    *lit++ = '\n';
                    afterLastLineEnd = lit;
                    ++lines;
                }
                *lit++ = *p++;
                if (continued) {
                    committed = afterLastLineEnd;
                    *line++ = ' ';
                    state = InLine;
                    continue;
                }
                state = Replay; // the byte after the block joins the queue below
                complete = true;
                break;
            }
        }
        if (*p == '\n')
            ++p;
        else if (*p == '\r' && stop - p >= 2 && p[1] == '\n')
            p += 2; // the CR is left out of the literal text
        else
            break;
        *lit++ = '\n';
        if (state != AfterNewline)
            committed = lit;
        state = AfterNewline;
        ++lines;
    }
    m_state = state;
    if (complete)
        m_lookahead.add(p[-1]);
    m_lineBuffer.expand(static_cast<int>(line - lineStart));
    if (committed == litStart) {
        // Nothing committed: the queue keeps its text and what was read joins it.
        m_litQueue.append(readStart, static_cast<int>(lit - readStart));
    } else {
        if (queued == 1)
            *litStart = *m_litQueue.unread(); // the usual case: the line's first byte
        else if (queued > 1)
            std::memcpy(litStart, m_litQueue.unread(), static_cast<size_t>(queued));
        m_litQueue.flush();
        m_litQueueWithoutLineEnd = 0;
        if (lit - committed == 1)
            m_litQueue.add(*committed);
        else
            m_litQueue.append(committed, static_cast<int>(lit - committed));
    }
    m_litBuffer.expand(static_cast<int>(committed - litStart));
    m_litCharCount += static_cast<int>(committed - litStart);
    m_charCount += static_cast<int>(p - begin);
    m_lineCount += lines;
    advance(static_cast<size_t>(p - begin));
    return complete;
}

// Skips the printable text of a comment straight from the buffer; it goes to the literal queue only.
void NewSpiceStream::skipCommentInBulk()
{
    if (const char* end = bulkEnd()) {
        const size_t n = netlist::plainRun(bufferBegin(), end, '\n', '\n');
        m_litQueue.append(bufferBegin(), static_cast<int>(n));
        m_charCount += static_cast<int>(n);
        advance(n);
    }
}

void NewSpiceStream::readRestOfLineIntoLookahead()
{
    for (;;) {
        // Printable text goes to both queues in one step; the rest takes the character source.
        if (const char* end = bulkEnd()) {
            const size_t n = netlist::plainRun(bufferBegin(), end, '\n', '\n');
            m_litQueue.append(bufferBegin(), static_cast<int>(n));
            m_lookahead.append(bufferBegin(), static_cast<int>(n));
            m_charCount += static_cast<int>(n);
            advance(n);
        }
        int c = getChar();
        m_lookahead.add(asQueued(c));
        if (c == 10 || c == -1)
            return;
    }
}

int NewSpiceStream::machine()
{
    for (;;) {
        if ((m_state == InlineComment || m_state == LineComment) && m_lookahead.isEmpty())
            skipCommentInBulk();
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
    int c = machine();
    return c == -1 ? -1 : static_cast<int>(static_cast<signed char>(c));
}

// Replays a whole gathered comment line from the look-ahead queue when the queue holds one, with a line
// end after its text (and no comment character or end mark before that): the line, the line end that
// completes it and the literal text up to it, as the Replay state gives them one character at a time.
bool NewSpiceStream::replayLine()
{
    const char* const text = m_lookahead.unread();
    const int count = m_lookahead.count();
    int n = static_cast<int>(netlist::plainRun(text, text + count, m_commentChar, m_commentChar));
    while (n < count && text[n] != '\n' && text[n] != m_commentChar && text[n] != '\xFF')
        ++n;
    if (n == 0 || n == count || text[n] != '\n')
        return false;
    m_lineBuffer.append(text, n);
    m_lookahead.discard(n + 1);
    fillOutputLitBuffer();
    if (m_lookahead.isEmpty())
        m_state = InLine;
    return true;
}

NewSpiceStream::LineResult NewSpiceStream::readLine(int* lineNumber)
{
    m_lineBuffer.flush();
    bool first = true;
    if (m_state == Replay && replayLine()) {
        if (lineNumber)
            *lineNumber = m_lineCount + 1;
        return LineEnded;
    }
    if ((m_state == InLine || m_state == Replay) && m_lookahead.count() == 1 &&
        netlist::startsPlainLine(static_cast<unsigned char>(*m_lookahead.unread()), m_commentChar)) {
        // The common start of a line: its first byte was read when the previous line ended, and the
        // state machine would deliver it as it is.
        m_lineBuffer.add(*m_lookahead.unread());
        m_lookahead.flush();
        m_state = InLine;
        if (lineNumber)
            *lineNumber = m_lineCount + 1;
        first = false;
        if (readLineInBulk())
            return LineEnded;
    }
    for (;;) {
        int c = machine();
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
        if ((m_state == InLine || m_state == Replay) && readLineInBulk())
            return LineEnded;
    }
}

bool NewSpiceStream::gets(YString* line, int* lineNumber)
{
    const LineResult result = readLine(lineNumber);
    if (line)
        line->assign(m_lineBuffer.data(), m_lineBuffer.length());
    return result != InputEnded;
}
