#include "page_drawing.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>

#include "printable.h"

namespace pkgdist::lead_program {

namespace {

// Of the picture, in units of its own in both directions.
constexpr double kSize = 1000;

// A round number a fifth to a half of the range.
double tick(double range) {
  const double unit = std::pow(10, std::floor(std::log10(range / 2)));
  for (const double step : {5.0, 2.0})
    if (step * unit <= range / 2) return step * unit;
  return unit;
}

double percentage(double place) {
  return place / kSize * 100;
}

}  // namespace

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : cli::printable(text)) switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  return out;
}

Drawing::Drawing(double x_end, double y_end)
    : x_end_(std::max(x_end, 1e-3)), y_end_(std::max(y_end, 1e-9)) {}

double Drawing::x(double value) const {
  return std::clamp(value / x_end_, 0.0, 1.0) * kSize;
}

// From the top.
double Drawing::y(double value) const {
  return (1 - std::clamp(value / y_end_, 0.0, 1.0)) * kSize;
}

void Drawing::curve(const std::vector<Point>& points, const std::string& style,
                    const std::string& title) {
  body_ += fmt::format("<polyline class=\"{}\" points=\"", style);
  for (const Point& p : points) body_ += fmt::format("{:.1f},{:.1f} ", x(p.seconds), y(p.value));
  body_ += fmt::format("\"><title>{}</title></polyline>\n", escaped(title));
}

void Drawing::bar(double from, double to, double value, const std::string& title) {
  body_ += fmt::format(
      "<rect class=\"bar\" x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\">"
      "<title>{}</title></rect>\n",
      x(from), y(value), std::max(1.0, x(to) - x(from) - 2), y(0) - y(value), escaped(title));
}

void Drawing::mark(double at, size_t number, const std::string& title) {
  body_ += fmt::format("<line class=\"mark\" x1=\"{0:.1f}\" x2=\"{0:.1f}\" y1=\"0\" y2=\"{1}\"/>\n",
                       x(at), kSize);
  marks_ += fmt::format("<span class=\"mark\" style=\"left:{:.2f}%\" title=\"{}\">{}</span>\n",
                        percentage(x(at)), escaped(title), number);
}

std::string Drawing::html(const std::string& label, const std::string& x_unit,
                          const std::string& y_unit) const {
  std::string lines, labels;
  for (double at = 0; at <= x_end_ * 1.0001; at += tick(x_end_))
    labels += fmt::format("<span class=\"x\" style=\"left:{:.2f}%\">{:.4g}</span>\n",
                          percentage(x(at)), at);
  for (double at = 0; at <= y_end_ * 1.0001; at += tick(y_end_)) {
    lines += fmt::format("<line x1=\"0\" x2=\"{1}\" y1=\"{0:.1f}\" y2=\"{0:.1f}\"/>", y(at), kSize);
    labels += fmt::format("<span class=\"y\" style=\"top:{:.2f}%\">{:.4g}</span>\n",
                          percentage(y(at)), at);
  }
  return fmt::format(
      "<p class=\"unit\">{5}</p>\n<div class=\"plot\">\n<svg viewBox=\"0 0 {0} {0}\" "
      "preserveAspectRatio=\"none\" role=\"img\" aria-label=\"{1}\">\n{2}\n{3}</svg>\n{4}</div>\n"
      "<p class=\"unit end\">{6}</p>\n",
      kSize, label, lines, body_, labels + marks_, y_unit, x_unit);
}

}  // namespace pkgdist::lead_program
