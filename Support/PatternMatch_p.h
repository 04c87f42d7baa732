// PatternMatch_p.h - the bounds the QRegExp matchers keep, shared with the pattern check.
#pragma once

#include <QRegExp>
#include <QString>

#include <utility>
#include <vector>

namespace patternmatch {

/// Why the matchers take `pattern` as invalid before QRegExp builds it, or null when QRegExp may build
/// it: QRegExp's own message for a syntax error found here first ("bad repetition syntax", "unexpected
/// end", ...), or "groups nested deeper than 250", "too large to build", "too many capturing groups".
/// When not null, `*lookaheads` receives where the text of each lookahead starts and ends, the innermost
/// first.
const char* refusal(const QString& pattern, std::vector<std::pair<int, int>>* lookaheads = nullptr);

/// The pattern built as the matchers build it, in `*re`; false when they take it as invalid, with why
/// in `*reason` (when not null): the reason above, or QRegExp's own message. May throw `std::bad_alloc`.
bool compile(const QString& pattern, Qt::CaseSensitivity cs, QRegExp* re, QString* reason);

} // namespace patternmatch
