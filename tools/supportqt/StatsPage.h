// StatsPage.h - pictures and pages of run statistics: per merit function a histogram with its limits,
// mean and 3-sigma band, an empirical distribution function and ranked correlation bars, as SVG; a
// standalone HTML page with one card per merit function; and a CSV table.
#pragma once

#include "RunStatistics.h"

#include <string>
#include <vector>

/// Histogram of the finite values in up to 50 bins, the limits (red), the mean (solid) and mean -/+ 3
/// standard deviations (dashed) marked; a legend under the axis says which line is which.
std::string statsHistogramSvg(const MeritStatistics& s);
/// Empirical distribution function of the finite values, the limits marked.
std::string statsCdfSvg(const MeritStatistics& s);
/// Spearman correlations of the parameters, largest magnitude on top (at most 25 rows).
std::string statsInfluenceSvg(const MeritStatistics& s);

/// The whole page: a summary table (sortable by clicking a heading) and one card per merit function.
std::string statsHtmlPage(const std::string& title, const std::string& file, const std::vector<MeritStatistics>& all);

/// One CSV line per merit function after a heading line.
std::string statsCsv(const std::vector<MeritStatistics>& all);

/// "pass" (every run meets the limits), "fail" (some run does not) or "no limits".
const char* statsVerdict(const MeritStatistics& s);
