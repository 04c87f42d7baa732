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
