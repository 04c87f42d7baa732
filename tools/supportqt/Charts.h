// Charts.h - plain SVG pictures of a results file: a tornado chart of the normalised sensitivities and a
// histogram of each merit function's values across runs.
#pragma once

#include "RunStatistics.h"
#include "XMLReport.h"

#include <string>
#include <vector>

/// What the caller chooses of the charts.
struct ChartOptions {
    int bins = 0;             ///< histogram bins; 0 chooses them from the data (Freedman-Diaconis, at most 50)
    bool sharedScale = false; ///< one tornado scale for every merit function instead of one each
};

/// The tornado chart: per merit function, one horizontal bar per run (case 1 aside) whose normalised
/// sensitivity is valid, largest magnitude on top, labelled with the run's description, on an axis of
/// round ticks.
std::string sensitivityTornadoSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header,
                                  const ChartOptions& options = ChartOptions());
/// The histogram: per merit function, the finite values of all runs in equal bins, the mean (solid) and
/// mean -/+ 3 standard deviations (dashed) marked, and the nominal value (dashed red); the x axis in
/// engineering notation at round ticks, the y axis counting runs; how many values were left out as not
/// finite is said under it.
std::string meritHistogramSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header,
                              const ChartOptions& options = ChartOptions());

/// Where `v` lies from `low` to `high` (high above low), as a fraction of the way; ends further apart
/// than the largest double are measured by halves, so that the fraction of a finite value is finite.
double fractionBetween(double v, double low, double high);
/// The value a fraction `t` (0 to 1) of the way from `low` to `high`, measured by halves as above.
double valueBetween(double low, double high, double t);

/// A real as the charts and pages show it: engineering notation with `digits` significant digits
/// ("15.8654m"), "n/a" when it is not a number.
std::string engineering(double value, int digits = 6);

/// An SVG document without its XML declaration, to place inside HTML.
std::string inlineSvg(const std::string& svg);

/// The text with "&", "<", ">" and '"' escaped, for XML and HTML text and double-quoted attributes.
std::string xmlEscaped(const std::string& text);

