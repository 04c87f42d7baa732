// Demo.cpp - `supportqt demo`: the library run over the bundled examples, outputs written to a folder.
#include "Commands.h"

#include "SupportQtDll.h"

#include <QCommandLineParser>
#include <QDir>

#include <cstdio>
#include <memory>
#include <string>

namespace {

struct Component {
    YString name;
    YString valueText;
    double value = 0.0;
};

// The physical lines of a file read through the core library's stream, with the UTF-8 verdict.
bool readLines(const YString& path, YArray<YString>* lines, UTF8DetectEncoding* encoding)
{
    if (!sp_ExistFile(path.c_str()))
        return false;
    kvfstream file(path.c_str(), kvfstreamRead | kvfstreamBinary, false);
    UTF8Detect detect;
    YString line;
    for (int c = file.get();; c = file.get()) {
        if (c == -1 || c == '\n') {
            if (c == -1 && line.isEmpty())
                break;
            lines->append(line.trimmed());
            line.clear();
            if (c == -1)
                break;
            continue;
        }
        detect.add(static_cast<unsigned>(c));
        line.append(static_cast<char>(c));
    }
    *encoding = detect.getEncoding();
    return true;
}

const char* encodingName(UTF8DetectEncoding e)
{
    switch (e) {
    case Ascii: return "ASCII";
    case Utf8: return "UTF-8";
    case Utf8Extended: return "extended UTF-8";
    case Invalid: return "not UTF-8";
    }
    return "?";
}

} // namespace

int runDemo(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Runs the library over the bundled examples and writes its outputs."));
    parser.addHelpOption();
    QCommandLineOption output({QStringLiteral("o"), QStringLiteral("output")},
                              QStringLiteral("Folder for the outputs (default ./demo-out)."), QStringLiteral("DIR"),
                              QStringLiteral("demo-out"));
    QCommandLineOption examples(QStringLiteral("examples"), QStringLiteral("Folder of the bundled examples."),
                                QStringLiteral("DIR"), QStringLiteral(SUPPORTQT_EXAMPLES_DIR));
    parser.addOption(output);
    parser.addOption(examples);
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "supportqt demo: %s\n", qPrintable(parser.errorText()));
        return ExitUsage;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(qPrintable(parser.helpText()), stdout);
        return ExitOk;
    }

    const QString outDir = QDir(parser.value(output)).absolutePath();
    if (!QDir().mkpath(outDir)) {
        std::fprintf(stderr, "supportqt demo: cannot create the folder %s\n", qPrintable(outDir));
        return ExitFailure;
    }
    const YString netlist = toYs(QDir(parser.value(examples)).filePath(QStringLiteral("netlists/buck_converter.cir")));

    // 1. The netlist's physical lines and its encoding.
    YArray<YString> lines;
    UTF8DetectEncoding encoding = Ascii;
    if (!readLines(netlist, &lines, &encoding)) {
        std::fprintf(stderr, "supportqt demo: cannot read the example netlist %s\n", netlist.c_str());
        return ExitFailure;
    }
    std::printf("Read %s: %d lines, %s\n", netlist.c_str(), lines.count(), encodingName(encoding));
    std::printf("  title: %s\n", lines[0].c_str());

    // 2. The values of the passive components, read and written in engineering notation.
    YArray<Component> components;
    for (int i = 1; i < lines.count(); ++i) {
        char kind = lines[i].at(0);
        if (kind != 'R' && kind != 'L' && kind != 'C')
            continue;
        YArray<YString> tokens;
        sp_ScanLine(lines[i].c_str(), " \t", &tokens, 4);
        Component c;
        c.name = tokens[0];
        c.valueText = tokens[3];
        c.value = sp_ConvertEngToReal(tokens[3].c_str(), nullptr);
        components.append(c);
        std::printf("  %-6s %-6s = %-12s (%s)\n", c.name.c_str(), c.valueText.c_str(),
                    sp_RealToShortestText(c.value).c_str(), sp_ConvertRealToJSEng(c.value, 6, false).c_str());
    }

    // 3. The components as an XML document, saved and read back.
    const YString xmlPath = toYs(QDir(outDir).filePath(QStringLiteral("components.xml")));
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    YRef<YDomElement> root = doc->createRoot("components");
    root->setAttribute("source", netlist.c_str());
    for (const Component& c : components) {
        YRef<YDomElement> e = root->appendChild("component");
        e->setAttribute("name", c.name.c_str());
        e->setAttribute("value", c.value);
    }
    YRef<YDomDocument> back = YXML_Factory::Make_RapidXML_DOM_Document();
    if (!doc->save(xmlPath.c_str()) || !back->load(xmlPath.c_str())) {
        std::fprintf(stderr, "supportqt demo: cannot write %s\n", xmlPath.c_str());
        return ExitFailure;
    }
    std::printf("Wrote %s: %d components, read back %d\n", xmlPath.c_str(), components.count(),
                back->getRoot()->childElements().count());

    // 4. The netlist compressed through the compressor that the library offers to other modules.
    auto make = reinterpret_cast<makeDataCompressor_t>(sp_FindDynFuncDef("makeDataCompressor"));
    if (!make) {
        std::fprintf(stderr, "supportqt demo: no module offers makeDataCompressor\n");
        return ExitFailure;
    }
    std::unique_ptr<DataCompressor> compressor(make());
    YString text;
    for (const YString& line : lines)
        text.append(line).append('\n');
    compressor->append(text.c_str(), text.length());
    const YString zPath = toYs(QDir(outDir).filePath(QStringLiteral("netlist.z")));
    if (!compressor->save(zPath)) {
        std::fprintf(stderr, "supportqt demo: cannot write %s\n", zPath.c_str());
        return ExitFailure;
    }
    std::unique_ptr<DataCompressor> reader(make());
    reader->load(zPath);
    bool same = reader->size() == text.length() && std::string(reader->data(), static_cast<size_t>(reader->size())) == text.str();
    std::printf("Wrote %s: %d bytes compressed to %lld, %s\n", zPath.c_str(), text.length(),
                sp_GetFileSize64(zPath.c_str()), same ? "restored identically" : "RESTORED DIFFERENTLY");
    std::printf("Outputs are in %s\n", qPrintable(outDir));
    return same ? ExitOk : ExitFailure;
}
