// SanitizerHooks.cpp - built into the tool in sanitizer builds only: XmlPatterns keeps its shared schema
// machinery until the process ends, which the leak checker is told.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libQt5XmlPatterns.so\n";
}
