// Large files: many cells, many names, many versions, long tiles; and what the first operations of
// a process cost.
//   scale_bench [--quick] [--only PART] [--out FOLDER]
// Parts: first, beside, memory, sparse, names, growing, fresh, cold, pieces, length, compact,
// versions, lookup, sweep. FOLDER (build/bench) receives the tables, and of sweep a chart.
//
// Work of one thread is measured by the time of the processor that it takes, all else by the clock.

#include <fcntl.h>
#include <linux/perf_event.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>

#include "Fresh.h"
#include "LineChart.h"
#include "NameHash.h"
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
  unsigned int pieces = 160;
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
                         .pieces = 32,
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
                      : file.Create(TilesIn(place.folder), (total + kColumns - 1) / kColumns,
                                    kColumns, u"", 0)));
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

// Of all parts that need it, beside their folders.
Place LargeGrid(const Size& size, const fs::path& folder) {
  return MakePlace(folder.parent_path(), size.cells, size.cells / size.filled, false);
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

// Nothing of it is in memory afterwards; the system may need some attempts.
void Evict(const fs::path& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  const std::size_t size = fs::file_size(path);
  void* const map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
  Check(file >= 0 && map != MAP_FAILED && ::fsync(file) == 0);
  std::vector<unsigned char> pages((size + 4095) / 4096);
  std::ptrdiff_t cached = 1;
  for (int i = 0; cached != 0 && i < 10; ++i) {
    Check(::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED) == 0 &&
          ::mincore(map, size, pages.data()) == 0);
    cached = std::count_if(pages.begin(), pages.end(), [](unsigned char c) { return c & 1; });
  }
  Check(cached == 0 && ::munmap(map, size) == 0 && ::close(file) == 0);
}

void MeasureCold(Report& report, const Size& size, const fs::path& folder) {
  const std::string name = "get of a row's tiles from the disk";
  const Tiles tiles = MapTiles(size.coldTiles);
  for (const char* column : {kEngine, kLmdb}) {
    const std::unique_ptr<Store> store = OpenerOf(column)(folder, tiles, Access::kMake);
    for (unsigned int i = 0; i < tiles.Count(); i += kSlice)
      store->PutBatch(Batch(tiles, i, kSlice));
  }
  Settle(folder);
  std::vector<unsigned int> rows = Shuffled(tiles.Rows());
  rows.resize(size.coldRows);
  std::vector<const char*> columns = kAllOnes;
  InTurns(size.turns, columns, [&](const char* column, unsigned int) {
    Evict(folder / (column == kLmdb ? "lmdb" : "tiles.cf"));
    const std::unique_ptr<Store> store = OpenerOf(column)(folder, tiles, Access::kOpen);
    const std::unique_ptr<Reader> reader = store->NewReader();
    const double seconds = Seconds([&] {
      for (const unsigned int row : rows)
        for (unsigned int tile = row * kColumns; tile < (row + 1) * kColumns; ++tile) {
          const Bytes bytes = reader->Get(tile);
          Check(bytes.size() == tiles.sizes[tile] && MarkAt(bytes.data()).tile == tile);
        }
    });
    report.Figure(name, "µs").Add(column, seconds / size.coldRows / kColumns * 1e6);
  });
  report.AtMost(name, kMapped, kEngine, 1.2);
  report.AtMost(name, kMappedLocked, kLocked, 1.2);
}

void MeasurePieces(Report& report, const Size& size, const fs::path& folder) {
  constexpr std::size_t kPiece = 64 << 10;
  const std::size_t whole = size.pieces * kPiece;
  const std::string inOrder = std::to_string(whole >> 20) + " MiB in 64 KiB pieces, in order";
  std::vector<const char*> columns = kPlainOnes;
  InTurns(size.turns, columns, [&](const char* column, unsigned int turn) {
    std::vector<unsigned int> order(size.pieces);
    std::iota(order.begin(), order.end(), 0U);
    double reference = 0;
    for (const char* how : {"in order", "shuffled", "backwards"}) {
      if (how == std::string("shuffled"))
        std::shuffle(order.begin(), order.end(), std::mt19937(turn));
      if (how == std::string("backwards")) std::sort(order.rbegin(), order.rend());
      ZrCompactFile file;
      Check(file.Create(TilesIn(folder), 1, 1, u"", ModeOf(column) | ZrCompactFile::kReplace) == 0);
      const double seconds = CpuSeconds([&] {
        for (const unsigned int piece : order) {
          const std::vector<unsigned char> bytes(kPiece, static_cast<unsigned char>(piece));
          const ZrByteArray data(bytes.data(), bytes.size());
          Check(file.SetAt(0, 0, data, whole, piece * kPiece, 1) == 0);
        }
      });
      ZrByteArray tile;
      unsigned long long filled = 0;
      Check(file.Lookup(0, 0, tile, filled, 1) == 0 && tile.GetSize() == whole);
      for (std::size_t i = 0; i < whole; ++i)
        Check(tile.GetData()[i] == static_cast<unsigned char>(i / kPiece));
      if (reference == 0) {
        reference = seconds;
        report.Figure(inOrder, "ms").Add(column, seconds * 1e3);
      } else {
        report.Figure(std::string(how) + " : in order", "times").Add(column, seconds / reference);
      }
      file.Close();
      Settle(folder);
    }
  });
  for (const char* column : kPlainOnes)
    for (const char* how : {"shuffled : in order", "backwards : in order"})
      report.AtMost(how, column, "", 3);
}

// What a copy by LMDB leaves out is what its file does not use.
void CompactLmdb(const fs::path& from, const fs::path& to) {
  MDB_env* environment = nullptr;
  Check(mdb_env_create(&environment) == 0 &&
        mdb_env_open(environment, from.c_str(), MDB_NOSUBDIR | MDB_RDONLY, 0600) == 0 &&
        mdb_env_copy2(environment, to.c_str(), MDB_CP_COMPACT) == 0);
  mdb_env_close(environment);
}

// Live is what lookups can still find: of a stamp that is stored again and again the last payload,
// of different stamps all. For LMDB, every version is an entry of its own.
void MeasureLength(Report& report, const Size& size, const fs::path& folder) {
  const Tiles tiles({2 * 8192});
  for (const bool isVersions : {false, true})
    for (const unsigned int count : {1U, 100U}) {
      const std::string name =
          std::to_string(size.rewrites) + (isVersions ? " versions of " : " rewrites of ") +
          (count == 1 ? "a tile" : std::to_string(count) + " tiles") + ", file : live payload";
      const fs::path place = folder / name;
      fs::create_directories(place);
      ZrCompactFile file;
      Check(file.Create(TilesIn(place), 1, count, u"", 4) == 0);
      std::unique_ptr<Store> lmdb = OpenLmdb(place, tiles, Access::kMake);
      Payload payload(tiles);
      std::mt19937 random(1);
      std::vector<std::size_t> live(isVersions ? size.rewrites : count);
      for (unsigned int i = 0; i < size.rewrites; ++i) {
        const auto version = static_cast<unsigned int>(i % live.size());
        live[version] = sizeof(Mark) + random() % tiles.sizes[0];
        const ZrByteArray& data = payload.Next(version, live[version]);
        Check(file.SetAt(0, i % count, data, 0, 0, isVersions ? i : 1) == 0);
        lmdb->Put(version, data);
      }
      file.Close();
      lmdb.reset();
      const double bytes = std::accumulate(live.begin(), live.end(), 0.0);
      const auto add = [&](const std::string& what, const char* column, const char* path) {
        report.Figure(what, "").Add(column,
                                    static_cast<double>(fs::file_size(place / path)) / bytes);
      };
      add(name, kEngine, "tiles.cf");
      add(name, kLmdb, "lmdb");
      Check(file.Open(TilesIn(place), u"", 4) == 0 && file.Compact() == 0);
      ZrByteArray data;
      for (unsigned int i = 0; i < live.size(); ++i) {
        unsigned long long filled = 0;
        Check(file.Lookup(0, i % count, data, filled, isVersions ? i : 1) == 0 &&
              data.GetSize() == live[i] && MarkAt(data.GetData()).tile == i);
      }
      file.Close();
      CompactLmdb(place / "lmdb", place / "compacted");
      add(name + ", compacted", kEngine, "tiles.cf");
      add(name + ", compacted", kLmdb, "compacted");
      report.AtMost(name + ", compacted", kEngine, "", 1.1);
    }
}

// By the program, as a user would; it may share blocks or copy within the kernel.
void Copy(const fs::path& from, const fs::path& to) {
  Check(std::system(("cp '" + from.string() + "' '" + to.string() + "'").c_str()) == 0);
  const int file = ::open(to.c_str(), O_RDWR | O_CLOEXEC);
  Check(file >= 0 && ::fsync(file) == 0 && ::close(file) == 0);
}

// Each tile was replaced by a larger one, in an order of its own: half of the file is dead.
void MeasureCompaction(Report& report, const Size& size, const fs::path& folder) {
  const std::string name = "Compact of a half dead file";
  const Tiles tiles = MapTiles(size.compacted);
  const fs::path work = folder / "tiles.cf";
  {
    const std::unique_ptr<Store> store = OpenerOf(kEngine)(folder, tiles, Access::kMake);
    Payload payload(tiles);
    for (const unsigned int more : {0U, 1U})
      for (const unsigned int tile : Shuffled(tiles.Count(), more))
        store->Put(tile, payload.Next(tile, tiles.sizes[tile] + more));
  }
  Copy(work, folder / "before");
  for (unsigned int turn = 0; turn < size.longTurns; ++turn) {
    Copy(folder / "before", work);
    Settle(folder);
    ZrCompactFile file;
    const auto compact = [&] {
      Check(file.Open(TilesIn(folder), u"", 12) == 0 && file.Compact() == 0);
    };
    report.Speed(name).Add(kEngine, Seconds(compact));
    file.Close();
    const std::unique_ptr<Store> store = OpenerOf(kEngine)(folder, tiles, Access::kOpen);
    const std::unique_ptr<Reader> reader = store->NewReader();
    for (unsigned int tile = 0; tile < tiles.Count(); ++tile) {
      const Bytes bytes = reader->Get(tile);
      Check(bytes.size() == tiles.sizes[tile] + 1 && MarkAt(bytes.data()).tile == tile);
    }
    fs::remove(folder / "copy");
    Settle(folder);
    report.Speed(name).Add(kLimit, Seconds([&] { Copy(work, folder / "copy"); }));
  }
  report.AtLeast(name, kEngine, kLimit, 0.5);
}

void MeasureOlderVersions(Report& report, const Size& size, const fs::path& folder) {
  MeasureVersions(report, {.passes = size.turns}, folder);
  report.AtLeast("get of an older version", kEngine, kLimit, 0.7);
}

/// Counts the instructions of this thread outside the kernel, or where that is not permitted, its
/// nanoseconds.
class Meter {
 public:
  Meter() {
    perf_event_attr attributes = {};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_HARDWARE;
    attributes.config = PERF_COUNT_HW_INSTRUCTIONS;
    attributes.exclude_kernel = 1;
    attributes.exclude_hv = 1;
    m_file = static_cast<int>(
        ::syscall(SYS_perf_event_open, &attributes, 0, -1, -1, PERF_FLAG_FD_CLOEXEC));
  }
  ~Meter() {
    if (m_file >= 0) ::close(m_file);
  }
  Meter(const Meter&) = delete;
  Meter& operator=(const Meter&) = delete;

  const char* GetUnit() const { return m_file >= 0 ? "instructions" : "ns"; }

  template <typename Action>
  double Measure(Action action) const {
    if (m_file < 0) return CpuSeconds(action) * 1e9;
    const double start = Count();
    action();
    return Count() - start;
  }

 private:
  double Count() const {
    std::uint64_t count = 0;
    Check(::read(m_file, &count, sizeof count) == ssize_t{sizeof count});
    return static_cast<double>(count);
  }

  int m_file;
};

// The mapped engine and LMDB, and what of it the name costs: its hash, and making it from UTF-8,
// which the caller does if it has no other.
void MeasureNameCost(Report& report, const Size& size, const fs::path& folder) {
  Tiles tiles(std::vector<std::size_t>(65536, Place::kTileSize));
  tiles.MakeNames();
  const Meter meter;
  const std::vector<unsigned int> order = Shuffled(tiles.Count());
  const auto add = [&](const char* what, const char* column, auto each) {
    const double all = meter.Measure([&] { std::for_each(order.begin(), order.end(), each); });
    report.Figure(what, meter.GetUnit()).Add(column, all / tiles.Count());
    return all;
  };
  for (const char* column : {kMapped, kLmdb}) {
    const std::unique_ptr<Store> store = OpenerOf(column)(folder, tiles, Access::kMake);
    for (unsigned int i = 0; i < tiles.Count(); i += kSlice)
      store->PutBatch(Batch(tiles, i, kSlice));
    const std::unique_ptr<Reader> reader = store->NewReader();
    for (unsigned int turn = 0; turn <= size.turns; ++turn) {
      for (const unsigned int tile : order)
        Check(MarkAt(reader->Get(tile).data()).tile == tile);
      const double all = add("named get", column, [&](unsigned int tile) { reader->Get(tile); });
      if (column == kLmdb) continue;
      std::uint64_t sum = 0;
      const double hashing = add("hashing the name", column, [&](unsigned int tile) {
        sum += Zarn::Format::HashUnits(tiles.names[tile].GetUnits());
      });
      Check(sum != 0);
      const double making = add("making the name from UTF-8", column, [&](unsigned int tile) {
        Check(PelmUnicodeString::FromUtf8(tiles.utf8Names[tile]) == tiles.names[tile]);
      });
      report.Figure("share of hashing in a named get", "%").Add(column, 100 * hashing / all);
      report.Figure("share of both, if the caller makes the name", "%")
          .Add(column, 100 * (hashing + making) / (all + making));
    }
  }
}

// How the cost of a file's first operations depends on its size; the median of some processes.
void DrawSweep(const Size& size, const fs::path& folder, const fs::path& out) {
  std::vector<Panel> panels;
  for (const bool isNamed : {false, true}) {
    const std::string of = isNamed ? " : names" : " : cells";
    std::vector<Panel> line = {{"open, µs" + of, {}},
                               {"first put, µs" + of, {}},
                               {"get, µs" + of, {}},
                               {"own memory, MiB" + of, {}}};
    for (Panel& panel : line)
      for (const char* column : kAllOnes)
        panel.curves.push_back({column, {}});
    for (unsigned int total = 10000; total <= (isNamed ? size.mostNames : size.mostCells);
         total *= 10) {
      const unsigned int step = isNamed ? 1 : std::max(8U, total / size.filled);
      const Place place = MakePlace(folder, total, step, isNamed);
      for (std::size_t i = 0; i < kAllOnes.size(); ++i) {
        std::vector<double> samples[4];
        for (unsigned int turn = 0; turn < size.longTurns; ++turn) {
          const Profile gets = ProfileOf(kAllOnes[i], place, 100000, false, turn);
          const auto number = static_cast<unsigned int>(turn * kAllOnes.size() + i);
          const Profile put = ProfileOf(kAllOnes[i], place, 0, true, number);
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

struct Part {
  const char* name;
  void (*measure)(Report& report, const Size& size, const fs::path& folder);
};
constexpr Part kParts[] = {{"first", MeasureFirstPuts},    {"beside", MeasureBeside},
                           {"memory", MeasureMemory},      {"sparse", MeasureSparseBatches},
                           {"names", MeasureNames},        {"growing", MeasureGrowth},
                           {"fresh", MeasureFreshOpening}, {"cold", MeasureCold},
                           {"pieces", MeasurePieces},      {"length", MeasureLength},
                           {"compact", MeasureCompaction}, {"versions", MeasureOlderVersions},
                           {"lookup", MeasureNameCost}};

}  // namespace

int main(int argc, char** argv) {
  if (RunFresh(argc, argv)) return 0;
  const bool isQuick = std::count(argv, argv + argc, std::string("--quick")) != 0;
  const Size size = isQuick ? kQuick : Size();
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
