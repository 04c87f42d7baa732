// SupportDllExport.h - export and import macro of the core library.
#pragma once

#if defined(_WIN32)
#  if defined(SUPPORTDLL_BUILDING)
#    define SUPPORTDLL_API __declspec(dllexport)
#  else
#    define SUPPORTDLL_API __declspec(dllimport)
#  endif
#else
#  define SUPPORTDLL_API __attribute__((visibility("default")))
#endif

#if defined(__GNUC__) || defined(__clang__)
#  define SUPPORTDLL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#  define SUPPORTDLL_PRINTF(fmt, args)
#endif
