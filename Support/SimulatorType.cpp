// SimulatorType.cpp - the simulator kinds and their text form.
#include "SimulatorType.h"
#include "TextServices.h"

SimulatorType support_CrackSimulatorType(const char* text)
{
    YArray<YString> parts;
    sp_SplitLine(text, '|', &parts, 0);
    int bits = 0;
    for (int i = parts.count() - 1; i >= 0; --i) {
        if (parts[i].equalsNoCase("TREBOLT"))
            bits |= SimulatorTypeTrebolt;
        else if (parts[i].equalsNoCase("Kalvonta"))
            bits |= SimulatorTypeKalvonta;
    }
    return static_cast<SimulatorType>(bits);
}

YString support_BuildSimulatorTypeString(SimulatorType type)
{
    YString result;
    if (type & SimulatorTypeTrebolt)
        result = "TREBOLT";
    if (type & SimulatorTypeKalvonta)
        result.append(result.isEmpty() ? "Kalvonta" : "|Kalvonta");
    return result;
}
