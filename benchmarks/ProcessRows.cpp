// What takes processes of its own. This one has no store open meanwhile: a child must not inherit
// any.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <span>
#include <thread>

#include "Rows.h"
#include "Support.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kMostReaders = 8;

/// Beside one process that stores, if anything is stored.
struct Load {
  unsigned int readers;
  std::span<const unsigned int> written = {};  // the tiles, in this order
  unsigned int perSecond = 0;                  // 0: without pause
};

/// In seconds: of a get and of a put on average, the gets of all readers taken together; all but
/// one of a hundred puts are faster than the slow one.
struct Times {
  double get, put, slowPut;
};

/// How many there were so far, on a cache line of the reader's own.
struct alignas(64) Gets {
  std::atomic<std::uint64_t> count;
};

/// What processes say to each other.
struct Board {
  std::uint64_t CountGets() const {
    return std::accumulate(
        std::begin(gets), std::end(gets), std::uint64_t{0},
        [](std::uint64_t sum, const Gets& ofReader) { return sum + ofReader.count; });
  }

  std::atomic<unsigned int> reading;  // how many do
  std::atomic<bool> isOver;
  Gets gets[kMostReaders];
  Times times;
  double privateMiB;
};

/// A board that children see.
class SharedBoard {
 public:
  SharedBoard()
      : m_memory(::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                        -1, 0)) {
    Check(m_memory != MAP_FAILED);
    new (m_memory) Board{};
  }
  ~SharedBoard() { ::munmap(m_memory, sizeof(Board)); }
  SharedBoard(const SharedBoard&) = delete;
  SharedBoard& operator=(const SharedBoard&) = delete;

  Board* operator->() { return static_cast<Board*>(m_memory); }
  Board& operator*() { return *static_cast<Board*>(m_memory); }

 private:
  void* m_memory;
};

template <typename Action>
void StartProcess(Action action) {
  const pid_t child = ::fork();
  Check(child >= 0);
  if (child != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  action();
  ::_exit(0);
}

// For all that were started, in the order in which they end.
void WaitForProcesses() {
  int status = 0;
  while (::wait(&status) > 0)
    Check(status == 0);
  Check(errno == ECHILD);
}

double PrivateDirtyMiB() {
  std::ifstream file("/proc/self/smaps_rollup");
  for (std::string line; std::getline(file, line);)
    if (line.rfind("Private_Dirty:", 0) == 0) return std::stod(line.substr(14)) / 1024;
  Check(false);
  return 0;
}

double FolderBytes(const fs::path& folder) {
  double bytes = 0;
  for (const fs::directory_entry& file : fs::directory_iterator(folder))
    bytes += static_cast<double>(file.file_size());
  return bytes;
}

void SleepUntil(Clock::time_point time) {
  const auto since = std::chrono::nanoseconds(time.time_since_epoch()).count();
  const timespec until = {since / 1000000000, since % 1000000000};
  Check(::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == 0);
}

/// Looks up stored tiles, and checks what it gets.
class CheckingReader {
 public:
  CheckingReader(const Contender& contender, Store& store, const Tiles& tiles)
      : m_isGuarded(contender.column != kLimit), m_tiles(tiles), m_reader(store.NewReader()) {}

  // Nothing keeps the limit from reading what it has written in part.
  void Get(unsigned int tile) {
    const Bytes bytes = m_reader->Get(tile);
    Check(bytes.size() == m_tiles.sizes[tile]);
    const Mark first = MarkAt(bytes.data());
    const Mark last = MarkAt(bytes.data() + bytes.size() - sizeof last);
    Check(first.tile == tile && last.tile == tile && (first == last || !m_isGuarded));
  }

 private:
  const bool m_isGuarded;
  const Tiles& m_tiles;
  const std::unique_ptr<Reader> m_reader;
};

// Puts one tile after the other. At a given pace, one that comes late is not the slower for it.
Times Write(Store& store, const Tiles& tiles, const Load& load) {
  Payload payload(tiles);
  std::vector<double> times(load.written.size());
  const Clock::time_point start = Clock::now();
  for (std::size_t i = 0; i < times.size(); ++i) {
    if (load.perSecond != 0)
      SleepUntil(start + i * std::chrono::nanoseconds(std::chrono::seconds(1)) / load.perSecond);
    const unsigned int tile = load.written[i];
    times[i] = Seconds([&] { store.Put(tile, payload.Next(tile, tiles.sizes[tile])); });
  }
  const double total = std::accumulate(times.begin(), times.end(), 0.0);
  const auto slow = times.begin() + static_cast<std::ptrdiff_t>(times.size() * 99 / 100);
  std::nth_element(times.begin(), slow, times.end());
  return {0, total / static_cast<double>(times.size()), *slow};
}

// Readers look up the tiles of `order` without pause, each in a process of its own and beginning
// elsewhere. Every process has looked up all of them before, so that nothing is new to it any more.
Times Measure(const Contender& contender, const Tiles& tiles,
              const std::vector<unsigned int>& order, const Load& load) {
  SharedBoard board;
  const auto start = [&](const std::function<void(Store&, CheckingReader&)>& action) {
    StartProcess([&] {
      const std::unique_ptr<Store> store = contender.opener(contender.folder, tiles, Access::kOpen);
      CheckingReader reader(contender, *store, tiles);
      for (const unsigned int tile : order)
        reader.Get(tile);
      action(*store, reader);
    });
  };
  for (unsigned int number = 0; number < load.readers; ++number)
    start([&](Store&, CheckingReader& reader) {
      ++board->reading;
      std::size_t next = number * order.size() / load.readers;
      for (std::uint64_t count = 1; !board->isOver; ++count) {
        reader.Get(order[next]);
        next = (next + 1) % order.size();
        board->gets[number].count.store(count, std::memory_order_relaxed);
      }
    });
  start([&](Store& store, CheckingReader&) {
    while (board->reading != load.readers)
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    const std::uint64_t before = board->CountGets();
    const double seconds = Seconds([&] {
      if (load.written.empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
      else
        board->times = Write(store, tiles, load);
    });
    const std::uint64_t gets = board->CountGets() - before;
    board->times.get = seconds / static_cast<double>(std::max(gets, std::uint64_t{1}));
    board->isOver = true;
  });
  WaitForProcesses();
  Settle(contender.folder);
  return board->times;
}

}  // namespace

void MeasureSpace(Report& report, std::vector<Contender>& closed, const Tiles& tiles) {
  const double payload = std::accumulate(tiles.sizes.begin(), tiles.sizes.end(), 0.0);
  SharedBoard board;
  for (const Contender& contender : closed) {
    report.Figure("file bytes : payload bytes", "")
        .Add(contender.column, FolderBytes(contender.folder) / payload);
    StartProcess([&] {
      const double before = PrivateDirtyMiB();
      const std::unique_ptr<Store> store = contender.opener(contender.folder, tiles, Access::kOpen);
      const std::unique_ptr<Reader> reader = store->NewReader();
      for (unsigned int tile = 0; tile < tiles.Count(); ++tile)
        reader->Get(tile);
      board->privateMiB = PrivateDirtyMiB() - before;
    });
    WaitForProcesses();
    report.Figure("private memory, all tiles read", "MiB").Add(contender.column, board->privateMiB);
  }
}

void MeasureManyProcesses(Report& report, std::vector<Contender>& closed, const Tiles& tiles,
                          const Scale& scale) {
  const std::vector<unsigned int> order = Shuffled(tiles.Count());
  const std::string what = "random get, 8 processes";
  InTurns(scale.longTurns, closed, [&](const Contender& contender, unsigned int) {
    const double alone = Measure(contender, tiles, order, {.readers = 1}).get;
    const double together = Measure(contender, tiles, order, {.readers = 8}).get;
    report.Speed(what).Add(contender.column, together);
    report.Figure(what + " : 1 process", "times").Add(contender.column, alone / together);
  });
}

void MeasureWriters(Report& report, std::vector<Contender>& closed, const Tiles& tiles,
                    const Scale& scale) {
  const std::vector<unsigned int> order = Shuffled(scale.stored);
  const std::vector<unsigned int> replaced = Shuffled(scale.stored, 2);
  std::vector<unsigned int> created(scale.turns * scale.slice);
  std::iota(created.begin(), created.end(), scale.stored);

  struct Case {
    std::string name;
    unsigned int readers;
    std::span<const unsigned int> written;
    unsigned int turns;
  };
  for (const Case& each : {Case{"two processes", 1, created, scale.turns},
                           {"two processes replacing", 1, replaced, scale.turns},
                           {"eight processes replacing", 7, replaced, scale.longTurns}}) {
    Row& writer = report.Speed(each.name + ", writer");
    Row& reader = report.Speed(each.name + ", reader");
    Row& slow = report.Figure(each.name + ", writer's p99", "µs");
    InTurns(each.turns, closed, [&](const Contender& contender, unsigned int turn) {
      const std::size_t first = turn * scale.slice % each.written.size();
      const Times times = Measure(contender, tiles, order,
                                  {each.readers, each.written.subspan(first, scale.slice)});
      writer.Add(contender.column, times.put);
      reader.Add(contender.column, times.get);
      slow.Add(contender.column, times.slowPut * 1e6);
    });
  }

  const std::string paced = "paced writer's p99, ";
  InTurns(scale.longTurns, closed, [&](const Contender& contender, unsigned int turn) {
    const auto measure = [&](unsigned int readers) {
      const auto written = std::span(replaced).subspan(turn * scale.paced, scale.paced);
      return Measure(contender, tiles, order, {readers, written, 2000}).slowPut * 1e6;
    };
    const double alone = measure(0);
    report.Figure(paced + "no reader", "µs").Add(contender.column, alone);
    for (const auto& [readers, name] : {std::pair{1U, "1 reader"}, {7U, "7 readers"}}) {
      const double slow = measure(readers);
      report.Figure(paced + name, "µs").Add(contender.column, slow);
      report.Figure(paced + name + " : none", "times").Add(contender.column, slow / alone);
    }
  });
}

}  // namespace Bench
