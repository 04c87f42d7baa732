// SchemaValidation.h - an XML file checked against an XML Schema, with the place in the file that the
// validator's message is about.
#pragma once

#include "SupportQtExport.h"
#include "XMLReport.h"
#include "YString.h"

/// The validator's message and where it points.
struct XmlValidationMessage {
    YString text;   ///< the message as plain text on one line (the validator words it as XHTML)
    YString file;   ///< the file it is about: the document or the schema as the caller named them, another
                    ///< file (a schema the schema includes) by its local path; empty when the validator gave none
    int line = 0;   ///< from 1; 0 when the validator gave none
    int column = 0; ///< from 1; 0 when the validator gave none
};

/// Validates an XML file against an XML Schema file exactly as `sp_ValidateXml` does (same status, same
/// files read), and fills `message` (when not null) with the last message of the validator and its
/// source location: for `XmlValidateInvalid` a place in the document, for `XmlValidateBadSchema` a place
/// in the schema. For `XmlValidateOk` the message is empty; for the two statuses of a file that cannot be
/// opened it holds `sp_ValidateXml`'s text and no place. Nothing is thrown.
[[nodiscard]] SUPPORTQT_API XmlValidateStatus sp_ValidateXmlWithLocation(const YString& xmlPath, const YString& schemaPath,
                                                                         XmlValidationMessage* message);
