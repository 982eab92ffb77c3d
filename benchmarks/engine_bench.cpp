// The engine beside the bare system calls that move the same bytes, and beside LMDB and SQLite
// doing the same; and what such calls cost.
//   engine_bench [--quick] [--only SECTION] [--out FOLDER]
// Sections: lookups, walks, stores, processes, names, versions, opening, calls. FOLDER
// (build/bench) receives tables and a chart.
//
// Work of one thread is measured by the time of the processor that it takes, all else by the clock.

#include <algorithm>
#include <string>

#include "Rows.h"
#include "Support.h"

namespace {

using namespace Bench;

constexpr Scale kQuick = {.tiles = 16384,
                          .passes = 5,
                          .rounds = 1,
                          .stored = 16384,
                          .rewritten = 8192,
                          .turns = 3,
                          .longTurns = 3,
                          .paced = 400,
                          .slice = 2048,
                          .names = 131072};

using Measure = void (*)(Report&, const Scale&, const std::filesystem::path&);
constexpr std::pair<const char*, Measure> kSections[] = {
    {"lookups", MeasureLookups},     {"walks", MeasureWalks},       {"stores", MeasureStores},
    {"processes", MeasureProcesses}, {"names", MeasureNamedStores}, {"face", MeasureFace},
    {"versions", MeasureVersions},   {"opening", MeasureOpening}};

void AddGoals(Report& report) {
  for (const char* put : {"put each", "named put"}) {
    report.AtLeast(put, kEngine, kLimit, 0.85);
    report.AtLeast(put, kEngine, kLmdb, 1.5);
  }
  report.AtLeast("random get, 1 thread", kEngine, kLimit, 0.9);
  report.AtLeast("random get, 1 thread", kMapped, kLmdb, 1.3);
  report.AtLeast("named get, 1 thread", kEngine, kLmdb, 0.8);
  report.AtLeast("named get, 1 thread", kMapped, kLmdb, 1.2);
  for (const char* walk : {"walk", "named walk"}) {
    report.AtLeast(walk, kEngine, kLimit, 1);
    report.AtLeast(walk, kMapped, kLmdb, 1);
  }
  // Where others gain less than LMDB mostly does, somebody had part of the other core.
  if (const Row* gain = report.Look("random get, 2 threads : 1 thread"))
    report.AtLeast(gain->GetName(), kEngine, "", 1.6 * std::min(1.0, gain->Median(kLmdb) / 1.8));
  report.AtLeast("rewrite, same size", kEngine, kLimit, 0.85);
  report.AtLeast("rewrite, 1.5 times larger", kEngine, kLimit, 0.85);
  report.AtMost("open 16M cells", kEngine, kLmdb, 1);
  report.AtMost("open 1000000 names", kEngine, "", 100);
  report.AtLeast("put each", kLocked, kLmdb, 1);
  report.AtLeast("random get, 1 thread", kLocked, kEngine, 0.8);
  report.AtLeast("random get, 1 thread", kMappedLocked, kMapped, 0.9);
  report.AtLeast("random get, 8 threads : 1 thread", kLocked, kEngine, 0.95);
  report.AtLeast("two processes replacing, reader", kLocked, kLimit, 0.7);
  report.AtLeast("two processes replacing, reader", kMappedLocked, kLmdb, 1);
  for (const char* column : {kLocked, kMappedLocked}) {
    report.AtLeast("two processes replacing, writer", column, kLmdb, 1);
    for (const char* readers : {"1 reader", "7 readers"})
      report.AtMost(std::string("paced writer's p99, ") + readers + " : none", column, "", 1.5);
    report.AtLeast("two processes, writer", column, kLimit, 0.8);
    report.AtLeast("two processes, writer", column, kLmdb, 1.5);
    report.AtLeast("two processes, reader", column, kLmdb, 0.8);
  }
  for (const char* what : {"put", "get", "named put", "named get"})
    report.AtLeast(std::string(what) + " through the face", kFace, kEngine, 0.95);
  report.AtMost("file bytes : payload bytes", kEngine, "", 1.01);
  report.AtMost("private memory, all tiles read", kEngine, "", 4);
}

}  // namespace

int main(int argc, char** argv) {
  const bool isQuick = std::count(argv, argv + argc, std::string("--quick")) != 0;
  const Scale scale = isQuick ? kQuick : Scale();
  const std::string only = FindOption(argc, argv, "--only", "");
  const std::string out = FindOption(argc, argv, "--out", "build/bench");
  const auto run = [&](const char* name, Measure measure, Report& report) {
    if (!only.empty() && only != name) return false;
    std::fprintf(stderr, "measuring %s ...\n", name);
    const WorkFolder folder("hxcf-bench");
    measure(report, scale, folder.GetPath());
    return true;
  };
  Report stores("engine",
                {kLimit, kEngine, kLocked, kMapped, kMappedLocked, kMemcpy, kFace, kLmdb, kSqlite});
  bool isMeasured = false;
  for (const auto& [name, measure] : kSections)
    isMeasured |= run(name, measure, stores);
  AddGoals(stores);
  if (isMeasured) stores.Write(out);
  Report calls("calls", {"time"});
  if (run("calls", MeasureCalls, calls)) calls.Write(out);
}
