// LibraryStream.cpp - one definition of a model library, and netlist text split into logical lines.
#include "LibraryStream.h"
#include "NetlistFilter_p.h"
#include "TextServices.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

using netlist::kTokenDelimiters;

LibraryStream::LibraryStream(const SymbolLoc& location, const YString& name)
    : NewSpiceStream(location.fileName.c_str()),
      m_end(location.end),
      m_start(location.start),
      m_name(name),
      m_nameDone(name.isEmpty()),
      m_lineOffset(location.lineOffset)
{
    seekg(location.start);
    // The stream ends after exactly end - start characters (a limit of INT_MAX is none); a negative start
    // is no place in the file, and reads as empty input like a reversed range.
    const long long limit = m_start < 0 ? -1 : static_cast<long long>(m_end) - m_start;
    setCharLimit(static_cast<int>(std::clamp<long long>(limit, -1, INT_MAX)));
}

LibraryStream::~LibraryStream() = default;

bool LibraryStream::gets(YString* line, int* lineNumber)
{
    int number = 0;
    bool result = NewSpiceStream::gets(line, &number);
    if (!m_nameDone && line) {
        const char* text = line->c_str();
        const char* cursor = text;
        YString keyword = sp_GetToken(&cursor, kTokenDelimiters, "", "", false);
        if (keyword.equalsNoCase(".model") || keyword.equalsNoCase(".subckt")) {
            YString oldName = sp_GetToken(&cursor, kTokenDelimiters, "", "", false);
            if (!oldName.equalsNoCase(m_name.c_str())) {
                // The rest of the line starts right after the old name, its delimiter included.
                const char* rest = cursor;
                if (rest > text && std::strchr(kTokenDelimiters, rest[-1]) && !oldName.isEmpty())
                    --rest;
                YString renamed = keyword;
                renamed.append(" ").append(m_name.c_str()).append(" ").append(rest);
                *line = renamed;
            }
            m_nameDone = true;
        }
    }
    if (lineNumber) {
        // A line offset near the limits of int saturates instead of overflowing.
        const long long shifted = static_cast<long long>(number) + m_lineOffset;
        *lineNumber = static_cast<int>(std::clamp<long long>(shifted, INT_MIN, INT_MAX));
    }
    return result;
}

YArray<YString> sp_ParseSpiceLines(const YString& text)
{
    struct Splitter : NewSpiceStream {
        explicit Splitter(kvstream& source) : NewSpiceStream(source) {}
        using NewSpiceStream::lineBuffer;
        using NewSpiceStream::memoryRanOut;
        bool nextLine(int* number) { return readLine(number) != InputEnded; }
    };
    YArray<YString> lines;
    try {
        kvstrstream source(text.c_str(), text.str().size());
        Splitter splitter(source);
        int number = 0;
        while (splitter.nextLine(&number))
            lines.append(YString(splitter.lineBuffer().data(), splitter.lineBuffer().length()));
        // The lines before the one memory could not hold are not the text's lines.
        if (splitter.memoryRanOut())
            lines.clear();
    } catch (const std::bad_alloc&) {
        lines.clear();
    }
    return lines;
}
