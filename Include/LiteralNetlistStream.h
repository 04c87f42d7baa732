// LiteralNetlistStream.h - NewSpiceStream: logical lines with the literal text of each physical line kept.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"
#include "kvstream.h"

#include <climits>

/// Reads a netlist as logical lines like `SpiceStream` (continuations joined, ";" comments dropped) but
/// keeps "*" comment lines as lines of their own, and moves every consumed physical line, exactly as
/// read (line ends normalised to LF, dropped bytes left out), into a literal buffer. No dialects, no
/// directives, no brace expressions. Bytes 0xFF are dropped; the end of the source shows as one final
/// line feed, then as end of input. A UTF-16 file is read from a UTF-8 temporary copy. A line that memory
/// cannot hold (a buffer would pass 2147483646 bytes, or an allocation fails) ends the input there, with
/// no final line feed: nothing of it is delivered or kept in the literal buffer, and the reader then
/// reads as at its end. The character and line counts, and the line numbers handed out, stop at INT_MAX
/// (2147483647) on a netlist that holds more; a character limit of INT_MAX is therefore none.
class SUPPORTQT_API NewSpiceStream : public kvstream {
public:
    explicit NewSpiceStream(const char* fileName);
    explicit NewSpiceStream(kvstream& source);
    ~NewSpiceStream() override;

    /// The next logical line; false at end of input. `lineNumber` (may be null) receives the physical
    /// line number of the line's first character.
    virtual bool gets(YString* line, int* lineNumber);
    bool gets(YString* line) { return gets(line, nullptr); }

    /// Resets state and counts; deliberately leaves a pending character and both queues as they are.
    void init();
    void clearCounts();
    /// The next character of the logical-line stream as a `char` value (bytes 128 to 254 are negative),
    /// 10 at each line end, -1 at the end.
    int get();
    const Buf& getLitBuffer() const { return m_litBuffer; }
    void flushLitBuffer() { m_litBuffer.flush(); }
    int getLineCount() const { return m_lineCount; }
    int getCharCount() const { return m_charCount; }
    YString getSourceFile() const { return m_sourceFile; }

protected:
    /// Outcome of the line assembly.
    enum LineResult { LineEnded, InputEnded };
    /// Line assembly: `LineEnded` when a line ended, `InputEnded` at end of input with nothing read.
    LineResult readLine(int* lineNumber);
    const Buf& lineBuffer() const { return m_lineBuffer; }
    void setCharLimit(int limit) { m_charLimit = limit; }
    /// For a reader of a dialect whose inline comment character is another one ("$"); the stream itself
    /// always uses ";".
    void setCommentChar(char c) { m_commentChar = c; }
    /// True once memory has run out and ended the input, or when the text of a UTF-16 file named to the
    /// constructor could be read neither into a UTF-8 copy nor into memory, or a pipe or device named to it
    /// gave more than 64 MiB (it then reads as empty).
    bool memoryRanOut() const { return m_memoryRanOut; }

private:
    enum State { Start = -1, AfterNewline = 0, StarComment = 1, InLine = 2, Replay = 3, LineComment = 4,
                 InlineComment = 5, ReplayComment = 6 };

    int getChar();
    int machine(Buf* line, int* lineNumber);
    void gatherCommentBlock(int c);
    void fillOutputLitBuffer();
    void readRestOfLineIntoLookahead();
    void endInputOnExhaustion(int litKept);
    void capCounts(long long chars, long long lines, int* lineNumber);
    size_t directWindow() const;
    static char asQueued(int c) { return c == -1 ? '\xFF' : static_cast<char>(c); }

    int m_state = Start;
    int m_lineCount = 0;
    int m_charCount = 0;
    int m_pendingChar = -1;
    int m_litCharCount = 0;
    Buf m_litBuffer;
    Buf m_lineBuffer;
    CharQueue m_litQueue;
    int m_litQueueWithoutLineEnd = 0; // leading unread bytes of m_litQueue already known to hold no line end
    CharQueue m_lookahead;
    YString m_sourceFile;
    YString m_tempFile;
    bool m_atEnd = false;
    bool m_memoryRanOut = false;
    char m_commentChar = ';';
    int m_charLimit = INT_MAX;
};
