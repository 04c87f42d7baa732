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

/// Keeps the description and the source location of the last message the schema machinery reports.
class MySchemaMessageHandler : public QAbstractMessageHandler {
public:
    QString lastDescription() const { return m_description; }
    QSourceLocation lastLocation() const { return m_location; }

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

// The only network the validator gets: regular local files in the schema's folder or below it (the
// schema's own include and import); every other request, over the network or to any other file (a
// hint in the document, a FIFO, a device), is refused without being opened.
class SchemaFolderAccess : public QNetworkAccessManager {
public:
    explicit SchemaFolderAccess(const QString& schemaPath)
        : m_folder(QFileInfo(schemaPath).absoluteDir().canonicalPath())
    {
    }

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request, QIODevice* data) override
    {
        if (operation == GetOperation && allowed(request.url()))
            return QNetworkAccessManager::createRequest(operation, request, data);
        return new RefusedReply(operation, request, this);
    }

private:
    bool allowed(const QUrl& url) const
    {
        if (!url.isLocalFile() || m_folder.isEmpty())
            return false;
        const QFileInfo file(url.toLocalFile());
        if (!file.isFile())
            return false;
        const QString path = file.canonicalFilePath();
        return !path.isEmpty() && path.startsWith(m_folder + QLatin1Char('/'));
    }

    QString m_folder;
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
    if (!schemaOpened || !schema.load(&schemaFile, QUrl::fromLocalFile(schemaFile.fileName())) || !schema.isValid()) {
        if (schemaOpened || (regular(schemaPath) && QFile(toQs(schemaPath)).open(QIODevice::ReadOnly)))
            return XmlValidateBadSchema;
        return XmlValidateNoSchemaFile;
    }
    QFile xmlFile(toQs(xmlPath));
    if (!regular(xmlPath) || !xmlFile.open(QIODevice::ReadOnly))
        return XmlValidateNoXmlFile;
    QXmlSchemaValidator validator(schema);
    validator.setMessageHandler(&handler);
    validator.setNetworkAccessManager(&access);
    return validator.validate(&xmlFile, QUrl::fromLocalFile(xmlFile.fileName())) ? XmlValidateOk : XmlValidateInvalid;
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
