// PatternCheckTest.cpp - whether a regular expression is one the pattern matchers take, and why not.
#include "PatternCheck.h"
#include "PatternMatch.h"
#include "TestHelpers.h"

#include <QRegExp>

#include <random>
#include <string>
#include <vector>

namespace {

// The check's answer and reason; the reason is "-" when none was given.
std::string check(const std::string& pattern)
{
    YString reason("-");
    const bool valid = sp_CheckRegexp(pattern.c_str(), &reason);
    return (valid ? "valid " : "invalid ") + reason.str();
}

} // namespace

TEST(PatternCheck, ValidPatternsLeaveTheReasonAlone)
{
    EXPECT_EQ(check("a(b|c)*\\d{2,3}$"), "valid -");
    EXPECT_EQ(check(""), "valid -");
    EXPECT_TRUE(sp_CheckRegexp(nullptr, nullptr));
    EXPECT_TRUE(sp_CheckRegexp("(?=b){13}", nullptr));
}

// Errors QRegExp finds as it builds: its own message.
TEST(PatternCheck, QRegExpsOwnMessages)
{
    for (const char* pattern : {"[a", "a**", "x\\", "a|*", "a{5,3}", "a{2000}", "a)b"}) {
        const QRegExp re(QString::fromLatin1(pattern));
        ASSERT_FALSE(re.isValid()) << pattern;
        EXPECT_EQ(check(pattern), "invalid " + re.errorString().toStdString()) << pattern;
    }
    EXPECT_EQ(check("(ab"), "invalid unexpected end");
    EXPECT_EQ(check("a)"), "invalid missing left delim");
}

// Errors found before QRegExp builds, in QRegExp's words.
TEST(PatternCheck, ErrorsFoundBeforeBuildingUseQRegExpsWords)
{
    EXPECT_EQ(check("a{2"), "invalid bad repetition syntax");
    EXPECT_EQ(check("a{2}{3}"), "invalid bad repetition syntax");
    EXPECT_EQ(check("{2}"), "invalid bad repetition syntax");
    EXPECT_EQ(check("(?<a)"), "invalid lookbehinds not supported, see QTBUG-2371");
    EXPECT_EQ(check("(?x)"), "invalid bad lookahead syntax");
    EXPECT_EQ(check("(?=a"), "invalid bad lookahead syntax");
    EXPECT_EQ(check("((?=a"), "invalid bad lookahead syntax");
    EXPECT_EQ(check("b\\15"), "invalid met internal limit");
    EXPECT_EQ(check("(?=b){14}"), "invalid met internal limit");
    EXPECT_EQ(check("a(?=(?=b){7}b)(?=b){6}"), "invalid met internal limit");
}

TEST(PatternCheck, PatternsBeyondTheBounds)
{
    std::string deep;
    for (int i = 0; i < 251; ++i)
        deep += "(";
    deep += "a";
    for (int i = 0; i < 251; ++i)
        deep += ")";
    EXPECT_EQ(check(deep), "invalid groups nested deeper than 250");
    EXPECT_EQ(check("((a){1000}){1000}"), "invalid too large to build");
    // Anchors count too: this one took QRegExp minutes to build.
    EXPECT_EQ(check("((\\b{999}){999}){30}"), "invalid too large to build");
    std::string groups;
    for (int i = 0; i < 6000; ++i)
        groups += "(a)";
    EXPECT_EQ(check(groups), "invalid too many capturing groups");
    EXPECT_EQ(check("(a)\\1{100}"), "valid -");
    EXPECT_EQ(check("(a)(\\1{10}){11}"), "invalid too many back-references");
}

// The check and the matchers agree on every pattern: a valid one is searched, an invalid one gives -1
// for every text, and QRegExp itself takes every pattern the check takes.
TEST(PatternCheck, AgreesWithTheMatchers)
{
    const std::vector<std::string> items = {"a", "b", "(", "(?=", "(?!", "(?:", "(?<", ")", "|", "{2}", "{", "}",
                                            "{,2}", "{1,3}", "*", "?", "+", "\\\\b", "^", "$", "[", "]", "\\\\",
                                            "\\\\1", "\\\\15", "."};
    std::mt19937 random(77);
    for (int i = 0; i < 20000; ++i) {
        std::string pattern;
        const int length = std::uniform_int_distribution<int>(0, 8)(random);
        for (int k = 0; k < length; ++k)
            pattern += items[std::uniform_int_distribution<size_t>(0, items.size() - 1)(random)];
        YString reason;
        const bool valid = sp_CheckRegexp(pattern.c_str(), &reason);
        const QRegExp re(QString::fromStdString(pattern));
        ASSERT_EQ(valid, re.isValid()) << pattern; // short patterns are all within the bounds
        if (!valid) {
            ASSERT_FALSE(reason.str().empty()) << pattern;
            ASSERT_EQ(sp_RegexpMatch(pattern.c_str(), "ab"), -1) << pattern;
            ASSERT_EQ(sp_RegexpMatch_i(pattern.c_str(), "AB"), -1) << pattern;
        }
    }
}
