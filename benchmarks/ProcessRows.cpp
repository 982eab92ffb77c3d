// What takes processes of its own. This one has no store open meanwhile: a child must not inherit
// any.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

#include "Rows.h"
#include "Support.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

/// What processes say to each other.
struct Board {
  std::atomic<bool> isReading;
  std::atomic<bool> isWritten;
  std::atomic<std::uint64_t> gets;
  double privateMiB;
  double secondsPerGet, secondsPerPut, slowPut;  // all but one of a hundred puts are faster
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
pid_t StartProcess(Action action) {
  const pid_t child = ::fork();
  Check(child >= 0);
  if (child != 0) return child;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  action();
  ::_exit(0);
}

void WaitFor(pid_t child) {
  int status = 1;
  Check(::waitpid(child, &status, 0) == child && status == 0);
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

void ReadUntilWritten(Reader& reader, const std::vector<unsigned int>& order, Board& board) {
  for (const unsigned int tile : order)  // once over, so that nothing is new any more
    reader.Get(tile);
  board.isReading = true;
  for (std::size_t i = 0; !board.isWritten; i = (i + 1) % order.size()) {
    reader.Get(order[i]);
    board.gets.fetch_add(1, std::memory_order_relaxed);
  }
}

void WriteWhileRead(Store& store, const Tiles& tiles, unsigned int first, unsigned int count,
                    Board& board) {
  Payload payload(tiles);
  std::vector<double> times(count);
  const std::uint64_t before = board.gets;
  const Clock::time_point start = Clock::now();
  Clock::time_point last = start;
  for (unsigned int i = 0; i < count; ++i) {
    store.Put(first + i, payload.Next(first + i, tiles.sizes[first + i]));
    const Clock::time_point now = Clock::now();
    times[i] = std::chrono::duration<double>(now - last).count();
    last = now;
  }
  const double total = std::chrono::duration<double>(last - start).count();
  board.secondsPerGet =
      total / static_cast<double>(std::max(board.gets - before, std::uint64_t{1}));
  board.secondsPerPut = total / count;
  const auto slow = times.begin() + count * 99 / 100;
  std::nth_element(times.begin(), slow, times.end());
  board.slowPut = *slow;
  board.isWritten = true;
}

}  // namespace

void MeasureSpace(Report& report, std::vector<Contender>& closed, const Tiles& tiles) {
  const double payload = std::accumulate(tiles.sizes.begin(), tiles.sizes.end(), 0.0);
  SharedBoard board;
  for (const Contender& contender : closed) {
    report.Figure("file bytes : payload bytes", "")
        .Add(contender.column, FolderBytes(contender.folder) / payload);
    WaitFor(StartProcess([&] {
      const double before = PrivateDirtyMiB();
      const std::unique_ptr<Store> store = contender.opener(contender.folder, tiles, Access::kOpen);
      const std::unique_ptr<Reader> reader = store->NewReader();
      for (unsigned int tile = 0; tile < tiles.Count(); ++tile)
        reader->Get(tile);
      board->privateMiB = PrivateDirtyMiB() - before;
    }));
    report.Figure("private memory, all tiles read", "MiB").Add(contender.column, board->privateMiB);
  }
}

void MeasureTwoProcesses(Report& report, std::vector<Contender>& closed, const Tiles& tiles,
                         const Scale& scale) {
  std::vector<Contender*> sharing;
  for (Contender& contender : closed)
    if (contender.sharedOpener) sharing.push_back(&contender);
  const std::vector<unsigned int> order = Shuffled(scale.stored);
  Row& writer = report.Speed("two processes, writer");
  Row& reader = report.Speed("two processes, reader");
  Row& slow = report.Figure("two processes, writer's p99", "µs");
  InTurns(scale.shared / scale.slice, sharing,
          [&](const Contender* contender, unsigned int repetition) {
            const auto open = [&] {
              return contender->sharedOpener(contender->folder, tiles, Access::kOpen);
            };
            SharedBoard board;
            const pid_t reading = StartProcess([&] {
              const std::unique_ptr<Store> store = open();
              ReadUntilWritten(*store->NewReader(), order, *board);
            });
            const pid_t writing = StartProcess([&] {
              const std::unique_ptr<Store> store = open();
              while (!board->isReading)
                std::this_thread::sleep_for(std::chrono::microseconds(100));
              WriteWhileRead(*store, tiles, scale.stored + repetition * scale.slice, scale.slice,
                             *board);
            });
            WaitFor(writing);
            WaitFor(reading);
            writer.Add(contender->column, board->secondsPerPut);
            reader.Add(contender->column, board->secondsPerGet);
            slow.Add(contender->column, board->slowPut * 1e6);
          });
}

}  // namespace Bench
