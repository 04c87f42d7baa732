// ReferenceNetlistReaders.cpp - the netlist readers' rules, one character at a time.
#include "ReferenceNetlistReaders.h"
#include "TextServices.h"

namespace {
bool keeps(int c) { return c == 9 || c == 10 || (c >= 32 && c <= 254); }
} // namespace

// ---------------------------------------------------------------- SpiceStream

ReferenceSpiceStream::ReferenceSpiceStream(kvstream& source, int language) : m_language(language)
{
    kvstream::transferBuffer(&source, this);
    init();
}

void ReferenceSpiceStream::init()
{
    m_suppressEmptyLines = true;
    m_hierarchy = false;
    m_state = LineStart;
    m_lineCount = 0;
    m_charCount = 0;
    m_lastAcceptedLineCount = 0;
    m_lastAcceptedCharCount = 0;
    setOwnCount(0);
    m_literalMode = false;
    m_pushback = -1;
    m_separator = "$";
}

void ReferenceSpiceStream::clearCounts()
{
    m_lineCount = 0;
    m_charCount = 0;
    m_lastAcceptedCharCount = 0;
    setOwnCount(0);
}

void ReferenceSpiceStream::copyBuffer(const YString& text)
{
    m_rawBuffer.flush();
    m_rawBuffer.append(text.c_str(), text.length());
}

int ReferenceSpiceStream::readRaw()
{
    if (m_pushback != -1) {
        const int c = m_pushback;
        m_pushback = -1;
        return c;
    }
    if (m_state == EndPending || m_state == AtEnd)
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
        if (c == 255)
            c = -1;
        if (c == -1)
            return -1;
        m_utf8Detect.add(static_cast<unsigned>(c));
        if (c == 13) {
            const int next = kvstream::get();
            ++m_charCount;
            if (next != 10) {
                m_pendingChar = next;
                ++m_lineCount;
                return 10;
            }
            c = 10;
        }
        if (c == 10) {
            ++m_lineCount;
            return 10;
        }
        if (keeps(c))
            return c;
    }
}

int ReferenceSpiceStream::get(bool raw)
{
    if (raw) {
        const int c = readRaw();
        m_rawBuffer.add(c == -1 ? '\xFF' : static_cast<char>(c));
        m_state = LineStart;
        return c;
    }
    return getLogical();
}

void ReferenceSpiceStream::accept(int c)
{
    m_rawBuffer.add(static_cast<char>(c));
    recordLastAccepted();
}

void ReferenceSpiceStream::recordLastAccepted()
{
    m_lastAcceptedCharCount = getCharCount();
    m_lastAcceptedLineCount = m_lineCount;
}

void ReferenceSpiceStream::newlineToRaw()
{
    if (!(m_suppressEmptyLines && m_rawBuffer.last() == '\n'))
        m_rawBuffer.add('\n');
}

int ReferenceSpiceStream::getLogical()
{
    for (;;) {
        const int comment = icc();
        const int c = readRaw();
        switch (m_state) {
        case LineStart:
            if (c == ' ' || c == '\t' || c == 10)
                continue;
            if (c == '*' || c == comment) {
                detectStarHash(c);
                m_state = CommentLine;
                continue;
            }
            if (c == -1) {
                m_state = AtEnd;
                return -1;
            }
            accept(c);
            m_state = InLine;
            return c;
        case CommentLine:
            if (c == 10) {
                m_state = LineStart;
                continue;
            }
            if (c == -1) {
                m_state = AtEnd;
                return -1;
            }
            continue;
        case InLine:
            if (c == comment) {
                m_rawBuffer.add(static_cast<char>(c));
                m_state = InlineComment;
                continue;
            }
            if (c == 10) {
                recordLastAccepted();
                newlineToRaw();
                m_state = AfterNewline;
                continue;
            }
            if (c == -1) {
                recordLastAccepted();
                m_state = EndPending;
                return 10;
            }
            accept(c);
            return c;
        case InlineComment:
            if (c == 10) {
                newlineToRaw();
                m_state = AfterNewline;
                continue;
            }
            if (c == -1) {
                m_state = EndPending;
                return 10;
            }
            m_rawBuffer.add(static_cast<char>(c));
            continue;
        case AfterNewline:
            if (c == '*' || c == comment) {
                m_rawBuffer.add(static_cast<char>(c));
                detectStarHash(c);
                m_state = InlineComment;
                continue;
            }
            if (c == 10) {
                newlineToRaw();
                continue;
            }
            if (c == '+') {
                m_rawBuffer.add('+');
                m_state = InLine;
                return 32;
            }
            if (c == -1) {
                m_state = EndPending;
                return 10;
            }
            if (c == ' ' || c == '\t')
                continue;
            m_pushback = c;
            m_state = InLine;
            return 10;
        case EndPending:
        case AtEnd:
            m_state = AtEnd;
            return -1;
        }
    }
}

int ReferenceSpiceStream::readDirectiveChar(bool* ended)
{
    int c = kvstream::get();
    while (c == 13) {
        ++m_charCount;
        c = kvstream::get();
    }
    if (c == 255) {
        m_pendingChar = 255;
        c = -1;
    }
    *ended = (c == -1 || c == 10);
    m_pushback = c;
    return c;
}

void ReferenceSpiceStream::detectStarHash(int commentChar)
{
    bool ended = false;
    int c = readDirectiveChar(&ended);
    if (c == 10) {
        ++m_lineCount;
        ++m_charCount;
        return;
    }
    ++m_charCount;
    if (c != '#' || commentChar != '*')
        return;
    m_rawBuffer.add('#');
    YString text;
    for (;;) {
        c = readDirectiveChar(&ended);
        if (ended) {
            if (c == 10) {
                m_rawBuffer.add('\n');
                ++m_lineCount;
                ++m_charCount;
            }
            break;
        }
        m_rawBuffer.add(static_cast<char>(c));
        ++m_charCount;
        if (text.length() < 198)
            text.append(static_cast<char>(c));
    }
    YArray<YString> tokens;
    sp_ScanLine(text.c_str(), " =(),\t", &tokens, INT_MAX);
    if (tokens.count() == 0)
        return;
    if (m_state == LineStart) {
        const YString& keyword = tokens[0];
        if (keyword.equalsNoCase("KALVONTA")) {
            m_language = 0;
            for (int i = 1; i <= tokens.count() - 2; ++i) {
                if (!tokens[i].equalsNoCase("sep"))
                    continue;
                const YString& value = tokens[i + 1];
                if (value.length() == 1)
                    m_separator = value;
                else if (value.equalsNoCase("none"))
                    m_separator = "";
            }
        } else if (keyword.equalsNoCase("HSPICE")) {
            m_language = 2;
            m_separator = "";
        } else if (keyword.equalsNoCase("PSPICE")) {
            m_language = 1;
            m_separator = "";
        }
    }
    if (tokens[0].equalsNoCase("hierarchy"))
        m_hierarchy = true;
}

void ReferenceSpiceStream::readTitle()
{
    for (;;) {
        const int c = kvstream::get();
        if (c == -1)
            return;
        if (c == 10) {
            ++m_lineCount;
            return;
        }
        ++m_charCount;
        if (c != 13)
            m_rawBuffer.add(static_cast<char>(c));
    }
}

void ReferenceSpiceStream::flushBuffer()
{
    m_rawBuffer.flush();
    m_utf8Detect.reset();
}

bool ReferenceSpiceStream::gets(YString* line, int* lineNumber, bool* streamFlag, bool* nonAscii)
{
    m_hierarchy = false;
    m_lineBuffer.flush();
    *streamFlag = false;
    *nonAscii = false;
    int depth = 0;
    std::string expression;
    bool first = true;
    bool ended = false;
    for (int c = get(m_literalMode); c != -1; c = get(m_literalMode)) {
        if (c > 127)
            *nonAscii = true;
        if (first) {
            *lineNumber = m_lineCount + 1;
            first = false;
        }
        if (c == 10) {
            ended = true;
            break;
        }
        if (getFlag())
            *streamFlag = true;
        if (depth == 0) {
            if (c == '{')
                depth = 1;
            else
                m_lineBuffer.add(static_cast<char>(c));
        } else if (c == '{') {
            expression += '(';
            ++depth;
        } else if (c == '}' && depth > 1) {
            expression += ')';
            --depth;
        } else if (c == '}') {
            YString result;
            if (evaluate(expression.c_str(), &result)) {
                m_lineBuffer.append(result.c_str(), result.length());
            } else {
                m_lineBuffer.add('{');
                m_lineBuffer.append(expression.data(), static_cast<int>(expression.size()));
                m_lineBuffer.add('}');
            }
            expression.clear();
            depth = 0;
        } else {
            expression += static_cast<char>(c);
        }
    }
    line->assign(m_lineBuffer.data(), m_lineBuffer.length());
    return ended || !m_lineBuffer.isEmpty();
}

// ---------------------------------------------------------------- NewSpiceStream

ReferenceLiteralStream::ReferenceLiteralStream(kvstream& source, int charLimit) : m_charLimit(charLimit)
{
    kvstream::transferBuffer(&source, this);
}

void ReferenceLiteralStream::init()
{
    m_state = Start;
    m_lineCount = 0;
    m_charCount = 0;
    m_atEnd = false;
    m_charLimit = INT_MAX;
}

void ReferenceLiteralStream::clearCounts()
{
    m_lineCount = 0;
    m_charCount = 0;
}

int ReferenceLiteralStream::getChar()
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
            const int next = kvstream::get();
            ++m_charCount;
            if (next != 10)
                m_pendingChar = next;
            c = 10;
        }
        if (c == -1 || m_charCount > m_charLimit) {
            m_atEnd = true;
            c = 10;
        }
        if (c == 10) {
            ++m_lineCount;
            m_litQueue += '\n';
            return 10;
        }
        if (c > 255 || !keeps(c))
            continue;
        m_litQueue += static_cast<char>(c);
        return c;
    }
}

int ReferenceLiteralStream::next()
{
    int c;
    if (m_lookahead.empty()) {
        c = getChar();
    } else {
        c = static_cast<unsigned char>(m_lookahead[0]);
        m_lookahead.erase(0, 1);
    }
    return c == 255 ? -1 : c;
}

void ReferenceLiteralStream::fillOutputLitBuffer()
{
    const size_t last = m_litQueue.rfind('\n');
    if (last == std::string::npos)
        return;
    m_litBuffer.append(m_litQueue.data(), static_cast<int>(last + 1));
    m_litQueue.erase(0, last + 1);
}

void ReferenceLiteralStream::readRestOfLineIntoLookahead()
{
    for (;;) {
        const int c = getChar();
        m_lookahead += c == -1 ? '\xFF' : static_cast<char>(c);
        if (c == 10 || c == -1)
            return;
    }
}

int ReferenceLiteralStream::machine()
{
    for (;;) {
        const int c = next();
        switch (m_state) {
        case Start:
            if (c == ' ' || c == '\t' || c == 10 || c == ';')
                continue;
            m_state = InLine;
            return c;
        case AfterNewline:
            if (c == ' ' || c == '\t' || c == 10)
                continue;
            if (c == '+') {
                m_lookahead += ' ';
                m_state = InLine;
                continue;
            }
            if (c == '*') {
                m_lookahead += '*';
                m_state = StarComment;
                continue;
            }
            if (c == ';') {
                m_state = LineComment;
                continue;
            }
            m_lookahead += c == -1 ? '\xFF' : static_cast<char>(c);
            m_state = InLine;
            return 10;
        case StarComment: {
            m_lookahead += c == -1 ? '\xFF' : static_cast<char>(c);
            readRestOfLineIntoLookahead();
            int d;
            for (;;) {
                do
                    d = getChar();
                while (d == ' ' || d == '\t' || d == 10);
                if (d != '*' && d != ';')
                    break;
                m_lookahead += static_cast<char>(d);
                readRestOfLineIntoLookahead();
            }
            if (d == '+') {
                fillOutputLitBuffer();
                m_lookahead = " ";
                m_state = InLine;
                continue;
            }
            m_lookahead += d == -1 ? '\xFF' : static_cast<char>(d);
            m_state = Replay;
            return 10;
        }
        case InLine:
            if (c == 10) {
                fillOutputLitBuffer();
                m_state = AfterNewline;
                continue;
            }
            if (c == ';') {
                m_state = InlineComment;
                continue;
            }
            return c;
        case Replay:
        case ReplayComment: {
            int result = -2;
            if (c == 10) {
                fillOutputLitBuffer();
                m_state = Replay;
                result = 10;
            } else if (m_state == Replay && c == ';') {
                m_state = ReplayComment;
            } else if (m_state == Replay) {
                result = c;
            } else if (c == -1) {
                m_state = Replay;
                result = -1;
            }
            if (m_lookahead.empty())
                m_state = m_state == Replay ? InLine : InlineComment;
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

int ReferenceLiteralStream::get()
{
    const int c = machine();
    return c == -1 ? -1 : static_cast<int>(static_cast<signed char>(c));
}

bool ReferenceLiteralStream::gets(YString* line, int* lineNumber)
{
    m_lineBuffer.flush();
    bool first = true;
    bool more = true;
    for (;;) {
        const int c = machine();
        if (c == -1) {
            more = !m_lineBuffer.isEmpty();
            break;
        }
        if (first) {
            *lineNumber = m_lineCount + 1;
            first = false;
        }
        if (c == 10)
            break;
        m_lineBuffer.add(static_cast<char>(c));
    }
    line->assign(m_lineBuffer.data(), m_lineBuffer.length());
    return more;
}
