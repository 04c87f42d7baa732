// XMLReport_p.h - run labels shared by the results reader and the reports.
#pragma once

#include "YString.h"

namespace xmlreport {
/// The label of a run name ("Refdes:R1/DevParam:R/Term:1") at a detail level from 1 to 5: "Lot: ...",
/// "Ref: ..." or "Var: ..." with more of the name's items as the level grows; the name itself at 5.
YString makeRunLabel(const YString& name, int detail);
} // namespace xmlreport
