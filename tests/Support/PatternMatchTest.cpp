// PatternMatchTest.cpp - wildcards, regular expressions and sequential tokenising.
#include "PatternMatch.h"
#include "TestHelpers.h"

#include <QRegExp>
#include <QString>

#include <initializer_list>
#include <random>
#include <string>
#include <vector>

namespace {

struct GlobCase {
    const char* pattern;
    const char* text;
    int expected;
};

// Pattern/text pairs over every rewriting step and its consequences. In the comments, "\" is one
// backslash of the pattern.
const GlobCase kGlobCases[] = {
    {"*.cir", "a.cir", 0},
    {"*.cir", ".cir", -1},         // a star needs at least one character
    {"*.cir", "a.circuit", 0},     // not anchored
    {"*.cir", "xcir", -1},         // the dot is literal
    {"a?c", "xabc", 1},
    {"a?c", "ac", -1},
    {"a\\*b", "a*b", 0},           // a\*b: literal star
    {"a\\*b", "axb", -1},
    {"a\\?b", "a?b", 0},           // a\?b: literal question mark
    {"a\\?b", "axb", -1},
    {"\\*", "x*", 1},              // an escaped star at the start of the pattern
    {"f(1)", "f(1)", 0},           // parentheses literal
    {"f(1)", "f1", -1},
    {"[ab]", "a", -1},             // brackets literal
    {"[ab]", "x[ab]", 1},
    {"{2}", "a{2}", 1},            // braces literal
    {"a{2}", "aa", -1},
    {"a.c", "abc", -1},
    {"a.c", "za.c", 1},
    {"a+", "aa", -1},              // plus literal
    {"a+", "xa+", 1},
    {"a*", "a", -1},
    {"a*", "ab", 0},
    {"*", "", -1},
    {"*", "x", 0},
    {"?", "", -1},
    {"?", "z", 0},
    {"^ab", "xab", -1},            // caret kept
    {"^ab", "abx", 0},
    {"ab$", "abx", -1},            // dollar kept
    {"ab$", "xab", 1},
    {"a|b", "xb", 1},              // alternation kept
    {"b", "abc", 1},
    {"", "abc", 0},
    {"a??c", "abc", 0},            // the second "?" stays a bare quantifier: "a.?c"
    {"a??c", "ac", 0},             // ... which makes the first one optional
    {"a??c", "abxc", -1},
    {"a*?c", "axyc", 0},           // "a(.){1,}.c"
    {"a*?c", "axc", -1},
    {"a**b", "ab", -1},            // the second star stays bare: "a(.){1,}*b" is no valid expression
    {"a**b", "axxb", -1},
    {"a\\\\*b", "a\\xb", 0},       // a\\*b: an escaped backslash, then a star
    {"a\\\\*b", "a*b", -1},
    {"a\\\\\\*b", "a\\*b", 0},     // a\\\*b: an escaped backslash, then a literal star
    {"b", "\xF0\x9D\x84\x9E" "b", 2},  // positions in UTF-16 units: U+1D11E takes two
    {"b", "\xC3\xA9" "b", 1},
    {"\xC3\xA9?", "x\xC3\xA9z", 1},
};

YArray<YString> texts(std::initializer_list<const char*> items)
{
    YArray<YString> result;
    for (const char* item : items)
        result.append(YString(item));
    return result;
}

std::vector<std::string> plain(const YArray<YString>& items)
{
    std::vector<std::string> result;
    for (const YString& item : items)
        result.push_back(item.c_str());
    return result;
}

} // namespace

TEST(GlobMatch, Table)
{
    for (const GlobCase& c : kGlobCases)
        EXPECT_EQ(sp_GlobMatch(c.pattern, c.text), c.expected) << "pattern '" << c.pattern << "' text '" << c.text << "'";
    EXPECT_GE(sizeof(kGlobCases) / sizeof(kGlobCases[0]), 40u);
}

TEST(GlobMatch, NullArgumentsCountAsEmpty)
{
    EXPECT_EQ(sp_GlobMatch(nullptr, "abc"), 0);
    EXPECT_EQ(sp_GlobMatch("a", nullptr), -1);
    EXPECT_EQ(sp_GlobMatch(nullptr, nullptr), 0);
    EXPECT_EQ(sp_GlobMatch("a|(", "a"), 0);   // the parenthesis is literal, so this is valid
    EXPECT_EQ(sp_GlobMatch("a\\", "a\\"), -1); // a trailing backslash: no valid expression, no match
}

TEST(RegexpMatch, CaseSensitiveAndNot)
{
    EXPECT_EQ(sp_RegexpMatch("B", "abc"), -1);
    EXPECT_EQ(sp_RegexpMatch_i("B", "abc"), 1);
    EXPECT_EQ(sp_RegexpMatch("[0-9]+", "ab12"), 2);
    EXPECT_EQ(sp_RegexpMatch("(", "abc"), -1);
    EXPECT_EQ(sp_RegexpMatch_i(nullptr, nullptr), 0);
    EXPECT_EQ(sp_RegexpMatch("\xC3\xA9", "a\xC3\xA9"), 1);
}

// Patterns the parser would overflow the stack on, or build gigabytes for, are invalid: -1 at once. Up to
// the bounds they match as ever.
TEST(RegexpMatch, PatternsBeyondTheBoundsAreInvalid)
{
    const auto nested = [](int depth, const std::string& open, const std::string& close) {
        std::string p;
        for (int i = 0; i < depth; ++i)
            p += open;
        p += "a";
        for (int i = 0; i < depth; ++i)
            p += close;
        return p;
    };
    EXPECT_EQ(sp_RegexpMatch(nested(250, "(", ")").c_str(), "xa"), 1);
    EXPECT_EQ(sp_RegexpMatch(nested(251, "(", ")").c_str(), "xa"), -1);
    EXPECT_EQ(sp_RegexpMatch(nested(20000, "(", ")").c_str(), "xa"), -1);
    EXPECT_EQ(sp_RegexpMatch_i(nested(20000, "(?:", ")").c_str(), "A"), -1);
    EXPECT_EQ(sp_GlobMatch(nested(30000, "\\(", "\\)").c_str(), "a"), -1);
    YArray<YString> patterns;
    patterns.append(YString(nested(20000, "(", ")").c_str()));
    YArray<YString> pieces;
    EXPECT_FALSE(sp_RegExpMatches(patterns, YString("a"), &pieces));
    EXPECT_EQ(pieces.count(), 0);

    const std::string thousand(1000, 'a');
    EXPECT_EQ(sp_RegexpMatch("(a){1000}", ("b" + thousand).c_str()), 1);
    EXPECT_EQ(sp_RegexpMatch("((a){1000}){1000}", "a"), -1);
    EXPECT_EQ(sp_RegexpMatch("(((a){1000}){1000}){1000}", "a"), -1);
    EXPECT_EQ(sp_RegexpMatch("[{]{3}(b|c){2}", "{{{cb"), 0);
    // The optional copies of "{n,m}" are nested, one link each, as long as the part must match something:
    // QRegExp takes the largest count it allows in a millisecond.
    EXPECT_EQ(sp_RegexpMatch("x{2,300}", "axxx"), 1);
    EXPECT_EQ(sp_RegexpMatch("x{2,1000}", "axxx"), 1);
    EXPECT_EQ(sp_RegexpMatch("\\d{1,400}", "ab1234567890xxx"), 2);
    EXPECT_EQ(sp_RegexpMatch("[0-9]{0,317}", "ab1234567890xxx"), 0);
    EXPECT_EQ(sp_RegexpMatch("(a|b){2,1000}", "ab1234567890xxx"), 0);
    EXPECT_EQ(sp_RegexpMatch("x{1001}", "xx"), -1); // beyond QRegExp's own largest count
    // Copies of a part that may match nothing are linked each to all before it: a hundred such copies
    // of "x{0,10}" pass, a thousand (half a gigabyte) do not, nor does a run of a thousand such parts.
    EXPECT_EQ(sp_RegexpMatch("b(x{0,10}){100}", "abxx"), 1);
    EXPECT_EQ(sp_RegexpMatch("b(x{0,10}){1000}x{0,10}", "abxx"), -1);
    EXPECT_EQ(sp_RegexpMatch("(x{0,10}){0,1000}", "abxx"), -1);
    std::string counts;
    for (int i = 0; i < 1000; ++i)
        counts += "x{0,5}";
    EXPECT_EQ(sp_RegexpMatch(counts.c_str(), "abxx"), -1);
    EXPECT_EQ(sp_RegexpMatch("(((((((((((((a){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}){0,2}", "a"), -1);
    EXPECT_EQ(sp_RegexpMatch("(a{0,99}){0,100}b", "aab"), -1);
    // Groups left open count as they stand, though no ")" ever multiplies them.
    EXPECT_EQ(sp_RegexpMatch("(((((x((((a){0,9}){0,9}){0,9}){0,9}", "a"), -1);
    // A long pattern without counts is no more than its own length.
    const std::string literal(20000, 'a');
    EXPECT_EQ(sp_RegexpMatch(literal.c_str(), literal.c_str()), 0);
    std::string names;
    for (int i = 0; i < 1200; ++i)
        names += (i ? "|name" : "name") + std::to_string(10000 + i);
    EXPECT_EQ(sp_RegexpMatch(names.c_str(), "xx name11199 yy"), 3);
}

// Parts that may match nothing, in a row, are each linked to all before them, which costs the square of
// the run's length: 450 of ".?" pass (n states and n (n + 1) / 2 links), 451 do not, and a part that must
// match something, or another branch, starts a new run. A group that may match nothing continues the run.
// A wildcard of many "?" becomes such a run (".??.??..."), and is refused at once instead of taking
// minutes and gigabytes.
TEST(RegexpMatch, RunsOfPartsThatMayMatchNothingCostTheSquareOfTheirLength)
{
    const auto times = [](const std::string& part, int n) {
        std::string p;
        for (int i = 0; i < n; ++i)
            p += part;
        return p;
    };
    EXPECT_EQ(sp_RegexpMatch(times(".?", 450).c_str(), "xyz"), 0);
    EXPECT_EQ(sp_RegexpMatch(times(".?", 451).c_str(), "xyz"), -1);
    EXPECT_EQ(sp_RegexpMatch(times("b*", 460).c_str(), "xyz"), -1);
    EXPECT_EQ(sp_RegexpMatch(times("(ab)?", 460).c_str(), "xyz"), -1);
    EXPECT_EQ(sp_RegexpMatch(times("(x?)", 460).c_str(), "xyz"), -1);
    EXPECT_EQ(sp_RegexpMatch(times("(x|)", 460).c_str(), "xyz"), -1);
    EXPECT_EQ(sp_RegexpMatch(times("y??", 460).c_str(), "xyz"), -1);
    EXPECT_EQ(sp_RegexpMatch((times(".?", 200) + "z" + times(".?", 200)).c_str(), "xyz"), 0);
    EXPECT_EQ(sp_RegexpMatch((times("x?", 200) + "|" + times("y?", 200) + "z").c_str(), "az"), 0);
    EXPECT_EQ(sp_RegexpMatch(times("y+", 1000).c_str(), ("x" + std::string(1000, 'y')).c_str()), 1);
    EXPECT_EQ(sp_GlobMatch(times("?", 100000).c_str(), std::string(100000, 'a').c_str()), -1);
}

// The matcher's table of capturing groups per state is sized in an int: a pattern with so many groups
// that it would overflow is invalid, never a crash. Two thousand groups still match.
TEST(RegexpMatch, PatternsWithTooManyCapturingGroupsAreInvalid)
{
    std::string groups;
    for (int i = 0; i < 2000; ++i)
        groups += "(a)";
    EXPECT_EQ(sp_RegexpMatch(groups.c_str(), ("b" + std::string(2000, 'a')).c_str()), 1);
    for (int i = 2000; i < 32766; ++i)
        groups += "(a)";
    EXPECT_EQ(sp_RegexpMatch(groups.c_str(), "aaa"), -1);
    EXPECT_EQ(sp_RegexpMatch_i(groups.c_str(), "AAA"), -1);
    EXPECT_EQ(sp_GlobMatch(std::string(98297, '*').c_str(), "aaaaaaaaaa"), -1);
    // Groups that capture nothing are no entries of the table.
    std::string plain;
    for (int i = 0; i < 30000; ++i)
        plain += "(?:a)";
    EXPECT_EQ(sp_RegexpMatch(plain.c_str(), "aaa"), -1);
}

namespace {

// The wildcard's search, as its rewriting into a QRegExp pattern and QRegExp's own search describe it.
int referenceGlobMatch(const std::string& pattern, const std::string& text)
{
    QString p = QString::fromStdString(pattern);
    p.replace("[", "\\[").replace("]", "\\]").replace("(", "\\(").replace(")", "\\)");
    p.replace("{", "\\{").replace("}", "\\}").replace(".", "[.]").replace("+", "[+]");
    p.replace(QRegExp("(^|[^\\\\])(\\\\\\\\){0,}(\\\\\\*)"), "\\1\\2[*]");
    p.replace(QRegExp("(^|[^\\\\])(\\\\\\\\){0,}(\\\\\\?)"), "\\1\\2[?]");
    p.replace(QRegExp("(^|[^[])[*]($|[^]])"), "\\1(.){1,}\\2");
    p.replace(QRegExp("(^|[^[])[?]($|[^]])"), "\\1.\\2");
    const QRegExp re(p, Qt::CaseSensitive, QRegExp::RegExp);
    return re.isValid() ? re.indexIn(QString::fromStdString(text), 0) : -1;
}

int referenceRegexpMatch(const std::string& pattern, const std::string& text)
{
    const QRegExp re(QString::fromStdString(pattern), Qt::CaseSensitive, QRegExp::RegExp);
    return re.isValid() ? re.indexIn(QString::fromStdString(text), 0) : -1;
}

// Random strings of up to `maxLength` items of `alphabet`, each item one character or a UTF-8 sequence.
std::string randomString(std::mt19937& random, const std::vector<std::string>& alphabet, int maxLength)
{
    std::string s;
    const int length = std::uniform_int_distribution<int>(0, maxLength)(random);
    for (int i = 0; i < length; ++i)
        s += alphabet[std::uniform_int_distribution<size_t>(0, alphabet.size() - 1)(random)];
    return s;
}

const std::vector<std::string> kTextAlphabet = {"a", "b", "a", "b", ".", "*", "?", "\\", "[", "(", "\n", "\xC3\xA9",
                                                "\xF0\x9D\x84\x9E"};

} // namespace

// Wildcards are matched without QRegExp where they can be: every wildcard, the hostile and the ordinary,
// still finds what QRegExp finds.
TEST(GlobMatch, SameAsQRegExpForRandomWildcards)
{
    const std::vector<std::string> alphabet = {"a", "b", "a", "b", "*", "*", "?", "?", "\\", ".", "[", "]", "(",
                                               ")", "{", "}", "+", "^", "$", "|", "\n", "\xC3\xA9",
                                               "\xF0\x9D\x84\x9E"};
    std::mt19937 random(20240611);
    for (int i = 0; i < 20000; ++i) {
        const std::string pattern = randomString(random, alphabet, 8);
        const std::string text = randomString(random, kTextAlphabet, 12);
        ASSERT_EQ(sp_GlobMatch(pattern.c_str(), text.c_str()), referenceGlobMatch(pattern, text))
            << "pattern '" << pattern << "' text '" << text << "'";
    }
    // Wildcards of stars, question marks and letters only, the shapes matched without QRegExp.
    const std::vector<std::string> plain = {"a", "b", "*", "?", "\xC3\xA9"};
    for (int i = 0; i < 20000; ++i) {
        const std::string pattern = randomString(random, plain, 8);
        const std::string text = randomString(random, kTextAlphabet, 16);
        ASSERT_EQ(sp_GlobMatch(pattern.c_str(), text.c_str()), referenceGlobMatch(pattern, text))
            << "pattern '" << pattern << "' text '" << text << "'";
    }
    // The same shapes after a "^" or before a "$", or both, which are matched without QRegExp too.
    for (int i = 0; i < 30000; ++i) {
        const std::string pattern = (random() % 2 ? "^" : "") + randomString(random, plain, 7) + (random() % 2 ? "$" : "");
        const std::string text = randomString(random, {"a", "b", "\xC3\xA9", "\n"}, 12);
        ASSERT_EQ(sp_GlobMatch(pattern.c_str(), text.c_str()), referenceGlobMatch(pattern, text))
            << "pattern '" << pattern << "' text '" << text << "'";
    }
}

TEST(RegexpMatch, SameAsQRegExpForRandomPatterns)
{
    const std::vector<std::string> alphabet = {"a", "b", "a", "b", "*", "?", "+", ".", "|", "(", ")", "[", "]",
                                               "{", "}", "1", ",", "^", "$", "\\", "d", "\n", "\xC3\xA9"};
    std::mt19937 random(1106);
    for (int i = 0; i < 20000; ++i) {
        const std::string pattern = randomString(random, alphabet, 8);
        const std::string text = randomString(random, kTextAlphabet, 12);
        ASSERT_EQ(sp_RegexpMatch(pattern.c_str(), text.c_str()), referenceRegexpMatch(pattern, text))
            << "pattern '" << pattern << "' text '" << text << "'";
    }
    // Ignoring case, with characters whose lower case and case folding differ.
    const std::vector<std::string> folding = {"a", "A", "b", "s", "S", "\xC5\xBF", "\xCF\x82", "\xCF\x83",
                                              "\xCE\xA3", "i", "\xC4\xB0", "k", "\xE2\x84\xAA", "*", "?",
                                              "(", ")", "|", ".", "[", "]", "{2}"};
    const std::vector<std::string> foldingText = {"a", "A", "b", "s", "S", "\xC5\xBF", "\xCF\x82", "\xCF\x83",
                                                  "\xCE\xA3", "i", "I", "\xC4\xB0", "k", "K", "\xE2\x84\xAA"};
    for (int i = 0; i < 20000; ++i) {
        const std::string pattern = randomString(random, folding, 6);
        const std::string text = randomString(random, foldingText, 10);
        const QRegExp re(QString::fromStdString(pattern), Qt::CaseInsensitive, QRegExp::RegExp);
        ASSERT_EQ(sp_RegexpMatch_i(pattern.c_str(), text.c_str()), re.isValid() ? re.indexIn(QString::fromStdString(text)) : -1)
            << "pattern '" << pattern << "' text '" << text << "'";
    }
    // Groups of every kind, anchors and counts, closed and not, so that every syntax error refused
    // before QRegExp sees it is one QRegExp refuses too. Eight items make at most 12 lookaheads.
    const std::vector<std::string> groups = {"a", "b", "(", "(?=", "(?!", "(?:", "(?", ")", ")", "|", "{2}", "{3}",
                                             "{", "}", "{,2}", "{2,}", "{1,3}", "{}", "2", ",", "*", "?", "\\b",
                                             "\\B", "^", "$", "[", "]", "\\", "<", "\\1", "\\9", "5", "0"};
    for (int i = 0; i < 40000; ++i) {
        const std::string pattern = randomString(random, groups, 8);
        const std::string text = randomString(random, kTextAlphabet, 8);
        ASSERT_EQ(sp_RegexpMatch(pattern.c_str(), text.c_str()), referenceRegexpMatch(pattern, text))
            << "pattern '" << pattern << "' text '" << text << "'";
    }
}

// Searches QRegExp would retry from every position of the text, each to its end: on these texts that
// takes it hours. They now take one pass over the text.
TEST(GlobMatch, LongTextsTakeOnePass)
{
    const std::string as(200000, 'a');
    EXPECT_EQ(sp_GlobMatch("*.cir", as.c_str()), -1);
    EXPECT_EQ(sp_GlobMatch("*.cir", (as + ".cir").c_str()), 0);
    EXPECT_EQ(sp_GlobMatch("?b*.cir", (as + "b.cir").c_str()), -1);
    EXPECT_EQ(sp_GlobMatch("?b*.cir", (as + "bx.cir").c_str()), 199999);
    std::string stars;
    for (int i = 0; i < 30; ++i)
        stars += "*a";
    EXPECT_EQ(sp_GlobMatch((stars + "b").c_str(), as.c_str()), -1);
    EXPECT_EQ(sp_GlobMatch((stars + "b").c_str(), (as + "b").c_str()), 0);
    EXPECT_EQ(sp_GlobMatch("a*\\*?a", (as + "*").c_str()), -1);
    EXPECT_EQ(sp_GlobMatch("a*\\*?a", (as + "*ba").c_str()), 0);
    // Anchored to the end or the start, as read in one pass too; other shapes that cannot match at all
    // are found so without trying every start.
    EXPECT_EQ(sp_GlobMatch("*x$", as.c_str()), -1);
    EXPECT_EQ(sp_GlobMatch("*x$", (as + "x").c_str()), 0);
    EXPECT_EQ(sp_GlobMatch("a?$", (as + "b").c_str()), 199999);
    EXPECT_EQ(sp_GlobMatch("^*b", (as + "b").c_str()), 0);
    EXPECT_EQ(sp_GlobMatch("^b*", as.c_str()), -1);
    EXPECT_EQ(sp_GlobMatch("^*x$", (as + "xa").c_str()), -1);
    EXPECT_EQ(sp_GlobMatch("a*^x", as.c_str()), -1);
    // A long wildcard in a long text of random letters: found where it stands, and nowhere else.
    std::mt19937 random(3);
    std::string letters;
    for (int i = 0; i < 300000; ++i)
        letters += static_cast<char>('a' + random() % 26);
    const std::string piece = letters.substr(123456, 5000);
    EXPECT_EQ(sp_GlobMatch(piece.c_str(), letters.c_str()), 123456);
    EXPECT_EQ(sp_GlobMatch(("?" + piece.substr(1, 2000) + "*" + piece.substr(4000, 999) + "?").c_str(), letters.c_str()), 123456);
    EXPECT_EQ(sp_GlobMatch((piece + "#").c_str(), letters.c_str()), -1);
}

TEST(RegexpMatch, LongTextsWithoutACharacterThePatternNeeds)
{
    const std::string as(200000, 'a');
    EXPECT_EQ(sp_RegexpMatch("a*b", as.c_str()), -1);
    EXPECT_EQ(sp_RegexpMatch("(a|x)*b[0-9]", as.c_str()), -1);
    EXPECT_EQ(sp_RegexpMatch("a*b", (as + "b").c_str()), 0);
    EXPECT_EQ(sp_RegexpMatch("a*ba", (as + "b").c_str()), -1); // "b" then "a": not in this order
    // Ignoring case too. QRegExp compares a plain string by case folding, and other patterns by lower
    // case: long s (U+017F) folds to "s" but is its own lower case.
    EXPECT_EQ(sp_RegexpMatch_i("a*b", as.c_str()), -1);
    EXPECT_EQ(sp_RegexpMatch_i("a*b", (as + "\xC4\xB0").c_str()), -1);
    EXPECT_EQ(sp_RegexpMatch_i("A*B", (as + "b").c_str()), 0);
    EXPECT_EQ(sp_RegexpMatch_i("\xC5\xBF", "aS"), 1);
    EXPECT_EQ(sp_RegexpMatch_i("x*\xC5\xBF", "aS"), -1);
    EXPECT_EQ(sp_RegexpMatch_i("x*\xC5\xBF", "a\xC5\xBF"), 1);
    EXPECT_EQ(sp_RegexpMatch_i("x*\xE2\x84\xAA", "ak"), 1); // the Kelvin sign's lower case is "k"
    // A plain string ignoring case is compared by folding whole characters, surrogate pairs too.
    EXPECT_EQ(sp_RegexpMatch_i("\xF0\x90\x90\x80", "x\xF0\x90\x90\xA8"), 1);
}

// QRegExp builds each lookahead as an automaton of its own and takes 13 in one; the fourteenth it drops
// without freeing it, so past 13 in all the pattern is invalid here before QRegExp sees it. A count
// parses its part again for each copy, "{0}" once.
TEST(RegexpMatch, LookaheadsPastThirteenInAllAreInvalid)
{
    std::string thirteen, fourteen;
    for (int i = 0; i < 13; ++i)
        thirteen += "(?=b)";
    fourteen = thirteen + "(?!a)";
    EXPECT_EQ(sp_RegexpMatch(thirteen.c_str(), "ab"), 1);
    EXPECT_EQ(sp_RegexpMatch(fourteen.c_str(), "ab"), -1);
    EXPECT_EQ(sp_RegexpMatch("a(?=b){13}", "aab"), 1);
    EXPECT_EQ(sp_RegexpMatch("a(?=b){14}", "aab"), -1);
    EXPECT_EQ(sp_RegexpMatch("a(?=b){2,13}", "aab"), 1);
    EXPECT_EQ(sp_RegexpMatch("a(?=b){2,14}", "aab"), -1);
    EXPECT_EQ(sp_RegexpMatch("a(?=b){13,}", "aab"), 1);
    EXPECT_EQ(sp_RegexpMatch("a(?=b){14,}", "aab"), -1);
    EXPECT_EQ(sp_RegexpMatch("a((?=b)){13}", "aab"), 1);
    EXPECT_EQ(sp_RegexpMatch("a((?=b)|x){14}", "aab"), -1);
    EXPECT_EQ(sp_RegexpMatch("a(?=b){0}", "aab"), 0);
    // Nested ones count in all: QRegExp alone would take this second pattern, 7 in each automaton.
    EXPECT_EQ(sp_RegexpMatch("a(?=(?=b){6}b)(?=b){6}", "aabb"), 1);
    EXPECT_EQ(sp_RegexpMatch("a(?=(?=b){7}b)(?=b){6}", "aabb"), -1);
    YArray<YString> patterns;
    patterns.append(YString("a"));
    patterns.append(YString(fourteen.c_str()));
    YArray<YString> pieces;
    EXPECT_FALSE(sp_RegExpMatches(patterns, YString("ab"), &pieces));
    ASSERT_EQ(pieces.count(), 1);
    EXPECT_STREQ(pieces[0].c_str(), "a");
}

// QRegExp records every copy of an anchor, joined to the anchors beside it: nested counts of one took
// it minutes. Each copy counts as one link.
TEST(RegexpMatch, AnchorCopiesCountTowardsTheBound)
{
    EXPECT_EQ(sp_RegexpMatch("(\\b{99}){999}x", "a x"), 2);
    EXPECT_EQ(sp_RegexpMatch("((\\b{999}){999}){30}x", "a x"), -1);
    EXPECT_EQ(sp_RegexpMatch("(^{999}$){999}", ""), -1);
    EXPECT_EQ(sp_RegexpMatch("(^{98}$){999}", ""), 0);
    EXPECT_EQ(sp_RegexpMatch("(\\B|\\b){49999}", "a"), -1);
    // What is nothing once built is still parsed once for each copy: a fuzzer's find took QRegExp
    // seconds, "(\b{0})" 9.7 million times over.
    EXPECT_EQ(sp_RegexpMatch("((\\b{0}){999}){99}", "a"), -1);
    EXPECT_EQ(sp_RegexpMatch("((((%\\Bz\x17(\\b{00}){993}){98})x){98})y", "a"), -1);
    EXPECT_EQ(sp_RegexpMatch("((){999}){99}", "a"), 0);
    // Alternatives of anchors in a row multiply: this one took QRegExp seconds and gigabytes.
    EXPECT_EQ(sp_RegexpMatch("(\\b|$|^|\\B){6}x", "a x"), 2);
    EXPECT_EQ(sp_RegexpMatch("(\\b|$|^|\\B){24}x", "a x"), -1);
}

// Syntax QRegExp reports as an error after building what it has read: a count that does not close, a
// "(" or ")" without its partner, "(?" other than "(?=", "(?!" and "(?:", a count with nothing to count,
// a back-reference past 14.
// Such patterns are invalid at once; inside a lookahead QRegExp read them twice, slowly.
TEST(RegexpMatch, SyntaxErrorsAreInvalidWithoutBuilding)
{
    for (const char* pattern : {"a{2", "a{2,", "a{2,3", "a{2x}", "a{2,3,4}", "(?=\\b{912", "x(?=\\b{999}\\b{999}\\b{999",
                                "(a", "a)", "(?<a)", "(?", "(?x)", "{2}", "a|{2}", "a{2}{3}", "(?=b)*{2}"})
        EXPECT_EQ(sp_RegexpMatch(pattern, "aab"), -1) << pattern;
    EXPECT_EQ(sp_RegexpMatch("b{}", "ab"), 0); // "{}" is "{0}"
    EXPECT_EQ(sp_RegexpMatch("a{,2}b", "aab"), 0);
    EXPECT_EQ(sp_RegexpMatch("(?:a)b", "aab"), 1);
    // Back-references take every digit after them; QRegExp takes numbers up to 14.
    EXPECT_EQ(sp_RegexpMatch("b\\14", "ab"), 1);
    EXPECT_EQ(sp_RegexpMatch("b\\15", "ab"), -1);
    EXPECT_EQ(sp_RegexpMatch("(a)\\1", "baa"), 1);
    EXPECT_EQ(sp_RegexpMatch("(a)\\10", "baa"), 1);
    EXPECT_EQ(sp_RegexpMatch("\\99999{91}", "a"), -1);
    // QRegExp matches back-references apart from its automaton, at a cost that grows with the square
    // of their copies: past 100 copies in all a pattern is invalid ("((\2{99}){99})" took 10 s and
    // 2.4 GB on two characters). QRegExp alone would find the 102 "a" below.
    const std::string as(102, 'a');
    EXPECT_EQ(sp_RegexpMatch("(a)\\1{100}", ("b" + as).c_str()), 1);
    EXPECT_EQ(sp_RegexpMatch("(a)(\\1{10}){10}", ("b" + as).c_str()), 1);
    EXPECT_EQ(sp_RegexpMatch("(a)\\1{101}", ("b" + as).c_str()), -1);
    EXPECT_EQ(sp_RegexpMatch("(a)(\\1|\\1){51}", ("b" + as).c_str()), -1);
    EXPECT_EQ(sp_RegexpMatch("((\\2{99}){99})", "bb"), -1);
    // A back-reference requires no character of its own: the "b" it lacks answers at once.
    const std::string many(5000, 'a');
    EXPECT_EQ(sp_RegexpMatch("(a)\\1{100}b", many.c_str()), -1);
    EXPECT_EQ(sp_RegexpMatch("(a)\\1{100}b", (many + "b").c_str()), 4899);
    // QRegExp keeps the number in 16 bits: "\65537" is "\1", "\65536" refers to no group.
    EXPECT_EQ(sp_RegexpMatch("(a)\\65537", "baa"), 1);
    EXPECT_EQ(sp_RegexpMatch("a\\65536", "a"), -1);
    // A back-reference may match nothing: a long run of them costs the square of its length.
    std::string references = "(a)";
    for (int i = 0; i < 3000; ++i)
        references += "\\1";
    EXPECT_EQ(sp_RegexpMatch(references.c_str(), "aa"), -1);
    // An error inside a lookahead after a count of 14 or more: QRegExp lost the memory of an automaton.
    for (const char* pattern : {"(?=b{14}])", "a(?!b{14}**)", "(?=[b]{20}|*)", "a(?=(?=b{100}}x)b)"})
        EXPECT_EQ(sp_RegexpMatch_i(pattern, "abbb"), -1) << pattern;
    EXPECT_EQ(sp_RegexpMatch("a(?=b{14}\\])", ("xa" + std::string(14, 'b') + "]").c_str()), 1);
    // A fuzzer's find: lookaheads left open, an unclosed count, bytes that are no UTF-8.
    EXPECT_EQ(sp_RegexpMatch("ck^\xff\xff\xff\x1d^^\x81^\x1a(?=^\x1a(?=\x1du(?=\\b{912-k{{9123", "b"), -1);
}

TEST(RegularExpressionMatch, AppendsWholeMatchThenGroups)
{
    YArray<YString> captures;
    captures.append(YString("kept"));
    EXPECT_TRUE(sp_RegularExpressionMatch(YString("w12"), YString("w(\\d+)"), &captures));
    ASSERT_EQ(captures.count(), 3);
    EXPECT_STREQ(captures[0].c_str(), "kept");
    EXPECT_STREQ(captures[1].c_str(), "w12");
    EXPECT_STREQ(captures[2].c_str(), "12");

    YArray<YString> optional;
    EXPECT_TRUE(sp_RegularExpressionMatch(YString("ab"), YString("a(x)?(b)"), &optional));
    ASSERT_EQ(optional.count(), 3);
    EXPECT_STREQ(optional[1].c_str(), "");
    EXPECT_STREQ(optional[2].c_str(), "b");

    YArray<YString> none;
    none.append(YString("x"));
    EXPECT_FALSE(sp_RegularExpressionMatch(YString("abc"), YString("\\d"), &none));
    EXPECT_FALSE(sp_RegularExpressionMatch(YString("abc"), YString("(["), &none));
    EXPECT_EQ(none.count(), 1);
}

TEST(RegExpMatches, SplitsTextIntoOneMatchPerPattern)
{
    const YArray<YString> patterns = texts({"[a-z]+", "[0-9]+"});
    YArray<YString> pieces;
    EXPECT_TRUE(sp_RegExpMatches(patterns, YString("abc123"), &pieces));
    EXPECT_EQ(plain(pieces), (std::vector<std::string>{"abc", "123"}));

    YArray<YString> gapped;
    EXPECT_FALSE(sp_RegExpMatches(patterns, YString("abc-123"), &gapped));
    EXPECT_EQ(plain(gapped), (std::vector<std::string>{"abc", "123"}));
}

TEST(RegExpMatches, CaretMatchesOnlyAtTheStartOfTheText)
{
    YArray<YString> pieces;
    EXPECT_FALSE(sp_RegExpMatches(texts({"a", "^b"}), YString("ab"), &pieces));
    EXPECT_EQ(plain(pieces), (std::vector<std::string>{"a"}));
}

TEST(RegExpMatches, EmptyListLeftoversAndNoMatch)
{
    YArray<YString> pieces;
    EXPECT_TRUE(sp_RegExpMatches(YArray<YString>(), YString("anything"), &pieces));
    EXPECT_EQ(pieces.count(), 0);
    YArray<YString> one;
    one.append(YString("ab"));
    EXPECT_TRUE(sp_RegExpMatches(one, YString("abzzz"), &pieces)); // text after the last pattern is not checked
    YArray<YString> two;
    two.append(YString("x"));
    two.append(YString("ab"));
    YArray<YString> none;
    EXPECT_FALSE(sp_RegExpMatches(two, YString("abc"), &none)); // no match at all stops
    EXPECT_EQ(none.count(), 0);
}
