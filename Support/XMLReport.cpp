// XMLReport.cpp - the records of statistical runs, deltas against the reference run, and normalised
// sensitivities.
#include "XMLReport.h"

#include <cmath>
#include <vector>

XMLReportInfo::XMLReportInfo(int number) : caseNumber(number)
{
    values.reserve(2);
    parameters.reserve(1);
}

double XMLReportInfo::getNormalisedSensitivity(int paramIndex, int meritIndex, bool* divByZero) const
{
    const XMLParameterValue& p = parameters[paramIndex];
    const XMLMeritValue& m = values[meritIndex];
    const double nominal = p.nominal;
    const double used = p.usedValue;
    const double y = m.value;
    if (used == nominal || y == 0.0) {
        *divByZero = true;
        return 0.0;
    }
    *divByZero = false;
    // The relative change is taken against the run's own value, not the reference value.
    return ((m.delta / y) * nominal) / (used - nominal);
}

namespace {
const double kInconsistent = 1e-7;

// Within these magnitudes every product and quotient of the sensitivity formula is a normal double, so
// each of its two roundings is relative and tiny.
bool moderate(double x)
{
    const double m = std::fabs(x);
    return m >= 0x1p-300 && m <= 0x1p300;
}

// Which later parameters decide a run's comparison, worked out once for all its merit functions. The
// sensitivity to parameter k is a * n_k / g_k for the merit function's a = delta / value, with n the
// nominal and g used - nominal; with moderate numbers its relative difference from the first one's is
// |(n_k/g_k) / (n_0/g_0) - 1| to within about 1e-15, whatever a is. A parameter whose difference is
// 1e-12 or more away from the 1e-7 threshold therefore gives the same verdict for every a; only those
// nearer, and those with other numbers, must be computed per merit function. This keeps a run of many
// parameters and many merit functions linear, not their product.
struct SensitivityPlan {
    bool usable = false;           // more than one parameter, the first one moderate
    bool certainlyDiffers = false; // a moderate parameter past the threshold whatever a is
    bool lastUnmoved = false;      // the last parameter's used value is its nominal one
    std::vector<int> computed;     // before that one, the parameters to compute per merit function
};

SensitivityPlan planFor(const XMLReportInfo& run)
{
    SensitivityPlan plan;
    const int count = run.parameters.count();
    const XMLParameterValue& p0 = run.parameters[0];
    if (count < 2 || !moderate(p0.nominal) || !moderate(p0.usedValue - p0.nominal))
        return plan;
    plan.usable = true;
    plan.lastUnmoved = run.parameters[count - 1].usedValue == run.parameters[count - 1].nominal;
    const double first = p0.nominal / (p0.usedValue - p0.nominal);
    for (int k = 1; k < count && !plan.certainlyDiffers; ++k) {
        const XMLParameterValue& p = run.parameters[k];
        const bool usual = moderate(p.nominal) && moderate(p.usedValue - p.nominal);
        const double difference = std::fabs((p.nominal / (p.usedValue - p.nominal)) / first - 1.0);
        if (usual && difference > kInconsistent + 1e-12)
            plan.certainlyDiffers = true;
        else if (!usual || difference >= kInconsistent - 1e-12)
            plan.computed.push_back(k);
    }
    return plan;
}
} // namespace

void XMLReportInfo::buildNormalisedSensitivity()
{
    if (caseNumber == 1) {
        for (int j = 0; j < values.count(); ++j) {
            values.at(j).norm = 0.0;
            values.at(j).status = NormValid;
        }
        return;
    }
    const int parameterCount = parameters.count();
    const SensitivityPlan plan = planFor(*this);
    const auto relative = [](double sk, double s0) { return s0 != 0.0 ? std::fabs(sk - s0) / std::fabs(s0) : std::fabs(sk); };
    for (int j = 0; j < values.count(); ++j) {
        bool divByZero = false;
        const double s0 = getNormalisedSensitivity(0, j, &divByZero);
        bool differs = false;
        const double y = values[j].value, a = values[j].delta / y;
        if (plan.usable && (y == 0.0 || a == 0.0 || moderate(a))) {
            // A value of 0 divides by zero for every parameter, and an a of 0 makes every sensitivity 0
            // or NaN: no parameter differs, and the last one's flag stands. Otherwise the first
            // sensitivity is moderate and the plan decides; only a parameter that differs can divide by
            // zero (an unmoved one gives 0), so the flag is the computed one's that differs, or none.
            if (y != 0.0 && a == 0.0) {
                divByZero = plan.lastUnmoved;
            } else if (y != 0.0) {
                for (size_t i = 0; i < plan.computed.size() && !differs; ++i)
                    differs = relative(getNormalisedSensitivity(plan.computed[i], j, &divByZero), s0) > kInconsistent;
                differs = differs || plan.certainlyDiffers;
            }
        } else {
            for (int k = 1; k < parameterCount; ++k) {
                const double sk = getNormalisedSensitivity(k, j, &divByZero);
                if (relative(sk, s0) > kInconsistent) {
                    differs = true;
                    break;
                }
            }
        }
        // Only the last call's flag decides, on purpose: later parameters can report a run whose first
        // parameter divides by zero.
        XMLMeritValue& entry = values.at(j);
        if (divByZero) {
            entry.status = NormDivByZero;
            entry.norm = 0.0;
        } else if (differs) {
            entry.status = NormInconsistent;
            entry.norm = 0.0;
        } else {
            entry.status = NormValid;
            entry.norm = s0;
        }
    }
}

void computeSensitivityDeltas(YHashTable<XMLReportInfo>& table)
{
    // The reference values are read once: no delta changes a value, so every round of the merit loop
    // would read the same ones.
    std::vector<double> reference;
    XMLReportInfo probe;
    probe.caseNumber = 1;
    if (const XMLReportInfo* r = table.find(probe)) {
        reference.reserve(static_cast<size_t>(r->values.count()));
        for (int i = 0; i < r->values.count(); ++i)
            reference.push_back(r->values[i].value);
    }
    // A record's deltas and sensitivities depend on that record alone: all of them are made in one
    // pass over the table instead of a pass per merit function and one more, each of which would read
    // every record from memory again.
    for (XMLReportInfo& record : table) {
        for (size_t i = 0; i < reference.size(); ++i) {
            XMLMeritValue& entry = record.values.at(static_cast<int>(i));
            entry.delta = entry.value - reference[i];
        }
        record.buildNormalisedSensitivity();
    }
}
