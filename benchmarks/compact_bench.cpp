// Compaction of a file of about 1 GiB, half of it dead, beside `cp` of what comes out, with a sync;
// and beside a cp that has to free as much of the disk as compaction does, which is no small part
// where freed blocks are discarded at once. All begin with everything in the page cache and nothing
// left to be written back.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "RatioReporter.h"
#include "Support.h"
#include "ZrCompactFile.h"

namespace {

namespace fs = std::filesystem;
using Bench::Check;
using Bench::Seconds;
using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

constexpr unsigned int kSide = 240;
const Bench::WorkFolder kWorkFolder("hxcf-compact");
const fs::path& kFolder = kWorkFolder.GetPath();

PelmUnicodeString Path(const char* name) {
  return PelmUnicodeString::FromUtf8((kFolder / name).string());
}

// By the program, as a user would; it may share blocks or copy within the kernel.
void Copy(const char* from, const char* to) {
  const std::string command =
      "cp '" + (kFolder / from).string() + "' '" + (kFolder / to).string() + "'";
  Check(std::system(command.c_str()) == 0);
  const int fd = ::open((kFolder / to).c_str(), O_RDWR | O_CLOEXEC);
  Check(fd >= 0 && ::fsync(fd) == 0 && ::close(fd) == 0);
}

// Each tile stored once and then replaced by a larger one, in an order of its own: what is alive
// lies scattered over the second half. Sizes as a web map has them.
void MakeFiles() {
  ZrCompactFile file;
  Check(file.Create(Path("before.cf"), kSide, kSide, u"", 4) == 0);
  std::mt19937 random(1);
  std::lognormal_distribution<double> distribution(std::log(6144.0), 0.9);
  std::vector<std::size_t> sizes(std::size_t{kSide} * kSide);
  for (std::size_t& size : sizes)
    size = static_cast<std::size_t>(std::clamp(distribution(random), 200.0, 102400.0));
  std::vector<unsigned int> order(sizes.size());
  std::iota(order.begin(), order.end(), 0U);
  const std::vector<unsigned char> bytes(102401, 0x5A);
  for (const std::size_t more : {std::size_t{0}, std::size_t{1}}) {
    for (const unsigned int tile : order) {
      const ZrByteArray data(bytes.data(), sizes[tile] + more);
      Check(file.SetAt(tile / kSide, tile % kSide, data, 0, 0, 1) == 0);
    }
    std::shuffle(order.begin(), order.end(), random);
  }
  file.Close();
  Copy("before.cf", "work.cf");
  Check(file.Open(Path("work.cf"), u"", 12) == 0 && file.Compact() == 0);
  file.Close();
  Copy("work.cf", "after.cf");
}

template <typename Action>
void Measure(benchmark::State& state, Action action) {
  for (auto _ : state) {
    fs::remove(kFolder / "copy.cf");
    Copy("before.cf", "work.cf");
    ::sync();
    state.SetIterationTime(Seconds(action));
  }
}

void Compact() {
  ZrCompactFile file;
  Check(file.Open(Path("work.cf"), u"", 12) == 0 && file.Compact() == 0);
}

void CopyResult() { Copy("after.cf", "copy.cf"); }

void CopyAndFree() {
  CopyResult();
  fs::resize_file(kFolder / "work.cf", fs::file_size(kFolder / "after.cf"));
  fs::remove(kFolder / "copy.cf");
}

}  // namespace

int main(int argc, char** argv) {
  MakeFiles();
  const auto add = [](const char* name, void (*action)()) {
    benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { Measure(state, action); })
        ->UseManualTime()
        ->Iterations(1)
        ->Repetitions(5);
  };
  add("Compact/limit", &CopyResult);
  add("Compact/cp and free", &CopyAndFree);
  add("Compact/engine", &Compact);
  Bench::RunAll(argc, argv, Bench::Report("compact", {Bench::kLimit, "cp and free", "engine"}));
}
