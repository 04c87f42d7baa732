// NetlistStream.cpp - SpiceStream: logical lines of a SPICE-family netlist.
#include "NetlistStream.h"
#include "FileServices.h"
#include "NetlistFilter_p.h"
#include "TextFile.h"
#include "TextFile_p.h"
#include "TextServices.h"

#include <climits>
#include <cstddef>
#include <string>


int SpiceStream::dummyLineNum = 0;

namespace {
using netlist::isPrintable;
using netlist::lineEndAt;
using netlist::plainRun;
using netlist::startsPlainLine;

const int kMaxDirectiveText = 198;
}

SpiceStream::SpiceStream(const char* fileName, SpiceLanguage language)
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
        // A destructor cannot report it: a temporary copy left behind is only litter.
        (void)unlink_utf8(m_tempFile.c_str());
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

// True when the next bytes can be taken straight from the stream's buffer: nothing handed back or
// pending, no base64 section open, and the UTF-8 detector between sequences (so ASCII leaves it as is).
bool SpiceStream::canReadInBulk() const
{
    return m_pushback == -1 && m_pendingChar == -1 && !getFlag() && m_utf8Detect.isBetweenSequences();
}

// Skips the printable bytes of a comment directly in the buffer; `keep` also appends them to the raw
// buffer.
void SpiceStream::skipCommentInBulk(bool keep)
{
    if (!canReadInBulk())
        return;
    const char* begin = bufferBegin();
    const size_t n = plainRun(begin, bufferEnd(), '\n', '\n');
    if (n == 0)
        return;
    if (keep)
        m_rawBuffer.append(begin, static_cast<int>(n));
    m_charCount += static_cast<int>(n);
    advance(n);
}

// Reads as much of the current logical line as the buffer allows in bulk, with exactly the effects of
// reading it character by character: runs of plain text, ";" comments, line ends, blank lines, "*"
// comment lines between a line and its continuation, and "+" continuations (the "+" becomes a space in
// the line). Stops, with the state up to date, at anything else (brace expressions, directives, bytes
// that are not printable ASCII, the buffer's end). True when the logical line is complete: the first
// byte of the next line has been read and handed back.
bool SpiceStream::readLineInBulk()
{
    if (m_state != InLine || !canReadInBulk())
        return false;
    const char icc = getInlineCommentChar();
    const char* const begin = bufferBegin();
    const char* const end = bufferEnd() - begin > netlist::kBulkWindow ? begin + netlist::kBulkWindow : bufferEnd();
    // The raw and the line text are written through local pointers into room reserved once: each byte
    // read gives at most one byte of each (and 16 more bytes take the vector stores).
    const int room = static_cast<int>(end - begin) + 16;
    const int rawBefore = m_rawBuffer.length();
    char* const rawStart = m_rawBuffer.reserveTail(room);
    char* const lineStart = m_lineBuffer.reserveTail(room);
    const char* const rawData = rawStart - rawBefore;
    char* raw = rawStart;
    char* line = lineStart;
    const char* p = begin;
    int lines = 0;
    const char* acceptedAt = nullptr; // where the last accepted text ended
    int acceptedLines = 0;
    State state = m_state;
    bool complete = false;
    for (;;) {
        if (state == InLine) {
            const size_t n = netlist::scanPlainRun<2>(p, end, icc, '{', raw, line);
            if (n > 0) {
                p += n;
                raw += n;
                line += n;
                acceptedAt = p;
                acceptedLines = lines;
            }
            if (p < end && *p == icc) {
                // An inline comment: the comment character and the comment's text go to the raw buffer.
                *raw++ = icc;
                ++p;
                state = InlineComment;
            }
        }
        if (state == InlineComment) {
            const size_t n = netlist::scanPlainRun<1>(p, end, '\n', '\n', raw, nullptr);
            p += n;
            raw += n;
        }
        if (p >= end)
            break;
        if (state == AfterNewline) {
            const unsigned char c = static_cast<unsigned char>(*p);
            if (c == ' ' || c == '\t') {
                ++p;
                continue;
            }
            if (c == '+') {
                *raw++ = '+';
                *line++ = ' ';
                ++p;
                state = InLine;
                continue;
            }
            if (c == '*' || c == static_cast<unsigned char>(icc)) {
                // A comment line: the character after the comment character is read at once (the
                // directive check); a "#" after "*" is a directive and takes the per-character path.
                if (end - p < 2)
                    break;
                const unsigned char after = static_cast<unsigned char>(p[1]);
                if (!isPrintable(after) || (c == '*' && after == '#'))
                    break;
                *raw++ = static_cast<char>(c);
                *raw++ = static_cast<char>(after);
                p += 2;
                state = InlineComment;
                continue;
            }
            if (startsPlainLine(c, icc)) {
                ++p;
                m_pushback = c;
                state = InLine;
                complete = true;
                break;
            }
        }
        const size_t eol = lineEndAt(p, end);
        if (eol == 0)
            break;
        p += eol;
        ++lines;
        if (state == InLine) {
            // A line end inside a line also records the last accepted counts.
            acceptedAt = p;
            acceptedLines = lines;
        }
        if (!(m_suppressEmptyLines && raw > rawData && raw[-1] == '\n'))
            *raw++ = '\n';
        state = AfterNewline;
    }
    m_state = state;
    m_rawBuffer.expand(static_cast<int>(raw - rawStart));
    m_lineBuffer.expand(static_cast<int>(line - lineStart));
    if (acceptedAt) {
        m_lastAcceptedCharCount = m_charCount + static_cast<int>(acceptedAt - begin);
        m_lastAcceptedLineCount = m_lineCount + acceptedLines;
    }
    m_charCount += static_cast<int>(p - begin);
    m_lineCount += lines;
    advance(static_cast<size_t>(p - begin));
    return complete;
}

int SpiceStream::getLogical()
{
    for (;;) {
        if (m_state == CommentLine || m_state == InlineComment)
            skipCommentInBulk(m_state == InlineComment);
        // The comment character of the current dialect: a directive read on the previous line may have
        // changed it.
        const int icc = getInlineCommentChar();
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
    sp_ScanLine(text.c_str(), netlist::kTokenDelimiters, &tokens, INT_MAX);
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

SpiceStream::LineResult SpiceStream::assembleLine(int* lineNumber, bool* streamFlag, bool* nonAscii)
{
    m_lineBuffer.flush();
    *streamFlag = false;
    *nonAscii = false;
    if (m_state == InLine && !m_literalMode && m_pushback != -1 && m_pushback != '{' && !getFlag()
        && startsPlainLine(static_cast<unsigned char>(m_pushback), getInlineCommentChar())) {
        // The common start of a line: its first character was handed back when the previous line ended.
        // Accepting it here is what the state machine would do with it.
        const char c = static_cast<char>(m_pushback);
        m_pushback = -1;
        accept(c);
        *lineNumber = m_lineCount + 1;
        m_lineBuffer.add(c);
        if (readLineInBulk())
            return LineEnded;
        return assembleRest(lineNumber, streamFlag, nonAscii, false);
    }
    return assembleRest(lineNumber, streamFlag, nonAscii, true);
}

// The character-by-character assembly of a line, brace expressions included; `first` when nothing of
// the line has been read yet.
SpiceStream::LineResult SpiceStream::assembleRest(int* lineNumber, bool* streamFlag, bool* nonAscii, bool first)
{
    int depth = 0;
    std::string expression;
    for (int c = get(m_literalMode); c != -1; c = get(m_literalMode)) {
        if (c > 127)
            *nonAscii = true;
        if (first) {
            *lineNumber = m_lineCount + 1;
            first = false;
        }
        if (c == 10)
            return LineEnded;
        if (getFlag())
            *streamFlag = true;
        if (depth == 0) {
            if (c == '{') {
                depth = 1;
            } else {
                m_lineBuffer.add(static_cast<char>(c));
                if (m_state == InLine && !m_literalMode && readLineInBulk())
                    return LineEnded;
            }
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
    return m_lineBuffer.isEmpty() ? InputEnded : LineEnded;
}

bool SpiceStream::gets(YString* line, int* lineNumber, bool* streamFlag, bool* nonAscii)
{
    bool flagSink = false, asciiSink = false;
    m_hierarchy = false;
    const LineResult result = assembleLine(lineNumber ? lineNumber : &dummyLineNum,
                                           streamFlag ? streamFlag : &flagSink, nonAscii ? nonAscii : &asciiSink);
    if (line)
        line->assign(m_lineBuffer.data(), m_lineBuffer.length());
    return result != InputEnded;
}
