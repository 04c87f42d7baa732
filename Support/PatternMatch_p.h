// PatternMatch_p.h - the bounds the QRegExp matchers keep, shared with the pattern check.
#pragma once

#include <QString>

namespace patternmatch {

/// Why the matchers take `pattern` as invalid before QRegExp builds it, or null when QRegExp may build
/// it: QRegExp's own message for a syntax error found here first ("bad repetition syntax", "unexpected
/// end", ...), or "groups nested deeper than 250", "too large to build", "too many capturing groups".
const char* refusal(const QString& pattern);

} // namespace patternmatch
