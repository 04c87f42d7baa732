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
    for (int j = 0; j < values.count(); ++j) {
        bool divByZero = false;
        const double s0 = getNormalisedSensitivity(0, j, &divByZero);
        bool differs = false;
        for (int k = 1; k < parameterCount; ++k) {
            const double sk = getNormalisedSensitivity(k, j, &divByZero);
            const double rel = s0 != 0.0 ? std::fabs(sk - s0) / std::fabs(s0) : std::fabs(sk);
            if (rel > 1e-7) {
                differs = true;
                break;
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
