// Opening a store and looking up one tile, and closing it again.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Rows.h"
#include "Support.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;
using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

constexpr unsigned int kGridTiles = 1000;
constexpr std::uint64_t kPositionMask = 0x00FFFFFFFFFFFFFF;

struct Opening {
  std::string column;
  std::function<void()> run;
};

// `times` of it in a sample, so that one is long enough.
void MeasureOpening(Row& row, std::vector<Opening> openings, unsigned int repetitions,
                    unsigned int times, double unit) {
  InTurns(repetitions, openings, [&](const Opening& opening, unsigned int) {
    const double seconds = CpuSeconds([&] {
      for (unsigned int i = 0; i < times; ++i)
        opening.run();
    });
    row.Add(opening.column, seconds / times / unit);
  });
}

std::function<void()> OpenAndGet(const Opener& opener, const fs::path& folder, const Tiles& tiles,
                                 unsigned int tile) {
  return [=, &tiles] { opener(folder, tiles, Access::kOpen)->NewReader()->Get(tile); };
}

// What a program does that keeps nothing of a file: its headers, an entry, and the record.
void OpenBare(const fs::path& path, std::size_t recordSize) {
  struct stat status = {};
  std::uint64_t entry = 0;
  std::vector<char> bytes(std::max<std::size_t>(recordSize, 76));
  const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  Check(file >= 0 && ::fstat(file, &status) == 0 && ::pread(file, bytes.data(), 64, 0) == 64 &&
        ::pread(file, bytes.data(), 12, 64) == 12 && ::pread(file, &entry, 8, 76) == 8 &&
        ::pread(file, bytes.data(), recordSize, static_cast<off_t>(entry & kPositionMask)) ==
            static_cast<ssize_t>(recordSize) &&
        ::close(file) == 0);
}

// The same with the whole index, without which no name can be found.
void OpenBareNames(const fs::path& path, std::size_t names) {
  const std::size_t size = names * 16;
  const std::unique_ptr<char[]> index(new char[size]);
  const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  Check(file >= 0 && ::pread(file, index.get(), 64, 0) == 64 &&
        ::pread(file, index.get(), 36, 64) == 36 &&
        ::pread(file, index.get(), size, 100) == static_cast<ssize_t>(size) && ::close(file) == 0);
}

// A grid of that many rows and columns, in which 1,000 tiles are strewn.
void MakeGrid(const fs::path& path, unsigned int side, std::size_t size) {
  const std::vector<char> bytes(size);
  const ZrByteArray data(bytes.data(), bytes.size());
  ZrCompactFile file;
  Check(file.Create(PelmUnicodeString::FromUtf8(path.string()), side, side, u"", 0) == 0);
  for (unsigned int i = 0; i < kGridTiles; ++i)
    Check(file.SetAt(i * 7919 % side, i * 104729 % side, data, 0, 0, i) == 0);
}

void PutAll(Store& store, const Tiles& tiles, unsigned int slice) {
  for (unsigned int first = 0; first < tiles.Count(); first += slice)
    store.PutBatch(Batch(tiles, first, std::min(slice, tiles.Count() - first)));
}

void MeasureGrids(Report& report, const Scale& scale, const fs::path& folder) {
  constexpr std::pair<unsigned int, const char*> kGrids[] = {{8, "open 64 cells"},
                                                             {256, "open 65k cells"},
                                                             {4096, "open 16M cells"},
                                                             {16384, "open 268M cells"}};
  constexpr std::size_t kSize = 4096;
  const Tiles tiles(std::vector<std::size_t>(kGridTiles, kSize));
  const Opener engine = EngineOpener(ZrCompactFile::kCreateMissing);
  PutAll(*OpenLmdb(folder, tiles, Access::kMake), tiles, kGridTiles);
  PutAll(*OpenSqlite(folder, tiles, Access::kMake), tiles, kGridTiles);
  for (const auto& [side, name] : kGrids) {
    const fs::path path = folder / "tiles.cf";
    fs::remove(path);
    MakeGrid(path, side, kSize);
    MeasureOpening(report.Figure(name, "µs"),
                   {{kLimit, [&] { OpenBare(path, 44 + kSize); }},
                    {kEngine, OpenAndGet(engine, folder, tiles, 0)},
                    {kLmdb, OpenAndGet(OpenLmdb, folder, tiles, 0)},
                    {kSqlite, OpenAndGet(OpenSqlite, folder, tiles, 0)}},
                   scale.passes, 20, 1e-6);
  }
}

void MeasureManyNames(Report& report, const Scale& scale, const fs::path& folder) {
  Tiles tiles(std::vector<std::size_t>(scale.names, 16));
  tiles.MakeNames();
  const Opener engine = EngineOpener(ZrCompactFile::kCreateMissing);
  for (const Opener& opener : {engine, Opener(OpenLmdb), Opener(OpenSqlite)})
    PutAll(*opener(folder, tiles, Access::kMake), tiles, scale.slice);
  const unsigned int wanted = scale.names / 9 * 7;
  MeasureOpening(report.Figure("open " + std::to_string(scale.names) + " names", "ms"),
                 {{kLimit, [&] { OpenBareNames(folder / "tiles.cf", scale.names); }},
                  {kEngine, OpenAndGet(engine, folder, tiles, wanted)},
                  {kLmdb, OpenAndGet(OpenLmdb, folder, tiles, wanted)},
                  {kSqlite, OpenAndGet(OpenSqlite, folder, tiles, wanted)}},
                 scale.passes, 1, 1e-3);
}

}  // namespace

void MeasureOpening(Report& report, const Scale& scale, const fs::path& folder) {
  for (const char* part : {"grids", "names"})
    fs::create_directories(folder / part);
  MeasureGrids(report, scale, folder / "grids");
  MeasureManyNames(report, scale, folder / "names");
}

}  // namespace Bench
