#pragma once

#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace Bench {

/// The column that speeds are compared with: bare system calls that move the same bytes.
inline constexpr char kLimit[] = "limit";

/// One line of a report: the samples of each contender, one per repetition.
class Row {
 public:
  /// kSpeed: the samples are seconds per operation, and the line tells how fast each is compared
  /// with the limit. kFigure: they are numbers in some unit, shown as they are.
  enum Kind { kSpeed, kFigure };

  Row(Kind kind, std::string name, std::string unit)
      : m_kind(kind), m_name(std::move(name)), m_unit(std::move(unit)) {}

  void Add(const std::string& column, double sample) { m_samples[column].push_back(sample); }

  const std::string& GetName() const { return m_name; }
  const std::string& GetUnit() const { return m_unit; }
  Kind GetKind() const { return m_kind; }
  bool Has(const std::string& column) const { return m_samples.count(column) != 0; }
  double Median(const std::string& column) const;
  /// How one column compares with another: how many times as fast, or for figures, as large. The
  /// median of the repetitions: what is measured in one suffers from the same neighbours.
  double Compare(const std::string& column, const std::string& other) const;

 private:
  Kind m_kind;
  std::string m_name, m_unit;
  std::map<std::string, std::vector<double>> m_samples;
};

/// Collects rows; prints them as tables, and writes these as Markdown and the speeds as a chart.
class Report {
 public:
  /// `columns`: those that may be used, in their order.
  Report(std::string name, std::vector<std::string> columns)
      : m_name(std::move(name)), m_columns(std::move(columns)) {}

  /// The row of that name, made if it is not there.
  Row& Speed(const std::string& name) { return Find(Row::kSpeed, name, ""); }
  Row& Figure(const std::string& name, const std::string& unit) {
    return Find(Row::kFigure, name, unit);
  }

  /// The row of that name; null if nothing was measured for it.
  const Row* Look(const std::string& name) const;

  /// What a column has to reach in comparison with another one, or by itself if that is empty.
  /// Nothing if they were not measured.
  void AtLeast(const std::string& row, const std::string& column, const std::string& other,
               double bound) {
    AddGoal(row, column, other, bound, true);
  }
  void AtMost(const std::string& row, const std::string& column, const std::string& other,
              double bound) {
    AddGoal(row, column, other, bound, false);
  }

  /// Prints the tables; writes FOLDER/NAME.md, and FOLDER/NAME.svg if there are speeds, and prints
  /// their paths.
  void Write(const std::filesystem::path& folder) const;

 private:
  struct Goal {
    std::string what;
    double reached, bound;
    bool atLeast;
  };

  Row& Find(Row::Kind kind, const std::string& name, const std::string& unit);
  void AddGoal(const std::string& row, const std::string& column, const std::string& other,
               double bound, bool atLeast);
  std::vector<std::string> GetColumns() const;
  std::string GetRows(Row::Kind kind, const std::string& heading) const;
  std::string GetGoals() const;
  std::string GetChart() const;

  std::string m_name;
  std::vector<std::string> m_columns;
  std::deque<Row> m_rows;
  std::vector<Goal> m_goals;
};

}  // namespace Bench
