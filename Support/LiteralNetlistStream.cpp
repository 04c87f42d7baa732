// LiteralNetlistStream.cpp - NewSpiceStream: logical lines with the literal text kept.
#include "LiteralNetlistStream.h"
#include "FileServices.h"
#include "NetlistFilter_p.h"
#include "TextFile.h"

#include <cstring>

NewSpiceStream::NewSpiceStream(const char* fileName)
{
    const YString name(fileName);
    if (!name.isEmpty())
        sp_ConvertWideTextFile(name, &m_tempFile);
    {
        kvfstream file(m_tempFile.isEmpty() ? name.c_str() : m_tempFile.c_str(), 129, false);
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
        unlink_utf8(m_tempFile.c_str());
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
    m_charLimit = 2147483647;
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
    const char* lastLf = std::strrchr(unread, '\n');
    if (!lastLf)
        return;
    int n = static_cast<int>(lastLf - unread) + 1;
    m_litBuffer.append(unread, n);
    m_litCharCount += n;
    for (int i = 0; i < n; ++i)
        m_litQueue.pop();
}

void NewSpiceStream::readRestOfLineIntoLookahead()
{
    for (;;) {
        int c = getChar();
        m_lookahead.add(asQueued(c));
        if (c == 10 || c == -1)
            return;
    }
}

int NewSpiceStream::machine()
{
    for (;;) {
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

int NewSpiceStream::readLine(int* lineNumber)
{
    m_lineBuffer.flush();
    bool first = true;
    for (;;) {
        int c = machine();
        if (c == -1)
            return m_lineBuffer.isEmpty() ? 2 : 0;
        if (first) {
            if (lineNumber)
                *lineNumber = m_lineCount + 1;
            first = false;
        }
        if (c == 10)
            return 0;
        m_lineBuffer.add(static_cast<char>(c));
    }
}

bool NewSpiceStream::gets(YString* line, int* lineNumber)
{
    if (line)
        line->clear();
    int result = readLine(lineNumber);
    if (line)
        *line = YString(m_lineBuffer.data(), m_lineBuffer.length());
    return result != 2;
}
