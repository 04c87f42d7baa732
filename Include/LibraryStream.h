// LibraryStream.h - one definition read out of a model library, and netlist text split into lines.
#pragma once

#include "LiteralNetlistStream.h"
#include "SupportQtExport.h"
#include "YContainers.h"
#include "YString.h"

/// Where a definition lies in a library file (produced by the suite's library index).
struct SymbolLoc {
    YString fileName;   ///< the library file
    YString symbolName; ///< the definition's name as the index found it (not read by LibraryStream)
    int kind = 0;       ///< the index's kind of definition (not read by LibraryStream)
    int start = 0;      ///< character position of the definition's first character
    int end = 0;        ///< character position just after the definition
    int lineOffset = 0; ///< added to reported line numbers so that they count from the file's start
};

/// Reads exactly the characters `start` to `end` of a library file as logical lines (a line cut by
/// `end` is delivered, then end of input). With a non-empty `name`, the name in the first ".model" or
/// ".subckt" line is replaced by it (unless equal ignoring case). A reversed range, one that starts below
/// zero or one past the end of the file reads as empty input; a range of INT_MAX characters reads to the
/// end of the file.
class SUPPORTQT_API LibraryStream : public NewSpiceStream {
public:
    LibraryStream(const SymbolLoc& location, const YString& name);
    ~LibraryStream() override;
    bool gets(YString* line, int* lineNumber) override;
    using NewSpiceStream::gets;

private:
    int m_end;
    int m_start;
    YString m_name;
    bool m_nameDone;
    int m_lineOffset;
};

/// The logical lines of netlist text, in order ("*" comment lines after the first line are lines of
/// their own); empty text gives an empty array, and so does text whose lines memory cannot hold.
SUPPORTQT_API YArray<YString> sp_ParseSpiceLines(const YString& text);
