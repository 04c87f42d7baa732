// Interpolation_p.h - the point between two sample values, shared by the run statistics and the chart
// scales so that their percentiles agree.
#pragma once

#include <cmath>

namespace stats {
/// The point a fraction t of the way from a to b; apart by more than the largest double, the two are
/// weighted instead, so that the point stays finite.
inline double between(double a, double b, double t)
{
    const double step = b - a;
    return std::isfinite(step) ? a + t * step : (1.0 - t) * a + t * b;
}
} // namespace stats
