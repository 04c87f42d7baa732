// StatsPage.cpp - SVG pictures, the standalone HTML page and the CSV table of run statistics. Every
// text of a picture has a row or column of its own, so that no two texts overlap.
#include "StatsPage.h"
#include "Charts.h"
#include "Tool.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>

namespace {

std::string fmt(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// A number as the page shows it: six significant digits, "n/a" when it is not a number.
std::string show(double v)
{
    if (std::isnan(v))
        return "n/a";
    if (std::isinf(v))
        return v > 0 ? "+inf" : "-inf";
    return fmt("%.6g", v);
}

std::string px(double v) { return fmt("%.1f", v); }

// Pieces of an SVG picture, built up in order.
class Svg {
public:
    Svg(double width, const std::string& title) : m_width(width), m_title(title) {}
    void text(double x, double y, const char* anchor, int size, const std::string& t, const char* extra = "")
    {
        m_body += "  <text x=\"" + px(x) + "\" y=\"" + px(y) + "\" text-anchor=\"" + anchor + "\" font-size=\"" +
                  std::to_string(size) + "\"" + extra + ">" + xmlEscaped(t) + "</text>\n";
    }
    void rect(double x, double y, double w, double h, const char* fill)
    {
        m_body += "  <rect x=\"" + px(x) + "\" y=\"" + px(y) + "\" width=\"" + px(std::max(w, 0.0)) + "\" height=\"" +
                  px(std::max(h, 0.0)) + "\" fill=\"" + fill + "\"/>\n";
    }
    void line(double x1, double y1, double x2, double y2, const char* stroke, const char* extra = "")
    {
        m_body += "  <line x1=\"" + px(x1) + "\" y1=\"" + px(y1) + "\" x2=\"" + px(x2) + "\" y2=\"" + px(y2) +
                  "\" stroke=\"" + stroke + "\"" + extra + "/>\n";
    }
    void raw(const std::string& s) { m_body += s; }
    std::string finish(double height) const
    {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
               px(m_width) + "\" height=\"" + px(height) + "\" viewBox=\"0 0 " + px(m_width) + " " + px(height) +
               "\" font-family=\"sans-serif\">\n  <title>" + xmlEscaped(m_title) + "</title>\n  <rect x=\"0\" y=\"0\" width=\"" +
               px(m_width) + "\" height=\"" + px(height) + "\" fill=\"#ffffff\"/>\n" + m_body + "</svg>\n";
    }

private:
    double m_width;
    std::string m_title;
    std::string m_body;
};

std::string meritLabel(const MeritStatistics& s)
{
    return s.name.isEmpty() ? "merit function " + std::to_string(s.merit + 1) : s.name.str();
}

constexpr double kWidth = 640, kLeft = 70, kRight = 610, kTop = 20, kPlot = 170;

// Whether the mean -/+ 3 standard deviations is drawn: the values spread, and the band lies within the
// largest doubles.
bool bandShown(const MomentSummary& m)
{
    const double sd = m.standardDeviation();
    return sd > 0 && std::isfinite(m.mean() - 3 * sd) && std::isfinite(m.mean() + 3 * sd);
}

// The horizontal range of the plots: the values, the limits and the 3-sigma band, padded a little.
struct Range {
    double low, high;
    double x(double v) const { return kLeft + fractionBetween(v, low, high) * (kRight - kLeft); }
};

Range rangeOf(const MeritStatistics& s)
{
    const MomentSummary& m = s.sample.moments();
    double low = m.minimum(), high = m.maximum();
    if (bandShown(m)) {
        low = std::min(low, m.mean() - 3 * m.standardDeviation());
        high = std::max(high, m.mean() + 3 * m.standardDeviation());
    }
    if (s.limits.hasLower && std::isfinite(s.limits.lower))
        low = std::min(low, s.limits.lower);
    if (s.limits.hasUpper && std::isfinite(s.limits.upper))
        high = std::max(high, s.limits.upper);
    if (!(high > low)) {
        const double pad = low == 0.0 ? 0.5 : std::fabs(low) * 0.01;
        return {low - pad, high + pad};
    }
    // Padded by halves and within the largest doubles, so that values near them keep a finite range.
    const double pad = (high / 2 - low / 2) * 0.06;
    return {std::max(low - pad, -DBL_MAX), std::min(high + pad, DBL_MAX)};
}

void xAxis(Svg& svg, const Range& r, double bottom)
{
    svg.line(kLeft, bottom, kRight, bottom, "#333333");
    for (int tick = 0; tick <= 4; ++tick) {
        const double x = kLeft + tick * (kRight - kLeft) / 4;
        svg.line(x, bottom, x, bottom + 4, "#333333");
        svg.text(x, bottom + 16, "middle", 11, fmt("%.4g", valueBetween(r.low, r.high, tick / 4.0)));
    }
}

void limitLines(Svg& svg, const MeritStatistics& s, const Range& r, double top, double bottom)
{
    if (s.limits.hasLower)
        svg.line(r.x(s.limits.lower), top, r.x(s.limits.lower), bottom, "#c9302c", " stroke-width=\"2\"");
    if (s.limits.hasUpper)
        svg.line(r.x(s.limits.upper), top, r.x(s.limits.upper), bottom, "#c9302c", " stroke-width=\"2\"");
}

std::string limitsText(const MeritLimits& l)
{
    return (l.hasLower ? show(l.lower) : std::string("none")) + " to " + (l.hasUpper ? show(l.upper) : std::string("none"));
}

} // namespace

const char* statsVerdict(const MeritStatistics& s)
{
    if (!s.limits.any())
        return "no limits";
    return s.failingCases.empty() && s.runCount > 0 ? "pass" : "fail";
}

std::string statsHistogramSvg(const MeritStatistics& s)
{
    Svg svg(kWidth, "Histogram of " + meritLabel(s));
    const std::vector<double>& values = s.sample.values();
    const MomentSummary& m = s.sample.moments();
    if (values.empty()) {
        svg.text(kLeft, 30, "start", 12, "no finite values");
        return svg.finish(50);
    }
    const Range r = rangeOf(s);
    double low = m.minimum(), high = m.maximum();
    if (!(high > low)) {
        const double pad = low == 0.0 ? 0.5 : std::fabs(low) * 0.01;
        low -= pad;
        high += pad;
    }
    const int bins = std::clamp(static_cast<int>(std::ceil(std::sqrt(static_cast<double>(values.size())))), 1, 50);
    std::vector<long long> counts(static_cast<size_t>(bins), 0);
    for (double v : values)
        counts[static_cast<size_t>(std::clamp(static_cast<int>(fractionBetween(v, low, high) * bins), 0, bins - 1))]++;
    const long long tallest = *std::max_element(counts.begin(), counts.end());
    const double bottom = kTop + kPlot;
    for (int i = 0; i < bins; ++i) {
        const double x0 = r.x(valueBetween(low, high, static_cast<double>(i) / bins));
        const double x1 = r.x(valueBetween(low, high, static_cast<double>(i + 1) / bins));
        const double h = kPlot * static_cast<double>(counts[static_cast<size_t>(i)]) / static_cast<double>(tallest);
        svg.rect(x0 + 0.5, bottom - h, x1 - x0 - 1, h, "#4a7fb5");
    }
    limitLines(svg, s, r, kTop, bottom);
    svg.line(r.x(m.mean()), kTop, r.x(m.mean()), bottom, "#222222", " stroke-width=\"2\"");
    const double sd = m.standardDeviation();
    if (bandShown(m))
        for (double k : {-3.0, 3.0})
            svg.line(r.x(m.mean() + k * sd), kTop, r.x(m.mean() + k * sd), bottom, "#555555",
                     " stroke-width=\"1.5\" stroke-dasharray=\"5 4\"");
    svg.line(kLeft, kTop, kLeft, bottom, "#333333");
    for (long long count : {0LL, tallest}) {
        const double y = bottom - kPlot * static_cast<double>(count) / static_cast<double>(tallest);
        svg.line(kLeft - 4, y, kLeft, y, "#333333");
        svg.text(kLeft - 8, y + 4, "end", 11, std::to_string(count));
    }
    xAxis(svg, r, bottom);
    double y = bottom + 38;
    svg.text(kLeft, y, "start", 11, std::to_string(bins) + " bins of " + std::to_string(values.size()) + " runs");
    y += 16;
    svg.text(kLeft, y, "start", 11,
             "solid black: mean " + show(m.mean()) +
                 (bandShown(m) ? "; dashed: mean -/+ 3 sigma (" + show(m.mean() - 3 * sd) + " to " + show(m.mean() + 3 * sd) + ")"
                  : sd > 0     ? std::string("; mean -/+ 3 sigma lies beyond the largest numbers")
                               : std::string("; no spread")));
    if (s.limits.any()) {
        y += 16;
        svg.text(kLeft, y, "start", 11, "red: limits " + limitsText(s.limits), " fill=\"#c9302c\"");
    }
    return svg.finish(y + 10);
}

std::string statsCdfSvg(const MeritStatistics& s)
{
    Svg svg(kWidth, "Distribution function of " + meritLabel(s));
    const std::vector<double>& values = s.sample.values();
    if (values.empty()) {
        svg.text(kLeft, 30, "start", 12, "no finite values");
        return svg.finish(50);
    }
    s.sample.percentile(50); // sorts the values
    const Range r = rangeOf(s);
    const double bottom = kTop + kPlot;
    const size_t n = values.size();
    // A step line through at most about 1,000 of the sorted values.
    const size_t stride = std::max<size_t>(1, n / 1000);
    std::string points;
    double lastY = bottom;
    for (size_t i = 0; i < n; i += stride) {
        const double x = r.x(values[i]);
        const double y = bottom - kPlot * static_cast<double>(std::min(n, i + stride)) / static_cast<double>(n);
        points += px(x) + "," + px(lastY) + " " + px(x) + "," + px(y) + " ";
        lastY = y;
    }
    points += px(kRight) + "," + px(lastY);
    svg.raw("  <polyline fill=\"none\" stroke=\"#4a7fb5\" stroke-width=\"2\" points=\"" + points + "\"/>\n");
    limitLines(svg, s, r, kTop, bottom);
    svg.line(kLeft, kTop, kLeft, bottom, "#333333");
    for (double f : {0.0, 0.5, 1.0}) {
        const double y = bottom - kPlot * f;
        svg.line(kLeft - 4, y, kLeft, y, "#333333");
        svg.text(kLeft - 8, y + 4, "end", 11, fmt("%g", f));
    }
    xAxis(svg, r, bottom);
    double y = bottom + 38;
    svg.text(kLeft, y, "start", 11, "share of runs at or below a value (median " + show(s.percentiles[5]) + ")");
    if (s.limits.any()) {
        y += 16;
        svg.text(kLeft, y, "start", 11, "red: limits " + limitsText(s.limits), " fill=\"#c9302c\"");
    }
    return svg.finish(y + 10);
}

std::string statsInfluenceSvg(const MeritStatistics& s)
{
    Svg svg(kWidth, "Parameter influence on " + meritLabel(s));
    if (s.influence.empty()) {
        svg.text(10, 20, "start", 12, "no parameters changed");
        return svg.finish(34);
    }
    constexpr double labelRight = 200, barLeft = 210, barRight = 530, valueLeft = 545, row = 20;
    constexpr size_t labelChars = 26, shown = 25;
    const double zero = (barLeft + barRight) / 2, scale = (barRight - barLeft) / 2;
    double y = 10;
    const double top = y;
    for (size_t i = 0; i < std::min(shown, s.influence.size()); ++i) {
        const ParameterInfluence& p = s.influence[i];
        std::string label = p.name.str();
        if (label.size() > labelChars)
            label = label.substr(0, labelChars - 1) + "~";
        svg.text(labelRight, y + 14, "end", 12, label);
        if (!std::isnan(p.rho)) {
            const double w = std::fabs(p.rho) * scale;
            svg.rect(p.rho < 0 ? zero - w : zero, y + 3, w, row - 6, p.rho < 0 ? "#d9534f" : "#4a7fb5");
        }
        svg.text(valueLeft, y + 14, "start", 11, std::isnan(p.rho) ? std::string("n/a") : fmt("%+.3f", p.rho));
        y += row;
    }
    svg.line(zero, top, zero, y, "#333333");
    svg.line(barLeft, y, barRight, y, "#333333");
    for (int tick = -2; tick <= 2; ++tick) {
        const double x = zero + tick * scale / 2;
        svg.line(x, y, x, y + 4, "#333333");
        svg.text(x, y + 16, "middle", 11, fmt("%g", tick / 2.0));
    }
    y += 34;
    svg.text(barLeft, y, "start", 11, "Spearman rank correlation with the parameter's deviation");
    if (s.influence.size() > shown) {
        y += 16;
        svg.text(barLeft, y, "start", 11, std::to_string(s.influence.size() - shown) + " more parameters not shown");
    }
    return svg.finish(y + 10);
}

namespace {

const char kStyle[] = R"(body{font-family:sans-serif;margin:24px;color:#222;background:#f4f5f7}
h1{margin:0 0 4px}p.file{color:#555;margin:0 0 16px}
table{border-collapse:collapse;background:#fff}th,td{border:1px solid #ccd;padding:4px 8px;text-align:right}
th{background:#e8ebf0;cursor:pointer}td.name,th.name{text-align:left}
.card{background:#fff;border:1px solid #ccd;border-left:8px solid #999;border-radius:4px;margin:18px 0;padding:12px 16px}
.card.pass{border-left-color:#3c9a4a}.card.fail{border-left-color:#c9302c}
.verdict{font-size:14px;padding:2px 8px;border-radius:10px;color:#fff;background:#999;margin-left:8px}
.verdict.pass{background:#3c9a4a}.verdict.fail{background:#c9302c}
.good{color:#2e7d32;font-weight:bold}.fair{color:#b26a00;font-weight:bold}.poor{color:#c9302c;font-weight:bold}
.def{color:#666;font-weight:normal;font-size:15px}.charts svg{margin:6px 12px 6px 0;vertical-align:top}
table.facts td:first-child{text-align:left;color:#555}
)";

const char kSortScript[] = R"(document.querySelectorAll('table.sortable th').forEach(function (th, i) {
  th.addEventListener('click', function () {
    var body = th.closest('table').tBodies[0], rows = Array.prototype.slice.call(body.rows);
    var up = th.getAttribute('data-dir') !== 'up';
    th.setAttribute('data-dir', up ? 'up' : 'down');
    rows.sort(function (a, b) {
      var x = a.cells[i].getAttribute('data-v'), y = b.cells[i].getAttribute('data-v');
      var nx = parseFloat(x), ny = parseFloat(y);
      var r = isNaN(nx) || isNaN(ny) ? x.localeCompare(y) : nx - ny;
      return up ? r : -r;
    });
    rows.forEach(function (r) { body.appendChild(r); });
  });
});
)";

// The yield's class against the usual 3-sigma goal: at least 99.73% good, at least 95% fair.
const char* yieldClass(double y)
{
    if (std::isnan(y))
        return "";
    return y >= 0.9973 ? "good" : y >= 0.95 ? "fair" : "poor";
}

// The verdict's colour in the summary table: green when every run passes, red when some run fails.
const char* verdictClass(const MeritStatistics& s)
{
    const std::string v = statsVerdict(s);
    return v == "pass" ? "good" : v == "fail" ? "poor" : "";
}

std::string cell(double v, const std::string& shown, const char* cls = "")
{
    const std::string key = std::isnan(v) ? std::string() : fmt("%.17g", v);
    return std::string("<td") + (*cls ? std::string(" class=\"") + cls + "\"" : std::string()) + " data-v=\"" + key +
           "\">" + xmlEscaped(shown) + "</td>";
}

std::string interval(const ConfidenceInterval& i)
{
    return "[" + show(i.low) + ", " + show(i.high) + "]";
}

std::string deviations(const WorstCaseRun& run)
{
    std::string out;
    for (const ParameterDeviation& d : run.parameters) {
        if (!out.empty())
            out += ", ";
        out += d.name.str() + " " + (d.absolute ? fmt("%+.4g", d.deviation) : fmt("%+.3g", 100 * d.deviation) + "%");
    }
    return out.empty() ? std::string("none") : out;
}

} // namespace

std::string statsHtmlPage(const std::string& title, const std::string& file, const std::vector<MeritStatistics>& all)
{
    std::string h = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>Run statistics: " +
                    xmlEscaped(title) + "</title>\n<style>\n" + kStyle + "</style>\n</head>\n<body>\n<h1>Run statistics</h1>\n" +
                    "<p class=\"file\">" + xmlEscaped(file) + (title.empty() ? "" : " &mdash; " + xmlEscaped(title)) + "</p>\n";
    h += "<table class=\"sortable\" id=\"summary\">\n<thead><tr><th class=\"name\">Merit function</th><th>Runs</th>"
         "<th>Mean</th><th>Std dev</th><th>Min</th><th>Max</th><th>Yield</th><th>Cpk</th><th class=\"name\">Verdict</th>"
         "</tr></thead>\n<tbody>\n";
    for (const MeritStatistics& s : all) {
        const MomentSummary& m = s.sample.moments();
        h += "<tr><td class=\"name\" data-v=\"" + xmlEscaped(meritLabel(s)) + "\"><a href=\"#merit" + std::to_string(s.merit + 1) +
             "\">" + xmlEscaped(meritLabel(s)) + "</a></td>" + cell(static_cast<double>(s.runCount), std::to_string(s.runCount)) +
             cell(m.mean(), show(m.mean())) + cell(m.standardDeviation(), show(m.standardDeviation())) +
             cell(m.minimum(), show(m.minimum())) + cell(m.maximum(), show(m.maximum())) +
             cell(s.yield, percentText(s.yield, 4), yieldClass(s.yield)) + cell(s.cpk, show(s.cpk)) +
             "<td class=\"name " + verdictClass(s) + "\" data-v=\"" + statsVerdict(s) + "\">" + statsVerdict(s) +
             "</td></tr>\n";
    }
    h += "</tbody>\n</table>\n<script>\n" + std::string(kSortScript) + "</script>\n";

    for (const MeritStatistics& s : all) {
        const MomentSummary& m = s.sample.moments();
        const std::string verdict = statsVerdict(s);
        const std::string cls = verdict == "no limits" ? "none" : verdict;
        h += "<section class=\"card " + cls + "\" id=\"merit" + std::to_string(s.merit + 1) + "\">\n<h2>" +
             xmlEscaped(meritLabel(s)) + (s.definition.isEmpty() ? "" : " <span class=\"def\">= " + xmlEscaped(s.definition.str()) + "</span>") +
             " <span class=\"verdict " + cls + "\">" + verdict + "</span></h2>\n";
        h += "<p>" + std::to_string(m.count()) + " runs with a finite value" +
             (m.nonFiniteCount() ? ", " + std::to_string(m.nonFiniteCount()) + " without (counted as failing)" : std::string()) +
             ".";
        if (s.limits.any())
            h += " Limits " + xmlEscaped(limitsText(s.limits)) + ": " + std::to_string(s.passCount) + " of " +
                 std::to_string(s.runCount) + " runs pass, yield <span class=\"" + yieldClass(s.yield) + "\">" +
                 percentText(s.yield, 4) + "</span> (95% interval " + percentText(s.yieldInterval.low, 4) + " to " +
                 percentText(s.yieldInterval.high, 4) + "), " + show(s.yieldSigma) + " sigma.";
        h += "</p>\n<div class=\"charts\">\n" + inlineSvg(statsHistogramSvg(s)) + inlineSvg(statsCdfSvg(s)) + "</div>\n";
        h += "<table class=\"facts\">\n";
        const auto fact = [&h](const std::string& key, const std::string& value) {
            h += "<tr><td>" + xmlEscaped(key) + "</td><td>" + xmlEscaped(value) + "</td></tr>\n";
        };
        fact("mean", show(m.mean()));
        fact("standard deviation", show(m.standardDeviation()));
        fact("minimum", show(m.minimum()) + " (case " + std::to_string(m.minimumCase()) + ")");
        fact("maximum", show(m.maximum()) + " (case " + std::to_string(m.maximumCase()) + ")");
        fact("nominal (case 1)", s.hasNominal ? show(s.nominal) : std::string("n/a"));
        fact("skewness, excess kurtosis", show(m.skewness()) + ", " + show(m.excessKurtosis()));
        fact("Jarque-Bera", show(s.jarqueBera) + " (p " + show(s.jarqueBeraP) + (s.notNormal ? ", not normal)" : ")"));
        std::string pct;
        for (int i = 0; i < kRunStatisticsPercentileCount; ++i)
            pct += (i ? ", P" : "P") + fmt("%g", kRunStatisticsPercentiles[i]) + " " + show(s.percentiles[i]);
        fact("percentiles", pct);
        if (s.limits.any()) {
            fact("Cp (Pp)", show(s.cp) + " " + interval(s.cpInterval));
            fact("Cpk (Ppk)", show(s.cpk) + " " + interval(s.cpkInterval));
            std::string failing;
            for (size_t i = 0; i < s.failingCases.size() && i < 50; ++i)
                failing += (i ? ", " : "") + std::to_string(s.failingCases[i]);
            if (s.failingCases.size() > 50)
                failing += " and " + std::to_string(s.failingCases.size() - 50) + " more";
            fact("failing runs", failing.empty() ? std::string("none") : failing);
        }
        h += "</table>\n<h3>Parameter influence</h3>\n<div class=\"charts\">" + inlineSvg(statsInfluenceSvg(s)) + "</div>\n";
        h += "<h3>Worst case</h3>\n<table><thead><tr><th class=\"name\">Run</th><th>Case</th><th>Value</th>"
             "<th class=\"name\">Parameter deviations</th></tr></thead>\n<tbody>\n";
        if (m.count()) {
            for (const auto& [what, run] : {std::pair<const char*, const WorstCaseRun*>{"minimum", &s.atMinimum},
                                            std::pair<const char*, const WorstCaseRun*>{"maximum", &s.atMaximum}})
                h += "<tr><td class=\"name\">" + std::string(what) + "</td><td>" + std::to_string(run->caseNumber) +
                     "</td><td>" + show(run->value) + "</td><td class=\"name\">" + xmlEscaped(deviations(*run)) + "</td></tr>\n";
        }
        h += "</tbody></table>\n</section>\n";
    }
    h += "</body>\n</html>\n";
    return h;
}

std::string statsCsv(const std::vector<MeritStatistics>& all)
{
    const auto num = [](double v) { return std::isnan(v) ? std::string() : fmt("%.17g", v); };
    std::string out = "name,definition,count,nonfinite,mean,stddev,min,mincase,max,maxcase,skewness,kurtosis";
    for (double p : kRunStatisticsPercentiles)
        out += ",P" + fmt("%g", p);
    out += ",nominal,jarquebera,jarqueberap,lower,upper,runs,pass,yield,yieldlow,yieldhigh,sigma,cp,cplow,cphigh,cpk,"
           "cpklow,cpkhigh\n";
    for (const MeritStatistics& s : all) {
        const MomentSummary& m = s.sample.moments();
        out += csvField(s.name.str()) + "," + csvField(s.definition.str()) + "," + std::to_string(m.count()) + "," +
               std::to_string(m.nonFiniteCount());
        const bool any = m.count() > 0;
        out += "," + (any ? num(m.mean()) : std::string()) + "," + (any ? num(m.standardDeviation()) : std::string());
        out += "," + (any ? num(m.minimum()) + "," + std::to_string(m.minimumCase()) : std::string(","));
        out += "," + (any ? num(m.maximum()) + "," + std::to_string(m.maximumCase()) : std::string(","));
        out += "," + num(m.skewness()) + "," + num(m.excessKurtosis());
        for (double p : s.percentiles)
            out += "," + num(p);
        out += "," + (s.hasNominal ? num(s.nominal) : std::string()) + "," + num(s.jarqueBera) + "," + num(s.jarqueBeraP);
        out += "," + (s.limits.hasLower ? num(s.limits.lower) : std::string()) + "," +
               (s.limits.hasUpper ? num(s.limits.upper) : std::string());
        out += "," + std::to_string(s.runCount) + "," + (s.limits.any() ? std::to_string(s.passCount) : std::string());
        for (double v : {s.yield, s.yieldInterval.low, s.yieldInterval.high, s.yieldSigma, s.cp, s.cpInterval.low,
                         s.cpInterval.high, s.cpk, s.cpkInterval.low, s.cpkInterval.high})
            out += "," + (std::isinf(v) ? std::string(v > 0 ? "inf" : "-inf") : num(v));
        out += "\n";
    }
    return out;
}
