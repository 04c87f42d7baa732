// SchemaValidation.cpp - an XML file checked against an XML Schema file (Qt XmlPatterns).
#include "SchemaValidation.h"

#include "QtSupport.h"
#include "XMLReport.h"

#include <QAbstractMessageHandler>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QSourceLocation>
#include <QUrl>
#include <QXmlSchema>
#include <QXmlSchemaValidator>
#include <QXmlStreamReader>

/// Keeps the description and the source location of the last message the schema machinery reports.
class MySchemaMessageHandler : public QAbstractMessageHandler {
public:
    QString lastDescription() const { return m_description; }
    QSourceLocation lastLocation() const { return m_location; }
    /// Takes a message of the library's own as the last one.
    void report(const QString& description, const QSourceLocation& location)
    {
        m_description = description;
        m_location = location;
    }

protected:
    void handleMessage(QtMsgType, const QString& description, const QUrl&, const QSourceLocation& location) override
    {
        m_description = description;
        m_location = location;
    }

private:
    QString m_description;
    QSourceLocation m_location;
};

namespace {

// A reply that failed before it started: the schema machinery sees the error at once and, for a
// document's schema-location hint, goes on without that schema.
class RefusedReply : public QNetworkReply {
public:
    RefusedReply(QNetworkAccessManager::Operation operation, const QNetworkRequest& request, QObject* parent)
        : QNetworkReply(parent)
    {
        setRequest(request);
        setUrl(request.url());
        setOperation(operation);
        setError(ContentAccessDenied, QStringLiteral("%1: only the caller's schema and the files in its folder are read")
                                          .arg(request.url().toString()));
        open(QIODevice::ReadOnly);
        setFinished(true);
    }
    void abort() override {}

protected:
    qint64 readData(char*, qint64) override { return -1; }
};

// The schema machinery recurses once per level of element nesting, so a file nested deeper than this
// would overflow the stack (a Windows thread's 1 MiB holds a few thousand levels); such a file is
// refused before the machinery reads it.
constexpr int kMaxNesting = 1000;

// Whether the XML in `device` nests elements deeper than kMaxNesting; `where` then points at the first
// element too deep. The device is left at its start. A file that is not well-formed is left for the
// validator to report.
bool nestsTooDeep(QIODevice& device, const QUrl& uri, QSourceLocation* where)
{
    QXmlStreamReader reader(&device);
    int depth = 0;
    bool tooDeep = false;
    while (!reader.atEnd() && !tooDeep) {
        const QXmlStreamReader::TokenType token = reader.readNext();
        if (token == QXmlStreamReader::StartElement)
            tooDeep = ++depth > kMaxNesting;
        else if (token == QXmlStreamReader::EndElement)
            --depth;
    }
    if (tooDeep && where) {
        where->setUri(uri);
        // The reader stands just past the element's start tag: the column counts the characters up to
        // its ">", where the validator's own messages point too.
        where->setLine(reader.lineNumber());
        where->setColumn(reader.columnNumber());
    }
    device.seek(0);
    return tooDeep;
}

QString tooDeepText(const char* what)
{
    return QStringLiteral("%1 nests elements deeper than %2 levels, more than the validator follows")
        .arg(QLatin1String(what))
        .arg(kMaxNesting);
}

// The only network the schema's compiler gets: regular local files in the schema's folder or below it
// (the schema's own include and import), nested no deeper than kMaxNesting; every other request, over
// the network or to any other file (a FIFO, a device), is refused without being opened.
class SchemaFolderAccess : public QNetworkAccessManager {
public:
    explicit SchemaFolderAccess(const QString& schemaPath)
        : m_folder(QFileInfo(schemaPath).absoluteDir().canonicalPath())
    {
    }
    /// Where the first file the schema includes that nests too deeply does so; null when none does.
    const QSourceLocation& tooDeep() const { return m_tooDeep; }

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request, QIODevice* data) override
    {
        if (operation == GetOperation && allowed(request.url()))
            return QNetworkAccessManager::createRequest(operation, request, data);
        return new RefusedReply(operation, request, this);
    }

private:
    bool allowed(const QUrl& url)
    {
        if (!url.isLocalFile() || m_folder.isEmpty())
            return false;
        const QFileInfo file(url.toLocalFile());
        if (!file.isFile())
            return false;
        const QString path = file.canonicalFilePath();
        if (path.isEmpty() || !path.startsWith(m_folder + QLatin1Char('/')))
            return false;
        QFile included(path);
        if (!included.open(QIODevice::ReadOnly))
            return false;
        // The compiler would pass over a refused include: the caller refuses the schema for it.
        return m_tooDeep.isNull() && !nestsTooDeep(included, url, &m_tooDeep);
    }

    QString m_folder;
    QSourceLocation m_tooDeep;
};

// The validator of a document gets no file and no network: the schema it checks against is compiled
// already, and whatever a hint in the document names is refused.
class NoAccess : public QNetworkAccessManager {
protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request, QIODevice*) override
    {
        return new RefusedReply(operation, request, this);
    }
};

} // namespace

namespace {

// The validation itself; `handler` holds the last message when it returns.
XmlValidateStatus validate(const YString& xmlPath, const YString& schemaPath, MySchemaMessageHandler& handler)
{
    SchemaFolderAccess access(toQs(schemaPath));
    QXmlSchema schema;
    schema.setMessageHandler(&handler);
    schema.setNetworkAccessManager(&access);
    // Only a regular file is opened: a FIFO's open would wait for a writer, and a device may never end.
    // (An empty name is no file; Qt would warn on standard error if asked to open it.)
    const auto regular = [](const YString& path) { return !path.isEmpty() && QFileInfo(toQs(path)).isFile(); };
    QFile schemaFile(toQs(schemaPath));
    const bool schemaOpened = regular(schemaPath) && schemaFile.open(QIODevice::ReadOnly);
    const QUrl schemaUrl = QUrl::fromLocalFile(schemaFile.fileName());
    QSourceLocation where;
    if (schemaOpened && nestsTooDeep(schemaFile, schemaUrl, &where)) {
        handler.report(tooDeepText("The schema"), where);
        return XmlValidateBadSchema;
    }
    const bool loaded = schemaOpened && schema.load(&schemaFile, schemaUrl) && schema.isValid();
    if (!access.tooDeep().isNull()) {
        handler.report(tooDeepText("The schema"), access.tooDeep());
        return XmlValidateBadSchema;
    }
    if (!loaded) {
        if (schemaOpened || (regular(schemaPath) && QFile(toQs(schemaPath)).open(QIODevice::ReadOnly)))
            return XmlValidateBadSchema;
        return XmlValidateNoSchemaFile;
    }
    QFile xmlFile(toQs(xmlPath));
    if (!regular(xmlPath) || !xmlFile.open(QIODevice::ReadOnly))
        return XmlValidateNoXmlFile;
    const QUrl xmlUrl = QUrl::fromLocalFile(xmlFile.fileName());
    if (nestsTooDeep(xmlFile, xmlUrl, &where)) {
        handler.report(tooDeepText("The document"), where);
        return XmlValidateInvalid;
    }
    NoAccess none;
    QXmlSchemaValidator validator(schema);
    validator.setMessageHandler(&handler);
    validator.setNetworkAccessManager(&none);
    return validator.validate(&xmlFile, xmlUrl) ? XmlValidateOk : XmlValidateInvalid;
}

const char* openFailureText(XmlValidateStatus status)
{
    return status == XmlValidateNoSchemaFile ? "Could not open schema file" : "Could not open xml file";
}

// The validator's XHTML fragment as one line of plain text.
QString plainText(const QString& description)
{
    QString text = description;
    text.remove(QRegularExpression(QStringLiteral("<[^>]*>")));
    text.replace(QStringLiteral("&lt;"), QStringLiteral("<")).replace(QStringLiteral("&gt;"), QStringLiteral(">"));
    text.replace(QStringLiteral("&quot;"), QStringLiteral("\"")).replace(QStringLiteral("&apos;"), QStringLiteral("'"));
    text.replace(QStringLiteral("&amp;"), QStringLiteral("&"));
    return text.simplified();
}

// The file a source location names, as the caller named it when it is the document or the schema.
YString locationFile(const QUrl& uri, const YString& xmlPath, const YString& schemaPath)
{
    if (uri.isEmpty())
        return YString();
    const QString local = uri.isLocalFile() ? uri.toLocalFile() : uri.toString();
    const QString absolute = QFileInfo(local).absoluteFilePath();
    for (const YString* given : {&xmlPath, &schemaPath})
        if (!given->isEmpty() && QFileInfo(toQs(*given)).absoluteFilePath() == absolute)
            return *given;
    return toYs(local);
}

} // namespace

XmlValidateStatus sp_ValidateXml(const YString& xmlPath, const YString& schemaPath, YString* message)
{
    MySchemaMessageHandler handler;
    const XmlValidateStatus status = validate(xmlPath, schemaPath, handler);
    if (message && status != XmlValidateOk)
        *message = status == XmlValidateNoSchemaFile || status == XmlValidateNoXmlFile ? YString(openFailureText(status))
                                                                                      : toYs(handler.lastDescription());
    return status;
}

XmlValidateStatus sp_ValidateXmlWithLocation(const YString& xmlPath, const YString& schemaPath, XmlValidationMessage* message)
{
    MySchemaMessageHandler handler;
    const XmlValidateStatus status = validate(xmlPath, schemaPath, handler);
    if (!message)
        return status;
    *message = XmlValidationMessage();
    if (status == XmlValidateNoSchemaFile || status == XmlValidateNoXmlFile) {
        message->text = openFailureText(status);
    } else if (status != XmlValidateOk) {
        const QSourceLocation where = handler.lastLocation();
        message->text = toYs(plainText(handler.lastDescription()));
        message->file = locationFile(where.uri(), xmlPath, schemaPath);
        message->line = where.line() > 0 ? static_cast<int>(where.line()) : 0;
        message->column = where.column() > 0 ? static_cast<int>(where.column()) : 0;
    }
    return status;
}
