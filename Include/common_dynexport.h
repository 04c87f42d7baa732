// common_dynexport.h - the dynamic-function slots that every module of the suite declares.
#pragma once

#include "DynFunc.h"

/// Function types of the common slots. No module of this library calls them.
typedef void* (*dyn_GetDefaultMessageHandler_t)();
typedef void* (*dyn_GetScpInterface_t)();
typedef int (*dyn_IdentifyBinary_t)(const char* path);

/// Defaults of the common slots: each throws the DynFuncException of its unresolved name.
[[noreturn]] inline void* kv_unresolved_dyn_GetDefaultMessageHandler()
{
    sp_ThrowUnresolvedDynFunc("dyn_GetDefaultMessageHandler");
}
[[noreturn]] inline void* kv_unresolved_dyn_GetScpInterface() { sp_ThrowUnresolvedDynFunc("dyn_GetScpInterface"); }
[[noreturn]] inline int kv_unresolved_dyn_IdentifyBinary(const char*) { sp_ThrowUnresolvedDynFunc("dyn_IdentifyBinary"); }

/// Defines the three common slots of a module and registers them, in this order. Expand it once per
/// module, at namespace scope of the translation unit that holds the module's load-time registrations.
#define KV_DEFINE_COMMON_DYN_SLOTS()                                                                          \
    dyn_GetDefaultMessageHandler_t dyn_GetDefaultMessageHandler = &kv_unresolved_dyn_GetDefaultMessageHandler; \
    dyn_GetScpInterface_t dyn_GetScpInterface = &kv_unresolved_dyn_GetScpInterface;                         \
    dyn_IdentifyBinary_t dyn_IdentifyBinary = &kv_unresolved_dyn_IdentifyBinary;                            \
    static RegisterDynFuncCall kv_reg_dyn_GetDefaultMessageHandler(                                        \
        &dyn_GetDefaultMessageHandler, "dyn_GetDefaultMessageHandler", true, "Include/common_dynexport", 28); \
    static RegisterDynFuncCall kv_reg_dyn_GetScpInterface(&dyn_GetScpInterface, "dyn_GetScpInterface", true, \
                                                          "Include/common_dynexport", 31);                    \
    static RegisterDynFuncCall kv_reg_dyn_IdentifyBinary(&dyn_IdentifyBinary, "dyn_IdentifyBinary", true,    \
                                                         "Include/common_dynexport", 34)
