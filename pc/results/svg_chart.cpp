#include "pc/results/svg_chart.hpp"

#include <algorithm>
#include <cstdio>

namespace results {

namespace {

constexpr const char* kBlue = "#1f6fb4";
constexpr const char* kRed = "#d62728";
constexpr const char* kGrey = "#888888";

std::string num(double x) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f", x);
    return text;
}

std::string short_label(const std::string& text, size_t most) {
    return text.size() <= most ? text : text.substr(0, most - 1) + "\xE2\x80\xA6";
}

std::string svg_open(const std::string& id, const std::string& css_class, double width, double height) {
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" id=\"" + markup_escape(id) + "\" class=\"" + css_class +
           "\" width=\"" + num(width) + "\" height=\"" + num(height) + "\" viewBox=\"0 0 " + num(width) + " " +
           num(height) + "\" role=\"img\">\n";
}

std::string text_at(double x, double y, const std::string& text, const std::string& anchor = "start",
                    const std::string& extra = "") {
    return "<text x=\"" + num(x) + "\" y=\"" + num(y) + "\" text-anchor=\"" + anchor + "\"" + extra + ">" +
           markup_escape(text) + "</text>\n";
}

std::string rect(double x, double y, double w, double h, const char* fill, const std::string& css_class) {
    return "<rect class=\"" + css_class + "\" x=\"" + num(x) + "\" y=\"" + num(y) + "\" width=\"" + num(std::max(w, 0.0)) +
           "\" height=\"" + num(std::max(h, 0.0)) + "\" fill=\"" + fill + "\"/>\n";
}

std::string line(double x1, double y1, double x2, double y2, const char* stroke, const std::string& extra = "") {
    return "<line x1=\"" + num(x1) + "\" y1=\"" + num(y1) + "\" x2=\"" + num(x2) + "\" y2=\"" + num(y2) +
           "\" stroke=\"" + stroke + "\"" + extra + "/>\n";
}

}  // namespace

std::string markup_escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            default: out.push_back(c);
        }
    }
    return out;
}

std::string horizontal_bars(const std::string& id, const std::vector<Bar>& bars, double max, const std::string& unit) {
    const double label_w = 190, plot_w = 420, row_h = 26, top = 10;
    const double height = top + row_h * static_cast<double>(bars.size()) + 24;
    std::string s = svg_open(id, "chart", label_w + plot_w + 110, height);
    if (max <= 0) max = 1;
    for (size_t i = 0; i < bars.size(); ++i) {
        const Bar& b = bars[i];
        const double y = top + row_h * static_cast<double>(i);
        s += text_at(label_w - 8, y + 16, short_label(b.label, 28), "end");
        s += rect(label_w, y + 3, plot_w * std::clamp(b.value / max, 0.0, 1.0), row_h - 8, b.flagged ? kRed : kBlue,
                  b.flagged ? "bar bar-flagged" : "bar");
        s += text_at(label_w + plot_w * std::clamp(b.value / max, 0.0, 1.0) + 6, y + 16, b.note);
    }
    const double axis_y = top + row_h * static_cast<double>(bars.size()) + 2;
    s += line(label_w, axis_y, label_w + plot_w, axis_y, kGrey);
    for (int t = 0; t <= 4; ++t) {
        const double x = label_w + plot_w * t / 4.0;
        s += line(x, axis_y, x, axis_y + 4, kGrey);
        s += text_at(x, axis_y + 16, num(max * t / 4.0) + unit, "middle", " class=\"tick\"");
    }
    return s + "</svg>\n";
}

std::string pareto_chart(const std::string& id, const std::vector<Bar>& bars, const std::vector<double>& cumulative) {
    const double left = 50, right = 50, top = 16, plot_h = 220, bottom = 110;
    const double col_w = std::max(36.0, std::min(90.0, 640.0 / static_cast<double>(std::max<size_t>(bars.size(), 1))));
    const double plot_w = col_w * static_cast<double>(bars.size());
    std::string s = svg_open(id, "chart", left + plot_w + right, top + plot_h + bottom);
    double max = 1;
    for (const Bar& b : bars) max = std::max(max, b.value);
    const double base = top + plot_h;
    s += line(left, base, left + plot_w, base, kGrey);
    s += line(left, top, left, base, kGrey);
    s += line(left + plot_w, top, left + plot_w, base, kGrey);
    for (int t = 0; t <= 4; ++t) {
        const double y = base - plot_h * t / 4.0;
        s += text_at(left - 6, y + 4, num(max * t / 4.0), "end", " class=\"tick\"");
        s += text_at(left + plot_w + 6, y + 4, std::to_string(25 * t) + " %", "start", " class=\"tick\"");
    }
    std::string points;
    for (size_t i = 0; i < bars.size(); ++i) {
        const double x = left + col_w * static_cast<double>(i);
        const double h = plot_h * bars[i].value / max;
        s += rect(x + 5, base - h, col_w - 10, h, kBlue, "bar pareto-bar");
        s += text_at(x + col_w / 2, base - h - 4, bars[i].note, "middle", " class=\"tick\"");
        const double lx = x + col_w / 2, ly = base + 12;
        s += "<text x=\"" + num(lx) + "\" y=\"" + num(ly) + "\" text-anchor=\"end\" transform=\"rotate(-35 " + num(lx) +
             " " + num(ly) + ")\">" + markup_escape(short_label(bars[i].label, 22)) + "</text>\n";
        const double cy = base - plot_h * (i < cumulative.size() ? cumulative[i] : 0);
        points += (points.empty() ? "" : " ") + num(lx) + "," + num(cy);
        s += "<circle cx=\"" + num(lx) + "\" cy=\"" + num(cy) + "\" r=\"3.5\" fill=\"" + kRed + "\"/>\n";
    }
    s += "<polyline class=\"cumulative\" points=\"" + points + "\" fill=\"none\" stroke=\"" + kRed +
         "\" stroke-width=\"2\"/>\n";
    return s + "</svg>\n";
}

std::string share_columns(const std::string& id, const std::vector<Bar>& bars, const std::vector<double>& reference) {
    // Room at the left for the first slot's label, turned like the others.
    const double left = 90, top = 16, plot_h = 200, bottom = 80;
    const double col_w = std::max(30.0, std::min(70.0, 700.0 / static_cast<double>(std::max<size_t>(bars.size(), 1))));
    const double plot_w = col_w * static_cast<double>(bars.size());
    std::string s = svg_open(id, "chart", left + plot_w + 20, top + plot_h + bottom);
    const double base = top + plot_h;
    s += line(left, base, left + plot_w, base, kGrey);
    s += line(left, top, left, base, kGrey);
    for (int t = 0; t <= 4; ++t) {
        const double y = base - plot_h * t / 4.0;
        s += text_at(left - 6, y + 4, std::to_string(25 * t) + " %", "end", " class=\"tick\"");
    }
    for (size_t i = 0; i < bars.size(); ++i) {
        const Bar& b = bars[i];
        const double x = left + col_w * static_cast<double>(i);
        const double h = plot_h * std::clamp(b.value, 0.0, 1.0);
        s += rect(x + 4, base - h, col_w - 8, h, b.flagged ? kRed : kBlue, b.flagged ? "bar bar-flagged" : "bar");
        if (i < reference.size()) {
            const double ry = base - plot_h * std::clamp(reference[i], 0.0, 1.0);
            s += line(x + 1, ry, x + col_w - 1, ry, "#222222", " stroke-dasharray=\"4 3\" class=\"reference\"");
        }
        s += text_at(x + col_w / 2, base - h - 4, b.note, "middle", " class=\"tick\"");
        const double lx = x + col_w / 2, ly = base + 12;
        s += "<text x=\"" + num(lx) + "\" y=\"" + num(ly) + "\" text-anchor=\"end\" transform=\"rotate(-35 " + num(lx) +
             " " + num(ly) + ")\">" + markup_escape(short_label(b.label, 18)) + "</text>\n";
    }
    return s + "</svg>\n";
}

std::string duration_bars(const std::string& id, const std::vector<std::string>& labels,
                          const std::vector<double>& medians, const std::vector<double>& p95s) {
    const double label_w = 190, plot_w = 420, row_h = 24, top = 10;
    const double height = top + row_h * static_cast<double>(labels.size()) + 24;
    std::string s = svg_open(id, "chart", label_w + plot_w + 150, height);
    double max = 1;
    for (double p : p95s) max = std::max(max, p);
    for (size_t i = 0; i < labels.size(); ++i) {
        const double y = top + row_h * static_cast<double>(i);
        const double xm = label_w + plot_w * medians[i] / max;
        const double xp = label_w + plot_w * p95s[i] / max;
        s += text_at(label_w - 8, y + 15, short_label(labels[i], 28), "end");
        s += rect(label_w, y + 4, xm - label_w, row_h - 8, kBlue, "bar duration-bar");
        s += line(xm, y + row_h / 2, xp, y + row_h / 2, "#222222");
        s += line(xp, y + 5, xp, y + row_h - 5, "#222222", " class=\"p95\"");
        s += text_at(xp + 6, y + 15, num(medians[i]) + " / " + num(p95s[i]) + " ms", "start", " class=\"tick\"");
    }
    const double axis_y = top + row_h * static_cast<double>(labels.size()) + 2;
    s += line(label_w, axis_y, label_w + plot_w, axis_y, kGrey);
    for (int t = 0; t <= 4; ++t) {
        const double x = label_w + plot_w * t / 4.0;
        s += text_at(x, axis_y + 16, num(max * t / 4.0) + " ms", "middle", " class=\"tick\"");
    }
    return s + "</svg>\n";
}

std::string histogram(const std::string& id, const std::string& title, const std::vector<size_t>& counts, double from, double to,
                      std::optional<double> low, std::optional<double> high) {
    const double left = 40, top = 24, plot_w = 300, plot_h = 110;
    std::string s = svg_open(id, "chart chart-spread", left + plot_w + 20, top + plot_h + 34);
    s += text_at(left, 14, title, "start", " class=\"title\"");
    size_t max = 1;
    for (size_t c : counts) max = std::max(max, c);
    const double base = top + plot_h;
    const double bin_w = plot_w / static_cast<double>(std::max<size_t>(counts.size(), 1));
    for (size_t i = 0; i < counts.size(); ++i) {
        const double h = plot_h * static_cast<double>(counts[i]) / static_cast<double>(max);
        s += rect(left + bin_w * static_cast<double>(i) + 0.5, base - h, bin_w - 1, h, kBlue, "bar histogram-bar");
    }
    s += line(left, base, left + plot_w, base, kGrey);
    const auto x_of = [&](double v) { return left + plot_w * (v - from) / (to - from); };
    for (const std::optional<double>& limit : {low, high}) {
        if (!limit) continue;
        s += line(x_of(*limit), top - 4, x_of(*limit), base, kRed, " stroke-width=\"2\" class=\"limit\"");
    }
    s += text_at(left, base + 16, num(from), "start", " class=\"tick\"");
    s += text_at(left + plot_w, base + 16, num(to), "end", " class=\"tick\"");
    s += text_at(left - 4, top + 8, std::to_string(max), "end", " class=\"tick\"");
    return s + "</svg>\n";
}

}  // namespace results
