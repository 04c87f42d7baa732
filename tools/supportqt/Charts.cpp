// Charts.cpp - statistics of merit values and the two SVG charts. Every text is placed in its own
// column or row so that labels never overlap, whatever the number of bars.
#include "Charts.h"

#include "ChartScales.h"
#include "TextServices.h"

#include <QString>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

std::string engineering(double value, int digits)
{
    if (std::isnan(value))
        return "n/a";
    if (std::isinf(value))
        return value > 0 ? "inf" : "-inf";
    return sp_ConvertRealToJSEng(value, digits, false).str();
}

std::string inlineSvg(const std::string& svg)
{
    const size_t start = svg.find("<svg");
    return start == std::string::npos ? svg : svg.substr(start);
}

std::string xmlEscaped(const std::string& text)
{
    // Bytes that are no UTF-8 (a results file in another encoding that declared none) become U+FFFD, as
    // the library's XML writer makes them, so that the page or picture stays well-formed; so do U+FFFE and
    // U+FFFF, which are UTF-8 but no characters of XML.
    std::string valid;
    const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 128; });
    if (!ascii) {
        valid = QString::fromUtf8(text.data(), static_cast<int>(text.size())).toUtf8().toStdString();
        for (size_t at = valid.find("\xEF\xBF"); at != std::string::npos; at = valid.find("\xEF\xBF", at + 1))
            if (at + 2 < valid.size() && (valid[at + 2] == '\xBE' || valid[at + 2] == '\xBF'))
                valid[at + 2] = '\xBD';
    }
    std::string out;
    out.reserve(text.size());
    for (char c : ascii ? text : valid) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default:
            // Control characters but tab, line feed and carriage return cannot stand in XML at all.
            if (static_cast<unsigned char>(c) >= 32 || c == '\t' || c == '\n' || c == '\r')
                out += c;
        }
    }
    return out;
}

namespace {

// At most `maxChars` characters of a UTF-8 text, an ellipsis standing for the rest.
std::string clipped(const std::string& text, size_t maxChars)
{
    size_t chars = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80)
            continue;
        if (chars == maxChars - 1) {
            size_t rest = 0;
            for (size_t j = i; j < text.size(); ++j)
                rest += (static_cast<unsigned char>(text[j]) & 0xC0) != 0x80;
            return rest <= 1 ? text : text.substr(0, i) + "\xE2\x80\xA6";
        }
        ++chars;
    }
    return text;
}

// A bar's value: four significant digits are enough to read a chart by.
std::string number(double value)
{
    return engineering(value, 4);
}

std::string px(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string svgText(double x, double y, const std::string& anchor, int size, const std::string& text,
                    const char* extra = "")
{
    return "  <text x=\"" + px(x) + "\" y=\"" + px(y) + "\" text-anchor=\"" + anchor + "\" font-size=\"" +
           std::to_string(size) + "\"" + extra + ">" + xmlEscaped(text) + "</text>\n";
}

std::string svgRect(double x, double y, double w, double h, const char* fill)
{
    return "  <rect x=\"" + px(x) + "\" y=\"" + px(y) + "\" width=\"" + px(std::max(w, 0.0)) + "\" height=\"" +
           px(h) + "\" fill=\"" + fill + "\"/>\n";
}

std::string svgLine(double x1, double y1, double x2, double y2, const char* stroke, const char* extra = "")
{
    return "  <line x1=\"" + px(x1) + "\" y1=\"" + px(y1) + "\" x2=\"" + px(x2) + "\" y2=\"" + px(y2) +
           "\" stroke=\"" + stroke + "\"" + extra + "/>\n";
}

std::string document(double width, double height, const std::string& title, const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + px(width) + "\" height=\"" + px(height) +
           "\" viewBox=\"0 0 " + px(width) + " " + px(height) + "\" font-family=\"sans-serif\">\n"
           "  <title>" + xmlEscaped(title) + "</title>\n" + svgRect(0, 0, width, height, "#ffffff") + body + "</svg>\n";
}

std::string meritTitle(const XMLReportHeader& header, int merit)
{
    const XMLMeritFunction& m = header.meritFunctions[merit];
    std::string title = m.name.isEmpty() ? "merit function " + std::to_string(merit + 1) : m.name.str();
    if (!m.value.isEmpty())
        title += " = " + m.value.str();
    return title;
}

std::string runLabel(const XMLReportInfo& run)
{
    if (!run.description.isEmpty())
        return run.description.str();
    if (!run.name.isEmpty())
        return run.name.str();
    return "Run=" + std::to_string(run.caseNumber);
}

// Tornado geometry: label column, bar area around the zero axis, value column.
constexpr double kTornadoWidth = 940;
constexpr double kLabelRight = 290;
constexpr size_t kLabelChars = 38; // 12 px characters that fit in the label column
constexpr double kBarLeft = 300;
constexpr double kBarRight = 800;
constexpr double kValueLeft = 815;
constexpr double kRow = 20;

// The normalised sensitivities that a merit function's tornado shows: valid ones of every run but the
// nominal one, largest magnitude first; `skipped` counts the others.
struct TornadoBar {
    std::string label;
    double value;
};

std::vector<TornadoBar> tornadoBars(const std::vector<const XMLReportInfo*>& runs, int merit, int* skipped)
{
    std::vector<TornadoBar> bars;
    *skipped = 0;
    for (const XMLReportInfo* run : runs) {
        if (run->caseNumber == 1 || run->values.count() <= merit)
            continue;
        const XMLMeritValue& v = run->values[merit];
        if (v.status == NormValid && std::isfinite(v.norm))
            bars.push_back({runLabel(*run), v.norm});
        else
            ++*skipped;
    }
    std::stable_sort(bars.begin(), bars.end(),
                     [](const TornadoBar& a, const TornadoBar& b) { return std::fabs(a.value) > std::fabs(b.value); });
    return bars;
}

double largestMagnitude(const std::vector<TornadoBar>& bars)
{
    double largest = 0.0;
    for (const TornadoBar& b : bars)
        largest = std::max(largest, std::fabs(b.value));
    return largest;
}

// At most 9 ticks fit the bar area: 62 px apart, room for labels such as "-250m".
constexpr int kTornadoTicks = 9;

} // namespace

std::string sensitivityTornadoSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header,
                                  const ChartOptions& options)
{
    const std::vector<const XMLReportInfo*> runs = sp_RunsInCaseOrder(table);
    const int merits = header.meritFunctions.count();
    std::vector<std::vector<TornadoBar>> barsOf(static_cast<size_t>(std::max(merits, 0)));
    std::vector<int> skippedOf(barsOf.size(), 0);
    double sharedLargest = 0.0;
    for (int merit = 0; merit < merits; ++merit) {
        barsOf[static_cast<size_t>(merit)] = tornadoBars(runs, merit, &skippedOf[static_cast<size_t>(merit)]);
        sharedLargest = std::max(sharedLargest, largestMagnitude(barsOf[static_cast<size_t>(merit)]));
    }
    std::string body;
    double y = 0;
    body += svgText(10, y + 24, "start", 16, "Normalised sensitivities: " + header.title.str(), " font-weight=\"bold\"");
    y += 36;
    if (options.sharedScale) {
        body += svgText(10, y + 14, "start", 12, "One scale for every merit function, so that their bars compare");
        y += 24;
    }
    for (int merit = 0; merit < merits; ++merit) {
        const std::vector<TornadoBar>& bars = barsOf[static_cast<size_t>(merit)];
        const int skipped = skippedOf[static_cast<size_t>(merit)];
        body += svgText(10, y + 20, "start", 14, meritTitle(header, merit), " font-weight=\"bold\"");
        y += 32;
        if (bars.empty()) {
            body += svgText(kBarLeft, y + 14, "start", 12, "no valid sensitivity");
            y += 40;
            continue;
        }
        // The axis runs from -T to T, T the round tick at or above the largest magnitude shown.
        double largest = options.sharedScale ? sharedLargest : largestMagnitude(bars);
        if (largest == 0.0)
            largest = 1.0;
        // A magnitude that no round ticks can cover (near the largest doubles) makes an axis of its own,
        // ticked at its ends and at 0.
        AxisTicks ticks = sp_RoundAxisTicks(-largest, largest, kTornadoTicks);
        if (ticks.values.empty())
            ticks.values = {-largest, 0.0, largest};
        const double reach = ticks.step > 0 ? std::max(std::fabs(ticks.low), std::fabs(ticks.high)) : largest;
        const double zero = (kBarLeft + kBarRight) / 2;
        const double scale = (kBarRight - kBarLeft) / 2 / reach;
        const double top = y;
        for (const TornadoBar& b : bars) {
            const double x = b.value < 0 ? zero + b.value * scale : zero;
            body += svgText(kLabelRight, y + 14, "end", 12, clipped(b.label, kLabelChars));
            body += svgRect(x, y + 3, std::fabs(b.value) * scale, kRow - 6, b.value < 0 ? "#d9534f" : "#4a7fb5");
            body += svgText(kValueLeft, y + 14, "start", 11, number(b.value));
            y += kRow;
        }
        body += svgLine(zero, top, zero, y, "#333333");
        body += svgLine(kBarLeft, y, kBarRight, y, "#333333");
        for (double tick : ticks.values) {
            const double x = zero + tick * scale;
            body += svgLine(x, y, x, y + 4, "#333333");
            body += svgText(x, y + 16, "middle", 11, engineering(tick));
        }
        y += 22;
        if (skipped)
            body += svgText(kBarLeft, y + 12, "start", 11,
                            std::to_string(skipped) + (skipped == 1 ? " run" : " runs") + " without a valid sensitivity not shown");
        y += 24;
    }
    return document(kTornadoWidth, y + 10, "Normalised sensitivities", body);
}

namespace {

constexpr double kHistogramWidth = 760;
constexpr double kPlotLeft = 70;
constexpr double kPlotRight = 730;
constexpr double kPlotHeight = 200;
// At most 7 ticks on the value axis: 110 px apart, room for labels such as "-12.3456m".
constexpr int kValueTicks = 7;

const char* binRuleWords(HistogramBinRule rule)
{
    switch (rule) {
    case HistogramBinRule::FreedmanDiaconis: return "by the Freedman-Diaconis rule";
    case HistogramBinRule::SquareRoot: return "by the square root of the count (the quartiles coincide)";
    case HistogramBinRule::Single: return "(the values do not vary)";
    default: return "as asked";
    }
}

// Round count ticks for the y axis: whole numbers only, from 0 to at least the tallest bar.
std::vector<long long> countTicks(long long tallest)
{
    const AxisTicks round = sp_RoundAxisTicks(0.0, static_cast<double>(std::max(tallest, 1LL)), 5);
    std::vector<long long> ticks;
    if (round.step >= 1.0) {
        for (double t : round.values)
            ticks.push_back(std::llround(t));
    } else {
        for (long long t = 0; t <= std::max(tallest, 1LL); ++t)
            ticks.push_back(t);
    }
    return ticks;
}

} // namespace

double fractionBetween(double v, double low, double high)
{
    const double span = high - low;
    return std::isfinite(span) ? (v - low) / span : (v / 2 - low / 2) / (high / 2 - low / 2);
}

double valueBetween(double low, double high, double t)
{
    const double span = high - low;
    return std::isfinite(span) ? low + span * t : (low / 2 + (high / 2 - low / 2) * t) * 2;
}

std::string meritHistogramSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header,
                              const ChartOptions& options)
{
    std::string body;
    double y = 0;
    body += svgText(10, y + 24, "start", 16, "Merit functions across runs: " + header.title.str(), " font-weight=\"bold\"");
    y += 36;
    for (int merit = 0; merit < header.meritFunctions.count(); ++merit) {
        const MeritStatistics stats = sp_ComputeMeritStatistics(table, merit, MeritLimits(), false);
        const MomentSummary& moments = stats.sample.moments();
        const Histogram histogram = sp_BuildHistogram(stats.sample.values(), options.bins);
        const std::string leftOut = "left out as not finite: " + std::to_string(moments.nonFiniteCount()) +
                                    (moments.nonFiniteCount() == 1 ? " value" : " values");
        body += svgText(10, y + 20, "start", 14, meritTitle(header, merit), " font-weight=\"bold\"");
        body += svgText(10, y + 38, "start", 12,
                        std::to_string(moments.count()) + " runs, mean " + engineering(moments.mean()) +
                            ", standard deviation " + engineering(moments.standardDeviation()));
        y += 48;
        if (histogram.counts.empty()) {
            body += svgText(kPlotLeft, y + 14, "start", 12, "no finite values; " + leftOut);
            y += 40;
            continue;
        }
        // The axis spans the values, the 3-sigma band and the nominal value, to round ticks. A band beyond
        // the largest doubles (values near them) is not drawn.
        const double mean = moments.mean();
        const double sd = moments.standardDeviation();
        const bool band = sd > 0 && std::isfinite(mean - 3 * sd) && std::isfinite(mean + 3 * sd);
        double low = histogram.low, high = histogram.high;
        if (band) {
            low = std::min(low, mean - 3 * sd);
            high = std::max(high, mean + 3 * sd);
        }
        const bool nominalShown = stats.hasNominal && std::isfinite(stats.nominal);
        if (nominalShown) {
            low = std::min(low, stats.nominal);
            high = std::max(high, stats.nominal);
        }
        // Ends that no round ticks can cover (near the largest doubles) make an axis of the ends alone.
        const AxisTicks ticks = sp_RoundAxisTicks(low, high, kValueTicks);
        const double axisLow = ticks.values.empty() ? low : ticks.low, axisHigh = ticks.values.empty() ? high : ticks.high;
        const auto xOf = [&](double v) { return kPlotLeft + fractionBetween(v, axisLow, axisHigh) * (kPlotRight - kPlotLeft); };
        long long tallest = 0;
        for (long long c : histogram.counts)
            tallest = std::max(tallest, c);
        const std::vector<long long> yTicks = countTicks(tallest);
        const double yTop = static_cast<double>(yTicks.back());
        body += svgText(kPlotLeft - 8, y + 10, "end", 11, "runs");
        const double top = y + 20, bottom = top + kPlotHeight;
        for (int i = 0; i < histogram.bins(); ++i) {
            const double n = histogram.bins();
            const double x0 = xOf(valueBetween(histogram.low, histogram.high, i / n));
            const double x1 = xOf(valueBetween(histogram.low, histogram.high, (i + 1) / n));
            const double h = kPlotHeight * static_cast<double>(histogram.counts[static_cast<size_t>(i)]) / yTop;
            body += svgRect(x0 + 0.5, bottom - h, x1 - x0 - 1, h, "#4a7fb5");
        }
        body += svgLine(xOf(mean), top, xOf(mean), bottom, "#222222", " stroke-width=\"2\"");
        if (band)
            for (double k : {-3.0, 3.0})
                body += svgLine(xOf(mean + k * sd), top, xOf(mean + k * sd), bottom, "#555555",
                                " stroke-width=\"1.5\" stroke-dasharray=\"5 4\"");
        if (nominalShown)
            body += svgLine(xOf(stats.nominal), top, xOf(stats.nominal), bottom, "#d9534f",
                            " stroke-width=\"2\" stroke-dasharray=\"6 4\"");
        body += svgLine(kPlotLeft, bottom, kPlotRight, bottom, "#333333");
        body += svgLine(kPlotLeft, top, kPlotLeft, bottom, "#333333");
        for (double tick : ticks.values) {
            const double x = xOf(tick);
            body += svgLine(x, bottom, x, bottom + 4, "#333333");
            body += svgText(x, bottom + 16, "middle", 11, engineering(tick));
        }
        for (long long count : yTicks) {
            const double yy = bottom - kPlotHeight * static_cast<double>(count) / yTop;
            body += svgLine(kPlotLeft - 4, yy, kPlotLeft, yy, "#333333");
            body += svgText(kPlotLeft - 8, yy + 4, "end", 11, std::to_string(count));
        }
        double line = bottom + 34;
        body += svgText((kPlotLeft + kPlotRight) / 2, line, "middle", 11,
                        "value: " + std::to_string(histogram.bins()) + (histogram.bins() == 1 ? " bin " : " bins ") +
                            binRuleWords(histogram.rule));
        line += 18;
        body += svgText(kPlotLeft, line, "start", 11,
                        "solid: mean " + engineering(mean) +
                            (band     ? "; dashed grey: mean -/+ 3 sigma, " + engineering(mean - 3 * sd) + " to " +
                                        engineering(mean + 3 * sd)
                             : sd > 0 ? std::string("; mean -/+ 3 sigma lies beyond the largest numbers")
                                      : std::string("; no spread")));
        if (nominalShown) {
            line += 16;
            body += svgText(kPlotLeft, line, "start", 11, "dashed red: nominal " + engineering(stats.nominal), " fill=\"#c9302c\"");
        }
        line += 16;
        body += svgText(kPlotLeft, line, "start", 11, leftOut);
        y = line + 24;
    }
    return document(kHistogramWidth, y + 10, "Merit functions across runs", body);
}
