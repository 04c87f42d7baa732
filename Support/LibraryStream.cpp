// LibraryStream.cpp - one definition of a model library, and netlist text split into logical lines.
#include "LibraryStream.h"
#include "TextServices.h"

#include <cstring>

namespace {
const char kDelimiters[] = " =(),\t";
}

LibraryStream::LibraryStream(const SymbolLoc& location, const YString& name)
    : NewSpiceStream(location.fileName.c_str()),
      m_end(location.end),
      m_start(location.start),
      m_name(name),
      m_nameDone(name.isEmpty()),
      m_lineOffset(location.lineOffset)
{
    seekg(location.start);
    // The stream ends after exactly end - start characters.
    long long limit = static_cast<long long>(m_end) - static_cast<long long>(m_start);
    setCharLimit(limit < -1 ? -1 : static_cast<int>(limit));
}

LibraryStream::~LibraryStream() = default;

bool LibraryStream::gets(YString* line, int* lineNumber)
{
    int number = 0;
    bool result = NewSpiceStream::gets(line, &number);
    if (!m_nameDone && line) {
        const char* text = line->c_str();
        const char* cursor = text;
        YString keyword = sp_GetToken(&cursor, kDelimiters, "", "", false);
        if (keyword.equalsNoCase(".model") || keyword.equalsNoCase(".subckt")) {
            YString oldName = sp_GetToken(&cursor, kDelimiters, "", "", false);
            if (!oldName.equalsNoCase(m_name.c_str())) {
                // The rest of the line starts right after the old name, its delimiter included.
                const char* rest = cursor;
                if (rest > text && std::strchr(kDelimiters, rest[-1]) && !oldName.isEmpty())
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
        *lineNumber = shifted > 2147483647LL ? 2147483647 : shifted < -2147483647LL - 1 ? -2147483647 - 1 : static_cast<int>(shifted);
    }
    return result;
}

YArray<YString> sp_ParseSpiceLines(const YString& text)
{
    struct Splitter : NewSpiceStream {
        explicit Splitter(kvstream& source) : NewSpiceStream(source) {}
        using NewSpiceStream::lineBuffer;
        using NewSpiceStream::readLine;
    };
    kvstrstream source(text.c_str(), static_cast<size_t>(text.length()));
    Splitter splitter(source);
    YArray<YString> lines;
    int number = 0;
    while (splitter.readLine(&number) != 2)
        lines.append(YString(splitter.lineBuffer().data(), splitter.lineBuffer().length()));
    return lines;
}
