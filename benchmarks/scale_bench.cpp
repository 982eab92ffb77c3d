// Large files: many cells, many names, many versions, long tiles; and what the first operations of
// a process cost.
//   scale_bench [--quick] [--only PART] [--out FOLDER]
// Parts: first, beside, memory, sparse, names, growing, fresh, cold, pieces, length, compact,
// versions, lookup, sweep. FOLDER (build/bench) receives the table and a chart.
//
// Work of one thread is measured by the time of the processor that it takes, all else by the clock.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>

#include "Fresh.h"
#include "LineChart.h"
#include "Support.h"

namespace {

using namespace Bench;
namespace fs = std::filesystem;
using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

struct Size {
  unsigned int cells = 1 << 24, filled = 1 << 21;  // of a large grid
  unsigned int sparseCells = 1 << 28, sparseFilled = 100000;
  unsigned int gets = 2000000, names = 4000000, grown = 2000000;
  unsigned int turns = 7, longTurns = 3;
  unsigned int coldTiles = 65536, coldRows = 16;
  unsigned int rewrites = 4000;
  unsigned int compacted = 67000;  // tiles, each stored twice
  unsigned int mostCells = 100000000, mostNames = 10000000;
};
constexpr Size kQuick = {.cells = 1 << 20,
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
                         .rewrites = 400,
                         .compacted = 3000,
                         .mostCells = 1000000,
                         .mostNames = 100000};

constexpr unsigned int kSlice = 2048;  // tiles of a batch
constexpr double kMiB = 1 << 20;

const std::vector<const char*> kPlainOnes = {kEngine, kLocked, kMapped};
const std::vector<const char*> kAllOnes = {kEngine, kLocked, kMapped, kMappedLocked, kLmdb};
const std::vector<const char*> kSharedOnes = {kLocked, kMappedLocked, kLmdb};

PelmUnicodeString TilesIn(const fs::path& folder) {
  return PelmUnicodeString::FromUtf8((folder / "tiles.cf").string());
}

// "16M", "4000000"
std::string Short(unsigned int count) {
  if (count % (1 << 20) == 0) return std::to_string(count >> 20) + "Mi";
  if (count % 1000000 == 0) return std::to_string(count / 1000000) + "M";
  return count % 1000 == 0 ? std::to_string(count / 1000) + "k" : std::to_string(count);
}

// The engine's and LMDB's store of cells or names, filled in order; made if it is not there yet.
Place MakePlace(const fs::path& folder, unsigned int total, unsigned int step, bool isNamed) {
  const Place place = {folder / (Short(total) + "-" + std::to_string(step) + (isNamed ? "n" : "")),
                       total, step, isNamed};
  if (!fs::create_directories(place.folder)) return place;
  Tiles tiles({Place::kTileSize});
  if (isNamed) {
    tiles.MakeRoomForNames(total);
    for (unsigned int i = 0; i < total; ++i)
      tiles.MakeName(i);
  }
  ZrCompactFile file;
  Check(0 == (isNamed ? file.Create(TilesIn(place.folder), total, u"", 0)
                      : file.Create(TilesIn(place.folder), total / kColumns, kColumns, u"", 0)));
  file.Close();
  for (const auto& [column, access] : {std::pair{kEngine, Access::kOpen}, {kLmdb, Access::kMake}}) {
    const std::unique_ptr<Store> store = OpenerOf(column)(place.folder, tiles, access);
    const unsigned int count = total / step;
    for (unsigned int i = 0; i < count; i += kSlice)
      store->PutBatch(Batch(tiles, i * step, std::min(kSlice, count - i), step));
  }
  Settle(place.folder);
  return place;
}

Place LargeGrid(const Size& size, const fs::path& folder) {
  return MakePlace(folder, size.cells, size.cells / size.filled, false);
}

void MeasureFirstPuts(Report& report, const Size& size, const fs::path& folder) {
  const Place large = LargeGrid(size, folder);
  const Place sparse =
      MakePlace(folder, size.sparseCells, size.sparseCells / size.sparseFilled, false);
  for (const auto& [place, bound] : {std::pair{&large, 1.0}, {&sparse, 5.0}}) {
    const std::string name = "first put after open, " + Short(place->total) + " cells";
    std::vector<const char*> columns = kAllOnes;
    unsigned int number = 0;
    InTurns(size.turns, columns, [&, place = place](const char* column, unsigned int) {
      const Profile profile = ProfileOf(column, *place, 0, true, ++number);
      report.Figure(name, "ms").Add(column, profile.put * 1e3);
    });
    for (const char* column : {kEngine, kLocked, kMapped, kMappedLocked})
      report.AtMost(name, column, "", bound);
  }
}

void MeasureBeside(Report& report, const Size& size, const fs::path& folder) {
  const Place place = LargeGrid(size, folder);
  for (const unsigned int others : {100U, 10000U}) {
    const std::string name = "put after another process's " + Short(others) + " puts";
    std::vector<const char*> columns = kSharedOnes;
    InTurns(size.longTurns, columns, [&](const char* column, unsigned int) {
      report.Figure(name, "µs").Add(column, PutBesideOther(column, place, others, 5) * 1e6);
    });
    for (const char* column : {kLocked, kMappedLocked})
      report.AtMost(name, column, "", 100);
  }
}

void MeasureMemory(Report& report, const Size& size, const fs::path& folder) {
  const Place place = LargeGrid(size, folder);
  const std::string name =
      "private memory, " + Short(size.gets) + " gets in " + Short(place.total) + " cells";
  const std::string own = name + ": not of the file";
  const std::string get = "random get in " + Short(place.total) + " cells";
  std::vector<const char*> columns = kAllOnes;
  InTurns(size.longTurns, columns, [&](const char* column, unsigned int turn) {
    const Profile profile = ProfileOf(column, place, size.gets, false, turn);
    report.Figure(name, "MiB").Add(column, profile.privateMiB);
    report.Figure(own, "MiB").Add(column, profile.ownMiB);
    report.Figure(get, "µs").Add(column, profile.get * 1e6);
  });
  // So many random gets leave none of the pages out.
  const double pages = size.cells * 8.0 / kMiB;
  for (const char* column : {kEngine, kLocked})
    report.AtMost(name, column, "", pages + 4);
  for (const char* column : {kMapped, kMappedLocked})
    report.AtMost(own, column, "", 8);
}

void MeasureSparseBatches(Report& report, const Size& size, const fs::path& folder) {
  const Tiles tiles({Place::kTileSize});
  for (const auto& [step, bound] : {std::pair{1U, 0.0}, {8U, 0.8}, {64U, 1.2}}) {
    const std::string name =
        step == 1 ? "batch put, dense" : "batch put, every " + std::to_string(step) + "th cell";
    const unsigned int rounds = size.turns * 2;
    std::vector<Contender> contenders;
    for (const char* column : kAllOnes) {
      const Place place = {folder / (std::to_string(step) + column), kSlice * step * rounds, step,
                           false};
      fs::create_directories(place.folder);
      ZrCompactFile file;
      Check(file.Create(TilesIn(place.folder), place.total / kColumns, kColumns, u"", 0) == 0);
      file.Close();
      contenders.push_back(
          {column, place.folder, nullptr, false,
           OpenerOf(column)(place.folder, tiles, column == kLmdb ? Access::kMake : Access::kOpen)});
    }
    InTurns(rounds, contenders, [&, step = step](Contender& contender, unsigned int round) {
      const Batch batch(tiles, round * kSlice * step, kSlice, step);
      const double seconds = CpuSeconds([&] { contender.store->PutBatch(batch); });
      report.Figure(name, "µs").Add(contender.column, seconds / kSlice * 1e6);
      const std::unique_ptr<Reader> reader = contender.store->NewReader();
      for (unsigned int i = 0; i < kSlice; ++i)
        Check(MarkAt(reader->Get(batch.TileAt(i)).data()).tile == batch.TileAt(i));
    });
    if (step == 1) continue;
    for (const char* column : kPlainOnes)
      report.AtMost(name, column, "", bound);
  }
}

void MeasureNames(Report& report, const Size& size, const fs::path& folder) {
  const Place place = MakePlace(folder, size.names, 1, true);
  const std::string open = "open " + Short(place.total) + " names";
  const std::string opened = "private memory, " + Short(place.total) + " names opened";
  const std::string got = "private memory, 200k gets in " + Short(place.total) + " names";
  const std::string own = got + ": not of the file";
  std::vector<const char*> columns = kAllOnes;
  InTurns(size.longTurns, columns, [&](const char* column, unsigned int turn) {
    const Profile profile = ProfileOf(column, place, 200000, false, turn);
    const double bytes = kMiB / place.total;
    report.Figure(open, "ms").Add(column, profile.open * 1e3);
    report.Figure(opened, "bytes a name").Add(column, profile.openedMiB * bytes);
    report.Figure(got, "bytes a name").Add(column, profile.privateMiB * bytes);
    report.Figure(own, "bytes a name").Add(column, profile.ownMiB * bytes);
    report.Figure("random get in " + Short(place.total) + " names", "µs")
        .Add(column, profile.get * 1e6);
  });
  for (const char* column : kPlainOnes) {
    report.AtMost(open, column, "", 100);
    report.AtMost(opened, column, "", 12);
    report.AtMost(own, column, "", 12);
  }
}

void MeasureGrowth(Report& report, const Size& size, const fs::path& folder) {
  const std::string longest = "longest put of " + Short(size.grown) + " new names";
  std::vector<const char*> columns = {kEngine, kLocked, kMapped, kLmdb};
  InTurns(size.longTurns, columns, [&](const char* column, unsigned int) {
    const Place place = {folder / "growing", size.grown, 1, true};
    fs::remove_all(place.folder);
    fs::create_directories(place.folder);
    Settle(folder);
    const Growth growth = GrowthOf(column, place);
    report.Figure(longest, "ms").Add(column, growth.longest * 1e3);
    report.Figure("put of a new name, on average", "µs").Add(column, growth.mean * 1e6);
  });
  for (const char* column : kPlainOnes)
    report.AtMost(longest, column, "", 20);
}

void MeasureFreshOpening(Report& report, const Size& size, const fs::path& folder) {
  const Place place = MakePlace(folder, 65536, 1, false);
  const std::string name = "open in a fresh process, 65,536 cells";
  std::vector<const char*> columns = {kEngine, kLocked, kMapped, kMappedLocked, kLight, kLmdb};
  InTurns(size.turns * 3, columns, [&](const char* column, unsigned int turn) {
    report.Figure(name, "µs").Add(column, ProfileOf(column, place, 0, false, turn).open * 1e6);
  });
  for (const char* column : {kEngine, kLocked, kLight})
    report.AtMost(name, column, "", 125);
}

struct Part {
  const char* name;
  void (*measure)(Report& report, const Size& size, const fs::path& folder);
};
constexpr Part kParts[] = {{"first", MeasureFirstPuts},   {"beside", MeasureBeside},
                           {"memory", MeasureMemory},     {"sparse", MeasureSparseBatches},
                           {"names", MeasureNames},       {"growing", MeasureGrowth},
                           {"fresh", MeasureFreshOpening}};

}  // namespace

int main(int argc, char** argv) {
  if (RunFresh(argc, argv)) return 0;
  const bool isQuick = std::count(argv, argv + argc, std::string("--quick")) != 0;
  const Size size = isQuick ? kQuick : Size();
  const std::string only = FindOption(argc, argv, "--only", "");
  const fs::path out = FindOption(argc, argv, "--out", "build/bench");
  const WorkFolder folder("hxcf-scale");
  Report report("scale", {kLimit, kEngine, kLocked, kMapped, kMappedLocked, kLight, kLmdb});
  for (const auto& [name, measure] : kParts) {
    if (!only.empty() && only != name) continue;
    std::fprintf(stderr, "measuring %s ...\n", name);
    measure(report, size, folder.GetPath());
  }
  report.Write(out);
}
