// LibraryIndex.cpp - one pass over a model library's bytes, a line at a time, looking only at lines
// that begin with "." and at the lines that follow a model.
#include "LibraryIndex.h"

#include <cstring>

namespace {

bool startsWithNoCase(const char* p, const char* end, const char* word, size_t length)
{
    if (static_cast<size_t>(end - p) < length)
        return false;
    for (size_t i = 0; i < length; ++i) {
        char c = p[i];
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        if (c != word[i])
            return false;
    }
    return true;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool endsName(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '=' || c == '(' || c == ')' || c == ',';
}

} // namespace

std::vector<LibraryDefinition> indexLibrary(const char* text, size_t size)
{
    std::vector<LibraryDefinition> definitions;
    definitions.reserve(size / 512);
    std::vector<size_t> openSubckts;
    size_t openModel = static_cast<size_t>(-1);
    const char* const end = text + size;
    int line = 1;
    for (const char* p = text; p < end; ++line) {
        const char* lineFeed = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
        const char* next = lineFeed ? lineFeed + 1 : end;
        const int nextPosition = static_cast<int>(next - text);
        if (openModel != static_cast<size_t>(-1)) {
            const char* q = p;
            while (q < next && (*q == ' ' || *q == '\t'))
                ++q;
            if (q < next && *q == '+')
                definitions[openModel].end = nextPosition;
            else
                openModel = static_cast<size_t>(-1);
        }
        if (*p == '.') {
            if (!openSubckts.empty() && startsWithNoCase(p, next, ".ends", 5)) {
                for (size_t index : openSubckts)
                    definitions[index].end = nextPosition;
                openSubckts.clear();
            }
            const bool subckt = startsWithNoCase(p, next, ".subckt", 7);
            const size_t keyword = subckt ? 7 : startsWithNoCase(p, next, ".model", 6) ? 6 : 0;
            if (keyword && p + keyword < next && isBlank(p[keyword])) {
                const char* nameStart = p + keyword;
                while (nameStart < next && (*nameStart == ' ' || *nameStart == '\t'))
                    ++nameStart;
                const char* nameEnd = nameStart;
                while (nameEnd < next && !endsName(*nameEnd))
                    ++nameEnd;
                if (nameEnd > nameStart) {
                    LibraryDefinition d;
                    d.kind = subckt ? LibraryDefinition::Subckt : LibraryDefinition::Model;
                    d.name = std::string_view(nameStart, static_cast<size_t>(nameEnd - nameStart));
                    d.start = static_cast<int>(p - text);
                    d.end = subckt ? static_cast<int>(size) : nextPosition;
                    d.line = line;
                    definitions.push_back(d);
                    if (subckt)
                        openSubckts.push_back(definitions.size() - 1);
                    else
                        openModel = definitions.size() - 1;
                }
            }
        }
        p = next;
    }
    return definitions;
}
