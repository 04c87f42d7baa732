// SchemaValidation.cpp - an XML file checked against an XML Schema file (Qt XmlPatterns).
#include "QtSupport.h"
#include "XMLReport.h"

#include <QAbstractMessageHandler>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>
#include <QXmlSchema>
#include <QXmlSchemaValidator>

/// Keeps the description of the last message the schema machinery reports.
class MySchemaMessageHandler : public QAbstractMessageHandler {
public:
    QString lastDescription() const { return m_description; }

protected:
    void handleMessage(QtMsgType, const QString& description, const QUrl&, const QSourceLocation&) override
    {
        m_description = description;
    }

private:
    QString m_description;
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

XmlValidateStatus sp_ValidateXml(const YString& xmlPath, const YString& schemaPath, YString* message)
{
    YString sink;
    YString* out = message ? message : &sink;
    MySchemaMessageHandler handler;
    SchemaFolderAccess access(toQs(schemaPath));
    QXmlSchema schema;
    schema.setMessageHandler(&handler);
    schema.setNetworkAccessManager(&access);
    // An empty name is no file; Qt would warn on standard error if asked to open it.
    QFile schemaFile(toQs(schemaPath));
    const bool schemaOpened = !schemaPath.isEmpty() && schemaFile.open(QIODevice::ReadOnly);
    if (!schemaOpened || !schema.load(&schemaFile, QUrl::fromLocalFile(schemaFile.fileName())) || !schema.isValid()) {
        if (schemaOpened || (!schemaPath.isEmpty() && QFile(toQs(schemaPath)).open(QIODevice::ReadOnly))) {
            *out = toYs(handler.lastDescription());
            return XmlValidateBadSchema;
        }
        *out = "Could not open schema file";
        return XmlValidateNoSchemaFile;
    }
    QFile xmlFile(toQs(xmlPath));
    if (xmlPath.isEmpty() || !xmlFile.open(QIODevice::ReadOnly)) {
        *out = "Could not open xml file";
        return XmlValidateNoXmlFile;
    }
    QXmlSchemaValidator validator(schema);
    validator.setMessageHandler(&handler);
    validator.setNetworkAccessManager(&access);
    if (validator.validate(&xmlFile, QUrl::fromLocalFile(xmlFile.fileName())))
        return XmlValidateOk;
    *out = toYs(handler.lastDescription());
    return XmlValidateInvalid;
}
