// PatternCheck.h - whether a regular expression is one the pattern matchers take, and why not.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

/// Whether `sp_RegexpMatch`, `sp_RegexpMatch_i` and `sp_RegExpMatches` take `pattern` as a valid regular
/// expression (null counts as empty; the case does not change the answer). When they do not and `reason`
/// is not null, `*reason` says why, otherwise it is left as it was: QRegExp's own message for an
/// expression it refuses ("unexpected end", "bad repetition syntax", "met internal limit", ...), or for
/// one the matchers refuse before QRegExp builds it (see PatternMatch.h), "groups nested deeper than
/// 250", "too large to build", "too many capturing groups", "too many back-references" or "out of
/// memory". The check builds the expression only when the matchers would, so it takes no longer than they
/// do, and never more memory. Where a pattern holds several errors the message is for the first one
/// found, which is QRegExp's own first except where a later one is found before building; an error inside
/// a lookahead is "bad lookahead syntax".
[[nodiscard]] SUPPORTQT_API bool sp_CheckRegexp(const char* pattern, YString* reason);
