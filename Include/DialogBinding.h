// DialogBinding.h - a user-defined function's dialog bound to its call records: widgets tagged with
// dynamic properties are filled from the call's arguments and read back into its result.
//
// Properties: "isKvDialogWidget" (any value: the widget takes part), "argIndex" and "inElementIndex"
// (the argument element that initialises it), "outElementIndex" (the first result element it
// produces), "realValue" and "stringValue" (its value). No Qt types appear here but as declarations.
#pragma once

#include "SupportQtExport.h"

class QDialog;

/// Type of an argument's or a result's elements: 0 real (double), 2 string (UTF-8 C strings).
enum UserDataType : int {
    UserDataReal = 0,
    UserDataInteger = 1, ///< not handled by the dialog binding
    UserDataString = 2
};

/// One argument of a call: its elements (an array of doubles or of C strings), their number and type.
struct UserArgument {
    void* values = nullptr;
    int count = 0;
    UserDataType type = UserDataReal;
};

/// The records of one call of a user-defined function. Layout: the 32 argument records, the number of
/// arguments, then the caller's three allocation callbacks (results are always allocated through them
/// so that the caller owns them).
struct UserFunctionInterface {
    static const int kMaxArguments = 32;
    UserArgument arguments[kMaxArguments];
    int numArguments = 0;
    char** (*allocateStrings)(int count) = nullptr; ///< `count` string slots
    double* (*allocateReals)(int count) = nullptr;  ///< `count` doubles
    char* (*copyString)(const char* text) = nullptr; ///< a copy of one C string
};

/// The result of a call: its elements, their type and number.
struct UserReturnData {
    void* values = nullptr;
    UserDataType type = UserDataReal;
    int count = 0;
};

/// A dialog widget that handles its own elements (derive from it beside the widget class).
class SUPPORTQT_API KV_FunctionDef {
public:
    virtual ~KV_FunctionDef();
    /// The number of elements the widget produces.
    virtual int getNumElements() const = 0;
    /// The function's name and description, for the widget's own use.
    virtual const char* getFunctionName() const;
    virtual const char* getFunctionDescription() const;
    /// Whether the widget produces several elements (then `getNumElements` of them).
    virtual bool isMultiElement() const = 0;
    /// Initialises the widget from the call; true when it handled everything itself.
    virtual bool initialise(UserFunctionInterface* call) = 0;
    /// Writes the widget's elements into `result` (its own range of the call's result).
    virtual void writeResult(UserReturnData* result, UserFunctionInterface* call) = 0;
};

/// The number of result elements the tagged widgets of the dialog produce. The dialog functions below
/// only read and fill the dialog, the call and the result: each stays owned by the caller.
SUPPORTQT_API int di_GetNumOutputElements(QDialog* dialog);
/// Fills the tagged widgets from the call's arguments.
SUPPORTQT_API void di_InitialiseDialog(QDialog* dialog, UserFunctionInterface* call);
/// Builds the result from the dialog's KV_FunctionDef widgets (with `read` false, nothing happens).
SUPPORTQT_API void di_ReadDialog(UserFunctionInterface* call, UserReturnData* result, QDialog* dialog, UserDataType type,
                                 bool read);
