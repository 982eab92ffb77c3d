// What the first operations of a process cost in large files, and the memory that it needs.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "LineChart.h"
#include "ScaleRows.h"
#include "Support.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;
using Zarn::ZrCompactFile;

constexpr double kMiB = 1 << 20;

// "16Mi", "4M", "100k"
std::string Short(unsigned int count) {
  if (count < 1000) return std::to_string(count);
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
  // Some names more fit, or whoever puts the first of them pays for a larger index.
  Check(0 == (isNamed ? file.Create(TilesIn(place.folder), total + 100ULL, u"", 0)
                      : file.Create(TilesIn(place.folder), (total + kColumns - 1) / kColumns,
                                    kColumns, u"", 0)));
  file.Close();
  for (const auto& [column, access] : {std::pair{kEngine, Access::kOpen}, {kLmdb, Access::kMake}}) {
    const std::unique_ptr<Store> store = OpenerOf(column)(place.folder, tiles, access);
    const unsigned int count = total / step;
    for (unsigned int i = 0; i < count; i += kBatchTiles)
      store->PutBatch(Batch(tiles, i * step, std::min(kBatchTiles, count - i), step));
  }
  Settle(place.folder);
  return place;
}

// Of all parts that need it, beside their folders.
Place LargeGrid(const LargeScale& size, const fs::path& folder) {
  return MakePlace(folder.parent_path(), size.cells, size.cells / size.filled, false);
}

// What a search for the end of the data cannot do without: to read the index, but for its holes. In
// milliseconds.
double ReadIndexBare(const Place& place) {
  constexpr std::size_t kBlock = 64 << 10;
  const std::unique_ptr<char[]> block(new char[kBlock]);
  const int file = ::open((place.folder / "tiles.cf").c_str(), O_RDONLY | O_CLOEXEC);
  const off_t end = 76 + static_cast<off_t>(place.total) * 8;
  const double seconds = CpuSeconds([&] {
    for (off_t at = 76; at < end; at += kBlock) {
      at = std::max(at, ::lseek(file, at, SEEK_DATA));
      Check(::pread(file, block.get(), kBlock, at) > 0);
    }
  });
  Check(file >= 0 && ::close(file) == 0);
  return seconds * 1e3;
}

}  // namespace

void MeasureFirstPuts(Report& report, const LargeScale& size, const fs::path& folder) {
  const Place large = LargeGrid(size, folder);
  const Place sparse =
      MakePlace(folder, size.sparseCells, size.sparseCells / size.sparseFilled, false);
  for (const auto& [place, bound] : {std::pair{&large, 1.0}, {&sparse, 5.0}}) {
    const std::string name = "first put after open, " + Short(place->total) + " cells";
    std::vector<const char*> columns = kModesAndLmdb;
    columns.push_back(kLimit);
    unsigned int number = 0;
    InTurns(size.turns, columns, [&, place = place](const char* column, unsigned int) {
      if (column == kLimit) return report.Figure(name, "ms").Add(column, ReadIndexBare(*place));
      const Profile profile = ProfileOf(column, *place, 0, true, ++number);
      report.Figure(name, "ms").Add(column, profile.put * 1e3);
    });
    for (const char* column : {kEngine, kLocked, kMapped, kMappedLocked})
      report.AtMost(name, column, "", bound);
  }
}

void MeasureBeside(Report& report, const LargeScale& size, const fs::path& folder) {
  const Place place = LargeGrid(size, folder);
  for (const unsigned int others : {0U, 100U, 10000U}) {
    const std::string name = "put after another process's " + Short(others) + " puts";
    std::vector<const char*> columns = {kLocked, kMappedLocked, kLmdb};
    InTurns(size.longTurns, columns, [&](const char* column, unsigned int) {
      report.Figure(name, "µs").Add(column, PutBesideOther(column, place, others, 5) * 1e6);
    });
    if (others == 0) continue;  // what only the change of process costs
    for (const char* column : {kLocked, kMappedLocked})
      report.AtMost(name, column, "", 100);
  }
}

void MeasureMemory(Report& report, const LargeScale& size, const fs::path& folder) {
  const Place place = LargeGrid(size, folder);
  const std::string name =
      "private memory, " + Short(size.gets) + " gets in " + Short(place.total) + " cells";
  const std::string own = name + ": not of the file";
  const std::string get = "random get in " + Short(place.total) + " cells";
  std::vector<const char*> columns = kModesAndLmdb;
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

void MeasureSparseBatches(Report& report, const LargeScale& size, const fs::path& folder) {
  const Tiles tiles({Place::kTileSize});
  for (const auto& [step, bound] : {std::pair{1U, 0.0}, {8U, 0.8}, {64U, 1.2}}) {
    const std::string name =
        step == 1 ? "batch put, dense" : "batch put, every " + std::to_string(step) + "th cell";
    const unsigned int rounds = size.turns * 2;
    std::vector<Contender> contenders;
    for (const char* column : kModesAndLmdb) {
      const Place place = {folder / (std::to_string(step) + column), kBatchTiles * step * rounds,
                           step, false};
      fs::create_directories(place.folder);
      ZrCompactFile file;
      Check(file.Create(TilesIn(place.folder), place.total / kColumns, kColumns, u"", 0) == 0);
      file.Close();
      contenders.push_back(
          {column, place.folder, nullptr, false,
           OpenerOf(column)(place.folder, tiles, column == kLmdb ? Access::kMake : Access::kOpen)});
    }
    InTurns(rounds, contenders, [&, step = step](Contender& contender, unsigned int round) {
      const Batch batch(tiles, round * kBatchTiles * step, kBatchTiles, step);
      const double seconds = CpuSeconds([&] { contender.store->PutBatch(batch); });
      report.Figure(name, "µs").Add(contender.column, seconds / kBatchTiles * 1e6);
      const std::unique_ptr<Reader> reader = contender.store->NewReader();
      for (unsigned int i = 0; i < kBatchTiles; ++i)
        Check(MarkAt(reader->Get(batch.TileAt(i)).data()).tile == batch.TileAt(i));
    });
    if (step == 1) continue;
    for (const char* column : kThreeModes)
      report.AtMost(name, column, "", bound);
  }
}

void MeasureNames(Report& report, const LargeScale& size, const fs::path& folder) {
  const Place place = MakePlace(folder, size.names, 1, true);
  const std::string open = "open " + Short(place.total) + " names";
  const std::string opened = "private memory, " + Short(place.total) + " names opened";
  const std::string got = "private memory, 200k gets in " + Short(place.total) + " names";
  const std::string own = got + ": not of the file";
  std::vector<const char*> columns = kModesAndLmdb;
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
  for (const char* column : kThreeModes) {
    report.AtMost(open, column, "", 100);
    report.AtMost(opened, column, "", 12);
    report.AtMost(own, column, "", 12);
  }
}

void MeasureGrowth(Report& report, const LargeScale& size, const fs::path& folder) {
  const std::string longest = "longest put of " + Short(size.grown) + " new names";
  std::vector<const char*> columns = {kEngine, kLocked, kLmdb};
  InTurns(size.longTurns, columns, [&](const char* column, unsigned int) {
    const Place place = {folder / "growing", size.grown, 1, true};
    fs::remove_all(place.folder);
    fs::create_directories(place.folder);
    Settle(folder);
    const Growth growth = GrowthOf(column, place);
    report.Figure(longest, "ms").Add(column, growth.longest * 1e3);
    report.Figure("put of a new name, on average", "µs").Add(column, growth.mean * 1e6);
  });
  for (const char* column : {kEngine, kLocked})
    report.AtMost(longest, column, "", 20);
}

void MeasureFreshOpening(Report& report, const LargeScale& size, const fs::path& folder) {
  const Place place = MakePlace(folder, 65536, 1, false);
  const std::string name = "open in a fresh process, 65,536 cells";
  std::vector<const char*> columns = {kEngine, kLocked, kMapped, kMappedLocked, kLight, kLmdb};
  InTurns(size.turns * 3, columns, [&](const char* column, unsigned int turn) {
    report.Figure(name, "µs").Add(column, ProfileOf(column, place, 0, false, turn).open * 1e6);
  });
  for (const char* column : {kEngine, kLocked, kLight})
    report.AtMost(name, column, "", 125);
}

void DrawSweep(const LargeScale& size, const fs::path& folder, const fs::path& out) {
  std::vector<Panel> panels;
  for (const bool isNamed : {false, true}) {
    const std::string of = isNamed ? " : names" : " : cells";
    std::vector<Panel> line = {{"open, µs" + of, {}},
                               {"first put, µs" + of, {}},
                               {"get, µs" + of, {}},
                               {"own memory, MiB" + of, {}}};
    for (Panel& panel : line)
      for (const char* column : kModesAndLmdb)
        panel.curves.push_back({column, {}});
    for (unsigned int total = 10000; total <= (isNamed ? size.mostNames : size.mostCells);
         total *= 10) {
      const unsigned int step = isNamed ? 1 : std::max(8U, total / size.filled);
      const Place place = MakePlace(folder, total, step, isNamed);
      for (std::size_t i = 0; i < kModesAndLmdb.size(); ++i) {
        std::vector<double> samples[4];
        for (unsigned int turn = 0; turn < size.longTurns; ++turn) {
          const Profile gets = ProfileOf(kModesAndLmdb[i], place, 100000, false, turn);
          const auto number = static_cast<unsigned int>(turn * kModesAndLmdb.size() + i);
          const Profile put = ProfileOf(kModesAndLmdb[i], place, 0, true, number);
          const double values[4] = {gets.open * 1e6, put.put * 1e6, gets.get * 1e6, gets.ownMiB};
          for (std::size_t k = 0; k < 4; ++k)
            samples[k].push_back(std::max(values[k], 0.001));
        }
        for (std::size_t k = 0; k < 4; ++k) {
          std::sort(samples[k].begin(), samples[k].end());
          line[k].curves[i].points.emplace_back(total, samples[k][samples[k].size() / 2]);
        }
      }
      fs::remove_all(place.folder);
    }
    panels.insert(panels.end(), line.begin(), line.end());
  }
  fs::create_directories(out);
  std::ofstream file(out / "sweep.svg");
  file << DrawPanels("cost by the number of cells and of names; less is better", panels, 4);
  file.close();
  Check(!file.fail());
}

}  // namespace Bench
