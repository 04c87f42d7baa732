// ToolLocaleTest.cpp - the tool run by a user whose locale writes numbers with a decimal comma gives
// the same output, and writes the same files, as in the C locale.
#include "TestHelpers.h"

#include <QProcess>
#include <QProcessEnvironment>

namespace {

struct ToolRun {
    int code = -1;
    QByteArray out;
};

ToolRun tool(const QStringList& arguments, const QProcessEnvironment& environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(SUPPORTQT_TOOL_PATH), arguments);
    EXPECT_TRUE(process.waitForStarted(30000));
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(120000));
    ToolRun r;
    r.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    r.out = process.readAllStandardOutput();
    return r;
}

QString example(const char* name) { return QStringLiteral(SUPPORTQT_EXAMPLES_DIR "/") + QLatin1String(name); }

} // namespace

class ToolLocale : public TempDirTest {};

TEST_F(ToolLocale, ADecimalCommaLocaleChangesNoNumberWrittenOrShown)
{
#ifdef _WIN32
    GTEST_SKIP() << "the Windows runtime takes no locale from the environment";
#endif
    const CommaLocale& comma = commaLocale();
    if (comma.name.empty())
        GTEST_SKIP() << "no locale with a decimal comma can be had on this system";
    QProcessEnvironment plain = QProcessEnvironment::systemEnvironment();
    plain.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    QProcessEnvironment commaEnvironment = QProcessEnvironment::systemEnvironment();
    commaEnvironment.insert(QStringLiteral("LC_ALL"), QString::fromStdString(comma.name));
    commaEnvironment.insert(QStringLiteral("LOCPATH"), QString::fromStdString(comma.folder));
    // Each command once per locale; what it writes goes to a file named for the locale.
    const auto outputs = [this](const char* locale) {
        const QString dir = QString::fromStdString(path(locale));
        return QStringList{dir + QStringLiteral(".html"), dir + QStringLiteral(".svg"), dir + QStringLiteral(".csv")};
    };
    const QList<QStringList> commands = {
        {QStringLiteral("controls"), example("netlists/buck_converter.cir"), QStringLiteral("--compile")},
        {QStringLiteral("results"), example("results/buck_montecarlo.msw")},
        {QStringLiteral("stats"), example("results/buck_montecarlo.msw"), QStringLiteral("--json")},
    };
    for (const QStringList& command : commands) {
        const ToolRun c = tool(command, plain), d = tool(command, commaEnvironment);
        EXPECT_EQ(c.code, 0) << command.join(' ').toStdString();
        EXPECT_EQ(d.code, c.code) << command.join(' ').toStdString();
        EXPECT_EQ(d.out.toStdString(), c.out.toStdString()) << command.join(' ').toStdString();
    }
    const QStringList c = outputs("c"), d = outputs("comma");
    const auto reports = [](const QStringList& out) {
        return QList<QStringList>{
            {QStringLiteral("report"), QStringLiteral("mc"), example("results/buck_montecarlo.msw"), QStringLiteral("-o"), out[0],
             QStringLiteral("--chart"), out[1]},
            {QStringLiteral("stats"), example("results/buck_montecarlo.msw"), QStringLiteral("--csv"), out[2]},
        };
    };
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(tool(reports(c)[i], plain).code, 0);
        ASSERT_EQ(tool(reports(d)[i], commaEnvironment).code, 0);
    }
    for (int i = 0; i < 3; ++i) {
        const std::string written = readFileBytes(c[i].toStdString());
        EXPECT_FALSE(written.empty()) << c[i].toStdString();
        EXPECT_EQ(readFileBytes(d[i].toStdString()), written) << d[i].toStdString();
    }
}
