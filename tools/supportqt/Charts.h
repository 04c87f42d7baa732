// Charts.h - plain SVG pictures of a results file: a tornado chart of the normalised sensitivities and a
// histogram of each merit function's values across runs.
#pragma once

#include "RunStatistics.h"
#include "XMLReport.h"

#include <string>
#include <vector>

/// The tornado chart: per merit function, one horizontal bar per run (case 1 aside) whose normalised
/// sensitivity is valid, largest magnitude on top, labelled with the run's description.
std::string sensitivityTornadoSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header);
/// The histogram: per merit function, the values of all runs in up to 50 equal bins, the nominal value
/// marked by a dashed line.
std::string meritHistogramSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header);

/// The text with "&", "<", ">" and '"' escaped, for XML and HTML text and double-quoted attributes.
std::string xmlEscaped(const std::string& text);

