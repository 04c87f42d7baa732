// PatternMatch.h - wildcards, regular expressions, sequential tokenising and Qt object look-ups.
#pragma once

#include "SupportQtExport.h"
#include "YContainers.h"
#include "YString.h"

#include <QList>

class QObject;

/// Position (in UTF-16 units) of the first match of a wildcard anywhere in `text`, or -1. "*" stands for
/// one or more characters (never none), "?" for one; "\*" and "\?" are literal; brackets, parentheses,
/// braces, "." and "+" are literal; "^", "$", "|" and "\" keep their regular-expression meaning. The
/// match is not anchored. Null arguments count as empty.
///
/// Here and in the `QRegExp` matchers below, a pattern whose groups nest deeper than 250, or whose size
/// as QRegExp builds it would pass 100000 plus twice the pattern's length, counts as invalid, as does one
/// that runs out of memory: the parser would overflow the stack or take gigabytes and minutes. The size
/// is its states (one per character, class or "." of each copy; "{n,m}" makes m copies, "{n,}" n + 1)
/// plus the links between them: between two parts in a row, one per pair of a state that can end the
/// first and one that can start the second. After parts that may match nothing ("x?", "x*", "x{0,m}",
/// "(x|)", or copies of such a part) those sets grow part by part, so a run of k such parts costs about
/// k * k / 2 links (450 of ".?" pass, 451 do not), and the optional copies of "{n,m}", nested in each
/// other, cost one link each when the part must match something ("\d{1,400}" passes). A pattern with so
/// many capturing groups that the matcher's table of them, four entries per group for each state, would
/// pass 2^27 entries (some 3000 groups) is invalid too. Each copy of an anchor ("^", "$", "\b", "\B")
/// counts as one link, as does each back-reference, which may match nothing. Parts in a row that may
/// match nothing join the anchors they then check by multiplying their alternatives: each alternative
/// made counts as one link ("(\b|\B)" 17 times in a row, or "(\b|\B){17}", does not pass). Nor does a
/// pattern whose parsed parts number more than that limit, each copy a count makes parsed again and each
/// group once more, though they build nothing ("((\b{0}){999}){99}"). More than 13 lookaheads in all
/// ("(?=" and "(?!", nested ones and each copy a count makes included; "{0}" makes one) are invalid:
/// QRegExp takes 13 in one expression and loses the memory of the next, and a nested one it cannot read
/// it reads again as part of the one around it. Syntax errors that QRegExp reports only after building
/// what it has read (a count that does not close, a "(" or ")" without its partner, "(?" other than
/// "(?=", "(?!" and "(?:", a count with nothing to count, a back-reference past "\14", its number read in
/// 16 bits as QRegExp reads it, so that "\65537" is "\1" and "\65536", which QRegExp reads as no group at
/// all, is invalid) make the pattern invalid before it is built. So do more than 100 copies of
/// back-references in all: QRegExp matches them apart from its automaton, at a cost that grows with the
/// square of their copies at each position of the text. Wildcards made only of literal characters, "*"
/// and "?" are matched in one pass over the text, with the same result as `QRegExp`.
SUPPORTQT_API int sp_GlobMatch(const char* pattern, const char* text);
/// Position of the first match of the regular expression in `text`, or -1 (also for an invalid one).
SUPPORTQT_API int sp_RegexpMatch(const char* pattern, const char* text);
/// The same, ignoring case.
SUPPORTQT_API int sp_RegexpMatch_i(const char* pattern, const char* text);
/// Perl-compatible match from position 0: on a match appends the whole match and every group (an
/// unmatched group as empty text) to `*captures` and returns true; else false, `*captures` unchanged.
SUPPORTQT_API bool sp_RegularExpressionMatch(const YString& text, const YString& pattern, YArray<YString>* captures);
/// Whether `text` is one match of each pattern in turn from position 0 (a "^" matches only at 0). Each
/// matched piece is appended to `*pieces`; a pattern that matches later than where the previous one
/// ended makes the result false; no match at all stops. Text after the last pattern is not checked.
SUPPORTQT_API bool sp_RegExpMatches(const YArray<YString>& patterns, const YString& text, YArray<YString>* pieces);
/// Every descendant of `parent` (pre-order) whose class passes `className` ("QWidget": any widget;
/// other names: `inherits`; null: any) and whose object name equals `objectName` (null: any).
/// `ignored` has no effect; `recursive` false looks at the direct children only. The objects stay owned
/// by their parents: the caller does not own them.
SUPPORTQT_API QList<QObject*> qtsp_QueryList(const QObject* parent, const char* className, const char* objectName,
                                             bool ignored, bool recursive);
/// The first such descendant, or null. Note the order: name before class. The caller does not own it.
SUPPORTQT_API QObject* qtsp_SearchChild(const QObject* parent, const char* objectName, const char* className,
                                        bool recursive);
