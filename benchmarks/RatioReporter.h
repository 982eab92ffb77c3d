#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

/// Prints Google Benchmark's table and, under it, each operation's speed as a ratio to the bare
/// system calls that move the same bytes, measured in the same run: machines differ and are
/// shared, ratios hold.
///
/// "group/variant" is compared with "group/bare" of as many threads: 1.00 means as fast. Of the
/// repetitions the best counts, on both sides.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const double time = run.GetAdjustedRealTime();
      const auto [entry, isNew] =
          m_best.try_emplace({run.run_name.function_name, run.run_name.threads}, time);
      if (!isNew) entry->second = std::min(entry->second, time);
    }
  }

  void Finalize() override {
    std::printf("\nspeed relative to the bare system calls\n");
    for (const auto& [key, time] : m_best) {
      const auto& [name, threads] = key;
      const auto bare = m_best.find({name.substr(0, name.find('/')) + "/bare", threads});
      if (bare != m_best.end() && bare->first != key)
        std::printf("  %-36s %-10s %5.2f\n", name.c_str(), threads.c_str(), bare->second / time);
    }
  }

 private:
  std::map<std::pair<std::string, std::string>, double> m_best;  // by name and threads
};
