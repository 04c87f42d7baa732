// TextServices.h - tokenising, number conversion and hashing of text.
#pragma once

#include "SupportDllExport.h"
#include "YContainers.h"
#include "YString.h"

/// Splits `text` into tokens at any of the delimiter characters (runs of delimiters separate once;
/// no empty tokens) and appends at most `maxTokens` of them to `tokens`; returns the number appended.
SUPPORTDLL_API int sp_ScanLine(const char* text, const char* delimiters, YArray<YString>* tokens, int maxTokens);

/// Splits `text` at every `separator` and appends the parts to `parts`, blanks around each part removed.
/// Empty parts are kept between separators; empty text appends nothing. `maxParts` > 0 limits the count
/// (the last part then holds the rest); 0 means no limit. Returns the number of parts appended.
SUPPORTDLL_API int sp_SplitLine(const char* text, char separator, YArray<YString>* parts, int maxParts);

/// Returns the next token at `*cursor` and moves the cursor past it (and past the delimiter that ended it).
/// Leading delimiters are skipped. A token starting with one of `openQuote`'s characters runs to the
/// matching character of `closeQuote` (same position); the quotes are removed unless `keepQuotes`.
/// Empty at the end of the text. Null cursor, text or delimiters give an empty token.
SUPPORTDLL_API YString sp_GetToken(const char** cursor, const char* delimiters, const char* openQuote,
                                   const char* closeQuote, bool keepQuotes);

/// Number text with an optional engineering multiplier to double: f p n u m k meg g t and mil, any case;
/// further letters (units) are ignored. Text that is no number gives 0. `end`, when not null, receives
/// the position after the number, its multiplier and unit letters (the start of `text` when no number).
SUPPORTDLL_API double sp_ConvertEngToReal(const char* text, char** end);

/// Engineering notation with `digits` significant digits (1 to 17), trailing zeros removed.
/// With `exponentForm` false the multiplier is a SPICE suffix ("4.7k", "1meg", "10p"); with true it is an
/// exponent that is a multiple of 3 ("4.7e3", "10e-12"). Values outside 1e-15..1e15 always use the
/// exponent form; 0 is "0"; infinities and NaN are "inf", "-inf" and "nan".
SUPPORTDLL_API YString sp_ConvertRealToJSEng(double value, int digits, bool exponentForm);

/// Decimal text (optional blanks and sign) to a 64-bit integer; stops at the first non-digit; saturates.
SUPPORTDLL_API long long sp_atoi64(const char* text);

/// 32-bit FNV-1a hash of the bytes of a NUL-terminated text (0 for null). Stable across runs and builds.
SUPPORTDLL_API unsigned sp_HashValue(const char* text);

/// The shortest decimal text that reads back to exactly `value` (shared by `YString(double)` and the DOM).
SUPPORTDLL_API YString sp_RealToShortestText(double value);
/// Reads a number written by `sp_RealToShortestText` (or any decimal/exponent text); false when the
/// whole text (blanks around it aside) is not a number. A number beyond the range of a double reads as
/// infinity of its sign, and one nearer zero than the least double as zero of its sign, as strtod
/// reads them ("1e999" is infinity, "-1e-999" is -0).
[[nodiscard]] SUPPORTDLL_API bool sp_TextToReal(const char* text, double* value);
/// How many bytes at the end of the `length` bytes of `text` start a UTF-8 sequence that they do not
/// finish (0 to 3): what a writer of text that comes in pieces holds back until the rest of it comes.
SUPPORTDLL_API size_t sp_UnfinishedUtf8Tail(const char* text, size_t length);
