// NetlistStream.h - SpiceStream, the reader of SPICE-family netlists as logical lines.
#pragma once

#include "QtSupport.h"
#include "SupportQtExport.h"
#include "YString.h"
#include "kvstream.h"

/// Netlist dialect. It changes only the inline comment character: "$" for HSPICE, ";" otherwise.
enum SpiceLanguage : int {
    SpiceLanguageNative = 0,
    SpiceLanguagePspice = 1,
    SpiceLanguageHspice = 2
};

/// Reads a netlist as logical lines: comment and blank lines dropped, inline comments dropped, "+"
/// continuation lines joined (the "+" becomes one space), line ends normalised, control bytes dropped,
/// and a byte 0xFF taken as the end of input. Comment directives at the top ("*#KALVONTA sep=.",
/// "*#HSPICE", "*#PSPICE") set the dialect and hierarchy separator; "*#hierarchy" anywhere marks the line
/// read. Text in braces goes to the `evaluate` hook. A UTF-16 file is read from a UTF-8 temporary copy
/// that the destructor deletes. Nothing is reported: an unreadable file reads as empty, and a line that
/// memory cannot hold (a buffer would pass 2147483646 bytes, or an allocation fails) ends the input
/// there: nothing of it is delivered or kept in the raw buffer, and the reader then reads as at its end.
/// The character and line counts, and the line numbers handed out, stop at INT_MAX (2147483647) on a
/// netlist that holds more.
///
///     SpiceStream in("amp.cir", SpiceLanguageNative);
///     YString line; int number;
///     while (in.gets(&line, &number, nullptr, nullptr)) { ... }
class SUPPORTQT_API SpiceStream : public kvstream {
public:
    SpiceStream(const char* fileName, SpiceLanguage language);
    /// Takes over the open input of `source`; native dialect, no file name.
    explicit SpiceStream(kvstream& source);
    ~SpiceStream() override;

    /// The next logical line, without its line end; false at end of input. `lineNumber` receives the
    /// physical line number of the line's first character; `streamFlag` whether the underlying stream
    /// was in a base64 section; `nonAscii` whether a byte above 127 was read. Any pointer but `line` may
    /// be null.
    virtual bool gets(YString* line, int* lineNumber, bool* streamFlag, bool* nonAscii);
    /// Substitutes a brace expression; the base returns false, so the text comes back in braces.
    virtual bool evaluate(const char* expression, YString* result);

    /// Resets the reader's state and counts (not the dialect, not a pending character).
    void init();
    /// Zeroes the line, character and last-accepted character counts; the last-accepted line count stays.
    void clearCounts();
    /// The next character of the logical-line stream (10 ends a line, -1 ends the input); with `raw`
    /// true, the next physical character instead.
    int get(bool raw);
    /// Consumes the first physical line as the title (into the raw buffer).
    void readTitle();
    void copyBuffer(const YString& text);
    /// Empties the raw buffer and resets the UTF-8 detector.
    void flushBuffer();
    /// The raw record of the accepted text, comments of continued lines included.
    const Buf* getBuffer() const { return &m_rawBuffer; }
    int eof() const { return m_state == AtEnd ? 1 : 0; }
    int getCharCount() const;
    int getLineCount() const { return m_lineCount; }
    void setLineCount(int count) { m_lineCount = count; }
    int getLastAcceptedLineCount() const { return m_lastAcceptedLineCount; }
    int getLastAcceptedCharCount() const { return m_lastAcceptedCharCount; }
    SpiceLanguage getLanguage() const { return m_language; }
    bool isHspiceMode() const { return m_language == SpiceLanguageHspice; }
    char getInlineCommentChar() const { return m_language == SpiceLanguageHspice ? '$' : ';'; }
    const char* getSeparator() const { return m_separator.c_str(); }
    bool isHierarchy() const { return m_hierarchy; }
    UTF8DetectEncoding getUtf8Encoding() const { return m_utf8Detect.getEncoding(); }
    YString getSourceFile() const { return m_sourceFile; }
    void setLiteralMode(bool on) { m_literalMode = on; }
    void dontSuppressEmptyLines() { m_suppressEmptyLines = false; }

protected:
    /// True once memory has run out and ended the input, or when the text of a UTF-16 file named to the
    /// constructor could be read neither into a UTF-8 copy nor into memory, or a pipe or device named to it
    /// gave more than 64 MiB (it then reads as empty).
    bool memoryRanOut() const { return m_memoryRanOut; }

private:
    enum State { LineStart, CommentLine, InLine, InlineComment, AfterNewline, EndPending, AtEnd };
    /// Gathers the characters the state machine delivers into the line (see the source).
    struct LineAssembly;

    int readRaw();
    int machine(LineAssembly* line);
    void detectStarHash(int commentChar);
    int readDirectiveChar();
    bool assembleLine(int* lineNumber, bool* streamFlag, bool* nonAscii);
    void endInputOnExhaustion(int rawKept);
    void capCounts(long long chars, long long lines);

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
    bool m_memoryRanOut = false;
    SpiceLanguage m_language = SpiceLanguageNative;
    UTF8Detect m_utf8Detect;
    Buf m_rawBuffer;
    Buf m_lineBuffer;
    YString m_separator;
    YString m_sourceFile;
    YString m_tempFile;

    static int dummyLineNum;
};
