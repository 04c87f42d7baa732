// SupportDll.h - every public header of the core library.
#pragma once

#include "Console.h"
#include "DynFunc.h"
#include "FileServices.h"
#include "Options.h"
#include "ProcessServices.h"
#include "SupportDllExport.h"
#include "TextServices.h"
#include "YContainers.h"
#include "YDom.h"
#include "YString.h"
#include "kvstream.h"
