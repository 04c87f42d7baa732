// DynSlots.h - this library's dynamic-function call slots, readable by its callers.
#pragma once

#include "SupportQtExport.h"
#include "common_dynexport.h"

/// Runs a command of the suite's command language; the second argument is `sp_HashValue` of the text.
typedef void (*dyn_RunCommand_t)(const char* command, unsigned hash);

namespace SupportQtSlots {
/// Filled by the registry when a module defines "dyn_RunCommand"; until then a function that does nothing.
extern SUPPORTQT_API dyn_RunCommand_t dyn_RunCommand;
/// The common slots of this library (see common_dynexport.h); unresolved, each throws DynFuncException.
/// The objects the first two return belong to the module that defines them, not to the caller.
extern SUPPORTQT_API dyn_GetDefaultMessageHandler_t dyn_GetDefaultMessageHandler;
/// The common slot "dyn_GetScpInterface".
extern SUPPORTQT_API dyn_GetScpInterface_t dyn_GetScpInterface;
/// The common slot "dyn_IdentifyBinary".
extern SUPPORTQT_API dyn_IdentifyBinary_t dyn_IdentifyBinary;
} // namespace SupportQtSlots
