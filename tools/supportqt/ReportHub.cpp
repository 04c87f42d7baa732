// ReportHub.cpp - the index page of a report folder: header facts, run statistics, links and charts of
// each results file, in one standalone HTML page that fits a laptop's screen.
#include "ReportHub.h"

#include "Charts.h"
#include "RunStatistics.h"

namespace {

// Long names and paths wrap rather than widen the page; numbers keep to one line, right-aligned.
const char kStyle[] = R"(*{box-sizing:border-box}
body{font-family:sans-serif;margin:0 auto;padding:16px 24px;max-width:1200px;color:#222;background:#fff;overflow-wrap:anywhere}
h1{font-size:24px;margin:8px 0 4px}h2{font-size:20px;margin:18px 0 6px}h3{font-size:16px;margin:14px 0 4px}
section{border-top:2px solid #ccd;margin-top:18px}
table{border-collapse:collapse;margin:6px 0}
th,td{border:1px solid #ccd;padding:3px 8px;vertical-align:top;text-align:left}
th{background:#e8ebf0}
th.num,td.num{text-align:right;white-space:nowrap;font-variant-numeric:tabular-nums}
table.facts th{background:none;font-weight:normal;color:#555}
p.note{background:#fff4e0;border-left:4px solid #e0a030;padding:6px 10px}
ul.links li{margin:3px 0}dl.defs dt{font-weight:bold}dl.defs dd{margin:0 0 4px 16px;font-family:monospace}
div.chart{margin:8px 0}div.chart svg{max-width:100%;height:auto}
)";

std::string escaped(const std::string& text) { return xmlEscaped(text); }

std::string numberCell(const std::string& text) { return "<td class=\"num\">" + escaped(text) + "</td>"; }

std::string meritName(const MeritStatistics& s)
{
    return s.name.isEmpty() ? "merit function " + std::to_string(s.merit + 1) : s.name.str();
}

// One results file's part of the page; its heading is left out where the page's title says the same.
std::string sectionHtml(const HubSection& section, int index, const std::string& pageTitle)
{
    const XMLReportHeader& header = *section.header;
    const std::string heading = header.title.isEmpty() ? section.source : header.title.str();
    std::string h = "<section id=\"results" + std::to_string(index) + "\">\n";
    if (heading != pageTitle)
        h += "<h2>" + escaped(heading) + "</h2>\n";
    h += "<table class=\"facts\">\n";
    const auto fact = [&h](const char* key, const std::string& value, bool number = false) {
        h += std::string("<tr><th>") + key + "</th>" + (number ? numberCell(value) : "<td>" + escaped(value) + "</td>") +
             "</tr>\n";
    };
    fact("Results file", section.source);
    fact("Date", header.date.str());
    fact("Analysis", header.analysis.str());
    fact("Runs", std::to_string(section.table->count()), true);
    h += "</table>\n";
    for (const std::string& note : section.notes)
        h += "<p class=\"note\">" + escaped(note) + "</p>\n";

    const std::vector<MeritStatistics> all = sp_ComputeRunStatistics(*section.table, header, {}, false);
    h += "<h3>Statistics</h3>\n<table class=\"stats\">\n<thead><tr><th>Merit function</th><th class=\"num\">Runs</th>"
         "<th class=\"num\">Mean</th><th class=\"num\">Std dev</th><th class=\"num\">Min</th><th class=\"num\">Median</th>"
         "<th class=\"num\">Max</th><th class=\"num\">Nominal</th><th class=\"num\">Not finite</th></tr></thead>\n<tbody>\n";
    for (const MeritStatistics& s : all) {
        const MomentSummary& m = s.sample.moments();
        const bool any = m.count() > 0;
        h += "<tr><td>" + escaped(meritName(s)) + "</td>" + numberCell(std::to_string(m.count()));
        for (double v : {m.mean(), m.standardDeviation(), m.minimum(), s.percentiles[5], m.maximum()})
            h += numberCell(any ? engineering(v) : std::string("n/a"));
        h += numberCell(s.hasNominal ? engineering(s.nominal) : std::string("n/a"));
        h += numberCell(std::to_string(m.nonFiniteCount())) + "</tr>\n";
    }
    h += "</tbody>\n</table>\n<dl class=\"defs\">\n";
    for (const MeritStatistics& s : all)
        h += "<dt>" + escaped(meritName(s)) + "</dt><dd>" + escaped(s.definition.str()) + "</dd>\n";
    h += "</dl>\n";

    if (!section.links.empty()) {
        h += "<h3>Logs and reports</h3>\n<ul class=\"links\">\n";
        for (const HubLink& link : section.links)
            h += "<li><a href=\"" + escaped(link.href) + "\">" + escaped(link.label) + "</a>: " + escaped(link.what) + "</li>\n";
        h += "</ul>\n";
    }
    if (!section.charts.empty()) {
        h += "<h3>Charts</h3>\n";
        for (const std::string& svg : section.charts)
            h += "<div class=\"chart\">\n" + inlineSvg(svg) + "</div>\n";
    }
    return h + "</section>\n";
}

} // namespace

std::string reportHubPage(const std::string& title, const std::vector<HubSection>& sections)
{
    std::string h = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
                    escaped(title) + "</title>\n<style>\n" + kStyle + "</style>\n</head>\n<body>\n<h1>" + escaped(title) +
                    "</h1>\n";
    int index = 1;
    for (const HubSection& section : sections)
        h += sectionHtml(section, index++, title);
    return h + "</body>\n</html>\n";
}
