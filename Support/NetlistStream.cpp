// NetlistStream.cpp - SpiceStream: logical lines of a SPICE-family netlist.
#include "NetlistStream.h"
#include "FileServices.h"
#include "NetlistFilter_p.h"
#include "TextFile.h"
#include "TextServices.h"

int SpiceStream::dummyLineNum = 0;

namespace {
const int kMaxDirectiveText = 198;
}

SpiceStream::SpiceStream(const char* fileName, SpiceLanguage language)
{
    const YString name(fileName);
    if (!name.isEmpty())
        sp_ConvertWideTextFile(name, &m_tempFile);
    {
        kvfstream file(m_tempFile.isEmpty() ? name.c_str() : m_tempFile.c_str(), 129, false);
        kvstream::transferBuffer(&file, this);
    }
    m_sourceFile = name;
    m_language = language;
    init();
}

SpiceStream::SpiceStream(kvstream& source)
{
    kvstream::transferBuffer(&source, this);
    m_language = SpiceLanguageNative;
    init();
}

SpiceStream::~SpiceStream()
{
    if (!m_tempFile.equalsNoCase("")) {
        close();
        unlink_utf8(m_tempFile.c_str());
    }
}

void SpiceStream::init()
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

void SpiceStream::clearCounts()
{
    m_lineCount = 0;
    m_charCount = 0;
    m_lastAcceptedCharCount = 0;
    setOwnCount(0);
}

int SpiceStream::getCharCount() const { return keepsOwnCount() ? kvstream::getCharCount() : m_charCount; }

// The physical character stream: pushback, pending character, CR handling, filter, UTF-8 feeding.
int SpiceStream::readRaw()
{
    if (m_pushback != -1) {
        int c = m_pushback;
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
            int next = kvstream::get();
            ++m_charCount;
            if (next != 10) {
                // A lone CR ends its line here; the LF it becomes is not counted again.
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
        if (netlist::keeps(c))
            return c;
    }
}

int SpiceStream::get(bool raw)
{
    if (raw) {
        int c = readRaw();
        m_rawBuffer.add(c == -1 ? '\xFF' : static_cast<char>(c));
        m_state = LineStart;
        return c;
    }
    return getLogical();
}

void SpiceStream::accept(int c)
{
    m_rawBuffer.add(static_cast<char>(c));
    recordLastAccepted();
}

void SpiceStream::recordLastAccepted()
{
    m_lastAcceptedCharCount = getCharCount();
    m_lastAcceptedLineCount = m_lineCount;
}

void SpiceStream::newlineToRaw()
{
    if (!(m_suppressEmptyLines && m_rawBuffer.last() == '\n'))
        m_rawBuffer.add('\n');
}

int SpiceStream::getLogical()
{
    const int icc = getInlineCommentChar();
    for (;;) {
        int c = readRaw();
        switch (m_state) {
        case LineStart:
            if (c == ' ' || c == '\t' || c == 10)
                continue;
            if (c == '*' || c == icc) {
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
            if (c == icc) {
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
            if (c == '*' || c == icc) {
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

// One raw read for the directive scanner: carriage returns are skipped (and counted); a byte 0xFF is
// the end of input and is kept pending so that the reader sees the end too.
int SpiceStream::readDirectiveChar(bool* ended)
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

void SpiceStream::detectStarHash(int commentChar)
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
                ++m_lineCount;
                ++m_charCount;
            }
            break;
        }
        m_rawBuffer.add(static_cast<char>(c));
        ++m_charCount;
        if (text.length() < kMaxDirectiveText)
            text.append(static_cast<char>(c));
    }

    YArray<YString> tokens;
    sp_ScanLine(text.c_str(), " =(),\t", &tokens, 2147483647);
    if (tokens.count() == 0)
        return;
    if (m_state == LineStart) {
        const YString& keyword = tokens[0];
        if (keyword.equalsNoCase("KALVONTA")) {
            m_language = SpiceLanguageNative;
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
            m_language = SpiceLanguageHspice;
            m_separator = "";
        } else if (keyword.equalsNoCase("PSPICE")) {
            m_language = SpiceLanguagePspice;
            m_separator = "";
        }
    }
    if (tokens[0].equalsNoCase("hierarchy"))
        m_hierarchy = true;
}

void SpiceStream::readTitle()
{
    for (;;) {
        int c = kvstream::get();
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

void SpiceStream::copyBuffer(const YString& text)
{
    m_rawBuffer.flush();
    m_rawBuffer.append(text.c_str(), text.length());
}

void SpiceStream::flushBuffer()
{
    m_rawBuffer.flush();
    m_utf8Detect.reset();
}

bool SpiceStream::evaluate(const char*, YString*) { return false; }

int SpiceStream::assembleLine(int* lineNumber, bool* streamFlag, bool* nonAscii)
{
    m_lineBuffer.flush();
    *streamFlag = false;
    *nonAscii = false;
    int depth = 0;
    Buf expression(64);
    bool first = true;
    for (int c = get(m_literalMode); c != -1; c = get(m_literalMode)) {
        if (c > 127)
            *nonAscii = true;
        if (first) {
            *lineNumber = m_lineCount + 1;
            first = false;
        }
        if (c == 10)
            return 0;
        if (getFlag())
            *streamFlag = true;
        if (depth == 0) {
            if (c == '{')
                depth = 1;
            else
                m_lineBuffer.add(static_cast<char>(c));
        } else if (c == '{') {
            expression.add('(');
            ++depth;
        } else if (c == '}' && depth > 1) {
            expression.add(')');
            --depth;
        } else if (c == '}') {
            YString result;
            if (evaluate(expression.data(), &result)) {
                m_lineBuffer.append(result.c_str(), result.length());
            } else {
                m_lineBuffer.add('{');
                m_lineBuffer.append(expression.data(), expression.length());
                m_lineBuffer.add('}');
            }
            expression.flush();
            depth = 0;
        } else {
            expression.add(static_cast<char>(c));
        }
    }
    return m_lineBuffer.isEmpty() ? 2 : 0;
}

bool SpiceStream::gets(YString* line, int* lineNumber, bool* streamFlag, bool* nonAscii)
{
    bool flagSink = false, asciiSink = false;
    if (line)
        line->clear();
    m_hierarchy = false;
    int result = assembleLine(lineNumber ? lineNumber : &dummyLineNum, streamFlag ? streamFlag : &flagSink,
                              nonAscii ? nonAscii : &asciiSink);
    if (line)
        *line = YString(m_lineBuffer.data(), m_lineBuffer.length());
    return result != 2;
}
