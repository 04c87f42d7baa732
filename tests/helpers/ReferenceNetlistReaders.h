// ReferenceNetlistReaders.h - the two netlist readers as plain per-character state machines, with no
// fast-forward and no shortcut of any kind: the yardstick the library's readers are compared with.
#pragma once

#include "QtSupport.h"
#include "YString.h"
#include "kvstream.h"

#include <climits>
#include <string>

/// SpiceStream read one character at a time. Built on an open stream, in the given dialect (0 native,
/// 1 PSPICE, 2 HSPICE).
class ReferenceSpiceStream : public kvstream {
public:
    explicit ReferenceSpiceStream(kvstream& source, int language = 0);
    virtual ~ReferenceSpiceStream() = default;

    bool gets(YString* line, int* lineNumber, bool* streamFlag, bool* nonAscii);
    /// The brace-expression hook; the base substitutes nothing.
    virtual bool evaluate(const char*, YString*) { return false; }
    int get(bool raw);
    void readTitle();
    void flushBuffer();
    void copyBuffer(const YString& text);
    void init();
    void clearCounts();
    void setLiteralMode(bool on) { m_literalMode = on; }
    void dontSuppressEmptyLines() { m_suppressEmptyLines = false; }

    const Buf* getBuffer() const { return &m_rawBuffer; }
    int eof() const { return m_state == AtEnd ? 1 : 0; }
    int getCharCount() const { return keepsOwnCount() ? kvstream::getCharCount() : m_charCount; }
    int getLineCount() const { return m_lineCount; }
    int getLastAcceptedLineCount() const { return m_lastAcceptedLineCount; }
    int getLastAcceptedCharCount() const { return m_lastAcceptedCharCount; }
    int getLanguage() const { return m_language; }
    const char* getSeparator() const { return m_separator.c_str(); }
    bool isHierarchy() const { return m_hierarchy; }
    UTF8DetectEncoding getUtf8Encoding() const { return m_utf8Detect.getEncoding(); }

private:
    enum State { LineStart, CommentLine, InLine, InlineComment, AfterNewline, EndPending, AtEnd };

    int readRaw();
    int getLogical();
    void accept(int c);
    void recordLastAccepted();
    void newlineToRaw();
    void detectStarHash(int commentChar);
    int readDirectiveChar(bool* ended);
    int icc() const { return m_language == 2 ? '$' : ';'; }

    State m_state = LineStart;
    int m_pushback = -1;
    int m_pendingChar = -1;
    int m_lineCount = 0;
    int m_charCount = 0;
    int m_lastAcceptedLineCount = 0;
    int m_lastAcceptedCharCount = 0;
    bool m_literalMode = false;
    bool m_suppressEmptyLines = true;
    bool m_hierarchy = false;
    int m_language = 0;
    UTF8Detect m_utf8Detect;
    Buf m_rawBuffer;
    Buf m_lineBuffer;
    YString m_separator = "$";
};

/// NewSpiceStream read one character at a time, with the character limit of the library-section reader.
class ReferenceLiteralStream : public kvstream {
public:
    explicit ReferenceLiteralStream(kvstream& source, int charLimit = INT_MAX);

    bool gets(YString* line, int* lineNumber);
    int get();
    /// As NewSpiceStream::init, which keeps the pending character and both queues.
    void init();
    void clearCounts();
    const Buf& getLitBuffer() const { return m_litBuffer; }
    void flushLitBuffer() { m_litBuffer.flush(); }
    int getLineCount() const { return m_lineCount; }
    int getCharCount() const { return m_charCount; }

private:
    enum State { Start = -1, AfterNewline = 0, StarComment = 1, InLine = 2, Replay = 3, LineComment = 4,
                 InlineComment = 5, ReplayComment = 6 };

    int getChar();
    int next();
    int machine();
    void fillOutputLitBuffer();
    void readRestOfLineIntoLookahead();

    int m_state = Start;
    int m_lineCount = 0;
    int m_charCount = 0;
    int m_pendingChar = -1;
    Buf m_litBuffer;
    Buf m_lineBuffer;
    std::string m_litQueue;
    std::string m_lookahead;
    bool m_atEnd = false;
    int m_charLimit = INT_MAX;
};

/// A brace hook that acts on the stream as a derived reader of the suite might, by the expression's first
/// letter: "r" reads to the line's end, "s" reads one physical and then one logical character (past a
/// directive, if one follows), "l" and "p" switch literal mode on and off, "i" restarts the reader, "k"
/// keeps the braces. Every expression but a kept one is replaced by "V" and the expression.
template <class Base>
class ActingBraceHook : public Base {
public:
    explicit ActingBraceHook(kvstream& source) : Base(source) {}
    bool evaluate(const char* expression, YString* result) override
    {
        switch (expression[0]) {
        case 'r':
            for (int c = this->get(false); c != 10 && c != -1; c = this->get(false)) {
            }
            break;
        case 's':
            this->get(true);
            this->get(false);
            break;
        case 'l':
            this->setLiteralMode(true);
            break;
        case 'p':
            this->setLiteralMode(false);
            break;
        case 'i':
            this->init();
            break;
        case 'k':
            return false;
        default:
            break;
        }
        *result = ("V" + std::string(expression)).c_str();
        return true;
    }
};
