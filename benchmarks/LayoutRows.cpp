// What depends on where the bytes of tiles lie in a file, and on how many of them are dead.

#include <fcntl.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "ScaleRows.h"
#include "Support.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;
using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

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

// What a copy by LMDB leaves out is what its file does not use.
void CompactLmdb(const fs::path& from, const fs::path& to) {
  MDB_env* environment = nullptr;
  Check(mdb_env_create(&environment) == 0 &&
        mdb_env_open(environment, from.c_str(), MDB_NOSUBDIR | MDB_RDONLY, 0600) == 0 &&
        mdb_env_copy2(environment, to.c_str(), MDB_CP_COMPACT) == 0);
  mdb_env_close(environment);
}

// By the program, as a user would; it may share blocks or copy within the kernel.
void Copy(const fs::path& from, const fs::path& to) {
  Check(std::system(("cp '" + from.string() + "' '" + to.string() + "'").c_str()) == 0);
  const int file = ::open(to.c_str(), O_RDWR | O_CLOEXEC);
  Check(file >= 0 && ::fsync(file) == 0 && ::close(file) == 0);
}

}  // namespace

void MeasureCold(Report& report, const LargeScale& size, const fs::path& folder) {
  const std::string name = "get of a row's tiles from the disk";
  const Tiles tiles = MapTiles(size.coldTiles);
  for (const char* column : {kEngine, kLmdb}) {
    const std::unique_ptr<Store> store = OpenerOf(column)(folder, tiles, Access::kMake);
    for (unsigned int i = 0; i < tiles.Count(); i += kBatchTiles)
      store->PutBatch(Batch(tiles, i, kBatchTiles));
  }
  Settle(folder);
  std::vector<unsigned int> rows = Shuffled(tiles.Rows());
  rows.resize(size.coldRows);
  std::vector<const char*> columns = kModesAndLmdb;
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

void MeasurePieces(Report& report, const LargeScale& size, const fs::path& folder) {
  constexpr std::size_t kPiece = 64 << 10;
  const std::size_t whole = size.pieces * kPiece;
  const std::string inOrder = std::to_string(whole >> 20) + " MiB in 64 KiB pieces, in order";
  std::vector<const char*> columns = kThreeModes;
  InTurns(size.longTurns, columns, [&](const char* column, unsigned int turn) {
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
  for (const char* column : kThreeModes)
    for (const char* how : {"shuffled : in order", "backwards : in order"})
      report.AtMost(how, column, "", 3);
}

// Live is what lookups can still find: of a stamp that is stored again and again the last payload,
// of different stamps all. For LMDB, every version is an entry of its own.
void MeasureLength(Report& report, const LargeScale& size, const fs::path& folder) {
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
        live[version] = 2 * sizeof(Mark) + random() % tiles.sizes[0];
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

// Each tile was replaced by a larger one, in an order of its own: half of the file is dead.
void MeasureCompaction(Report& report, const LargeScale& size, const fs::path& folder) {
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
    const double seconds = Seconds(compact);
    report.Speed(name).Add(kEngine, seconds);
    file.Close();
    const std::unique_ptr<Store> store = OpenerOf(kEngine)(folder, tiles, Access::kOpen);
    const std::unique_ptr<Reader> reader = store->NewReader();
    for (unsigned int tile = 0; tile < tiles.Count(); ++tile) {
      const Bytes bytes = reader->Get(tile);
      Check(bytes.size() == tiles.sizes[tile] + 1 && MarkAt(bytes.data()).tile == tile);
    }
    fs::remove(folder / "copy");
    Settle(folder);
    const double once = Seconds([&] { Copy(work, folder / "copy"); });
    report.Speed(name).Add(kLimit, once);
    // The file keeps its place: the result is written beside it, and then over it.
    Row& twice = report.Speed(name + ": two copies");
    twice.Add(kEngine, seconds);
    twice.Add(kLimit, once + Seconds([&] { Copy(folder / "copy", work); }));
  }
  report.AtLeast(name, kEngine, kLimit, 0.5);
}

void MeasureOlderVersions(Report& report, const LargeScale& size, const fs::path& folder) {
  MeasureVersions(report, {.passes = size.turns}, folder);
  report.AtLeast("get of an older version", kEngine, kLimit, 0.7);
}

}  // namespace Bench
