// DependentModule.cpp - a plug-in that imports its helper module, which lies in the plug-in's folder.
#define MODULE_EXPORT extern "C" __declspec(dllexport)

extern "C" __declspec(dllimport) int helperValue();

MODULE_EXPORT int dependentValue() { return helperValue(); }
