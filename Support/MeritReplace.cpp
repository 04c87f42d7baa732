// MeritReplace.cpp - new values for a merit function of a results file.
#include "MeritReplace.h"

#include <set>

bool sp_ReplaceMeritData(const YString& path, const YString& value, const YString& name, const YVector<double>& values,
                         const YVector<int>& cases)
{
    if (values.count() != cases.count())
        return false;
    std::set<int> given;
    for (int k = 0; k < cases.count(); ++k)
        if (!given.insert(cases[k]).second)
            return false;
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    if (!sp_CompileSensReportData(path, &table, &header))
        return false;
    int merit = -1;
    for (int m = 0; m < header.meritFunctions.count() && merit < 0; ++m)
        if (header.meritFunctions[m].name == name)
            merit = m;
    if (merit < 0)
        return false;
    const int n = header.meritFunctions.count();
    for (int k = 0; k < cases.count(); ++k) {
        XMLReportInfo probe;
        probe.caseNumber = cases[k];
        const XMLReportInfo* record = table.find(probe);
        if (!record || record->values.count() != n)
            return false;
    }
    header.meritFunctions.at(merit).value = value;
    // Runs the caller gives no value read 0, as they would after an append.
    for (XMLReportInfo& run : table)
        if (run.values.count() > merit)
            run.values.at(merit).value = 0.0;
    for (int k = 0; k < cases.count(); ++k) {
        XMLReportInfo probe;
        probe.caseNumber = cases[k];
        table.find(probe)->values.at(merit).value = values[k];
    }
    return sp_WriteMswFile(path, table, header);
}
