// TreboltParser.cpp - control statements of the switching simulator read into typed parameter values.
#include "NetlistFilter_p.h"
#include "NetlistStream.h"
#include "SimulatorType.h"
#include "TextServices.h"
#include "TreboltControls.h"
#include "TreboltTables_p.h"

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <string>
#include <vector>

using trebolt::ParamDef;
using trebolt::StatementDef;
using trebolt::findParam;
using trebolt::kStatementCount;
using trebolt::kStatements;

namespace {

// True when `text` begins with `prefix`, compared without regard to case.
bool startsWithNoCase(const char* text, const char* prefix)
{
    for (; *prefix; ++text, ++prefix) {
        if (!*text || std::tolower(static_cast<unsigned char>(*text)) != std::tolower(static_cast<unsigned char>(*prefix)))
            return false;
    }
    return true;
}

// Flag slot of the last statement (among those with a slot) whose name begins `text`; -1 when none.
// A longer word that begins with a statement's name counts as that statement.
int matchStatementPrefix(const char* text)
{
    for (int row = kStatementCount - 1; row >= 0; --row)
        if (kStatements[row].flagSlot != trebolt::kNoFlagSlot && startsWithNoCase(text, kStatements[row].name))
            return kStatements[row].flagSlot;
    return -1;
}

// Row of the statement named exactly `token` (any case), searching from the last row; -1 when none.
int findStatement(const YString& token)
{
    for (int row = kStatementCount - 1; row >= 0; --row)
        if (token.equalsNoCase(kStatements[row].name))
            return row;
    return -1;
}

// The integer at the start of `text` as atoi reads it (white space, a sign, digits), stopping at INT_MIN
// and INT_MAX as the Windows atoi does, where other platforms' would wrap.
int readInteger(const char* text)
{
    const long long value = std::strtoll(text, nullptr, 10);
    return value < INT_MIN ? INT_MIN : value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

// Converts `token` by the parameter's type and appends it unless the keyword is already there (the
// first occurrence wins), noting the token as written in `written`. A choice token that names no choice
// is dropped.

void storeValue(const ParamDef& def, const YString& token, YList<TreboltParamValue>& params,
                YList<TreboltWrittenParam>& written)
{
    TreboltParamValue entry;
    entry.name = def.keyword;
    entry.type = def.type;
    entry.valid = 1;
    switch (def.type) {
    case TreboltReal:
        entry.setReal(sp_ConvertEngToReal(token.c_str(), nullptr));
        break;
    case TreboltInteger:
        entry.setInteger(readInteger(token.c_str()));
        break;
    case TreboltFlag:
        entry.setFlag(true);
        break;
    case TreboltSwitch:
        entry.setFlag(readInteger(token.c_str()) != 0);
        break;
    case TreboltText:
        entry.text = token;
        break;
    case TreboltChoice: {
        int index = -1;
        for (int i = 0; i < 4 && def.choices[i]; ++i) {
            if (token.equalsNoCase(def.choices[i])) {
                index = i;
                break;
            }
        }
        if (index < 0)
            return;
        entry.setInteger(index);
        break;
    }
    case TreboltNone:
        break;
    }
    if (findParam(params, def.keyword) < 0) {
        params.append(entry);
        TreboltWrittenParam as;
        as.name = def.keyword;
        as.text = token;
        written.append(as);
    }
}

// The tokens of a line as YString::strtok gives them (delimiters before a token are skipped, a token
// ends at the next delimiter, which is consumed with it), found in one walk over the text: strtok
// removes each token from the front of its string, which makes a long line quadratic.
class Tokens {
public:
    explicit Tokens(const YString& text) : m_text(text.c_str()), m_length(static_cast<size_t>(text.length()))
    {
        for (const char* d = netlist::kTokenDelimiters; *d; ++d)
            m_delimiter[static_cast<unsigned char>(*d)] = true;
    }
    YString next()
    {
        const std::string_view token = nextView();
        return YString(token.data(), static_cast<int>(token.size()));
    }
    // The next token in place, without a copy: a long line's words are mostly only compared.
    std::string_view nextView()
    {
        size_t begin = m_pos;
        while (begin < m_length && m_delimiter[static_cast<unsigned char>(m_text[begin])])
            ++begin;
        if (begin >= m_length) {
            m_pos = m_length;
            return std::string_view();
        }
        size_t end = begin;
        while (end < m_length && !m_delimiter[static_cast<unsigned char>(m_text[end])])
            ++end;
        m_pos = end < m_length ? end + 1 : m_length;
        return std::string_view(m_text + begin, end - begin);
    }

private:
    const char* m_text;
    size_t m_length;
    size_t m_pos = 0;
    bool m_delimiter[256] = {};
};

// Whether a token is a keyword, ignoring ASCII case.
bool isKeyword(std::string_view token, const char* keyword)
{
    for (const char c : token) {
        if (!*keyword || (c >= 'A' && c <= 'Z' ? c + 32 : c) != (*keyword >= 'A' && *keyword <= 'Z' ? *keyword + 32 : *keyword))
            return false;
        ++keyword;
    }
    return !*keyword;
}

// Reads the parameters that follow a statement name. True when the statement has positional parameters
// or at least one named parameter was recognised.
bool readParameters(const StatementDef& statement, Tokens& rest, YList<TreboltParamValue>& params,
                    YList<TreboltWrittenParam>& written)
{
    bool success = statement.positionalCount > 0;
    for (int i = 0; i < statement.positionalCount; ++i) {
        const YString token = rest.next();
        if (token.isEmpty())
            break;
        storeValue(statement.positional[i], token, params, written);
    }
    for (std::string_view token = rest.nextView(); !token.empty(); token = rest.nextView()) {
        const ParamDef* def = nullptr;
        for (int i = statement.namedCount - 1; i >= 0; --i) {
            if (isKeyword(token, statement.named[i].keyword)) {
                def = &statement.named[i];
                break;
            }
        }
        if (!def)
            continue;
        success = true;
        storeValue(*def, def->type == TreboltFlag ? YString() : rest.next(), params, written);
    }
    return success;
}

// The completed entry of a parameter that was not given.
TreboltParamValue completedEntry(const ParamDef& def, bool statementFound)
{
    TreboltParamValue entry;
    entry.name = def.keyword;
    entry.type = def.type;
    if ((def.defaultIfPresent && statementFound) || (def.defaultIfAbsent && !statementFound)) {
        entry.valid = 1;
        const double value = statementFound ? def.presentDefault : def.absentDefault;
        switch (def.type) {
        case TreboltReal:
            entry.setReal(value);
            break;
        case TreboltInteger:
            entry.setInteger(static_cast<int>(value));
            break;
        case TreboltChoice:
            entry.setInteger(static_cast<int>(def.presentDefault));
            break;
        case TreboltFlag:
            entry.setFlag(false);
            break;
        default:
            break;
        }
    } else if (def.type == TreboltFlag) {
        entry.valid = 1;
        entry.setFlag(false);
    }
    return entry;
}

// Blanks the "*" of every line (split at line feeds) that comments out a statement with a flag slot,
// so that the netlist reader reads the statement like an active one; `commented(at, slot)` hears of each,
// `at` being the offset of the "*". Returns the blanked copy, or an empty string when nothing was blanked.
template <class Commented>
std::string uncommentStatements(const char* given, size_t length, Commented commented)
{
    std::string copy;
    for (size_t at = 0; at + 1 < length;) {
        if (given[at] == '*' && given[at + 1] == '.') {
            const int slot = matchStatementPrefix(given + at + 1);
            if (slot >= 0) {
                commented(at, slot);
                if (copy.empty())
                    copy.assign(given, length);
                copy[at] = ' ';
            }
        }
        const void* const lineEnd = std::memchr(given + at, '\n', length - at);
        if (!lineEnd)
            break;
        at = static_cast<size_t>(static_cast<const char*>(lineEnd) - given) + 1;
    }
    return copy;
}

// Appends a copy of `original` under the name `copy` when the list has no `copy` of its own.
void copyUnlessGiven(YList<TreboltParamValue>& params, const char* copy, const char* original)
{
    if (findParam(params, copy) >= 0)
        return;
    const int at = findParam(params, original);
    if (at < 0)
        return;
    TreboltParamValue entry = params[at];
    entry.name = copy;
    params.append(entry);
}

} // namespace

void kvfe_ParseTreboltCommands(const char* text, TreboltCommandParseResult* result)
{
    if (!result)
        return;
    bool enabledSink[TreboltFlagSlotCount];
    bool presentSink[TreboltFlagSlotCount] = {};
    bool* enabled = result->enabledFlags ? result->enabledFlags : enabledSink;
    bool* present = result->presentFlags ? result->presentFlags : presentSink;
    for (int slot = 0; slot < TreboltFlagSlotCount; ++slot)
        enabled[slot] = true;

    // Commented-out statements are marked disabled and then read like active ones.
    const char* const given = text ? text : "";
    const size_t length = std::strlen(given);
    const std::string copy = uncommentStatements(given, length, [&](size_t, int slot) { enabled[slot] = false; });
    kvstrstream source(copy.empty() ? given : copy.data(), length);
    SpiceStream stream(source);
    stream.dontSuppressEmptyLines();
    bool found[kStatementCount] = {};
    int simulator = SimulatorTypeTrebolt;
    YString treboltText, kalvontaText, commonText;
    YString line;
    while (stream.gets(&line, nullptr, nullptr, nullptr)) {
        Tokens rest(line);
        const YString first = rest.next();
        bool consumed = false;
        if (first.equalsNoCase(".simulator")) {
            simulator = support_CrackSimulatorType(rest.next().c_str());
            consumed = true;
        } else if (simulator == SimulatorTypeNone || simulator == SimulatorTypeTrebolt) {
            const int slot = matchStatementPrefix(first.c_str());
            if (slot >= 0)
                present[slot] = true;
            const int row = findStatement(first);
            if (row >= 0) {
                found[row] = true;
                consumed = readParameters(kStatements[row], rest, result->params, result->written);
            }
        }
        if (!consumed) {
            const Buf* raw = stream.getBuffer();
            YString& target = simulator == SimulatorTypeTrebolt    ? treboltText
                              : simulator == SimulatorTypeKalvonta ? kalvontaText
                                                                   : commonText;
            target.append(raw->data(), raw->length());
        }
        stream.flushBuffer();
    }

    YList<TreboltParamValue>& params = result->params;
    // The statement counts points; the list keeps intervals.
    const int npt = findParam(params, "PSP_NPT");
    if (npt >= 0)
        params[npt].setInteger(params[npt].value.integer > INT_MIN ? params[npt].value.integer - 1 : INT_MIN);
    copyUnlessGiven(params, "PSP_START", "TSAVE");
    copyUnlessGiven(params, "PSP_END", "TSTOP");

    for (int row = kStatementCount - 1; row >= 0; --row) {
        const StatementDef& statement = kStatements[row];
        for (int pass = 0; pass < 2; ++pass) {
            const ParamDef* defs = pass == 0 ? statement.named : statement.positional;
            const int count = pass == 0 ? statement.namedCount : statement.positionalCount;
            for (int i = 0; i < count; ++i)
                if (findParam(params, defs[i].keyword) < 0)
                    params.append(completedEntry(defs[i], found[row]));
        }
    }

    result->treboltText = treboltText;
    result->kalvontaText = kalvontaText;
    result->commonText = commonText;
}

YString kvfe_TreboltControlStatementLines(const YString& text)
{
    // The netlist is read as the parser reads it, so that the block holds the very logical lines the
    // parser acts on: statements uncommented, then the netlist reader's lines in the netlist's dialect.
    const char* const given = text.c_str();
    const size_t length = std::strlen(given);
    std::vector<size_t> commentedAt; // the offset of the "*" of each commented-out statement, in order
    const std::string copy = uncommentStatements(given, length, [&](size_t at, int) { commentedAt.push_back(at); });
    kvstrstream source(copy.empty() ? given : copy.data(), length);
    SpiceStream stream(source);
    std::string lines;
    size_t nextCommented = 0;
    // Where the line just read starts, known for every line but the first: the reader has read and
    // handed back the first character of the next line when it hands out a line.
    long long start = -1;
    YString line;
    while (stream.gets(&line, nullptr, nullptr, nullptr)) {
        const long long nextStart = static_cast<long long>(stream.getCharCount()) - 1;
        stream.flushBuffer();
        // A commented-out statement starts a line right after its blanked "*". Before the second line's
        // start is known, only the first line can start there.
        bool commented = false;
        while (nextCommented < commentedAt.size()) {
            const long long lineAt = static_cast<long long>(commentedAt[nextCommented]) + 1;
            if (start >= 0 && lineAt < start) {
                ++nextCommented;
                continue;
            }
            commented = start >= 0 ? lineAt == start : lineAt < nextStart;
            if (commented)
                ++nextCommented;
            break;
        }
        start = nextStart;
        const YString first = Tokens(line).next();
        if (first.equalsNoCase(".simulator") || findStatement(first) >= 0 || matchStatementPrefix(first.c_str()) >= 0) {
            if (commented)
                lines += '*';
            lines.append(line.c_str(), static_cast<size_t>(line.length())).append(1, '\n');
        }
    }
    // A byte 0xFF ended the reading, but not the search for commented-out statements, whose flags the
    // statements after it still clear: the block ends the same way, with each of them after the byte
    // (its word alone, which is all the search reads).
    if (const void* const end = std::memchr(given, 0xFF, length)) {
        const size_t endAt = static_cast<size_t>(static_cast<const char*>(end) - given);
        bool ended = false;
        for (size_t i = nextCommented; i < commentedAt.size(); ++i) {
            const size_t at = commentedAt[i];
            if (at < endAt)
                continue;
            if (!ended)
                lines += "\xFF\n";
            ended = true;
            const size_t word = std::strcspn(given + at, " \t\r\n=(),");
            lines.append(given + at, word).append(1, '\n');
        }
    }
    // The dialect's comment character decides what the lines hold: the block keeps the dialect.
    if (stream.isHspiceMode() && !lines.empty())
        lines.insert(0, "*#HSPICE\n");
    return YString(lines.c_str(), static_cast<int>(lines.size()));
}
