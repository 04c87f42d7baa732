// QtWarningsTest.cpp - the library writes no log: calls on empty names, folders, missing files,
// devices and files below a file make Qt print nothing on standard error. Qt's messages are caught by
// a handler this test installs (the library installs none).
#include "SupportQtDll.h"
#include "TestHelpers.h"

#include <QDir>
#include <QStringList>

#include <string>

namespace {

QStringList g_messages;

void collect(QtMsgType, const QMessageLogContext&, const QString& message) { g_messages << message; }

struct QuietWatcher : YFileWatcher {
    QuietWatcher() = default;
    explicit QuietWatcher(const YString& path) : YFileWatcher(path) {}
    void onDirectoryChanged(const YString&) override {}
};

class QtWarnings : public TempDirTest {};

TEST_F(QtWarnings, OddPathsMakeQtPrintNothing)
{
    QDir().mkpath(QString::fromStdString(path("folder")));
    writeFileBytes(path("file"), "a file\n");
    const std::string empty, folder = path("folder"), missing = path("missing"), below = path("file/below");
    std::vector<std::string> paths = {empty, folder, missing, below};
#ifndef Q_OS_WIN
    paths.push_back("/dev/null");
#endif
    const QtMessageHandler previous = qInstallMessageHandler(collect);
    g_messages.clear();
    for (const std::string& p : paths) {
        const YString y(p.c_str());
        const QString q = QString::fromStdString(p);
        bool wide, dos, mac, little, ok;
        // Whether these succeed depends on the path (a missing file may be created); only Qt's messages
        // are checked for them.
        (void)sp_DetectTextFileFormat(q, &wide, &dos, &mac, &little);
        (void)sp_DetectTextFileFormat(y, &wide, &dos, &mac, &little);
        sp_LoadFile(q, "auto", &ok);
        sp_LoadFile(q, "UTF-8", &ok);
        YString copy;
        EXPECT_FALSE(sp_ConvertWideTextFile(y, &copy)) << p;
        (void)sp_CheckFileOpen(y, GfnRead);
        (void)sp_CheckFileOpen(y, GfnWrite);
        YString message;
        sp_FileOpenForensicMsg(y, GfnRead, &message);
        sp_FileOpenForensicMsg(y, GfnWrite, &message);
        DataCompressor* compressor = sp_MakeDataCompressor();
        compressor->load(y);
        delete compressor;
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        EXPECT_FALSE(sp_CompileSensReportData(y, &table, &header)) << p;
        EXPECT_FALSE(sp_AppendMeritData(y, YString("v"), YString("n"), YVector<double>(), YVector<int>())) << p;
        EXPECT_NE(sp_ValidateXml(y, y, &message), XmlValidateOk) << p;
        EXPECT_NE(sp_ValidateXml(YString(SUPPORTQT_EXAMPLES_DIR "/results/buck_worstcase.msw"), y, &message),
                  XmlValidateOk) << p;
        { SpiceStream stream(p.c_str(), SpiceLanguageNative); }
        { QuietWatcher watcher; watcher.addPath(y); }
        { QuietWatcher watcher(y); }
        if (p != "/dev/null") {
            sp_WriteTextFile(q, QStringLiteral("x"), "UTF-8");
            (void)sp_WriteMswFile(y, table, header);
            (void)sp_BuildMonteCarloHTMLReport(y, y, table, header);
        }
    }
    // A negative interval is refused before Qt sees it.
    const int timer = sp_CreateTimer(0, false, nullptr);
    EXPECT_FALSE(sp_StartTimer(timer, -1));
    EXPECT_TRUE(sp_DeleteTimer(timer));
    qInstallMessageHandler(previous);
    EXPECT_TRUE(g_messages.isEmpty()) << g_messages.join(QLatin1Char('\n')).toStdString();
}

} // namespace
