// PluginHelper.cpp - a module that a plug-in imports, built twice: the copy beside the plug-in and a
// copy of the same name, returning another value, that a test plants elsewhere.
#define MODULE_EXPORT extern "C" __declspec(dllexport)

MODULE_EXPORT int helperValue() { return HELPER_VALUE; }
