// SimulatorType.h - the simulator kinds a netlist or control block is meant for, and their text form.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

/// Bit set of simulator kinds.
enum SimulatorType : int {
    SimulatorTypeNone = 0,
    SimulatorTypeKalvonta = 1, ///< the main simulator, text "Kalvonta"
    SimulatorTypeTrebolt = 2   ///< the switching simulator, text "TREBOLT"
};

/// Text to bit set: the "|"-separated names ("TREBOLT", "Kalvonta", any case; blanks around a name are
/// ignored); unknown names are skipped; 0 when none matched.
SUPPORTQT_API SimulatorType support_CrackSimulatorType(const char* text);
/// Bit set to text, the switching simulator first: 3 gives "TREBOLT|Kalvonta"; 0 gives "".
SUPPORTQT_API YString support_BuildSimulatorTypeString(SimulatorType type);
