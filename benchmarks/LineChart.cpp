#include "LineChart.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace Bench {
namespace {

constexpr double kWidth = 250, kHeight = 210;  // of a panel
constexpr double kLeft = 50, kTop = 45, kPlotWidth = 180, kPlotHeight = 130;
constexpr double kLegend = 50;
constexpr const char* kColours[] = {"#1f5fa8", "#4f93d8", "#12a27c",
                                    "#7ccbb2", "#e08a2e", "#b5483c"};

std::string Number(double value) {
  std::string text = std::to_string(value);
  return text.substr(0, text.find('.') + 2);
}

std::string PowerOfTen(int exponent) {
  if (exponent >= 0 && exponent < 4) return std::to_string(std::lround(std::pow(10, exponent)));
  if (exponent < 0 && exponent > -4) return "0." + std::string(-exponent - 1, '0') + "1";
  return "10<tspan dy='-4' font-size='8'>" + std::to_string(exponent) + "</tspan>";
}

std::string Text(double x, double y, const std::string& style, const std::string& words) {
  return "<text x='" + Number(x) + "' y='" + Number(y) + "' " + style + ">" + words + "</text>\n";
}

std::string Line(double x1, double y1, double x2, double y2) {
  return "<path d='M" + Number(x1) + " " + Number(y1) + "L" + Number(x2) + " " + Number(y2) +
         "' stroke='#ddd'/>\n";
}

/// From one power of ten to another.
class Axis {
 public:
  void Include(double value) {
    m_first = std::min(m_first, static_cast<int>(std::floor(std::log10(value) + 1e-9)));
    m_last = std::max(m_last, static_cast<int>(std::ceil(std::log10(value) - 1e-9)));
  }
  double Place(double value) const {
    return (std::log10(value) - m_first) / std::max(m_last - m_first, 1);
  }
  int GetFirst() const { return m_first; }
  int GetLast() const { return m_last; }

 private:
  int m_first = 100, m_last = -100;
};

std::string Draw(const Panel& panel, double left, double top,
                 const std::vector<std::string>& names) {
  Axis x, y;
  for (const Curve& curve : panel.curves)
    for (const auto& [size, value] : curve.points) {
      x.Include(size);
      y.Include(value);
    }
  const auto across = [&](double size) { return left + kLeft + x.Place(size) * kPlotWidth; };
  const auto down = [&](double value) { return top + kTop + (1 - y.Place(value)) * kPlotHeight; };
  std::string svg = Text(left + kLeft, top + kTop - 12, "font-weight='bold'", panel.title);
  for (int i = x.GetFirst(); i <= x.GetLast(); ++i) {
    const double at = across(std::pow(10, i));
    svg += Line(at, top + kTop, at, top + kTop + kPlotHeight) +
           Text(at, top + kTop + kPlotHeight + 16, "text-anchor='middle'", PowerOfTen(i));
  }
  for (int i = y.GetFirst(); i <= y.GetLast(); ++i) {
    const double at = down(std::pow(10, i));
    svg += Line(left + kLeft, at, left + kLeft + kPlotWidth, at) +
           Text(left + kLeft - 6, at + 4, "text-anchor='end'", PowerOfTen(i));
  }
  for (const Curve& curve : panel.curves) {
    const auto number = std::find(names.begin(), names.end(), curve.name) - names.begin();
    const std::string colour = kColours[static_cast<std::size_t>(number) % std::size(kColours)];
    std::string path, dots;
    for (const auto& [size, value] : curve.points) {
      path += path.empty() ? "M" : "L";
      path += Number(across(size)) + " " + Number(down(value));
      dots += "<circle cx='" + Number(across(size)) + "' cy='" + Number(down(value)) +
              "' r='2.5' fill='" + colour + "'/>\n";
    }
    svg += "<path d='" + path + "' fill='none' stroke-width='1.5' stroke='" + colour + "'/>\n";
    svg += dots;
  }
  return svg;
}

}  // namespace

std::string DrawPanels(const std::string& title, const std::vector<Panel>& panels,
                       unsigned int perLine) {
  std::vector<std::string> names;
  for (const Panel& panel : panels)
    for (const Curve& curve : panel.curves)
      if (std::find(names.begin(), names.end(), curve.name) == names.end())
        names.push_back(curve.name);
  std::string svg = Text(10, 14, "font-weight='bold'", title);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const double x = 10 + 112.0 * static_cast<double>(i);
    svg += "<rect x='" + Number(x) + "' y='22' width='10' height='10' fill='" +
           kColours[i % std::size(kColours)] + "'/>\n" + Text(x + 15, 31, "", names[i]);
  }
  for (std::size_t i = 0; i < panels.size(); ++i)
    svg += Draw(panels[i], static_cast<double>(i % perLine) * kWidth,
                kLegend + static_cast<double>(i / perLine) * kHeight - 20, names);
  const double height =
      kLegend + std::ceil(static_cast<double>(panels.size()) / perLine) * kHeight - 10;
  return "<svg xmlns='http://www.w3.org/2000/svg' width='" + Number(perLine * kWidth) +
         "' height='" + Number(height) + "' font-family='sans-serif' font-size='11'>\n" +
         "<rect width='100%' height='100%' fill='white'/>\n" + svg + "</svg>\n";
}

}  // namespace Bench
