#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "Report.h"
#include "Support.h"

namespace Bench {

/// Collects Google Benchmark's runs in a report, as "row/column": seconds per item, or per
/// iteration where none are counted.
class RatioReporter : public benchmark::BenchmarkReporter {
 public:
  explicit RatioReporter(Report& report) : m_report(report) {}

  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      Check(!run.error_occurred);
      const std::string& name = run.run_name.function_name;
      const std::size_t slash = name.find('/');
      const auto items = run.counters.find("items_per_second");
      const double seconds = items != run.counters.end()
                                 ? 1 / items->second.value
                                 : run.real_accumulated_time / static_cast<double>(run.iterations);
      m_report.Speed(name.substr(0, slash)).Add(name.substr(slash + 1), seconds);
    }
  }

 private:
  Report& m_report;
};

/// Runs all that is registered, repetitions of one between those of the others, and writes the
/// report. Options: Google Benchmark's, and --out FOLDER.
inline void RunAll(int argc, char** argv, Report report) {
  std::string interleaved = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> options = {argv[0], interleaved.data()};
  options.insert(options.end(), argv + 1, argv + argc);
  int count = static_cast<int>(options.size());
  benchmark::Initialize(&count, options.data());
  RatioReporter reporter(report);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  report.Write(FindOption(argc, argv, "--out", "build/bench"));
}

}  // namespace Bench
