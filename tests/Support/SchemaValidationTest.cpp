// SchemaValidationTest.cpp - the validator's message with the place in the document or the schema
// that it is about, against the plain validation's status and text.
#include "SchemaValidation.h"
#include "TestHelpers.h"

namespace {

const char kSchema[] = SUPPORTQT_SCHEMA_DIR "/msw.xsd";

class SchemaValidation : public TempDirTest {};

} // namespace

TEST_F(SchemaValidation, AnInvalidDocumentGivesTheLineAndColumnOfItsFault)
{
    const YString document(testDataPath("tool/breaks_schema.msw").c_str());
    XmlValidationMessage message;
    ASSERT_EQ(sp_ValidateXmlWithLocation(document, YString(kSchema), &message), XmlValidateInvalid);
    // Line 7 holds <sensval case="3" value="four" />, as xmllint says too.
    EXPECT_EQ(message.file, document);
    EXPECT_EQ(message.line, 7);
    EXPECT_EQ(message.column, 35); // the end of that start tag
    EXPECT_EQ(message.text, YString("Content of attribute value does not match its type definition: String content is "
                                    "not listed in the enumeration facet.."));
    // The same verdict as the plain validation, whose message is the validator's own XHTML.
    YString raw;
    EXPECT_EQ(sp_ValidateXml(document, YString(kSchema), &raw), XmlValidateInvalid);
    EXPECT_NE(raw.findIndex("<p>"), -1) << raw.c_str();
}

TEST_F(SchemaValidation, AValidDocumentGivesAnEmptyMessage)
{
    XmlValidationMessage message;
    message.text = "left over";
    message.line = 3;
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(testDataPath("tool/stats.msw").c_str()), YString(kSchema), &message),
              XmlValidateOk);
    EXPECT_TRUE(message.text.isEmpty());
    EXPECT_TRUE(message.file.isEmpty());
    EXPECT_EQ(message.line, 0);
    EXPECT_EQ(message.column, 0);
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(testDataPath("tool/stats.msw").c_str()), YString(kSchema), nullptr),
              XmlValidateOk);
}

TEST_F(SchemaValidation, ABrokenSchemaGivesThePlaceInTheSchema)
{
    // Line 3 names a type that does not exist.
    writeFileBytes(path("broken.xsd"), "<?xml version=\"1.0\"?>\n"
                                       "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\">\n"
                                       "  <xs:element name=\"a\" type=\"nosuchtype\"/>\n"
                                       "</xs:schema>\n");
    const YString schema(path("broken.xsd").c_str());
    XmlValidationMessage message;
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(testDataPath("tool/stats.msw").c_str()), schema, &message),
              XmlValidateBadSchema);
    EXPECT_EQ(message.file, schema);
    EXPECT_EQ(message.line, 3);
    EXPECT_GT(message.column, 0);
    EXPECT_FALSE(message.text.isEmpty());
    EXPECT_EQ(message.text.findIndex("<"), -1) << message.text.c_str();
}

TEST_F(SchemaValidation, FilesThatCannotBeOpenedHaveNoPlace)
{
    XmlValidationMessage message;
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(path("missing.msw").c_str()), YString(kSchema), &message),
              XmlValidateNoXmlFile);
    EXPECT_EQ(message.text, YString("Could not open xml file"));
    EXPECT_TRUE(message.file.isEmpty());
    EXPECT_EQ(message.line, 0);
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(testDataPath("tool/stats.msw").c_str()), YString(path("none.xsd").c_str()),
                                         &message),
              XmlValidateNoSchemaFile);
    EXPECT_EQ(message.text, YString("Could not open schema file"));
    EXPECT_EQ(message.column, 0);
}

// A schema-location hint in the document is not followed even to a file beside the caller's schema,
// which the schema itself may include: the verdict is the caller's schema's alone.
TEST_F(SchemaValidation, AHintToAFileBesideTheSchemaIsNotFollowed)
{
    // The caller's schema lets any element of another namespace through, checked when its schema is known.
    writeFileBytes(path("main.xsd"),
                   "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" targetNamespace=\"urn:a\" "
                   "elementFormDefault=\"qualified\"><xs:element name=\"r\"><xs:complexType><xs:sequence>"
                   "<xs:any namespace=\"##other\" processContents=\"lax\" minOccurs=\"0\"/></xs:sequence>"
                   "</xs:complexType></xs:element></xs:schema>");
    // Beside it, a schema by which the document's element is invalid.
    writeFileBytes(path("hint.xsd"), "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" targetNamespace=\"urn:b\">"
                                     "<xs:element name=\"e\" type=\"xs:int\"/></xs:schema>");
    writeFileBytes(path("hinted.xml"),
                   "<r xmlns=\"urn:a\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                   "xsi:schemaLocation=\"urn:b hint.xsd\"><e xmlns=\"urn:b\">notint</e></r>");
    writeFileBytes(path("plain.xml"), "<r xmlns=\"urn:a\"><e xmlns=\"urn:b\">notint</e></r>");
    YString message;
    EXPECT_EQ(sp_ValidateXml(YString(path("plain.xml").c_str()), YString(path("main.xsd").c_str()), &message), XmlValidateOk);
    EXPECT_EQ(sp_ValidateXml(YString(path("hinted.xml").c_str()), YString(path("main.xsd").c_str()), &message),
              XmlValidateOk)
        << message.c_str();
}

// Files nested deeper than the validator can follow are refused with a message of their own, where the
// validator would have overflowed the stack: a document 50,000 elements deep under a schema that allows
// any depth, and a schema 50,000 levels deep. 1,000 levels still validate.
TEST_F(SchemaValidation, FilesNestedTooDeepAreRefusedAndNotFollowed)
{
    writeFileBytes(path("rec.xsd"), "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" xmlns=\"urn:a\" "
                                    "targetNamespace=\"urn:a\" elementFormDefault=\"qualified\">"
                                    "<xs:element name=\"x\" type=\"T\"/><xs:complexType name=\"T\"><xs:sequence>"
                                    "<xs:element ref=\"x\" minOccurs=\"0\"/></xs:sequence></xs:complexType></xs:schema>");
    const auto nested = [](int depth) {
        std::string text = "<x xmlns=\"urn:a\">";
        for (int i = 1; i < depth; ++i)
            text += "\n<x>";
        for (int i = 0; i < depth; ++i)
            text += "</x>";
        return text;
    };
    const YString schema(path("rec.xsd").c_str());
    writeFileBytes(path("ok.xml"), nested(1000));
    XmlValidationMessage message;
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(path("ok.xml").c_str()), schema, &message), XmlValidateOk)
        << message.text.c_str();

    writeFileBytes(path("deep.xml"), nested(50000));
    const YString deep(path("deep.xml").c_str());
    EXPECT_EQ(sp_ValidateXmlWithLocation(deep, schema, &message), XmlValidateInvalid);
    EXPECT_EQ(message.text, YString("The document nests elements deeper than 1000 levels, more than the validator follows"));
    EXPECT_EQ(message.file, deep);
    EXPECT_EQ(message.line, 1001); // the 1,001st element starts line 1001
    EXPECT_EQ(message.column, 3);  // at the ">" of its "<x>", as the validator's own messages point
    YString plain;
    EXPECT_EQ(sp_ValidateXml(deep, schema, &plain), XmlValidateInvalid);
    EXPECT_EQ(plain, message.text);

    std::string deepSchema = "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\">";
    for (int i = 0; i < 50000; ++i)
        deepSchema += "<xs:element name=\"x\"><xs:complexType><xs:sequence>";
    writeFileBytes(path("deep.xsd"), deepSchema);
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(path("ok.xml").c_str()), YString(path("deep.xsd").c_str()), &message),
              XmlValidateBadSchema);
    EXPECT_EQ(message.text, YString("The schema nests elements deeper than 1000 levels, more than the validator follows"));
    EXPECT_EQ(message.file, YString(path("deep.xsd").c_str()));

    // A schema that includes one nested too deep, which the compiler would pass over as if refused.
    const auto part = [](int depth) {
        std::string text = "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" targetNamespace=\"urn:a\">"
                           "<xs:element name=\"v\" type=\"xs:int\"/><xs:annotation>";
        for (int i = 0; i < depth; ++i)
            text += "<xs:documentation>";
        for (int i = 0; i < depth; ++i)
            text += "</xs:documentation>";
        return text + "</xs:annotation></xs:schema>";
    };
    writeFileBytes(path("deeppart.xsd"), part(1200));
    writeFileBytes(path("base.xsd"), "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" xmlns=\"urn:a\" "
                                     "targetNamespace=\"urn:a\" elementFormDefault=\"qualified\">"
                                     "<xs:include schemaLocation=\"deeppart.xsd\"/>"
                                     "<xs:element name=\"r\"><xs:complexType><xs:sequence><xs:element ref=\"v\"/>"
                                     "</xs:sequence></xs:complexType></xs:element></xs:schema>");
    writeFileBytes(path("r.xml"), "<r xmlns=\"urn:a\"><v>1</v></r>");
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(path("r.xml").c_str()), YString(path("base.xsd").c_str()), &message),
              XmlValidateBadSchema);
    EXPECT_EQ(message.text, YString("The schema nests elements deeper than 1000 levels, more than the validator follows"));
    EXPECT_EQ(message.file, YString(path("deeppart.xsd").c_str()));
    EXPECT_EQ(message.line, 1);
    // The same part nested 900 levels deep is taken.
    writeFileBytes(path("deeppart.xsd"), part(900));
    EXPECT_EQ(sp_ValidateXmlWithLocation(YString(path("r.xml").c_str()), YString(path("base.xsd").c_str()), &message),
              XmlValidateOk)
        << message.text.c_str();
}
