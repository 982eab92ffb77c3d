// What of a named lookup the name costs.

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "NameHash.h"
#include "ScaleRows.h"
#include "Support.h"

namespace Bench {
namespace {

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

}  // namespace

// The mapped engine and LMDB, and what of it the name costs: its hash, and making it from UTF-8,
// which the caller does if it has no other.
void MeasureNameCost(Report& report, const LargeScale& size, const std::filesystem::path& folder) {
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
    for (unsigned int i = 0; i < tiles.Count(); i += kBatchTiles)
      store->PutBatch(Batch(tiles, i, kBatchTiles));
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

}  // namespace Bench
