// SupportQtDll.h - every public header of SupportQtDll and of the core library beneath it.
#pragma once

#include "SupportDll.h"

#include "Compress.h"
#include "DynSlots.h"
#include "QtSupport.h"
#include "SupportQtExport.h"
#include "common_dynexport.h"
