// NetlistStream.cpp - SpiceStream: logical lines of a SPICE-family netlist.
#include "NetlistStream.h"
#include "NetlistFilter_p.h"
#include "TextFile_p.h"
#include "TextServices.h"

#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <optional>


int SpiceStream::dummyLineNum = 0;

namespace {
const int kMaxDirectiveText = 198;
// What the state machine returns when a line it reads goes on in literal mode.
const int kLiteralFromHere = -2;

// The stop bytes of the runs in a comment, and in a line of each comment character.
constexpr netlist::RunStops kCommentStops{{'\n', '\n', '\n'}, true};
constexpr netlist::RunStops kLineStops{{';', '{', '}'}, true};
constexpr netlist::RunStops kHspiceLineStops{{'$', '{', '}'}, true};
}

SpiceStream::SpiceStream(const char* fileName, SpiceLanguage language) : m_sourceFile(fileName)
{
    m_memoryRanOut = !textfile::openNetlist(m_sourceFile, &m_tempFile, this);
    m_language = language;
    init();
}

SpiceStream::SpiceStream(kvstream& source)
{
    kvstream::transferBuffer(&source, this);
    m_language = SpiceLanguageNative;
    init();
}

SpiceStream::~SpiceStream() { textfile::closeNetlist(m_tempFile, this); }

void SpiceStream::init()
{
    m_suppressEmptyLines = true;
    m_hierarchy = false;
    m_state = LineStart;
    clearCounts();
    m_lastAcceptedLineCount = 0;
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
inline int SpiceStream::readRaw()
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
            netlist::countUp(m_charCount);
        }
        if (c == -1 || c == 255)
            return -1;
        m_utf8Detect.add(static_cast<unsigned>(c));
        if (c == 13) {
            int next = kvstream::get();
            netlist::countUp(m_charCount);
            if (next != 10) {
                // A lone CR ends its line here; the LF it becomes is not counted again.
                m_pendingChar = next;
                netlist::countUp(m_lineCount);
                return 10;
            }
            c = 10;
        }
        if (c == 10) {
            netlist::countUp(m_lineCount);
            return 10;
        }
        if (netlist::keeps(c))
            return c;
    }
}

// The line assembly: the delivered characters build the line, brace expressions are handed to
// `evaluate`, and a line feed ends the line. Once the line's first character has set its number, its
// ordinary bytes may come in runs: to the line at brace depth 0, to the expression inside braces.
struct SpiceStream::LineAssembly {
    SpiceStream& stream;
    int* lineNumber;
    bool* streamFlag;
    bool* nonAsciiFlag;
    Buf* sink = nullptr; // null until the first character
    std::optional<Buf> expression;
    int depth = 0;

    LineAssembly(SpiceStream& s, int* number, bool* flag, bool* nonAscii)
        : stream(s), lineNumber(number), streamFlag(flag), nonAsciiFlag(nonAscii) {}
    // The line's first character is about to come, a plain one: the line's number is set, and its text
    // is where plain characters go.
    Buf* startLine(long long lineCount)
    {
        *lineNumber = netlist::capped(lineCount + 1);
        return sink = &stream.m_lineBuffer;
    }
    // Takes one character, `lineCount` being the reader's line count; true when the line has ended.
    bool take(int c, long long lineCount)
    {
        if (c > 127)
            *nonAsciiFlag = true;
        if (!sink)
            startLine(lineCount);
        if (c == 10)
            return true;
        if (stream.getFlag())
            *streamFlag = true;
        Buf& line = stream.m_lineBuffer;
        if (depth == 0 && c != '{') {
            line.add(static_cast<char>(c));
        } else if (depth == 0) {
            depth = 1;
            if (!expression)
                expression.emplace();
            sink = &*expression;
        } else if (c == '{') {
            expression->add('(');
            ++depth;
        } else if (c == '}' && depth > 1) {
            expression->add(')');
            --depth;
        } else if (c == '}') {
            YString result;
            if (stream.evaluate(expression->data(), &result)) {
                line.append(result.c_str(), result.length());
            } else {
                line.add('{');
                line.append(expression->data(), expression->length());
                line.add('}');
            }
            expression->flush();
            depth = 0;
            sink = &line;
        } else {
            expression->add(static_cast<char>(c));
        }
        return false;
    }
};

// The logical-line state machine. A character it delivers goes to the line assembly `line`, which says
// whether the call ends there; without one (`get`), every delivered character ends it, and the end of
// input always does (-1). Each state is a block that goes straight to the
// block of the state it moves to, as the state table reads.
//
// Its working state lives in locals, so that it stays in registers: the read position, the state, the
// counts, the handed-back character, and write positions in room reserved at the end of the raw buffer
// and of the delivery's text. A byte read writes at most one byte to each, so the room covers the bytes
// below `stop` (one window at most) and a little more. `store` writes it all back before anything else
// looks at the reader; `load` takes it up again and reserves new room.
int SpiceStream::machine(LineAssembly* line)
{
    constexpr int kRoom = netlist::kRunSlack + 8; // room beyond the window
    const char* p;
    const char* stop; // the common bytes are read below it; p itself while readRaw must read
    long long chars, lines; // wider than the counts, which stop at INT_MAX (see capCounts)
    State state;
    int pushback; // the handed-back character, -1 when there is none
    char* raw;
    char* text; // null until a line is under way
    // Set when a delivery went through `take`: `evaluate` may have read on or changed the mode, so the
    // machine goes on from the state the reader is in now.
    bool resumed = false;
    bool flagged; // a base64 section is open: the stream's own flag and count, kept here as it was loaded
    const auto load = [&]() NETLIST_INLINE {
        p = bufferBegin();
        flagged = getFlag();
        // Nothing pending from a lone carriage return, and the detector between sequences, where ASCII
        // leaves it as it is. (An open base64 section hides the buffer.)
        const bool direct = m_pendingChar == -1 && m_utf8Detect.isBetweenSequences();
        const size_t available = direct ? static_cast<size_t>(bufferEnd() - p) : 0;
        stop = p + (available < netlist::kRunWindow ? available : netlist::kRunWindow);
        chars = m_charCount;
        lines = m_lineCount;
        state = m_state;
        pushback = m_pushback;
        raw = m_rawBuffer.reserveTail(static_cast<int>(stop - p) + kRoom);
        Buf* const sink = line ? line->sink : nullptr;
        text = sink ? sink->reserveTail(static_cast<int>(stop - p) + kRoom) : nullptr;
    };
    const auto store = [&]() NETLIST_INLINE {
        m_rawBuffer.expand(static_cast<int>(raw - (m_rawBuffer.data() + m_rawBuffer.length())));
        if (Buf* const sink = text ? line->sink : nullptr)
            sink->expand(static_cast<int>(text - (sink->data() + sink->length())));
        advance(static_cast<size_t>(p - bufferBegin()));
        m_charCount = static_cast<int>(chars);
        m_lineCount = static_cast<int>(lines);
        if (chars > INT_MAX || lines > INT_MAX)
            capCounts(chars, lines);
        m_state = state;
        m_pushback = pushback;
    };
    // The last accepted counts are taken as they run, wrapping below zero past INT_MAX (see capCounts).
    const auto recordLastAccepted = [&]() NETLIST_INLINE {
        m_lastAcceptedCharCount = flagged ? kvstream::getCharCount() : static_cast<int>(chars);
        m_lastAcceptedLineCount = static_cast<int>(lines);
    };
    const auto newlineToRaw = [&]() NETLIST_INLINE {
        // What is written stands right after the buffer's text: raw[-1] is its last byte.
        if (!(m_suppressEmptyLines && raw > m_rawBuffer.data() && raw[-1] == '\n'))
            *raw++ = '\n';
    };
    // The character source: the handed-back character, then the common bytes (printable ASCII and line
    // ends) straight from the buffer with the effects readRaw would have, every other through readRaw.
    // (The end states read nothing, and never come here.)
    const auto next = [&]() NETLIST_INLINE -> int {
        if (pushback != -1) {
            const int c = pushback;
            pushback = -1;
            return c;
        }
        int c = netlist::directChar(p, stop, chars, lines, [](unsigned char b) { return b >= 32 && b < 127; }, [](int) {});
        if (c != -2)
            return c;
        store();
        c = readRaw();
        load();
        return c;
    };
    // A printable ASCII character other than a brace, outside a base64 section: it goes straight to the
    // line's text.
    const auto plain = [&](int c) NETLIST_INLINE { return c >= 32 && c < 127 && c != '{' && c != '}' && !flagged; };
    // Hands a character to the line. Plain characters go straight to its text (the first one starts it),
    // and a line feed ends a line under way; any other goes through `take` with everything stored, since
    // it may call `evaluate`, which may look at the reader.
    const auto deliver = [&](int c) NETLIST_INLINE -> bool {
        if (!line)
            return true;
        if (plain(c)) {
            if (!text)
                text = line->startLine(lines)->reserveTail(static_cast<int>(stop - p) + kRoom);
            *text++ = static_cast<char>(c);
            return false;
        }
        if (text && c == 10)
            return true;
        store();
        const bool ended = line->take(c, lines);
        load();
        resumed = true;
        return ended;
    };
    const auto accept = [&](int c) NETLIST_INLINE {
        *raw++ = static_cast<char>(c);
        recordLastAccepted();
    };

    const netlist::ScanKernels& kernels = netlist::activeKernels();
    const netlist::RunStops* lineStops;
    char commentChar;
    // The dialect's stop bytes and comment character: a directive changes them, and so may a brace hook
    // that reads on past one.
    const auto takeDialect = [&]() NETLIST_INLINE {
        lineStops = isHspiceMode() ? &kHspiceLineStops : &kLineStops;
        commentChar = lineStops->extra[0];
    };
    takeDialect();
    // Runs of ordinary bytes, with the effects that reading them one at a time would have: counted, and
    // copied to the raw buffer when `toRaw` and to the line's text in a line (`inLine`, where the comment
    // character and braces end a run too). Bytes above 127 that the detector need not see one at a time
    // are taken as well, and set the caller's non-ASCII flag.
    const auto takeRun = [&](bool inLine, bool toRaw) NETLIST_INLINE {
        for (;;) {
            size_t n = inLine ? kernels.copy2(p, stop, *lineStops, raw, text)
                              : toRaw ? kernels.copy1(p, stop, kCommentStops, raw, nullptr)
                                      : kernels.skip(p, stop, kCommentStops, nullptr, nullptr);
            const bool atHigh = p + n < stop && static_cast<unsigned char>(p[n]) >= 128;
            const size_t high = atHigh ? netlist::takeHighBytes(m_utf8Detect, p + n, stop) : 0;
            if (high > 0) {
                if (toRaw)
                    std::memcpy(raw + n, p + n, high);
                if (inLine) {
                    std::memcpy(text + n, p + n, high);
                    *line->nonAsciiFlag = true;
                }
                n += high;
            }
            p += n;
            chars += static_cast<long long>(n);
            if (toRaw)
                raw += n;
            if (inLine) {
                text += n;
                // A run is taken only from a visible buffer, so no base64 section is open: the count
                // accepted is the reader's own.
                if (n > 0) {
                    m_lastAcceptedCharCount = static_cast<int>(chars);
                    m_lastAcceptedLineCount = static_cast<int>(lines);
                }
            }
            if (high == 0)
                return;
        }
    };
    // A comment character at a line's start: the directive scanner reads on from the stream. A printable
    // byte after it that cannot start a directive is left to the comment's run, which takes and counts it
    // as the scanner would have before handing it back.
    const auto detectDirective = [&](int c) NETLIST_INLINE {
        if (p < stop) {
            const unsigned char after = static_cast<unsigned char>(*p);
            if (after >= 32 && after < 127 && (after != '#' || c != '*'))
                return;
        }
        store();
        detectStarHash(c);
        load();
        takeDialect();
    };
    const auto leave = [&](int result) NETLIST_INLINE {
        store();
        return result;
    };

    load();
    int c;
dispatch:
    if (resumed) {
        resumed = false;
        // A line read on in literal mode goes on in the line assembly, one raw character at a time.
        if (m_literalMode)
            return leave(kLiteralFromHere);
        takeDialect();
    }
    // A line under way, or one whose first character was handed back, is the common case.
    if (state == InLine)
        goto inLine;
    switch (state) {
    case LineStart:
        goto lineStart;
    case CommentLine:
        goto commentLine;
    case InLine:
        goto inLine;
    case InlineComment:
        goto inlineComment;
    case AfterNewline:
        goto afterNewline;
    case EndPending:
    case AtEnd:
        goto atEnd;
    }
    goto atEnd;

lineStart:
    state = LineStart;
    c = next();
    if (c == ' ' || c == '\t' || c == 10)
        goto lineStart;
    if (c == '*' || c == commentChar) {
        detectDirective(c);
        goto commentLine;
    }
    if (c == -1)
        goto atEnd;
    accept(c);
    goto deliverInLine;

commentLine:
    state = CommentLine;
    // The comment's ordinary bytes in one step.
    if (pushback == -1 && p < stop)
        takeRun(false, false);
    c = next();
    if (c == 10)
        goto lineStart;
    if (c == -1)
        goto atEnd;
    goto commentLine;

inLine:
    state = InLine;
    // A plain first character, handed back when the line before ended, is delivered here to start the
    // line's text; the line's ordinary bytes then come in one step.
    if (line && !text && plain(pushback) && pushback != commentChar) {
        c = pushback;
        pushback = -1;
        accept(c);
        text = line->startLine(lines)->reserveTail(static_cast<int>(stop - p) + kRoom);
        *text++ = static_cast<char>(c);
    }
    if (text && pushback == -1 && p < stop)
        takeRun(true, true);
    c = next();
    if (c == commentChar) {
        *raw++ = static_cast<char>(c);
        goto inlineComment;
    }
    if (c == 10) {
        recordLastAccepted();
        newlineToRaw();
        goto afterNewline;
    }
    if (c == -1) {
        recordLastAccepted();
        goto endPending;
    }
    accept(c);
    goto deliverInLine;

inlineComment:
    state = InlineComment;
    // The comment's ordinary bytes in one step.
    if (pushback == -1 && p < stop)
        takeRun(false, true);
    c = next();
    if (c == 10) {
        newlineToRaw();
        goto afterNewline;
    }
    if (c == -1)
        goto endPending;
    *raw++ = static_cast<char>(c);
    goto inlineComment;

afterNewline:
    state = AfterNewline;
    c = next();
    if (c == '*' || c == commentChar) {
        *raw++ = static_cast<char>(c);
        detectDirective(c);
        goto inlineComment;
    }
    if (c == 10) {
        newlineToRaw();
        goto afterNewline;
    }
    if (c == '+') {
        *raw++ = '+';
        c = 32;
        goto deliverInLine;
    }
    if (c == -1)
        goto endPending;
    if (c == ' ' || c == '\t')
        goto afterNewline;
    // The line before ends, and `c` is handed back to start the next one.
    pushback = c;
    c = 10;
deliverInLine:
    // `c` goes to the delivery, and the line goes on.
    state = InLine;
    if (deliver(c))
        return leave(c);
    if (resumed)
        goto dispatch;
    goto inLine;

endPending:
    // The end of input: the line end that ends the line under way, then the end.
    state = EndPending;
    if (deliver(10))
        return leave(10);
    if (resumed)
        goto dispatch;
atEnd:
    state = AtEnd;
    return leave(-1);
}

int SpiceStream::get(bool raw)
{
    const int rawKept = m_rawBuffer.length();
    try {
        if (raw) {
            int c = readRaw();
            m_rawBuffer.add(c == -1 ? '\xFF' : static_cast<char>(c));
            m_state = LineStart;
            return c;
        }
        return machine(nullptr);
    } catch (const std::bad_alloc&) {
        endInputOnExhaustion(rawKept);
        return -1;
    }
}

// Memory ran out in the middle of a line: the input ends there. The source is closed, so that nothing
// after the lost part is read as if it followed on; what was gathered of the line is dropped, and the raw
// record goes back to the `rawKept` bytes it held before it.
void SpiceStream::endInputOnExhaustion(int rawKept)
{
    close();
    m_memoryRanOut = true;
    m_state = AtEnd;
    m_pushback = m_pendingChar = -1;
    m_lineBuffer.flush();
    m_rawBuffer.truncate(rawKept);
}

// A netlist of more than 2 GiB: the counts the state machine took past INT_MAX wrapped below zero, and
// stop at INT_MAX instead. (A character count is never negative otherwise, nor a line count that passed
// INT_MAX in one run of the machine.)
void SpiceStream::capCounts(long long chars, long long lines)
{
    m_charCount = netlist::capped(chars);
    m_lineCount = netlist::capped(lines);
    if (chars > INT_MAX && m_lastAcceptedCharCount < 0)
        m_lastAcceptedCharCount = INT_MAX;
    if (lines > INT_MAX && m_lastAcceptedLineCount < 0)
        m_lastAcceptedLineCount = INT_MAX;
}

// One raw read for the directive scanner, handed back for the machine: carriage returns are skipped
// (and counted); a byte 0xFF is the end of input and is kept pending so that the reader sees the end too.
int SpiceStream::readDirectiveChar()
{
    int c = kvstream::get();
    while (c == 13) {
        netlist::countUp(m_charCount);
        c = kvstream::get();
    }
    if (c == 255) {
        m_pendingChar = 255;
        c = -1;
    }
    return m_pushback = c;
}

void SpiceStream::detectStarHash(int commentChar)
{
    int c = readDirectiveChar();
    netlist::countUp(m_charCount); // the character after the comment character is counted even at the end of input
    if (c == 10)
        netlist::countUp(m_lineCount);
    if (c != '#' || commentChar != '*')
        return;
    m_rawBuffer.add('#');
    YString text;
    for (c = readDirectiveChar(); c != -1 && c != 10; c = readDirectiveChar()) {
        m_rawBuffer.add(static_cast<char>(c));
        netlist::countUp(m_charCount);
        if (text.length() < kMaxDirectiveText)
            text.append(static_cast<char>(c));
    }
    // The line feed that ends the directive is recorded like the rest of it.
    if (c == 10) {
        m_rawBuffer.add('\n');
        netlist::countUp(m_lineCount);
        netlist::countUp(m_charCount);
    }
    YArray<YString> tokens;
    sp_ScanLine(text.c_str(), netlist::kTokenDelimiters, &tokens, INT_MAX);
    if (tokens.count() == 0)
        return;
    const YString& keyword = tokens[0];
    if (m_state == LineStart && keyword.equalsNoCase("KALVONTA")) {
        m_language = SpiceLanguageNative;
        for (int i = 1; i <= tokens.count() - 2; ++i) {
            const YString& value = tokens[i + 1];
            if (tokens[i].equalsNoCase("sep") && (value.length() == 1 || value.equalsNoCase("none")))
                m_separator = value.length() == 1 ? value : YString("");
        }
    } else if (m_state == LineStart && (keyword.equalsNoCase("HSPICE") || keyword.equalsNoCase("PSPICE"))) {
        m_language = keyword.equalsNoCase("HSPICE") ? SpiceLanguageHspice : SpiceLanguagePspice;
        m_separator = "";
    }
    if (keyword.equalsNoCase("hierarchy"))
        m_hierarchy = true;
}

void SpiceStream::readTitle()
{
    const int rawKept = m_rawBuffer.length();
    try {
        for (;;) {
            int c = kvstream::get();
            if (c == -1)
                return;
            if (c == 10) {
                netlist::countUp(m_lineCount);
                return;
            }
            netlist::countUp(m_charCount);
            if (c != 13)
                m_rawBuffer.add(static_cast<char>(c));
        }
    } catch (const std::bad_alloc&) {
        endInputOnExhaustion(rawKept);
    }
}

void SpiceStream::copyBuffer(const YString& text)
{
    m_rawBuffer.flush();
    try {
        m_rawBuffer.append(text.c_str(), text.length());
    } catch (const std::bad_alloc&) {
        // A text the buffer cannot hold leaves it empty.
    }
}

void SpiceStream::flushBuffer()
{
    m_rawBuffer.flush();
    m_utf8Detect.reset();
}

bool SpiceStream::evaluate(const char*, YString*) { return false; }

// The line assembly: true when a line ended, false when the input ended with nothing read.
inline bool SpiceStream::assembleLine(int* lineNumber, bool* streamFlag, bool* nonAscii)
{
    m_lineBuffer.flush();
    *streamFlag = false;
    *nonAscii = false;
    LineAssembly line{*this, lineNumber, streamFlag, nonAscii};
    // The mode is read before every character: `evaluate` may change it in the middle of a line.
    for (;;) {
        if (!m_literalMode) {
            const int c = machine(&line);
            if (c != kLiteralFromHere)
                return c != -1 || !m_lineBuffer.isEmpty();
        }
        for (;;) {
            const int c = get(true);
            if (c == -1)
                return !m_lineBuffer.isEmpty();
            if (line.take(c, m_lineCount))
                return true;
            if (!m_literalMode)
                break;
        }
    }
}

bool SpiceStream::gets(YString* line, int* lineNumber, bool* streamFlag, bool* nonAscii)
{
    bool flagSink = false, asciiSink = false;
    m_hierarchy = false;
    const int rawKept = m_rawBuffer.length();
    try {
        const bool ended = assembleLine(lineNumber ? lineNumber : &dummyLineNum, streamFlag ? streamFlag : &flagSink,
                                        nonAscii ? nonAscii : &asciiSink);
        // A brace hook that read on may have run out of memory there: then the line is lost too.
        if (!m_memoryRanOut) {
            if (line)
                line->assign(m_lineBuffer.data(), m_lineBuffer.length());
            return ended;
        }
    } catch (const std::bad_alloc&) {
    }
    endInputOnExhaustion(rawKept);
    if (line)
        line->clear();
    return false;
}
