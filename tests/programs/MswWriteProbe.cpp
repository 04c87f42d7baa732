// MswWriteProbe.cpp - "write PATH LIMIT" writes a results file of 20,000 runs; "append PATH LIMIT" adds a
// merit function to the file at PATH; "mc PATH LIMIT" and "sens PATH LIMIT" write the Monte Carlo log
// and the sensitivity report of the same runs, "mc-checked" and "sens-checked" the same through the
// checked writers. A LIMIT above 0 caps the size of any file the process writes (the write then fails
// part way). Prints "true" or "false".
#include "CheckedReports.h"
#include "Reports.h"
#include "XMLReport.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef _WIN32
#include <csignal>
#include <sys/resource.h>
#endif

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: MswWriteProbe write|append|mc|sens|mc-checked|sens-checked PATH LIMIT\n");
        return 2;
    }
    const long limit = std::atol(argv[3]);
#ifndef _WIN32
    if (limit > 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl;
        rl.rlim_cur = rl.rlim_max = static_cast<rlim_t>(limit);
        setrlimit(RLIMIT_FSIZE, &rl);
    }
#endif
    bool ok = false;
    if (std::strcmp(argv[1], "append") != 0) {
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        header.title = "probe";
        header.meritFunctions.append(XMLMeritFunction{"max(v(out))", "Vmax"});
        for (int c = 1; c <= 20000; ++c) {
            XMLReportInfo r(c);
            r.values.at(0).value = c * 0.001;
            XMLParameterValue p;
            p.name = "R1";
            p.nominal = 1000;
            p.usedValue = 1000 + c;
            r.parameters.append(p);
            table.insert(r);
        }
        if (std::strcmp(argv[1], "mc") == 0)
            ok = sp_BuildMonteCarloHTMLReport(YString(argv[2]), YString(""), table, header);
        else if (std::strcmp(argv[1], "sens") == 0)
            ok = sp_BuildHTMLSensitivityReport(YString(argv[2]), YString(""), table, header, 0);
        else if (std::strcmp(argv[1], "mc-checked") == 0)
            ok = sp_WriteMonteCarloLogChecked(YString(argv[2]), YString(""), table, header);
        else if (std::strcmp(argv[1], "sens-checked") == 0)
            ok = sp_WriteSensitivityReportChecked(YString(argv[2]), YString(""), table, header, 0);
        else
            ok = sp_WriteMswFile(YString(argv[2]), table, header);
    } else {
        YVector<double> values;
        YVector<int> cases;
        for (int c = 1; c <= 20000; ++c) {
            values.append(c * 2.0);
            cases.append(c);
        }
        ok = sp_AppendMeritData(YString(argv[2]), YString("extra"), YString("E"), values, cases);
    }
    std::printf("%s\n", ok ? "true" : "false");
    return 0;
}
