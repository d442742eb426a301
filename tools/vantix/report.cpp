#include "report.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "errors.h"

namespace vtool {

namespace {

constexpr size_t kPngBudget = 300 * 1024;

const char* const kPalette[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd", "#8c564b"};

const char kStyle[] = R"(
body { font-family: system-ui, -apple-system, "Segoe UI", sans-serif; margin: 0 auto;
       max-width: 1400px; padding: 1em 2em 3em; color: #222; background: #fafafa; }
h1 { margin-bottom: 0.2em; }
h2 { border-bottom: 2px solid #ccd; padding-bottom: 0.2em; margin-top: 2em; }
.facts { color: #555; margin: 0 0 1em; }
.facts span { margin-right: 1.5em; white-space: nowrap; }
.toc a { margin-right: 1.2em; }
.highlight { background: #eef5ee; border-left: 4px solid #4a4; padding: 0.5em 0.8em; }
.warning { background: #fbeaea; border-left: 4px solid #c33; padding: 0.5em 0.8em; }
.figures { display: flex; flex-wrap: wrap; gap: 1.2em; align-items: flex-start; }
figure { margin: 0; flex: 1 1 300px; max-width: 100%; }
figure img { max-width: 100%; height: auto; border: 1px solid #ccc; background: #fff;
             image-rendering: auto; }
figcaption { font-size: 0.9em; color: #444; margin-top: 0.3em; }
table { border-collapse: collapse; margin: 0.6em 0; font-size: 0.92em; background: #fff; }
th, td { border: 1px solid #ccd; padding: 0.25em 0.6em; text-align: left; }
td.num { text-align: right; font-variant-numeric: tabular-nums; }
th { background: #eef; }
details { margin: 0.6em 0; }
svg.plot { background: #fff; border: 1px solid #ccc; max-width: 100%; height: auto; }
)";

// Numbers are right-aligned in tables: a cell is a number when it is one,
// optionally followed by a unit after a space ("12.5 ms", "+7.3 dB"), but not
// "8-bit bilinear".
bool looksNumeric(const std::string& cell) {
  const char* begin = cell.c_str();
  char* end = nullptr;
  std::strtod(begin, &end);
  if (end == begin || std::isspace(static_cast<unsigned char>(*begin))) return false;
  return *end == '\0' || (*end == ' ' && std::isalpha(static_cast<unsigned char>(end[1])));
}

std::string tableHtml(const std::vector<std::string>& header,
                      const std::vector<std::vector<std::string>>& rows) {
  std::string html = "<table>\n<tr>";
  for (const std::string& name : header) html += "<th>" + htmlEscape(name) + "</th>";
  html += "</tr>\n";
  for (const auto& row : rows) {
    html += "<tr>";
    for (const std::string& cell : row) {
      html += looksNumeric(cell) ? "<td class=\"num\">" : "<td>";
      html += htmlEscape(cell) + "</td>";
    }
    html += "</tr>\n";
  }
  return html + "</table>\n";
}

std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// Tick step of about `count` intervals over `span`: 1, 2 or 5 times a power
// of ten.
double niceStep(double span, int count) {
  const double raw = span / count;
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (double factor : {1.0, 2.0, 5.0}) {
    if (raw <= factor * power) return factor * power;
  }
  return 10 * power;
}

int decimalsFor(double step) {
  return step >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
}

struct Range {
  double low = std::numeric_limits<double>::infinity();
  double high = -std::numeric_limits<double>::infinity();
  void add(double v) {
    low = std::min(low, v);
    high = std::max(high, v);
  }
  bool empty() const { return !(low <= high); }
  // Widened to whole ticks; a single value gets a span around it.
  void round(int ticks, double& step) {
    if (high - low < 1e-12) {
      const double pad = std::max(1.0, std::fabs(low) * 0.1);
      low -= pad;
      high += pad;
    }
    step = niceStep(high - low, ticks);
    low = std::floor(low / step + 1e-9) * step;
    high = std::ceil(high / step - 1e-9) * step;
  }
};

}  // namespace

std::string base64(const uint8_t* data, size_t size) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (i < size) {
    const bool two = i + 1 < size;
    const uint32_t v = (uint32_t{data[i]} << 16) | (two ? uint32_t{data[i + 1]} << 8 : 0);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += two ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string htmlEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string imageDataUri(const cv::Mat& image, int maxWidth) {
  if (image.empty()) throw ToolError("cannot embed an empty image");
  cv::Mat page = image;
  if (page.depth() == CV_16U) page.convertTo(page, CV_8U, 1.0 / 257.0);
  if (page.depth() != CV_8U) throw ToolError("cannot embed an image of this type");
  if (maxWidth > 0 && page.cols > maxWidth) {
    const int height = std::max(1, static_cast<int>(std::lround(
                                       static_cast<double>(page.rows) * maxWidth / page.cols)));
    cv::resize(page, page, cv::Size(maxWidth, height), 0, 0, cv::INTER_AREA);
  }
  std::vector<uint8_t> bytes;
  if (!cv::imencode(".png", page, bytes)) throw ToolError("cannot encode an image as PNG");
  const char* mime = "image/png";
  if (bytes.size() > kPngBudget && page.channels() != 4) {
    std::vector<uint8_t> jpeg;
    if (cv::imencode(".jpg", page, jpeg, {cv::IMWRITE_JPEG_QUALITY, 90}) &&
        jpeg.size() < bytes.size()) {
      bytes.swap(jpeg);
      mime = "image/jpeg";
    }
  }
  return std::string("data:") + mime + ";base64," + base64(bytes.data(), bytes.size());
}

std::string svgLinePlot(const LinePlot& plot) {
  const int width = plot.width, height = plot.height;
  const int left = 64, right = 16, top = 34, bottom = 70;
  const int plotWidth = width - left - right, plotHeight = height - top - bottom;
  std::string svg = "<svg class=\"plot\" width=\"" +
                    std::to_string(width) + "\" height=\"" + std::to_string(height) +
                    "\" viewBox=\"0 0 " + std::to_string(width) + " " + std::to_string(height) +
                    "\" role=\"img\" aria-label=\"" + htmlEscape(plot.title) + "\">\n";
  svg += "<text x=\"" + std::to_string(width / 2) +
         "\" y=\"20\" text-anchor=\"middle\" font-size=\"15\" font-weight=\"bold\">" +
         htmlEscape(plot.title) + "</text>\n";

  Range xs, ys;
  for (const PlotSeries& series : plot.series) {
    for (size_t i = 0; i < std::min(series.x.size(), series.y.size()); ++i) {
      if (std::isfinite(series.x[i]) && std::isfinite(series.y[i])) {
        xs.add(series.x[i]);
        ys.add(series.y[i]);
      }
    }
  }
  svg += "<rect x=\"" + std::to_string(left) + "\" y=\"" + std::to_string(top) + "\" width=\"" +
         std::to_string(plotWidth) + "\" height=\"" + std::to_string(plotHeight) +
         "\" fill=\"none\" stroke=\"#888\"/>\n";
  if (xs.empty()) {
    svg += "<text x=\"" + std::to_string(left + plotWidth / 2) + "\" y=\"" +
           std::to_string(top + plotHeight / 2) + "\" text-anchor=\"middle\">no data</text>\n";
    return svg + "</svg>\n";
  }
  double xStep = 1, yStep = 1;
  xs.round(8, xStep);
  ys.round(5, yStep);
  const auto px = [&](double x) { return left + (x - xs.low) / (xs.high - xs.low) * plotWidth; };
  const auto py = [&](double y) { return top + (ys.high - y) / (ys.high - ys.low) * plotHeight; };

  // Grid and ticks.
  for (double x = xs.low; x <= xs.high + xStep * 1e-6; x += xStep) {
    const std::string at = number(px(x), 1);
    svg += "<line x1=\"" + at + "\" y1=\"" + std::to_string(top) + "\" x2=\"" + at + "\" y2=\"" +
           std::to_string(top + plotHeight) + "\" stroke=\"#e4e4e4\"/>\n";
    svg += "<text x=\"" + at + "\" y=\"" + std::to_string(top + plotHeight + 16) +
           "\" text-anchor=\"middle\" font-size=\"12\">" + number(x, decimalsFor(xStep)) +
           "</text>\n";
  }
  for (double y = ys.low; y <= ys.high + yStep * 1e-6; y += yStep) {
    const std::string at = number(py(y), 1);
    svg += "<line x1=\"" + std::to_string(left) + "\" y1=\"" + at + "\" x2=\"" +
           std::to_string(left + plotWidth) + "\" y2=\"" + at + "\" stroke=\"#e4e4e4\"/>\n";
    svg += "<text x=\"" + std::to_string(left - 6) + "\" y=\"" + number(py(y) + 4, 1) +
           "\" text-anchor=\"end\" font-size=\"12\">" + number(y, decimalsFor(yStep)) +
           "</text>\n";
  }
  svg += "<text x=\"" + std::to_string(left + plotWidth / 2) + "\" y=\"" +
         std::to_string(top + plotHeight + 34) + "\" text-anchor=\"middle\" font-size=\"13\">" +
         htmlEscape(plot.xLabel) + "</text>\n";
  svg += "<text transform=\"translate(16 " + std::to_string(top + plotHeight / 2) +
         ") rotate(-90)\" text-anchor=\"middle\" font-size=\"13\">" + htmlEscape(plot.yLabel) +
         "</text>\n";

  // Lines and the legend below the axis label.
  int legendX = left;
  const int legendY = height - 12;
  for (size_t s = 0; s < plot.series.size(); ++s) {
    const PlotSeries& series = plot.series[s];
    const std::string colour =
        series.colour.empty() ? kPalette[s % std::size(kPalette)] : series.colour;
    const std::string dash = series.dashed ? " stroke-dasharray=\"6 4\"" : "";
    std::string points;
    for (size_t i = 0; i < std::min(series.x.size(), series.y.size()); ++i) {
      if (!std::isfinite(series.x[i]) || !std::isfinite(series.y[i])) continue;
      points += number(px(series.x[i]), 1) + "," + number(py(series.y[i]), 1) + " ";
    }
    svg += "<polyline fill=\"none\" stroke=\"" + htmlEscape(colour) + "\" stroke-width=\"2\"" +
           dash + " points=\"" + points + "\"><title>" + htmlEscape(series.name) +
           "</title></polyline>\n";
    svg += "<line x1=\"" + std::to_string(legendX) + "\" y1=\"" + std::to_string(legendY - 4) +
           "\" x2=\"" + std::to_string(legendX + 24) + "\" y2=\"" + std::to_string(legendY - 4) +
           "\" stroke=\"" + htmlEscape(colour) + "\" stroke-width=\"2\"" + dash + "/>\n";
    svg += "<text x=\"" + std::to_string(legendX + 30) + "\" y=\"" + std::to_string(legendY) +
           "\" font-size=\"12\">" + htmlEscape(series.name) + "</text>\n";
    legendX += 42 + static_cast<int>(series.name.size()) * 7;
  }
  return svg + "</svg>\n";
}

HtmlReport::Section& HtmlReport::Section::paragraph(const std::string& text) {
  body_ += "<p>" + htmlEscape(text) + "</p>\n";
  return *this;
}

HtmlReport::Section& HtmlReport::Section::highlight(const std::string& text) {
  body_ += "<p class=\"highlight\">" + htmlEscape(text) + "</p>\n";
  return *this;
}

HtmlReport::Section& HtmlReport::Section::warning(const std::string& text) {
  body_ += "<p class=\"warning\">" + htmlEscape(text) + "</p>\n";
  return *this;
}

HtmlReport::Section& HtmlReport::Section::figures(const std::vector<Figure>& figures) {
  body_ += "<div class=\"figures\">\n";
  for (const Figure& figure : figures) {
    body_ += "<figure><img alt=\"" + htmlEscape(figure.caption) + "\" src=\"" +
             imageDataUri(figure.image, figure.maxWidth) + "\"><figcaption>" +
             htmlEscape(figure.caption) + "</figcaption></figure>\n";
  }
  body_ += "</div>\n";
  return *this;
}

HtmlReport::Section& HtmlReport::Section::table(const std::vector<std::string>& header,
                                                const std::vector<std::vector<std::string>>& rows) {
  body_ += tableHtml(header, rows);
  return *this;
}

HtmlReport::Section& HtmlReport::Section::foldedTable(
    const std::string& summary, const std::vector<std::string>& header,
    const std::vector<std::vector<std::string>>& rows) {
  body_ += "<details><summary>" + htmlEscape(summary) + "</summary>\n" + tableHtml(header, rows) +
           "</details>\n";
  return *this;
}

HtmlReport::Section& HtmlReport::Section::plot(const LinePlot& plot) {
  body_ += "<div>" + svgLinePlot(plot) + "</div>\n";
  return *this;
}

std::string HtmlReport::Section::html() const {
  return "<section id=\"" + htmlEscape(id_) + "\">\n<h2>" + htmlEscape(title_) + "</h2>\n" +
         body_ + "</section>\n";
}

void HtmlReport::fact(const std::string& name, const std::string& value) {
  facts_.emplace_back(name, value);
}

HtmlReport::Section& HtmlReport::section(const std::string& id, const std::string& title) {
  sections_.push_back(std::make_unique<Section>(id, title));
  return *sections_.back();
}

std::string HtmlReport::render() const {
  std::string html = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                     "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                     "<title>" + htmlEscape(title_) + "</title>\n<style>" + kStyle +
                     "</style>\n</head>\n<body>\n<h1>" + htmlEscape(title_) + "</h1>\n";
  if (!facts_.empty()) {
    html += "<p class=\"facts\">";
    for (const auto& [name, value] : facts_) {
      html += "<span><b>" + htmlEscape(name) + ":</b> " + htmlEscape(value) + "</span> ";
    }
    html += "</p>\n";
  }
  if (sections_.size() > 1) {
    html += "<nav class=\"toc\">";
    for (const auto& section : sections_) {
      html += "<a href=\"#" + htmlEscape(section->id()) + "\">" + htmlEscape(section->title()) +
              "</a> ";
    }
    html += "</nav>\n";
  }
  for (const auto& section : sections_) html += section->html();
  return html + "</body>\n</html>\n";
}

void HtmlReport::write(const std::filesystem::path& path) const {
  const std::string html = render();
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(html.data(), static_cast<std::streamsize>(html.size()));
  out.close();
  if (!out) throw ToolError("cannot write the report " + path.string());
}

}  // namespace vtool
