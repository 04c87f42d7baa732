// fuzz_glob.cpp - wildcard matching: the position is -1 or inside the text (in UTF-16 units), and for
// wildcards of letters, stars, question marks and anchors (the shapes matched without QRegExp) the
// position QRegExp finds for the rewritten wildcard.
#include "FuzzSupport.h"
#include "PatternMatch.h"

#include <QRegExp>
#include <QString>
#include <cstring>

namespace {

// The wildcard rewritten as its documented steps rewrite it, searched by QRegExp.
int referenceMatch(const std::string& pattern, const std::string& text)
{
    QString p = QString::fromUtf8(pattern.c_str());
    p.replace(QRegExp("(^|[^\\\\])(\\\\\\\\){0,}(\\\\\\*)"), "\\1\\2[*]");
    p.replace(QRegExp("(^|[^\\\\])(\\\\\\\\){0,}(\\\\\\?)"), "\\1\\2[?]");
    p.replace(QRegExp("(^|[^[])[*]($|[^]])"), "\\1(.){1,}\\2");
    p.replace(QRegExp("(^|[^[])[?]($|[^]])"), "\\1.\\2");
    const QRegExp re(p, Qt::CaseSensitive, QRegExp::RegExp);
    return re.isValid() ? re.indexIn(QString::fromUtf8(text.c_str()), 0) : -1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t split = input.find('\n');
    const std::string pattern = input.substr(0, split).c_str();
    const std::string text = split == std::string::npos ? std::string() : std::string(input.substr(split + 1).c_str());
    const int at = sp_GlobMatch(pattern.c_str(), text.c_str());
    if (at < -1 || at > QString::fromUtf8(text.c_str()).size())
        __builtin_trap();
    const bool plain = pattern.size() <= 24 && text.size() <= 256 &&
                       pattern.find_first_not_of("abcxyz*?^$") == std::string::npos;
    if (plain && at != referenceMatch(pattern, text))
        __builtin_trap();
    return 0;
}
