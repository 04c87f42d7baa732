// PatternCheck.cpp - whether a regular expression is one the pattern matchers take, and why not.
#include "PatternCheck.h"
#include "PatternMatch_p.h"
#include "QtSupport.h"

#include <QRegExp>

#include <new>

bool sp_CheckRegexp(const char* pattern, YString* reason)
{
    const QString p = QString::fromUtf8(pattern ? pattern : "");
    QString why;
    try {
        QRegExp re;
        if (patternmatch::compile(p, Qt::CaseSensitive, &re, &why))
            return true;
    } catch (const std::bad_alloc&) {
        why = QStringLiteral("out of memory");
    }
    if (reason)
        *reason = toYs(why);
    return false;
}
