#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

/// Prints Google Benchmark's table and, under it, each operation's speed as a ratio to a bare
/// counterpart measured in the same run: machines differ and are shared, ratios hold.
///
/// A benchmark named "X/..." is compared with "XBare/...": 1.00 means as fast as the bare system
/// calls. The best of the repetitions counts, on both sides.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const double time = run.GetAdjustedRealTime();
      const auto [entry, isNew] = m_best.try_emplace(run.run_name.str(), time);
      if (!isNew) entry->second = std::min(entry->second, time);
    }
  }

  void Finalize() override {
    std::printf("\nspeed relative to the bare system calls\n");
    for (const auto& [name, time] : m_best) {
      const std::size_t end = std::min(name.find('/'), name.size());
      const auto bare = m_best.find(name.substr(0, end) + "Bare" + name.substr(end));
      if (bare != m_best.end()) std::printf("  %-40s %5.2f\n", name.c_str(), bare->second / time);
    }
  }

 private:
  std::map<std::string, double> m_best;
};
