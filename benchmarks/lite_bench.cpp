// Put and get of 8 KiB tiles through the light writer and reader, beside bare system calls that
// move the same bytes to and from the same places.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "RatioReporter.h"
#include "Support.h"
#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"
#include "ZrFile.h"

namespace {

using Bench::Check;
using Zarn::ZrByteArray;

constexpr unsigned int kSide = 64;
constexpr unsigned int kTiles = kSide * kSide;
constexpr std::size_t kTileSize = 8192;
constexpr std::size_t kHeadSize = 44;
constexpr std::size_t kEntrySize = 8;
constexpr std::size_t kDataStart = 64 + 12 + kTiles * kEntrySize;

const Bench::WorkFolder kWorkFolder("hxcf-lite");
const std::filesystem::path& kFolder = kWorkFolder.GetPath();

PelmUnicodeString PathOf(const char* name) {
  return PelmUnicodeString::FromUtf8((kFolder / name).string());
}

ZrByteArray MakeTile() {
  const std::vector<unsigned char> bytes(kTileSize, 0x5A);
  return ZrByteArray(bytes.data(), bytes.size());
}

// Where each get goes, the same for both sides.
std::vector<unsigned int> RandomCells() {
  std::vector<unsigned int> cells(kTiles);
  std::iota(cells.begin(), cells.end(), 0U);
  std::shuffle(cells.begin(), cells.end(), std::mt19937(1));
  return cells;
}

// One iteration fills a new file; making the file is not measured.
void PutBare(benchmark::State& state) {
  const std::string path = (kFolder / "bare").string();
  const std::vector<char> record(kHeadSize + kTileSize, 0x5A);
  const std::uint64_t entry = 1;
  for (auto _ : state) {
    state.PauseTiming();
    ::unlink(path.c_str());
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    Check(fd >= 0 && ::posix_fallocate(fd, 0, kDataStart) == 0);
    state.ResumeTiming();
    for (unsigned int i = 0; i < kTiles; ++i) {
      const auto position = static_cast<off_t>(kDataStart + i * record.size());
      const auto place = static_cast<off_t>(76 + i * kEntrySize);
      Check(::pwrite(fd, record.data(), record.size(), position) > 0 &&
            ::pwrite(fd, &entry, sizeof entry, place) > 0);
    }
    state.PauseTiming();
    ::close(fd);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kTiles);
}

void Put(benchmark::State& state) {
  const PelmUnicodeString path = PathOf("put.cf");
  const ZrByteArray tile = MakeTile();
  for (auto _ : state) {
    state.PauseTiming();
    Zarn::ZrFile::Delete(path);
    Zarn::ZrCompactFileWriter writer;
    Check(writer.Create(path, kSide, kSide, u"", 4) == 0);
    state.ResumeTiming();
    for (unsigned int i = 0; i < kTiles; ++i)
      Check(writer.SetAt(i / kSide, i % kSide, tile, 0, 0, 1) == 0);
    state.PauseTiming();
    writer.Close();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kTiles);
}

void MakeFilledGrid(const PelmUnicodeString& path) {
  Zarn::ZrFile::Delete(path);
  Zarn::ZrCompactFileWriter writer;
  Check(writer.Create(path, kSide, kSide, u"", 4) == 0);
  const ZrByteArray tile = MakeTile();
  for (unsigned int i = 0; i < kTiles; ++i)
    Check(writer.SetAt(i / kSide, i % kSide, tile, 0, 0, 1) == 0);
}

void GetBare(benchmark::State& state) {
  MakeFilledGrid(PathOf("get.cf"));
  const int fd = ::open((kFolder / "get.cf").c_str(), O_RDONLY | O_CLOEXEC);
  Check(fd >= 0);
  std::vector<char> tile(kTileSize);
  const std::vector<unsigned int> cells = RandomCells();
  for (auto _ : state)
    for (unsigned int cell : cells) {
      const std::size_t position = kDataStart + cell * (kHeadSize + kTileSize) + kHeadSize;
      Check(::pread(fd, tile.data(), tile.size(), static_cast<off_t>(position)) > 0);
    }
  ::close(fd);
  state.SetItemsProcessed(state.iterations() * kTiles);
}

void Get(benchmark::State& state) {
  MakeFilledGrid(PathOf("get.cf"));
  Zarn::ZrCompactFileReader reader;
  Check(reader.Open(PathOf("get.cf"), u"", 2) == 0);
  ZrByteArray tile;
  unsigned long long filled = 0;
  const std::vector<unsigned int> cells = RandomCells();
  for (auto _ : state)
    for (unsigned int cell : cells)
      Check(reader.Lookup(cell / kSide, cell % kSide, tile, filled, 1) == 0 &&
            tile.GetSize() == kTileSize);
  state.SetItemsProcessed(state.iterations() * kTiles);
}

}  // namespace

int main(int argc, char** argv) {
  const std::pair<const char*, void (*)(benchmark::State&)> benchmarks[] = {
      {"light put/limit", PutBare},
      {"light put/light class", Put},
      {"light get/limit", GetBare},
      {"light get/light class", Get}};
  for (const auto& [name, function] : benchmarks)
    benchmark::RegisterBenchmark(name, function)->MinTime(0.2)->Repetitions(7);
  Bench::RunAll(argc, argv, Bench::Report("lite", {Bench::kLimit, "light class"}));
}
