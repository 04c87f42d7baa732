// PatternMatch.cpp - wildcards, regular expressions, sequential tokenising and Qt object look-ups.
#include "PatternMatch.h"
#include "QtSupport.h"

#include <QObject>
#include <QRegExp>
#include <QRegularExpression>

#include <algorithm>
#include <new>
#include <vector>

namespace {

QString fromUtf8(const char* text) { return QString::fromUtf8(text ? text : ""); }

// The wildcard rewritten as a QRegExp pattern.
QString globToRegExp(const QString& glob)
{
    QString p = glob;
    // Brackets, parentheses, braces, dot and plus are literal in a wildcard.
    p.replace("[", "\\[").replace("]", "\\]").replace("(", "\\(").replace(")", "\\)");
    p.replace("{", "\\{").replace("}", "\\}").replace(".", "[.]").replace("+", "[+]");
    // "\*" and "\?" are literal; an even run of backslashes before them is kept.
    p.replace(QRegExp("(^|[^\\\\])(\\\\\\\\){0,}(\\\\\\*)"), "\\1\\2[*]");
    p.replace(QRegExp("(^|[^\\\\])(\\\\\\\\){0,}(\\\\\\?)"), "\\1\\2[?]");
    // A star is one or more characters, a question mark one. Each replacement takes the character after
    // the wildcard with it, so of two adjacent wildcards only the first is rewritten (kept on purpose).
    p.replace(QRegExp("(^|[^[])[*]($|[^]])"), "\\1(.){1,}\\2");
    p.replace(QRegExp("(^|[^[])[?]($|[^]])"), "\\1.\\2");
    return p;
}

// QRegExp parses groups by recursion, and builds a copy of a repeated part for each count of "{n}" and
// "{n,m}", the optional ones of "{n,m}" joined to each other (their cost grows with the square of m - n).
// Parts that may match nothing ("x?", "x*", "x{0,m}") in a row are joined to each other too, and cost
// the square of the run's length. Its matcher keeps a table of every capturing group for every state,
// sized in an int that overflows past about 23000 groups. A pattern nested deeper than this, whose counts
// and runs add more than this to its size, or whose table would pass this many entries is taken as
// invalid, rather than overflow the stack or take gigabytes and minutes.
constexpr int kMaxGroupDepth = 250;
constexpr double kMaxAddedAtoms = 100000;
constexpr double kMaxCaptureTable = 1 << 27;

// A count "{n}", "{n,}" or "{n,m}" at `i`, moving `i` past it: the factor it multiplies its part by
// (1 when no count starts at `i`), and whether it lets the part match nothing ("{0,m}", "{0,}").
struct Repetition {
    double factor = 1;
    bool optional = false;
};
Repetition repetitionAt(const QString& p, int& i)
{
    if (i >= p.size() || p[i] != QLatin1Char('{'))
        return {};
    double low = 0, value = 0;
    bool digits = false, comma = false;
    int j = i + 1;
    for (; j < p.size() && p[j] != QLatin1Char('}'); ++j) {
        if (p[j].isDigit()) {
            value = std::min(value * 10 + p[j].digitValue(), 1e9);
            digits = true;
        } else if (p[j] == QLatin1Char(',') && !comma) {
            low = value;
            value = 0;
            comma = true;
            digits = false;
        } else {
            return {}; // not a count: QRegExp's own parser decides what it is
        }
    }
    if (j >= p.size())
        return {};
    i = j + 1;
    if (!comma)
        return {std::max(value, 1.0), value == 0}; // {n}
    const double high = digits ? value : low; // {n,} builds n copies and a loop
    const double optional = std::max(high - low, 0.0);
    return {std::max(low + optional * optional, 1.0), low == 0};
}

// Whether QRegExp can take the pattern within the bounds above.
bool withinBounds(const QString& p)
{
    const double limit = kMaxAddedAtoms + p.size();
    std::vector<double> atoms{0}; // the atoms of each open group, the whole pattern first
    std::vector<double> run{0};   // the length of the run of parts that may match nothing, per group
    double open = 0;              // the atoms of the groups still open, the innermost one's excepted
    double captures = 0;
    for (int i = 0; i < p.size();) {
        const QChar c = p[i];
        double part = 0;
        if (c == QLatin1Char('(')) {
            if (static_cast<int>(atoms.size()) > kMaxGroupDepth)
                return false;
            if (i + 1 >= p.size() || p[i + 1] != QLatin1Char('?'))
                ++captures;
            open += atoms.back();
            atoms.push_back(0);
            run.push_back(0);
            ++i;
            continue;
        }
        if (c == QLatin1Char(')') && atoms.size() > 1) {
            part = atoms.back();
            atoms.pop_back();
            run.pop_back();
            open -= atoms.back();
            ++i;
        } else if (c == QLatin1Char('[')) {
            // A class is one atom: up to its "]", which may come first in it.
            int j = i + 1;
            if (j < p.size() && p[j] == QLatin1Char('^'))
                ++j;
            if (j < p.size() && p[j] == QLatin1Char(']'))
                ++j;
            while (j < p.size() && p[j] != QLatin1Char(']'))
                j += p[j] == QLatin1Char('\\') ? 2 : 1;
            i = j + 1;
            part = 1;
        } else {
            // A branch ends the run; so does a quantifier standing alone, which QRegExp refuses anyway.
            if (c == QLatin1Char('|'))
                run.back() = 0;
            i += c == QLatin1Char('\\') ? 2 : 1;
            part = 1;
        }
        const Repetition repetition = repetitionAt(p, i);
        part *= repetition.factor;
        bool optional = repetition.optional;
        // Quantifiers belong to the part before them, stacked ones too ("x??", as a wildcard's "??"
        // becomes): "?" and "*" let it match nothing, "+" does not.
        while (i < p.size() && (p[i] == QLatin1Char('?') || p[i] == QLatin1Char('*') || p[i] == QLatin1Char('+'))) {
            optional = optional || p[i] != QLatin1Char('+');
            ++i;
        }
        if (optional) {
            // The run grows by one part, and its cost from the square of its old length to the new one's.
            part += 2 * run.back() + 1;
            ++run.back();
        } else if (c != QLatin1Char('|')) {
            run.back() = 0;
        }
        atoms.back() += part;
        if (open + atoms.back() > limit)
            return false;
    }
    // The matcher's table: four entries per capturing group and three more, for each state.
    const double states = atoms.front() + 2 * captures + 2;
    return (4 * captures + 3) * states <= kMaxCaptureTable;
}

// The pattern as a QRegExp in `*re`; false when it is out of the bounds above or invalid.
bool compile(const QString& pattern, Qt::CaseSensitivity cs, QRegExp* re)
{
    if (!withinBounds(pattern))
        return false;
    *re = QRegExp(pattern, cs, QRegExp::RegExp);
    return re->isValid();
}

// The first match of `pattern` in `text` from position 0, or -1 when the pattern is invalid or out of
// the bounds, or memory runs out.
int firstMatch(const QString& pattern, const QString& text, Qt::CaseSensitivity cs)
{
    try {
        QRegExp re;
        return compile(pattern, cs, &re) ? re.indexIn(text, 0) : -1;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int regexpMatch(const char* pattern, const char* text, Qt::CaseSensitivity cs)
{
    return firstMatch(fromUtf8(pattern), fromUtf8(text), cs);
}

bool classPasses(const QObject* object, const char* className)
{
    if (!className)
        return true;
    if (qstrcmp(className, "QWidget") == 0)
        return object->isWidgetType();
    return object->inherits(className);
}

bool namePasses(const QObject* object, const char* objectName)
{
    return !objectName || object->objectName() == QLatin1String(objectName);
}

void collect(const QObject* parent, const char* className, const char* objectName, bool recursive,
             QList<QObject*>* found, bool firstOnly)
{
    for (QObject* child : parent->children()) {
        if (firstOnly && !found->isEmpty())
            return;
        if (classPasses(child, className) && namePasses(child, objectName))
            found->append(child);
        if (recursive)
            collect(child, className, objectName, true, found, firstOnly);
    }
}

} // namespace

int sp_GlobMatch(const char* pattern, const char* text)
{
    return firstMatch(globToRegExp(fromUtf8(pattern)), fromUtf8(text), Qt::CaseSensitive);
}

int sp_RegexpMatch(const char* pattern, const char* text) { return regexpMatch(pattern, text, Qt::CaseSensitive); }

int sp_RegexpMatch_i(const char* pattern, const char* text) { return regexpMatch(pattern, text, Qt::CaseInsensitive); }

bool sp_RegularExpressionMatch(const YString& text, const YString& pattern, YArray<YString>* captures)
{
    const QRegularExpression re(toQs(pattern));
    if (!re.isValid())
        return false;
    const QRegularExpressionMatch match = re.match(toQs(text), 0);
    if (!match.hasMatch())
        return false;
    if (captures)
        for (int i = 0; i <= re.captureCount(); ++i)
            captures->append(toYs(match.captured(i)));
    return true;
}

bool sp_RegExpMatches(const YArray<YString>& patterns, const YString& text, YArray<YString>* pieces)
{
    try {
        const QString subject = toQs(text);
        int position = 0;
        bool result = true;
        for (const YString& pattern : patterns) {
            // QRegExp's caret matches only at position 0 of the whole text, whatever the search position.
            QRegExp re;
            const int at = compile(toQs(pattern), Qt::CaseSensitive, &re) ? re.indexIn(subject, position, QRegExp::CaretAtZero) : -1;
            if (at != position)
                result = false;
            if (at < 0)
                break;
            if (pieces)
                pieces->append(toYs(re.cap(0)));
            position += re.matchedLength();
        }
        return result;
    } catch (const std::bad_alloc&) {
        return false; // memory ran out: no match
    }
}

QList<QObject*> qtsp_QueryList(const QObject* parent, const char* className, const char* objectName, bool,
                               bool recursive)
{
    QList<QObject*> found;
    if (parent)
        collect(parent, className, objectName, recursive, &found, false);
    return found;
}

QObject* qtsp_SearchChild(const QObject* parent, const char* objectName, const char* className, bool recursive)
{
    QList<QObject*> found;
    if (parent)
        collect(parent, className, objectName, recursive, &found, true);
    return found.isEmpty() ? nullptr : found.first();
}
