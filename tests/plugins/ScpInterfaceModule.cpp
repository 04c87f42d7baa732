// ScpInterfaceModule.cpp - test module offering "dyn_GetScpInterface" while it is loaded.
#include "DynFunc.h"
#include "SupportDllExport.h"

namespace {
int marker = 0;
void* getScpInterface() { return &marker; }
RegisterDynFuncDef s_def("dyn_GetScpInterface", &getScpInterface, "tests/plugins/ScpInterfaceModule", 9);
} // namespace

/// The address that "dyn_GetScpInterface" returns, for the test to compare.
extern "C" SUPPORTDLL_API void* scpInterfaceMarker() { return &marker; }
