// VersionedModule.cpp - a plug-in built twice, each copy reporting its own version.
#if defined(_WIN32)
#define MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

MODULE_EXPORT int moduleVersion() { return MODULE_VERSION; }
