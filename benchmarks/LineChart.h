#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Bench {

/// One contender's line.
struct Curve {
  std::string name;
  std::vector<std::pair<double, double>> points;
};

/// Lines over one another, both axes logarithmic.
struct Panel {
  std::string title;
  std::vector<Curve> curves;
};

/// An SVG of all of them, so many beside each other. A name has the same colour everywhere.
std::string DrawPanels(const std::string& title, const std::vector<Panel>& panels,
                       unsigned int perLine);

}  // namespace Bench
