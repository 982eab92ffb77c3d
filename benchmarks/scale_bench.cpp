// Large files: many cells, many names, many versions, long tiles; and what the first operations of
// a process cost.
//   scale_bench [--quick] [--only PART] [--out FOLDER]
// Parts: first, beside, memory, sparse, names, growing, fresh, cold, pieces, length, compact,
// versions, sweep. FOLDER (build/bench) receives the tables, and of sweep a chart.
//
// Work of one thread is measured by the time of the processor that it takes, all else by the clock.

#include <algorithm>
#include <string>

#include "ScaleRows.h"
#include "Support.h"

namespace {

using namespace Bench;
namespace fs = std::filesystem;

constexpr LargeScale kQuick = {.cells = 1 << 20,
                               .filled = 1 << 17,
                               .sparseCells = 1 << 22,
                               .sparseFilled = 10000,
                               .gets = 100000,
                               .names = 100000,
                               .grown = 50000,
                               .turns = 3,
                               .longTurns = 1,
                               .coldTiles = 4096,
                               .coldRows = 4,
                               .pieces = 32,
                               .rewrites = 400,
                               .compacted = 3000,
                               .mostCells = 1000000,
                               .mostNames = 100000};

struct Part {
  const char* name;
  void (*measure)(Report& report, const LargeScale& size, const fs::path& folder);
};
constexpr Part kParts[] = {{"first", MeasureFirstPuts},    {"beside", MeasureBeside},
                           {"memory", MeasureMemory},      {"sparse", MeasureSparseBatches},
                           {"names", MeasureNames},        {"growing", MeasureGrowth},
                           {"fresh", MeasureFreshOpening}, {"cold", MeasureCold},
                           {"pieces", MeasurePieces},      {"length", MeasureLength},
                           {"compact", MeasureCompaction}, {"versions", MeasureOlderVersions}};

}  // namespace

int main(int argc, char** argv) {
  if (RunFresh(argc, argv)) return 0;
  const bool isQuick = std::count(argv, argv + argc, std::string("--quick")) != 0;
  const LargeScale size = isQuick ? kQuick : LargeScale();
  const std::string only = FindOption(argc, argv, "--only", "");
  const fs::path out = FindOption(argc, argv, "--out", "build/bench");
  const WorkFolder folder("hxcf-scale");
  Report report("scale", {kLimit, kEngine, kLocked, kMapped, kMappedLocked, kLight, kLmdb});
  bool isMeasured = false;
  const auto run = [&](const char* name, auto measure) {
    if (!only.empty() && only != name) return false;
    std::fprintf(stderr, "measuring %s ...\n", name);
    const fs::path own = folder.GetPath() / name;
    fs::create_directories(own);
    measure(own);
    fs::remove_all(own);
    return true;
  };
  for (const auto& [name, measure] : kParts)
    isMeasured |=
        run(name, [&, measure = measure](const fs::path& own) { measure(report, size, own); });
  if (isMeasured) report.Write(out);
  run("sweep", [&](const fs::path& own) { DrawSweep(size, own, out); });
}
