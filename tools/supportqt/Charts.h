// Charts.h - plain SVG pictures of a results file: a tornado chart of the normalised sensitivities and a
// histogram of each merit function's values across runs.
#pragma once

#include "XMLReport.h"

#include <string>
#include <vector>

/// Statistics of one merit function's values across the runs that have one.
struct MeritStatistics {
    int count = 0;
    double mean = 0.0;
    double standardDeviation = 0.0; ///< sample standard deviation (n - 1); 0 for fewer than two values
    double minimum = 0.0;
    double maximum = 0.0;
    double skewness = 0.0; ///< third standardised moment; NaN when the values do not vary
    double kurtosis = 0.0; ///< excess kurtosis (fourth standardised moment minus 3); NaN when they do not vary
    bool hasNominal = false;
    double nominal = 0.0; ///< the value in case 1, the nominal run
};

/// The values of merit function `merit` in every run that has one, in the table's order.
std::vector<double> meritValues(const YHashTable<XMLReportInfo>& table, int merit);
MeritStatistics meritStatistics(const YHashTable<XMLReportInfo>& table, int merit);

/// The tornado chart: per merit function, one horizontal bar per run (case 1 aside) whose normalised
/// sensitivity is valid, largest magnitude on top, labelled with the run's description.
std::string sensitivityTornadoSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header);
/// The histogram: per merit function, the values of all runs in up to 50 equal bins, the nominal value
/// marked by a dashed line.
std::string meritHistogramSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header);

/// The records of the table in case order.
std::vector<const XMLReportInfo*> runsByCase(const YHashTable<XMLReportInfo>& table);
