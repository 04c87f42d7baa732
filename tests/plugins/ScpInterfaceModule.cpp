// ScpInterfaceModule.cpp - test module offering "dyn_GetScpInterface" while it is loaded.
#include "DynFunc.h"

#if defined(_WIN32)
#define MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {
int marker = 0;
void* getScpInterface() { return &marker; }
RegisterDynFuncDef s_def("dyn_GetScpInterface", &getScpInterface, "tests/plugins/ScpInterfaceModule", 9);
} // namespace

/// The address that "dyn_GetScpInterface" returns, for the test to compare.
MODULE_EXPORT void* scpInterfaceMarker() { return &marker; }
