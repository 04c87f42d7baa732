// Help.h - help links turned into URLs, help requests to the command interpreter, and web pages.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

/// The URL to open for a help link "kvhlp://PAGE[#ID]": the local help tree when the option
/// "UseLocalHelp" is set and HELPPATH holds "open_context_id.htm"; else the switching simulator's
/// documentation site when ID is one of its context ids (with a "?nocache=ddMMyyhhmm" stamp before the
/// "#"), else the main help site in the folder of this release ("9.4/").
SUPPORTQT_API YString sp_ConvertKvhlpToUrl(const YString& link);
/// Asks the command interpreter (the "dyn_RunCommand" slot) to run "run_help /ne 'a' 'b'".
SUPPORTQT_API void sp_RunHelp(const char* a, const char* b);
/// Asks the command interpreter to run "run_help /ne 'ID'".
SUPPORTQT_API void sp_RunHelpContext(int id);
/// Always true: help is always available.
SUPPORTQT_API bool sp_HasHelp();
/// Opens a URL with the system's handler; false when that fails. A "file://" URL with a "#" fragment is
/// handed whole to the program registered for HTML files, so that the fragment is not lost.
[[nodiscard]] SUPPORTQT_API bool sp_OpenWebPage(const YString& url);
/// True when a program is registered to open ".html" files, asked of a probe file "dummy.html" made new
/// in the temporary folder and removed again; a file or link of that name already there is left alone
/// (another free name of the same type is used). False when no probe file can be made.
SUPPORTQT_API bool sp_HaveOpenWebPage();
