// Help.cpp - help links turned into URLs, help requests to the command interpreter, and web pages.
#include "Help.h"
#include "DatesAndUrls.h"
#include "DynSlots.h"
#include "FileServices.h"
#include "HelpPlatform_p.h"
#include "LoadTime_p.h"
#include "Options.h"
#include "ProcessServices.h"
#include "QtSupport.h"
#include "TextServices.h"

#include <QDateTime>
#include <QString>

// The help sites have one home: the SUPPORTQT_HELP_SITE and SUPPORTQT_DOC_SITE settings of the build.
#if !defined(SUPPORTQT_HELP_SITE) || !defined(SUPPORTQT_DOC_SITE)
#error "SUPPORTQT_HELP_SITE and SUPPORTQT_DOC_SITE come from the build"
#endif

namespace {

const char kContextPage[] = "open_context_id.htm";

// The link without any "kvhlp://".
QString pagePath(const YString& link)
{
    return toQs(link).remove(QStringLiteral("kvhlp://"), Qt::CaseSensitive);
}

// True when the link opens a context id that belongs to the switching simulator's documentation.
bool isSecondSimulatorPage(const QString& link)
{
    if (!link.contains(QLatin1String(kContextPage) + QLatin1Char('#'), Qt::CaseInsensitive))
        return false;
    bool ok = false;
    const int id = link.mid(link.lastIndexOf(QLatin1Char('#')) + 1).toInt(&ok, 10);
    return ok && SupportQtLoadTime::helpContextIds().contains(id);
}

// Asks the command interpreter for help on the quoted arguments (already joined by "' '").
void runHelp(const YString& arguments)
{
    YString command("run_help /ne '");
    command += arguments;
    command.append("'");
    SupportQtSlots::dyn_RunCommand(command.c_str(), sp_HashValue(command.c_str()));
}

} // namespace

YString sp_ConvertKvhlpToUrl(const YString& link)
{
    if (sp_GetBoolOption("UseLocalHelp", nullptr)) {
        const YString helpPath = sp_GetSystemValuePath("HELPPATH", nullptr);
        YString page = helpPath;
        page.append("/").append(kContextPage);
        if (sp_ExistFile(page.c_str())) {
            YString base = helpPath;
            return toYs(sp_MakeFileUrl(toQs(base.append("/"))) + pagePath(link));
        }
    }
    const QString linkText = toQs(link);
    QString path = pagePath(link);
    if (isSecondSimulatorPage(linkText)) {
        // The stamp keeps the documentation site from serving a cached page.
        const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("ddMMyyhhmm"));
        path.replace(QLatin1Char('#'), QStringLiteral("?nocache=") + stamp + QLatin1Char('#'));
        return toYs(QStringLiteral(SUPPORTQT_DOC_SITE "/") + path);
    }
    KalvontaVersionInfo version;
    sp_GetVersionValues(&version);
    const QString folder = QString::asprintf("%d.%d/", version.release, version.subRelease / 10);
    return toYs(QStringLiteral(SUPPORTQT_HELP_SITE "/") + folder + path);
}

void sp_RunHelp(const char* a, const char* b)
{
    YString arguments(a ? a : "");
    arguments.append("' '").append(b ? b : "");
    runHelp(arguments);
}

void sp_RunHelpContext(int id) { runHelp(YString(id)); }

bool sp_HasHelp() { return true; }

bool sp_OpenWebPage(const YString& url)
{
    const QString text = toQs(url);
    const int hash = text.indexOf(QLatin1Char('#'));
    if (text.startsWith(QLatin1String("file://")) && hash >= 0) {
        // Opening a file URL directly would lose its fragment: start the HTML program with the whole URL.
        const QString program = helpplatform::programForFile(sp_GetLocalFileFromUrl(text.left(hash)));
        return !program.isEmpty() && helpplatform::startProgram(program, text);
    }
    return helpplatform::openWithSystemHandler(text);
}

bool sp_HaveOpenWebPage()
{
    // The probe file is made new: a "dummy.html" already there (the user's, or a link to anywhere) is
    // left as it is, and a name of the same type that is free is taken instead.
    const YString folder = sp_GetTempPath();
    YString path = folder.concat("/dummy.html");
    bool made = helpplatform::createNewFile(QByteArray(path.c_str()));
    for (int attempt = 1; !made && attempt <= 100; ++attempt) {
        YString name;
        name.sprintf("/dummy-%d-%d.html", sp_GetCurrentProcessId(), attempt);
        path = folder.concat(name.c_str());
        made = helpplatform::createNewFile(QByteArray(path.c_str()));
    }
    if (!made)
        return false;
    const bool found = helpplatform::hasProgramForFile(toQs(path));
    // The probe file is scratch: a failed removal does not change the answer.
    (void)unlink_utf8(path.c_str());
    return found;
}
