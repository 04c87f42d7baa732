// PatternMatch.cpp - wildcards, regular expressions, sequential tokenising and Qt object look-ups.
#include "PatternMatch.h"
#include "QtSupport.h"

#include <QObject>
#include <QRegExp>
#include <QRegularExpression>

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

int regexpMatch(const char* pattern, const char* text, Qt::CaseSensitivity cs)
{
    const QRegExp re(fromUtf8(pattern), cs, QRegExp::RegExp);
    if (!re.isValid())
        return -1;
    return re.indexIn(fromUtf8(text), 0);
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
    const QRegExp re(globToRegExp(fromUtf8(pattern)), Qt::CaseSensitive, QRegExp::RegExp);
    if (!re.isValid())
        return -1;
    return re.indexIn(fromUtf8(text), 0);
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
    const QString subject = toQs(text);
    int position = 0;
    bool result = true;
    for (const YString& pattern : patterns) {
        // QRegExp's caret matches only at position 0 of the whole text, whatever the search position.
        const QRegExp re(toQs(pattern), Qt::CaseSensitive, QRegExp::RegExp);
        const int at = re.isValid() ? re.indexIn(subject, position, QRegExp::CaretAtZero) : -1;
        if (at != position)
            result = false;
        if (at < 0)
            break;
        if (pieces)
            pieces->append(toYs(re.cap(0)));
        position += re.matchedLength();
    }
    return result;
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
