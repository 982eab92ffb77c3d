#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>

#include "Support.h"

namespace Bench {
namespace {

using Cells = std::vector<std::string>;

double MedianOf(std::vector<double> samples) {
  Check(!samples.empty());
  std::sort(samples.begin(), samples.end());
  const std::size_t half = samples.size() / 2;
  return samples.size() % 2 != 0 ? samples[half] : (samples[half - 1] + samples[half]) / 2;
}

std::string Fixed(double value, int decimals) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string WithUnit(double value, const std::string& unit) {
  return Fixed(value, value < 10 ? 3 : value < 100 ? 1 : 0) + (unit.empty() ? "" : " " + unit);
}

std::string Duration(double seconds) {
  return seconds < 1e-3 ? WithUnit(seconds * 1e6, "µs") : WithUnit(seconds * 1e3, "ms");
}

// What an editor shows as its width.
std::size_t WidthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

/// A Markdown table, aligned so that it can be read as it is. The first line is its heading.
std::string Table(const std::vector<Cells>& lines) {
  std::vector<std::size_t> widths(lines.front().size(), 3);
  for (const Cells& line : lines)
    for (std::size_t i = 0; i < line.size(); ++i)
      widths[i] = std::max(widths[i], WidthOf(line[i]));
  std::string text;
  const auto add = [&](const Cells& line) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      const std::string blanks(widths[i] - WidthOf(line[i]), ' ');
      text += i == 0 ? "| " + line[i] + blanks : " | " + blanks + line[i];
    }
    text += " |\n";
  };
  Cells rule;
  for (const std::size_t width : widths)
    rule.push_back(rule.empty() ? std::string(width, '-') : std::string(width - 1, '-') + ":");
  add(lines.front());
  add(rule);
  std::for_each(lines.begin() + 1, lines.end(), add);
  return text;
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  Check(!file.fail());
  std::cout << path.string() << std::endl;
}

}  // namespace

double Row::Median(const std::string& column) const { return MedianOf(m_samples.at(column)); }

double Row::Compare(const std::string& column, const std::string& other) const {
  const std::vector<double>& dividends = m_samples.at(m_kind == kSpeed ? other : column);
  const std::vector<double>& divisors = m_samples.at(m_kind == kSpeed ? column : other);
  std::vector<double> quotients;
  for (std::size_t i = 0; i < std::min(dividends.size(), divisors.size()); ++i)
    quotients.push_back(dividends[i] / divisors[i]);
  return MedianOf(std::move(quotients));
}

Row& Report::Find(Row::Kind kind, const std::string& name, const std::string& unit) {
  const auto isIt = [&](const Row& row) { return row.GetName() == name; };
  const auto found = std::find_if(m_rows.begin(), m_rows.end(), isIt);
  return found != m_rows.end() ? *found : m_rows.emplace_back(kind, name, unit);
}

const Row* Report::Look(const std::string& name) const {
  for (const Row& row : m_rows)
    if (row.GetName() == name) return &row;
  return nullptr;
}

void Report::AddGoal(const std::string& name, const std::string& column, const std::string& other,
                     double bound, bool atLeast) {
  const Row* row = Look(name);
  if (row == nullptr || !row->Has(column)) return;
  if (other.empty())
    m_goals.push_back({name + ": " + column, row->Median(column), bound, atLeast});
  else if (row->Has(other))
    m_goals.push_back(
        {name + ": " + column + " / " + other, row->Compare(column, other), bound, atLeast});
}

std::vector<std::string> Report::GetColumns() const {
  std::vector<std::string> columns;
  const auto isUsed = [&](const std::string& column) {
    return std::any_of(m_rows.begin(), m_rows.end(),
                       [&](const Row& row) { return row.Has(column); });
  };
  std::copy_if(m_columns.begin(), m_columns.end(), std::back_inserter(columns), isUsed);
  return columns;
}

std::string Report::GetRows(Row::Kind kind, const std::string& heading) const {
  const Cells columns = GetColumns();
  std::vector<Cells> lines = {{heading}};
  lines[0].insert(lines[0].end(), columns.begin(), columns.end());
  const auto cell = [&](const Row& row, const std::string& column) {
    if (!row.Has(column)) return std::string();
    if (kind == Row::kFigure) return WithUnit(row.Median(column), row.GetUnit());
    if (column == kLimit) return Duration(row.Median(column));
    return row.Has(kLimit) ? Fixed(row.Compare(column, kLimit), 2) : "";
  };
  for (const Row& row : m_rows) {
    if (row.GetKind() != kind) continue;
    Cells& line = lines.emplace_back(Cells{row.GetName()});
    for (const std::string& column : columns)
      line.push_back(cell(row, column));
  }
  return lines.size() > 1 ? Table(lines) + "\n" : "";
}

std::string Report::GetGoals() const {
  std::vector<Cells> lines = {{"goal", "reached", "wanted", ""}};
  for (const Goal& goal : m_goals) {
    const bool met = goal.atLeast ? goal.reached >= goal.bound : goal.reached <= goal.bound;
    lines.push_back({goal.what, Fixed(goal.reached, 3),
                     (goal.atLeast ? "≥ " : "≤ ") + Fixed(goal.bound, 2), met ? "met" : "missed"});
  }
  return m_goals.empty() ? "" : Table(lines) + "\n";
}

// A group of bars for each speed row, a line where the limit is.
std::string Report::GetChart() const {
  constexpr const char* kColours[] = {"#9aa5b1", "#1f5fa8", "#4f93d8", "#12a27c",
                                      "#7ccbb2", "#c7ccd3", "#e08a2e", "#b5483c"};
  constexpr int kLeft = 240, kUnit = 260, kBar = 12, kWidth = 800;
  constexpr double kMost = 2;  // longer bars are cut, their number tells
  const Cells columns = GetColumns();
  std::string bars;
  int y = 50;
  const auto text = [](int x, int at, const std::string& extra, const std::string& words) {
    return "<text x='" + std::to_string(x) + "' y='" + std::to_string(at) + "'" + extra + ">" +
           words + "</text>\n";
  };
  const auto bar = [](int x, int at, double width, const std::string& colour) {
    return "<rect x='" + std::to_string(x) + "' y='" + std::to_string(at) + "' width='" +
           Fixed(width, 1) + "' height='10' fill='" + colour + "'/>\n";
  };
  std::string legend;
  for (std::size_t i = 1; i < columns.size(); ++i) {
    const int x = 10 + static_cast<int>(i - 1) * 112;
    legend += bar(x, 22, 10, kColours[i % std::size(kColours)]) + text(x + 15, 31, "", columns[i]);
  }
  for (const Row& row : m_rows) {
    if (row.GetKind() != Row::kSpeed) continue;
    bars += text(kLeft - 10, y + 10, " text-anchor='end'", row.GetName());
    for (std::size_t i = 1; i < columns.size(); ++i) {
      if (!row.Has(columns[i])) continue;
      const double speed = row.Compare(columns[i], kLimit);
      const double width = std::min(speed, kMost) * kUnit;
      bars += bar(kLeft, y, width, kColours[i % std::size(kColours)]) +
              text(kLeft + static_cast<int>(width) + 5, y + 9, "", Fixed(speed, 2));
      y += kBar;
    }
    y += kBar;
  }
  const std::string height = std::to_string(y);
  return "<svg xmlns='http://www.w3.org/2000/svg' width='" + std::to_string(kWidth) + "' height='" +
         height + "' font-family='sans-serif' font-size='11'>\n" +
         "<rect width='100%' height='100%' fill='white'/>\n" +
         text(10, 14, " font-weight='bold'", "speed; the line is the limit by bare system calls") +
         legend + bars + "<line x1='" + std::to_string(kLeft + kUnit) + "' x2='" +
         std::to_string(kLeft + kUnit) + "' y1='44' y2='" + height + "' stroke='black'/>\n</svg>\n";
}

void Report::Write(const std::filesystem::path& folder) const {
  const std::string speeds = GetRows(Row::kSpeed, "speed (1.00: as fast as the limit)");
  const std::string tables = speeds + GetRows(Row::kFigure, "figures") + GetGoals();
  std::cout << "\n" << tables;
  std::filesystem::create_directories(folder);
  WriteFile(folder / (m_name + ".md"), tables);
  if (!speeds.empty()) WriteFile(folder / (m_name + ".svg"), GetChart());
}

}  // namespace Bench
