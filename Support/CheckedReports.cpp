// CheckedReports.cpp - the report writers with a result that counts write errors as failures.
#include "CheckedReports.h"
#include "Reports_p.h"

bool sp_WriteMonteCarloLogChecked(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                                  const XMLReportHeader& header)
{
    return reports::writeLog(path, styleSheet, table, header, true) == reports::Written::Complete;
}

bool sp_WriteWorstCaseLogChecked(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                                 const XMLReportHeader& header)
{
    return reports::writeLog(path, styleSheet, table, header, false) == reports::Written::Complete;
}

bool sp_WriteSensitivityReportChecked(const YString& path, const YString& styleSheet,
                                      const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header,
                                      int sortColumn)
{
    return reports::writeSensitivity(path, styleSheet, table, header, sortColumn) == reports::Written::Complete;
}
