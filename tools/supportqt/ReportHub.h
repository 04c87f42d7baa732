// ReportHub.h - the one page a designer opens after a run: per results file its header, the statistics
// of each merit function, the charts, and links to the logs and reports written beside it.
#pragma once

#include "XMLReport.h"

#include <string>
#include <vector>

/// A file the page links to, relative to the page's folder.
struct HubLink {
    std::string href;  ///< the file's name in the page's folder
    std::string label; ///< what the link says
    std::string what;  ///< a sentence on what the file holds
};

/// What the page shows of one results file.
struct HubSection {
    std::string source;                        ///< the results file, as named on the command line
    const XMLReportHeader* header = nullptr;
    const YHashTable<XMLReportInfo>* table = nullptr;
    std::vector<HubLink> links;
    std::vector<std::string> charts;           ///< SVG documents, placed in the page as they are
    std::vector<std::string> notes;            ///< sentences the designer should read first
};

/// The page: its title, then per section the title, date, analysis and run count of the results, the
/// run statistics of each merit function (numbers in engineering notation, right-aligned), the links
/// and the charts. Every text from the results is escaped; the page needs no other file to show.
std::string reportHubPage(const std::string& title, const std::vector<HubSection>& sections);
