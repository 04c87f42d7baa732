// SupportQtDll.h - every public header of SupportQtDll and of the core library beneath it.
#pragma once

#include "SupportDll.h"

#include "Compress.h"
#include "DatesAndUrls.h"
#include "DynSlots.h"
#include "FileOpenCheck.h"
#include "FileWatcher.h"
#include "Help.h"
#include "LibraryStream.h"
#include "LiteralNetlistStream.h"
#include "NetlistStream.h"
#include "PatternMatch.h"
#include "QtSupport.h"
#include "Reports.h"
#include "SimulatorType.h"
#include "SupportQtExport.h"
#include "TextFile.h"
#include "TreboltControls.h"
#include "XMLReport.h"
#include "common_dynexport.h"
