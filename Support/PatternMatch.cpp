// PatternMatch.cpp - wildcards, regular expressions, sequential tokenising and Qt object look-ups.
#include "PatternMatch.h"
#include "PatternMatch_p.h"
#include "QtSupport.h"

#include <QObject>
#include <QRegExp>
#include <QRegularExpression>

#include <algorithm>
#include <limits>
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

// QRegExp parses groups by recursion, and builds its automaton from copies of each counted part: "{n}"
// makes n copies in a row, the optional ones of "{n,m}" m - n copies nested one in the other. Between two
// parts in a row it links every state that can end the first to every state that can start the second;
// after parts that may match nothing ("x?", "x*", "x{0,m}", "(x|)") those sets grow with each part, so a
// run of such parts, or many copies of one, costs the square of its length in links. Its matcher keeps a
// table of every capturing group for every state, sized in an int that overflows past about 23000
// groups. A pattern nested deeper than this, whose states and links would pass this limit (beyond twice
// its own length), or whose table would pass this many entries is taken as invalid, rather than overflow
// the stack or take gigabytes and minutes.
// Each lookahead is an automaton of its own, and QRegExp takes at most 13 in one automaton; it drops
// the fourteenth without freeing it. When a lookahead's own text is invalid the enclosing automaton
// parses that text again as its own, so any automaton may come to hold every lookahead inside it: more
// than 13 in all, nested ones and each copy a count makes included, are taken as invalid.
constexpr int kMaxGroupDepth = 250;
constexpr double kMaxLookaheads = 13;
constexpr double kMaxAddedSize = 100000;
constexpr double kMaxCaptureTable = 1 << 27;
constexpr double kMaxRepetition = 1001; // QRegExp refuses larger counts; this only bounds the work here
constexpr double kMaxBackReference = 14; // QRegExp's largest
// QRegExp matches back-references apart from its automaton, at a cost that grows with the square of
// their copies at each position of the text: 100 copies search 10000 characters in a third of a
// second, "((\2{99}){99})" took 10 s and 2.4 GB for two characters.
constexpr double kMaxBackReferenceCopies = 100;

// QRegExp's own words for the errors refused here before it sees them.
const char* const kRepetitionError = "bad repetition syntax";
const char* const kLookaheadError = "bad lookahead syntax";
const char* const kLimitError = "met internal limit";
const char* const kBackReferencesError = "too many back-references";
const char* const kTooLarge = "too large to build";

// The position after the character class that starts at `i`: up to its "]", which may come first in it
// (after a "^"), escaped ones passed over.
int afterClass(const QString& p, int i)
{
    int j = i + 1;
    if (j < p.size() && p[j] == QLatin1Char('^'))
        ++j;
    if (j < p.size() && p[j] == QLatin1Char(']'))
        ++j;
    while (j < p.size() && p[j] != QLatin1Char(']'))
        j += p[j] == QLatin1Char('\\') ? 2 : 1;
    return j + 1;
}

// The size of a part as QRegExp builds it: its states, the links between them, how many of its states a
// match can start and end in, and whether it may match nothing.
struct Part {
    double states = 0;
    double links = 0;
    double starts = 0;
    double ends = 0;
    bool empty = true;
    double lookaheads = 0; // the lookahead automata it makes, nested ones included
    // When it may match nothing: how many alternatives the anchors it then checks make. QRegExp joins
    // those of parts in a row by distributing one over the other, so they multiply, each a new entry.
    double anchorTerms = 0;
    double backReferences = 0;
    // How many parts QRegExp parses for it, each copy a count makes parsed again: "(\b{0}){999}" is
    // nothing once built, but its parsing is not.
    double parsed = 0;

    double size() const { return states + links; }
};

const Part kAtom{1, 0, 1, 1, false, 0, 0, 0, 1};
// An anchor is a condition on links, not a state, but QRegExp records each copy of it, joined to the
// anchors beside it: it counts as one link.
const Part kAnchor{0, 1, 0, 0, true, 0, 1, 0, 1};
// A back-reference is a state that matches nothing when its group did, with an anchor for that case.
const Part kBackReference{1, 1, 1, 1, true, 0, 1, 1, 1};

// The anchor alternatives of two parts joined in a row, when both may match nothing.
double joinedTerms(double a, double b) { return a > 0 && b > 0 ? a * b : a + b; }

// `a` followed by `b`.
Part sequence(const Part& a, const Part& b)
{
    // Joining anchors that hold alternatives costs an entry per alternative made, and one per
    // alternative for each state the other part starts or ends in; plain anchors join for nothing.
    const double joined = a.empty && b.empty ? joinedTerms(a.anchorTerms, b.anchorTerms) : 0;
    const double anchorLinks = (joined > 1 ? joined : 0) + (a.anchorTerms > 1 ? a.anchorTerms * b.starts : 0) +
                               (b.anchorTerms > 1 ? b.anchorTerms * a.ends : 0);
    return {a.states + b.states, a.links + b.links + a.ends * b.starts + anchorLinks,
            a.starts + (a.empty ? b.starts : 0), b.ends + (b.empty ? a.ends : 0), a.empty && b.empty,
            a.lookaheads + b.lookaheads, joined, a.backReferences + b.backReferences, a.parsed + b.parsed};
}

// `a` or `b`.
Part alternative(const Part& a, const Part& b)
{
    return {a.states + b.states, a.links + b.links, a.starts + b.starts, a.ends + b.ends, a.empty || b.empty,
            a.lookaheads + b.lookaheads, (a.empty ? a.anchorTerms : 0) + (b.empty ? b.anchorTerms : 0),
            a.backReferences + b.backReferences, a.parsed + b.parsed};
}

// QRegExp drops the anchors of a part made optional.
Part optional(Part p)
{
    p.empty = true;
    p.anchorTerms = 0;
    return p;
}

// The part repeated without end: its ends linked back to its starts.
Part loop(Part p)
{
    p.links += p.ends * p.starts;
    return p;
}

// A count "{n}", "{n,}", "{n,m}" or "{,m}" at `i`, moving `i` past it. QRegExp takes every "{" as the
// start of a count and reports an error when the count does not close right after its digits: such a
// count is `malformed`.
struct Repetition {
    bool present = false;
    double low = 0;
    double high = 0;
    bool unbounded = false;
    bool malformed = false;

    // How many times QRegExp parses the counted part: once, and again for each copy beyond the first.
    double copies() const { return std::max(1.0, unbounded ? low : high); }
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
            value = std::min(value * 10 + p[j].digitValue(), kMaxRepetition);
            digits = true;
        } else if (p[j] == QLatin1Char(',') && !comma) {
            low = value;
            value = 0;
            comma = true;
            digits = false;
        } else {
            break;
        }
    }
    if (j >= p.size() || p[j] != QLatin1Char('}')) {
        Repetition r;
        r.present = r.malformed = true;
        return r;
    }
    i = j + 1;
    if (!comma)
        return {true, value, value, false};
    return {true, low, digits ? std::max(value, low) : low, !digits};
}

// The part as a count repeats it, or nothing once it passes `limit`.
Part repeated(const Part& p, const Repetition& r, double limit)
{
    Part result;
    for (double k = 0; k < r.low && result.size() <= limit; ++k)
        result = sequence(result, p);
    if (r.unbounded)
        return sequence(result, optional(loop(p)));
    if (r.high > r.low) {
        Part nested = optional(p);
        for (double k = r.low + 1; k < r.high && nested.size() <= limit; ++k)
            nested = optional(sequence(p, nested));
        result = sequence(result, nested);
    }
    return result;
}

// An open group: the branches before its last "|", and the parts of its current branch.
struct Group {
    Part branches;
    Part branch;
    bool anyBranch = false;
    bool zeroWidth = false; // a lookahead, which consumes nothing
    int start = 0;          // where its text starts, after "(", "(?=", "(?!" or "(?:"

    Part whole() const { return anyBranch ? alternative(branches, branch) : branch; }
};

} // namespace

const char* patternmatch::refusal(const QString& p, std::vector<std::pair<int, int>>* lookaheads)
{
    const double limit = kMaxAddedSize + 2.0 * p.size();
    std::vector<Group> groups(1); // the whole pattern first
    double open = 0;              // the size of the groups still open, the innermost one's excepted
    double captures = 0;
    for (int i = 0; i < p.size();) {
        const QChar c = p[i];
        Part part = kAtom;
        // A count with no part before it, or after another count or quantifier, is an error to QRegExp.
        if (c == QLatin1Char('{'))
            return kRepetitionError;
        if (c == QLatin1Char('(')) {
            if (static_cast<int>(groups.size()) > kMaxGroupDepth)
                return "groups nested deeper than 250";
            Group group;
            if (i + 1 < p.size() && p[i + 1] == QLatin1Char('?')) {
                const QChar kind = i + 2 < p.size() ? p[i + 2] : QChar();
                if (kind == QLatin1Char('<'))
                    return "lookbehinds not supported, see QTBUG-2371";
                if (kind != QLatin1Char('=') && kind != QLatin1Char('!') && kind != QLatin1Char(':'))
                    return kLookaheadError; // "(?" takes only these three
                group.zeroWidth = kind != QLatin1Char(':');
                group.start = i + 3;
            } else {
                ++captures;
                group.start = i + 1;
            }
            open += groups.back().whole().size();
            groups.push_back(group);
            ++i;
            continue;
        }
        if (c == QLatin1Char('|')) {
            Group& group = groups.back();
            group.branches = group.anyBranch ? alternative(group.branches, group.branch) : group.branch;
            group.branch = Part();
            group.anyBranch = true;
            ++i;
            continue;
        }
        if (c == QLatin1Char(')') && groups.size() > 1) {
            const Group group = groups.back();
            groups.pop_back();
            open -= groups.back().whole().size();
            part = group.whole();
            part.parsed += 1;
            if (group.zeroWidth) { // its states are built, but it links to nothing around it
                part = {part.states, part.links + 1, 0, 0, true, part.lookaheads + 1, 1,
                        part.backReferences, part.parsed};
                if (lookaheads)
                    lookaheads->emplace_back(group.start, i);
            }
            ++i;
        } else if (c == QLatin1Char(')')) {
            return "missing left delim"; // a ")" that closes no group
        } else if (c == QLatin1Char('[')) {
            i = afterClass(p, i); // a class is one atom
        } else if (c == QLatin1Char('^') || c == QLatin1Char('$')) {
            part = kAnchor;
            ++i;
        } else if (c == QLatin1Char('\\')) {
            const QChar escaped = i + 1 < p.size() ? p[i + 1] : QChar();
            if (escaped == QLatin1Char('b') || escaped == QLatin1Char('B'))
                part = kAnchor;
            i += 2;
            if (escaped >= QLatin1Char('1') && escaped <= QLatin1Char('9')) {
                // A back-reference takes every digit after it, its number kept in 16 bits as QRegExp
                // keeps it ("\65537" is "\1"). QRegExp refuses numbers past 14, but first sizes its
                // matcher's table for that many groups; one it reads as 0 refers to no group at all.
                unsigned number = static_cast<unsigned>(escaped.digitValue());
                for (; i < p.size() && p[i] >= QLatin1Char('0') && p[i] <= QLatin1Char('9'); ++i)
                    number = (number * 10 + static_cast<unsigned>(p[i].digitValue())) & 0xffffu;
                if (number == 0 || number > kMaxBackReference)
                    return kLimitError;
                part = kBackReference;
            }
        } else {
            ++i; // a quantifier standing alone is one atom too; QRegExp refuses it anyway
        }
        const Repetition repetition = repetitionAt(p, i);
        if (repetition.malformed)
            return kRepetitionError;
        if (repetition.present) {
            const double lookaheads = part.lookaheads * repetition.copies();
            const double parsed = part.parsed * repetition.copies();
            part = repeated(part, repetition, limit);
            part.lookaheads = lookaheads;
            part.parsed = parsed;
        }
        if (part.lookaheads > kMaxLookaheads)
            return kLimitError;
        if (part.parsed > limit)
            return kTooLarge;
        if (part.backReferences > kMaxBackReferenceCopies)
            return kBackReferencesError;
        // Quantifiers belong to the part before them, stacked ones too ("x??", as a wildcard's "??"
        // becomes): "?" makes it optional, "*" a loop that may match nothing, "+" a loop.
        for (; i < p.size() && (p[i] == QLatin1Char('?') || p[i] == QLatin1Char('*') || p[i] == QLatin1Char('+')); ++i)
            part = p[i] == QLatin1Char('?') ? optional(part) : p[i] == QLatin1Char('*') ? optional(loop(part)) : loop(part);
        Group& group = groups.back();
        group.branch = sequence(group.branch, part);
        if (open + group.whole().size() > limit)
            return kTooLarge;
    }
    // A group left open: QRegExp reports an open lookahead before an open group around it.
    if (groups.size() > 1) {
        const bool lookahead = std::any_of(groups.begin(), groups.end(), [](const Group& g) { return g.zeroWidth; });
        return lookahead ? kLookaheadError : "unexpected end";
    }
    if (groups.front().whole().lookaheads > kMaxLookaheads)
        return kLimitError;
    if (groups.front().whole().parsed > limit)
        return kTooLarge;
    if (groups.front().whole().backReferences > kMaxBackReferenceCopies)
        return kBackReferencesError;
    // The matcher's table: four entries per capturing group and three more, for each state.
    const double states = groups.front().whole().states + 2 * captures + 2;
    return (4 * captures + 3) * states <= kMaxCaptureTable ? nullptr : "too many capturing groups";
}

namespace {

bool withinBounds(const QString& p) { return patternmatch::refusal(p) == nullptr; }

// A rewritten wildcard made only of single characters in a row: literal ones, "." (any one character,
// a line break too) and "(.){1,}" (one or more), each literal or "." maybe followed by a bare "*" or "?"
// (left so by the rewriting after adjacent wildcards and after a wildcard's character): zero or more,
// zero or one. False when the pattern uses anything else ("^", "$", "|", escapes other than those of the
// rewriting, quantifiers stacked or after a group), which QRegExp then searches itself.
struct Step {
    enum Repeat { One, Optional, Any, OneOrMore };
    char16_t c = 0;
    bool anyCharacter = false;
    Repeat repeat = One;
};

bool plainWildcard(const QString& re, std::vector<Step>* steps)
{
    static const QString oneOrMore = QStringLiteral("(.){1,}");
    steps->clear();
    bool repeatable = false; // whether the last step may take a bare quantifier
    for (int i = 0; i < re.size();) {
        const QChar c = re[i];
        Step step;
        if (c == QLatin1Char('\\')) {
            if (i + 1 >= re.size() || !QStringLiteral("[](){}").contains(re[i + 1]))
                return false;
            step.c = re[i + 1].unicode();
            i += 2;
        } else if (c == QLatin1Char('[')) {
            if (i + 2 >= re.size() || re[i + 2] != QLatin1Char(']') || !QStringLiteral(".+*?").contains(re[i + 1]))
                return false;
            step.c = re[i + 1].unicode();
            i += 3;
        } else if (c == QLatin1Char('(')) {
            if (re.midRef(i, oneOrMore.size()) != oneOrMore)
                return false;
            step.anyCharacter = true;
            step.repeat = Step::OneOrMore;
            steps->push_back(step);
            repeatable = false;
            i += oneOrMore.size();
            continue;
        } else if (c == QLatin1Char('*') || c == QLatin1Char('?')) {
            if (!repeatable)
                return false;
            steps->back().repeat = c == QLatin1Char('*') ? Step::Any : Step::Optional;
            repeatable = false;
            ++i;
            continue;
        } else if (c == QLatin1Char('.')) {
            step.anyCharacter = true;
            ++i;
        } else if (QStringLiteral("^$|)]{}+").contains(c)) {
            return false;
        } else {
            step.c = c.unicode();
            ++i;
        }
        steps->push_back(step);
        repeatable = true;
    }
    return true;
}

// The first match of such a wildcard, as QRegExp finds it: the text is read once, keeping for each step
// the earliest start of a partial match that has reached it (later starts there have the same future),
// until the earliest start that completes a match has no earlier rival left. Only the steps some partial
// match has reached are visited, in order, so that a long pattern costs the matches under way, not its
// length, at each character. With `atStart` ("^" first) a match starts at 0 only; with `atEnd` ("$"
// last) it completes at the end of the text only.
int firstPlainMatch(const std::vector<Step>& steps, const QString& text, bool atStart = false, bool atEnd = false)
{
    const int none = std::numeric_limits<int>::max();
    const int count = static_cast<int>(steps.size());
    std::vector<int> at(static_cast<size_t>(count) + 1, none), next(static_cast<size_t>(count) + 1, none);
    std::vector<int> reached, reachedNext, closed; // the steps whose entry in `at` (`next`) is set, in order
    const auto mayTakeNothing = [&](int s) { return s < count && (steps[s].repeat == Step::Optional || steps[s].repeat == Step::Any); };
    int found = none;
    for (int position = 0;; ++position) {
        const bool starts = position < found && (!atStart || position == 0);
        if (starts && at[0] == none)
            reached.insert(reached.begin(), 0);
        if (starts)
            at[0] = std::min(at[0], position);
        // A step that may take nothing lets its partial matches on to the next one.
        closed.clear();
        for (size_t i = 0; i < reached.size(); ++i) {
            int s = reached[i];
            closed.push_back(s);
            while (mayTakeNothing(s)) {
                const int t = s + 1;
                const bool listed = i + 1 < reached.size() && reached[i + 1] == t;
                at[t] = std::min(at[t], at[s]);
                if (listed)
                    break;
                closed.push_back(t);
                s = t;
            }
        }
        reached.swap(closed);
        if (!atEnd || position >= text.size())
            found = std::min(found, at[count]);
        if (position >= text.size())
            break;
        const char16_t c = text[position].unicode();
        reachedNext.clear();
        const auto reach = [&](int s, int start) {
            if (next[s] == none)
                reachedNext.push_back(s);
            next[s] = std::min(next[s], start);
        };
        for (const int s : reached) {
            if (s == count || at[s] >= found || !(steps[s].anyCharacter || steps[s].c == c))
                continue;
            if (steps[s].repeat == Step::Any || steps[s].repeat == Step::OneOrMore)
                reach(s, at[s]);
            if (steps[s].repeat != Step::Any)
                reach(s + 1, at[s]);
        }
        if (reachedNext.empty() && (found != none || atStart))
            break;
        for (const int s : reached)
            at[s] = none;
        at.swap(next);
        reached.swap(reachedNext);
    }
    return found == none ? -1 : found;
}

// The first position from `from` on where `text` may hold `c` for QRegExp, or -1. Ignoring case, QRegExp
// compares a plain string by case folding (U+017F, long s, matches "S") and other patterns by lower case
// (it does not): a character that either way compares equal is taken.
int nextOf(const QString& text, QChar c, int from, Qt::CaseSensitivity cs)
{
    const int folded = text.indexOf(c, from, cs);
    if (cs == Qt::CaseSensitive)
        return folded;
    const QChar lower = c.toLower();
    const int end = folded < 0 ? text.size() : folded;
    for (int i = from; i < end; ++i) {
        if (text[i].toLower() == lower)
            return i;
    }
    return folded;
}

// Whether a regular expression certainly finds nothing in `text`: the characters it must match outside
// any group, count or alternative, in its order, are not all in the text in that order. Patterns this
// reading does not cover (escapes of letters and digits other than back-references, a "|" or ")"
// outside a group) are left to QRegExp.
bool certainlyNoMatch(const QString& p, const QString& text, Qt::CaseSensitivity cs)
{
    static const QString special = QStringLiteral("\\^$.[](){}|*+?");
    std::vector<QChar> required;
    int depth = 0;
    for (int i = 0; i < p.size();) {
        const QChar c = p[i];
        if (c == QLatin1Char('\\')) {
            if (i + 1 < p.size() && p[i + 1] >= QLatin1Char('1') && p[i + 1] <= QLatin1Char('9')) {
                // A back-reference, with every digit after it: it requires no character of its own.
                for (i += 2; i < p.size() && p[i] >= QLatin1Char('0') && p[i] <= QLatin1Char('9'); ++i) {
                }
                continue;
            }
            if (i + 1 >= p.size() || p[i + 1].isLetterOrNumber())
                return false;
            i += 2;
        } else if (c == QLatin1Char('[')) {
            i = afterClass(p, i);
        } else if (c == QLatin1Char('{')) {
            i = p.indexOf(QLatin1Char('}'), i); // a count: its digits are no characters to match
            if (i < 0)
                return false;
            ++i;
        } else if (c == QLatin1Char('(')) {
            ++depth;
            ++i;
        } else if (c == QLatin1Char(')')) {
            if (--depth < 0)
                return false;
            ++i;
        } else if (c == QLatin1Char('|')) {
            if (depth == 0)
                return false;
            ++i;
        } else {
            ++i;
            // A character outside any group, with no quantifier or count after it, is matched once.
            // Ignoring case, QRegExp may compare a pair of surrogates as one folded character: a
            // surrogate is left out.
            if (depth == 0 && !special.contains(c) && (i >= p.size() || !QStringLiteral("?*+{").contains(p[i])) &&
                !(cs == Qt::CaseInsensitive && c.isSurrogate()))
                required.push_back(c);
        }
    }
    int from = 0;
    for (const QChar c : required) {
        from = nextOf(text, c, from, cs);
        if (from < 0)
            return true;
        ++from;
    }
    return false;
}

} // namespace

bool patternmatch::compile(const QString& pattern, Qt::CaseSensitivity cs, QRegExp* re, QString* reason)
{
    std::vector<std::pair<int, int>> lookaheads;
    if (const char* refused = refusal(pattern, &lookaheads)) {
        if (reason)
            *reason = QLatin1String(refused);
        return false;
    }
    // An error inside a lookahead makes QRegExp read its text again as part of the automaton around
    // it, and after a count of 14 or more there it loses the memory of an automaton. The text of each
    // lookahead, the innermost first, is built on its own first: it is valid there exactly when it is
    // valid inside.
    for (const auto& span : lookaheads) {
        if (!QRegExp(pattern.mid(span.first, span.second - span.first), cs, QRegExp::RegExp).isValid()) {
            if (reason)
                *reason = QLatin1String(kLookaheadError);
            return false;
        }
    }
    *re = QRegExp(pattern, cs, QRegExp::RegExp);
    if (!re->isValid() && reason)
        *reason = re->errorString();
    return re->isValid();
}

namespace {

// The pattern as a QRegExp in `*re`; false when it is out of the bounds above or invalid.
bool compile(const QString& pattern, Qt::CaseSensitivity cs, QRegExp* re)
{
    return patternmatch::compile(pattern, cs, re, nullptr);
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
    const QString p = fromUtf8(pattern);
    const QString t = fromUtf8(text);
    // QRegExp tries every start position in turn, each as far as the pattern lets it: a pattern that
    // cannot match anywhere costs the square of the text's length, which this check spares when it can.
    if (certainlyNoMatch(p, t, cs))
        return -1;
    return firstMatch(p, t, cs);
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

// Depth first in pre-order, with a stack of its own: a chain of objects deeper than the call stack
// holds frames is searched too.
void collect(const QObject* parent, const char* className, const char* objectName, bool recursive,
             QList<QObject*>* found, bool firstOnly)
{
    struct Level {
        const QObjectList* children;
        int next;
    };
    std::vector<Level> levels{{&parent->children(), 0}};
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.children->size()) {
            levels.pop_back();
            continue;
        }
        QObject* const child = level.children->at(level.next++);
        if (classPasses(child, className) && namePasses(child, objectName)) {
            found->append(child);
            if (firstOnly)
                return;
        }
        if (recursive && !child->children().isEmpty())
            levels.push_back({&child->children(), 0});
    }
}

} // namespace

int sp_GlobMatch(const char* pattern, const char* text)
{
    const QString re = globToRegExp(fromUtf8(pattern));
    const QString t = fromUtf8(text);
    // QRegExp would try every start position, each to the end of the text for a star: the square of
    // the text's length. A plain wildcard is matched here instead, in one pass over the text.
    // So is one that a "^" begins or a "$" ends.
    std::vector<Step> steps;
    const bool atStart = re.startsWith(QLatin1Char('^'));
    const bool atEnd = re.size() > (atStart ? 1 : 0) && re.endsWith(QLatin1Char('$'));
    const QString inner = re.mid(atStart ? 1 : 0, re.size() - (atStart ? 1 : 0) - (atEnd ? 1 : 0));
    if (plainWildcard(inner, &steps))
        return withinBounds(re) ? firstPlainMatch(steps, t, atStart, atEnd) : -1;
    // Others are QRegExp's, but for one that cannot match at all: it would try every start to the end.
    if (certainlyNoMatch(re, t, Qt::CaseSensitive))
        return -1;
    return firstMatch(re, t, Qt::CaseSensitive);
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
