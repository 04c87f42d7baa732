// SanitizerHooks.cpp - built into the tool in sanitizer builds only: XmlPatterns keeps its shared schema
// machinery until the process ends, which the leak checker is told.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libQt5XmlPatterns.so\n";
}

// The suppressed leaks are expected ones: their tally is not printed, so that the tool's standard error
// holds only its own messages (a schema loaded for a document that cannot be opened leaves some).
extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}
