// Charts.cpp - statistics of merit values and the two SVG charts. Every text is placed in its own
// column or row so that labels never overlap, whatever the number of bars.
#include "Charts.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

std::string xmlEscaped(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
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

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
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

} // namespace

std::string sensitivityTornadoSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header)
{
    const std::vector<const XMLReportInfo*> runs = sp_RunsInCaseOrder(table);
    std::string body;
    double y = 0;
    const int merits = header.meritFunctions.count();
    body += svgText(10, y + 24, "start", 16, "Normalised sensitivities: " + header.title.str(), " font-weight=\"bold\"");
    y += 36;
    for (int merit = 0; merit < merits; ++merit) {
        struct Bar {
            std::string label;
            double value;
        };
        std::vector<Bar> bars;
        int skipped = 0;
        for (const XMLReportInfo* run : runs) {
            if (run->caseNumber == 1 || run->values.count() <= merit)
                continue;
            const XMLMeritValue& v = run->values[merit];
            if (v.status == NormValid && std::isfinite(v.norm))
                bars.push_back({runLabel(*run), v.norm});
            else
                ++skipped;
        }
        std::stable_sort(bars.begin(), bars.end(),
                         [](const Bar& a, const Bar& b) { return std::fabs(a.value) > std::fabs(b.value); });
        body += svgText(10, y + 20, "start", 14, meritTitle(header, merit), " font-weight=\"bold\"");
        y += 32;
        if (bars.empty()) {
            body += svgText(kBarLeft, y + 14, "start", 12, "no valid sensitivity");
            y += 40;
            continue;
        }
        double largest = 0.0;
        for (const Bar& b : bars)
            largest = std::max(largest, std::fabs(b.value));
        if (largest == 0.0)
            largest = 1.0;
        const double zero = (kBarLeft + kBarRight) / 2;
        const double scale = (kBarRight - kBarLeft) / 2 / largest;
        const double top = y;
        for (const Bar& b : bars) {
            const double x = b.value < 0 ? zero + b.value * scale : zero;
            body += svgText(kLabelRight, y + 14, "end", 12, clipped(b.label, kLabelChars));
            body += svgRect(x, y + 3, std::fabs(b.value) * scale, kRow - 6, b.value < 0 ? "#d9534f" : "#4a7fb5");
            body += svgText(kValueLeft, y + 14, "start", 11, number(b.value));
            y += kRow;
        }
        body += svgLine(zero, top, zero, y, "#333333");
        body += svgLine(kBarLeft, y, kBarRight, y, "#333333");
        for (int tick = -2; tick <= 2; ++tick) {
            const double x = zero + tick * (kBarRight - kBarLeft) / 4;
            body += svgLine(x, y, x, y + 4, "#333333");
            body += svgText(x, y + 16, "middle", 11, number(tick * largest / 2));
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

} // namespace

std::string meritHistogramSvg(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header)
{
    std::string body;
    double y = 0;
    body += svgText(10, y + 24, "start", 16, "Merit functions across runs: " + header.title.str(), " font-weight=\"bold\"");
    y += 36;
    for (int merit = 0; merit < header.meritFunctions.count(); ++merit) {
        const MeritStatistics stats = sp_ComputeMeritStatistics(table, merit, MeritLimits(), false);
        const MomentSummary& moments = stats.sample.moments();
        body += svgText(10, y + 20, "start", 14, meritTitle(header, merit), " font-weight=\"bold\"");
        body += svgText(10, y + 38, "start", 12,
                        std::to_string(moments.count()) + " runs, mean " + number(moments.mean()) +
                            ", standard deviation " + number(moments.standardDeviation()));
        y += 64;
        const std::vector<double>& finite = stats.sample.values();
        if (finite.empty()) {
            body += svgText(kPlotLeft, y + 14, "start", 12, "no values");
            y += 40;
            continue;
        }
        double low = moments.minimum();
        double high = moments.maximum();
        if (low == high) {
            const double pad = low == 0.0 ? 0.5 : std::fabs(low) * 0.01;
            low -= pad;
            high += pad;
        }
        const int bins = std::clamp(static_cast<int>(std::ceil(std::sqrt(static_cast<double>(finite.size())))), 1, 50);
        std::vector<int> counts(static_cast<size_t>(bins), 0);
        for (double v : finite) {
            int bin = static_cast<int>((v - low) / (high - low) * bins);
            counts[static_cast<size_t>(std::clamp(bin, 0, bins - 1))]++;
        }
        const int tallest = *std::max_element(counts.begin(), counts.end());
        const double top = y, bottom = y + kPlotHeight;
        const double binWidth = (kPlotRight - kPlotLeft) / bins;
        for (int i = 0; i < bins; ++i) {
            const double h = kPlotHeight * counts[static_cast<size_t>(i)] / tallest;
            body += svgRect(kPlotLeft + i * binWidth + 1, bottom - h, binWidth - 2, h, "#4a7fb5");
        }
        if (stats.hasNominal && std::isfinite(stats.nominal)) {
            const double x = kPlotLeft + (stats.nominal - low) / (high - low) * (kPlotRight - kPlotLeft);
            body += svgLine(x, top - 4, x, bottom, "#d9534f", " stroke-width=\"2\" stroke-dasharray=\"6 4\"");
            body += svgText(kPlotRight, top - 8, "end", 11, "dashed: nominal " + number(stats.nominal));
        }
        body += svgLine(kPlotLeft, bottom, kPlotRight, bottom, "#333333");
        body += svgLine(kPlotLeft, top, kPlotLeft, bottom, "#333333");
        for (int tick = 0; tick <= 4; ++tick) {
            const double x = kPlotLeft + tick * (kPlotRight - kPlotLeft) / 4;
            body += svgLine(x, bottom, x, bottom + 4, "#333333");
            body += svgText(x, bottom + 16, "middle", 11, number(low + tick * (high - low) / 4));
        }
        // Counts are whole numbers: ticks at 0, half the tallest bar rounded, and the tallest bar.
        std::vector<int> ticks{0, tallest};
        if ((tallest + 1) / 2 < tallest)
            ticks.insert(ticks.begin() + 1, (tallest + 1) / 2);
        for (int count : ticks) {
            const double yy = bottom - kPlotHeight * count / tallest;
            body += svgLine(kPlotLeft - 4, yy, kPlotLeft, yy, "#333333");
            body += svgText(kPlotLeft - 8, yy + 4, "end", 11, std::to_string(count));
        }
        body += svgText((kPlotLeft + kPlotRight) / 2, bottom + 34, "middle", 11, "value (" + std::to_string(bins) + " bins)");
        y = bottom + 56;
    }
    return document(kHistogramWidth, y + 10, "Merit functions across runs", body);
}
