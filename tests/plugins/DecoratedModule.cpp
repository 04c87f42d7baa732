// DecoratedModule.cpp - a plug-in whose function is exported only under its decorated name.
#if defined(_WIN32)
#define MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

MODULE_EXPORT int _decoratedOnly() { return 42; }
