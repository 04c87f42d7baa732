// SupportQtExport.h - export and import macro of SupportQtDll.
#pragma once

#if defined(_WIN32)
#  if defined(SUPPORTQT_BUILDING)
#    define SUPPORTQT_API __declspec(dllexport)
#  else
#    define SUPPORTQT_API __declspec(dllimport)
#  endif
#else
#  define SUPPORTQT_API __attribute__((visibility("default")))
#endif
