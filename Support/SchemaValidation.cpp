// SchemaValidation.cpp - an XML file checked against an XML Schema file (Qt XmlPatterns).
#include "QtSupport.h"
#include "XMLReport.h"

#include <QAbstractMessageHandler>
#include <QFile>
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

XmlValidateStatus sp_ValidateXml(const YString& xmlPath, const YString& schemaPath, YString* message)
{
    YString sink;
    YString* out = message ? message : &sink;
    MySchemaMessageHandler handler;
    QXmlSchema schema;
    schema.setMessageHandler(&handler);
    QFile schemaFile(toQs(schemaPath));
    const bool schemaOpened = schemaFile.open(QIODevice::ReadOnly);
    if (!schemaOpened || !schema.load(&schemaFile, QUrl::fromLocalFile(schemaFile.fileName())) || !schema.isValid()) {
        if (schemaOpened || QFile(toQs(schemaPath)).open(QIODevice::ReadOnly)) {
            *out = toYs(handler.lastDescription());
            return XmlValidateBadSchema;
        }
        *out = "Could not open schema file";
        return XmlValidateNoSchemaFile;
    }
    QFile xmlFile(toQs(xmlPath));
    if (!xmlFile.open(QIODevice::ReadOnly)) {
        *out = "Could not open xml file";
        return XmlValidateNoXmlFile;
    }
    QXmlSchemaValidator validator(schema);
    validator.setMessageHandler(&handler);
    if (validator.validate(&xmlFile, QUrl::fromLocalFile(xmlFile.fileName())))
        return XmlValidateOk;
    *out = toYs(handler.lastDescription());
    return XmlValidateInvalid;
}
