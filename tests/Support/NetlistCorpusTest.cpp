// NetlistCorpusTest.cpp - every netlist of the shared corpus (written by others) through every reader.
#include "LibraryStream.h"
#include "NetlistFilter_p.h"
#include "NetlistStream.h"
#include "TestHelpers.h"
#include "TextFile.h"
#include "TextServices.h"

#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>

#include <cctype>
#include <vector>

namespace {

std::vector<std::string> corpusFiles()
{
    std::vector<std::string> files;
    QDirIterator it(corpusDir() + QStringLiteral("/netlists"), QDir::Files,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QString file = it.next();
        if (!file.endsWith(QLatin1String(".tsv")) && !QFileInfo(file).fileName().startsWith(QLatin1Char('.')))
            files.push_back(file.toStdString());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void checkLine(const std::string& file, const YString& line, int number, int* lastNumber, bool spiceStream, char icc)
{
    ASSERT_GE(number, *lastNumber) << file;
    *lastNumber = number;
    if (line.isEmpty())
        return;
    EXPECT_NE(line.at(0), ' ') << file << ":" << number;
    EXPECT_NE(line.at(0), '\t') << file << ":" << number;
    if (spiceStream) {
        EXPECT_NE(line.at(0), '*') << file << ":" << number;
        EXPECT_NE(line.at(0), icc) << file << ":" << number;
    }
    for (int i = 0; i < line.length(); ++i) {
        int c = static_cast<unsigned char>(line.at(i));
        ASSERT_TRUE(c != '\n' && c != '\r' && netlist::keeps(c)) << file << ":" << number << " byte " << c;
    }
}

struct Definition {
    std::string keyword;
    std::string name;
    int start;
    int end;
    int line; // 1-based
};

// A plain scan for ".model" and ".subckt" lines: a definition runs to the line after ".ends" for a
// subcircuit, and over its "+" continuation lines for a model.
std::vector<Definition> findDefinitions(const std::string& text)
{
    std::vector<Definition> defs;
    std::vector<size_t> starts;
    for (size_t p = 0; p < text.size();) {
        starts.push_back(p);
        size_t e = text.find('\n', p);
        p = e == std::string::npos ? text.size() : e + 1;
    }
    auto lineAt = [&](size_t i) {
        size_t b = starts[i], e = i + 1 < starts.size() ? starts[i + 1] : text.size();
        return text.substr(b, e - b);
    };
    auto lower = [](std::string s) {
        for (char& c : s)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    for (size_t i = 0; i < starts.size(); ++i) {
        std::string l = lineAt(i);
        std::string low = lower(l);
        std::string keyword = low.rfind(".subckt", 0) == 0 ? ".subckt" : low.rfind(".model", 0) == 0 ? ".model" : "";
        if (keyword.empty() || l.size() <= keyword.size() || !std::isspace(static_cast<unsigned char>(l[keyword.size()])))
            continue;
        size_t nb = l.find_first_not_of(" \t", keyword.size());
        if (nb == std::string::npos)
            continue;
        size_t ne = l.find_first_of(" \t\r\n=(),", nb);
        Definition d{keyword, l.substr(nb, ne - nb), static_cast<int>(starts[i]), 0, static_cast<int>(i) + 1};
        size_t j = i + 1;
        if (keyword == ".subckt") {
            while (j < starts.size() && lower(lineAt(j)).find(".ends") != 0)
                ++j;
            if (j < starts.size())
                ++j;
        } else {
            while (j < starts.size() && lineAt(j).find_first_not_of(" \t") != std::string::npos &&
                   lineAt(j)[lineAt(j).find_first_not_of(" \t")] == '+')
                ++j;
        }
        d.end = static_cast<int>(j < starts.size() ? starts[j] : text.size());
        if (!d.name.empty())
            defs.push_back(d);
    }
    return defs;
}

} // namespace

class NetlistCorpus : public ::testing::Test {
protected:
    void SetUp() override
    {
        files = corpusFiles();
        if (files.empty())
            GTEST_SKIP() << "the shared netlist corpus is absent (" << corpusDir().toStdString()
                         << "/netlists; set SUPPORTQT_CORPUS_DIR to use one elsewhere)";
    }
    std::vector<std::string> files;
};

TEST_F(NetlistCorpus, EveryFileReadsInEveryDialectWithTheInvariantsKept)
{
    int lines = 0;
    for (const std::string& file : files) {
        for (SpiceLanguage language : {SpiceLanguageNative, SpiceLanguagePspice, SpiceLanguageHspice}) {
            SpiceStream s(file.c_str(), language);
            YString line;
            int number = 0, last = 0;
            while (s.gets(&line, &number, nullptr, nullptr)) {
                checkLine(file, line, number, &last, true, s.getInlineCommentChar());
                EXPECT_LE(s.getLastAcceptedCharCount(), s.getCharCount()) << file;
                s.flushBuffer();
                ++lines;
            }
        }
        NewSpiceStream n(file.c_str());
        YString line;
        int number = 0, last = 0;
        while (n.gets(&line, &number)) {
            checkLine(file, line, number, &last, false, ';');
            n.flushLitBuffer();
        }
    }
    EXPECT_GT(lines, 1000);
}

TEST_F(NetlistCorpus, EveryDefinitionOfEveryLibraryReadsBackThroughLibraryStream)
{
    int checked = 0;
    for (const std::string& file : files) {
        bool wide = false;
        ASSERT_TRUE(sp_DetectTextFileFormat(YString(file.c_str()), &wide, nullptr, nullptr, nullptr)) << file;
        if (wide)
            continue; // positions of a wide file refer to its bytes, not to its UTF-8 copy
        std::string text = readFileBytes(file);
        for (const Definition& d : findDefinitions(text)) {
            SymbolLoc loc;
            loc.fileName = file.c_str();
            loc.start = d.start;
            loc.end = d.end;
            loc.lineOffset = d.line - 1;
            for (const char* rename : {"", "RENAMED_DEF"}) {
                LibraryStream s(loc, YString(rename));
                YString line;
                int number = 0;
                ASSERT_TRUE(s.gets(&line, &number)) << file << ":" << d.line;
                EXPECT_EQ(number, d.line) << file;
                EXPECT_TRUE(line.beginsWith(d.keyword.c_str(), false)) << file << ":" << d.line << " " << line.c_str();
                YString expectedName = *rename ? YString(rename) : YString(d.name.c_str());
                const char* cursor = line.c_str();
                sp_GetToken(&cursor, " =(),\t", "", "", false);
                YString name = sp_GetToken(&cursor, " =(),\t", "", "", false);
                EXPECT_TRUE(name.equalsNoCase(expectedName.c_str())) << file << ":" << d.line << " " << line.c_str();
                int last = number;
                while (s.gets(&line, &number)) {
                    EXPECT_GE(number, last) << file;
                    last = number;
                }
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, 100);
}
