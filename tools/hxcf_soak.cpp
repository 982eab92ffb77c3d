// Processes share one grid file: they store tiles whole, in pieces and in versions, remove them,
// look them up and compact the file, while one after the other is killed at a random moment and
// replaced. What they have
// acknowledged stands in memory that they share, and is held against what lookups give: nothing may
// be lost, torn, or older than what was acknowledged before. An operation that was cut short must
// have been done or not; only a version that was being rewritten may be half old, half new.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ZrCompactFile.h"

namespace {

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kSide = 32;
constexpr std::uint32_t kCells = kSide * kSide;
constexpr std::uint32_t kVersions = 8;  // of each tile, by stamp
constexpr std::uint32_t kHeadSize = 16;
constexpr std::uint32_t kMostProcesses = 64;
constexpr std::uintmax_t kMostBytes = 1 << 28;            // then another file is begun
constexpr std::uint32_t kOperationsPerCompaction = 3000;  // of one worker
constexpr unsigned int kHangSeconds = 20;
constexpr ZrCompactFile::ZrOpenMode kMode =
    ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;

/// Each store that begins a version anew, and each removal, is a generation of its own.
struct alignas(8) Version {
  std::uint32_t generation = 0;
  std::uint32_t filled = 0;  // 0: it is not there
};
using Versions = std::array<Version, kVersions>;

/// What is known of a tile. The worker that owns the cell changes both; anybody looks.
struct Cell {
  enum Kind { kAdd, kRewrite, kContinue, kRemove };

  std::atomic<std::uint32_t> owner;    // number of a worker; 0: nobody
  std::atomic<std::uint32_t> changes;  // counted when one begins
  std::atomic<std::uint32_t> cuts;     // those that a kill has cut short
  std::array<std::atomic<Version>, kVersions> acknowledged;
  std::uint32_t generations;
  Kind kind;  // the latest change: how, to which version, and what it makes of it
  std::uint32_t stamp;
  Version before, after;

  Versions Acknowledged() const {
    Versions versions;
    std::copy(acknowledged.begin(), acknowledged.end(), versions.begin());
    return versions;
  }
};

struct Ledger {
  std::array<Cell, kCells> cells;
  std::array<std::atomic<std::uint32_t>, kMostProcesses> doomed;  // the latest worker of each slot
  std::atomic<std::uint64_t> compactions, lookups, changes, errors;
};

Ledger* g_ledger;
std::uint32_t g_processes;
std::array<std::atomic<pid_t>, kMostProcesses> g_workers;  // by slot; 0: none

bool IsDoomed(std::uint32_t worker) {
  return worker != 0 && g_ledger->doomed[worker % g_processes] >= worker;
}

void Fail(const char* what, std::uint32_t cell, std::uint32_t stamp, unsigned int result) {
  if (++g_ledger->errors <= 20)
    std::fprintf(stderr, "%s: cell %u, version %u, result %u\n", what, cell, stamp, result);
}

std::uint64_t Mix(std::uint32_t cell, std::uint32_t stamp, std::uint32_t generation) {
  return std::mt19937_64((std::uint64_t{cell} << 40) + (std::uint64_t{stamp} << 32) + generation)();
}

std::uint32_t Length(std::uint32_t cell, std::uint32_t stamp, std::uint32_t generation) {
  const std::uint64_t random = Mix(cell, stamp, generation);
  return kHeadSize + static_cast<std::uint32_t>((random >> 8) % (random % 16 == 0 ? 60000 : 1500));
}

/// A payload says what it is, and every byte behind that follows from it.
std::vector<unsigned char> Payload(std::uint32_t cell, std::uint32_t stamp,
                                   std::uint32_t generation) {
  const std::uint32_t length = Length(cell, stamp, generation);
  const std::uint32_t head[] = {cell, stamp, generation, length};
  std::uint64_t word = Mix(cell, stamp, generation);
  std::vector<unsigned char> bytes(length + sizeof word);
  std::memcpy(bytes.data(), head, kHeadSize);
  for (std::size_t i = kHeadSize; i < length; i += sizeof word, word += 0x0123456789ABCDEF)
    std::memcpy(&bytes[i], &word, sizeof word);
  bytes.resize(length);
  return bytes;
}

/// What a lookup gives.
struct Sight {
  ZrByteArray data;
  unsigned long long filled = 0;
  unsigned int result;

  Sight(ZrCompactFile& file, std::uint32_t cell, std::uint32_t stamp)
      : result(file.Lookup(cell / kSide, cell % kSide, data, filled, stamp + 1)) {}

  bool Is(std::uint32_t cell, std::uint32_t stamp, Version version) const {
    if (result != ZrResult::kOk || filled != version.filled) return false;
    const auto payload = Payload(cell, stamp, version.generation);
    return data.GetSize() == payload.size() && filled <= payload.size() &&
           std::memcmp(data.GetData(), payload.data(), filled) == 0;
  }
  /// Whether it is that version, or the newest if that is not there.
  bool Fits(std::uint32_t cell, std::uint32_t stamp, const Versions& versions) const {
    if (versions[stamp].filled == 0) stamp = kVersions - 1;
    while (stamp > 0 && versions[stamp].filled == 0)
      --stamp;
    return versions[stamp].filled != 0 ? Is(cell, stamp, versions[stamp])
                                       : result == ZrResult::kNotFound && data.IsEmpty();
  }
  /// Whether it is all of some version, of a generation not below those known.
  bool IsWhole(std::uint32_t cell, const Versions& known) const {
    std::uint32_t head[kHeadSize / sizeof(std::uint32_t)];
    if (result == ZrResult::kNotFound) return true;
    if (result != ZrResult::kOk || filled < kHeadSize) return false;
    std::memcpy(head, data.GetData(), kHeadSize);
    return head[1] < kVersions && head[2] >= known[head[1]].generation &&
           Is(cell, head[1], {head[2], static_cast<std::uint32_t>(filled)});
  }
};

/// Makes the change that the cell names.
unsigned int Apply(ZrCompactFile& file, const Cell& cell, std::uint32_t number) {
  const std::uint32_t row = number / kSide, col = number % kSide;
  if (cell.kind == Cell::kRemove) return file.Remove(row, col, cell.stamp + 1);
  const auto payload = Payload(number, cell.stamp, cell.after.generation);
  const std::uint32_t offset = cell.kind == Cell::kContinue ? cell.before.filled : 0;
  const ZrByteArray piece(payload.data() + offset, cell.after.filled - offset);
  return file.SetAt(row, col, piece, payload.size(), offset, cell.stamp + 1);
}

class Worker {
 public:
  Worker(std::uint32_t number, std::uint64_t seed) : m_number(number), m_random(seed + number) {}

  int Run(const PelmUnicodeString& path) {
    if (m_file.Open(path, u"", kMode) != ZrResult::kOk) return 1;
    for (;;) {
      if (Random(kOperationsPerCompaction) == 0) Compact();
      const std::uint32_t number = Random(Random(2) == 0 ? 16 : kCells);
      std::uint32_t nobody = 0;
      if (Random(2) == 0)
        Look(g_ledger->cells[number], number, Random(kVersions));
      else if (g_ledger->cells[number].owner.compare_exchange_strong(nobody, m_number))
        Change(g_ledger->cells[number], number, Random(kVersions));
    }
  }

 private:
  std::uint32_t Random(std::uint32_t count) {
    return static_cast<std::uint32_t>(m_random() % count);
  }

  void Compact() {
    const unsigned int result = m_file.Compact();
    if (result != ZrResult::kOk) Fail("not compacted", 0, 0, result);
    ++g_ledger->compactions;
  }

  // Where nobody changes the tile meanwhile, the lookup must give what was acknowledged; else one
  // or the other state of it, but nothing in between, unless the change was cut short.
  void Look(const Cell& cell, std::uint32_t number, std::uint32_t stamp) {
    const std::uint32_t changes = cell.changes, cuts = cell.cuts;
    const bool wasFree = cell.owner == 0;
    const Versions known = cell.Acknowledged();
    const Sight sight(m_file, number, stamp);
    ++g_ledger->lookups;
    const std::uint32_t owner = cell.owner;
    if (wasFree && cell.changes == changes) {
      if (!sight.Fits(number, stamp, known)) Fail("lost or old", number, stamp, sight.result);
    } else if (!sight.IsWhole(number, known) && !IsDoomed(owner) && cell.cuts == cuts) {
      Fail("torn or old", number, stamp, sight.result);
    }
  }

  // A tile that something is wrong with stays owned, which takes it out of use.
  void Change(Cell& cell, std::uint32_t number, std::uint32_t stamp) {
    ++cell.changes;
    Plan(cell, number, stamp);
    const unsigned int result = Apply(m_file, cell, number);
    if (result != ZrResult::kOk) return Fail("not done", number, stamp, result);
    cell.acknowledged[stamp] = cell.after;
    ++g_ledger->changes;
    const Sight sight(m_file, number, stamp);
    if (!sight.Fits(number, stamp, cell.Acknowledged()))
      return Fail("not as stored", number, stamp, sight.result);
    cell.owner = 0;
  }

  void Plan(Cell& cell, std::uint32_t number, std::uint32_t stamp) {
    cell.stamp = stamp;
    cell.before = cell.after = cell.acknowledged[stamp];
    const bool isThere = cell.before.filled != 0;
    const std::uint32_t rest = Length(number, stamp, cell.before.generation) - cell.before.filled;
    if (isThere && rest > 0 && Random(4) != 0) {
      cell.kind = Cell::kContinue;
      cell.after.filled += 1 + Random(rest);
      return;
    }
    cell.kind = !isThere ? Cell::kAdd : Random(5) == 0 ? Cell::kRemove : Cell::kRewrite;
    cell.after = {++cell.generations, 0};
    if (cell.kind == Cell::kRemove) return;
    cell.after.filled = Length(number, stamp, cell.after.generation);
    if (Random(3) == 0) cell.after.filled = kHeadSize + Random(cell.after.filled - kHeadSize + 1);
  }

  std::uint32_t m_number;
  std::mt19937_64 m_random;
  ZrCompactFile m_file;
};

/// Starts and kills the workers, and settles what they leave behind; one more user of the file.
class Soak {
 public:
  Soak(const std::filesystem::path& folder, std::uint64_t seed, unsigned int mostPause)
      : m_native(folder / "soak.cf"), m_seed(seed), m_random(seed), m_mostPause(mostPause) {}

  /// Works on a new file until that has become large or the time is over.
  void Run(Clock::time_point end) {
    ::alarm(0);  // to remove a large file takes its time
    if (m_file.Create(m_path, kSide, kSide, u"", kMode | ZrCompactFile::kReplace) != ZrResult::kOk)
      return Fail("not created", 0, 0, ZrResult::kNotCreated);
    for (Cell& cell : g_ledger->cells)
      new (&cell) Cell();
    for (std::uint32_t slot = 0; slot < g_processes; ++slot)
      Start(slot);
    ::alarm(kHangSeconds);
    while (Clock::now() < end && std::filesystem::file_size(m_native) < kMostBytes) {
      const auto pause = 2000 + m_random() % (1000 * m_mostPause - 1999);
      std::this_thread::sleep_for(std::chrono::microseconds(pause));
      Kill(static_cast<std::uint32_t>(m_random() % g_processes));
      for (int slot; (slot = Reap(WNOHANG)) >= 0;)
        Start(static_cast<std::uint32_t>(slot));
      Report(false);
    }
    for (std::uint32_t slot = 0; slot < g_processes; ++slot)
      Kill(slot);
    while (Reap(0) >= 0) {
    }
    VerifyAll();
  }

  void Report(bool always) {
    const std::uint64_t done = g_ledger->lookups + g_ledger->changes;
    if (done != m_done) ::alarm(kHangSeconds);  // else it goes on counting
    m_done = done;
    if (!always && Clock::now() < m_nextReport) return;
    m_nextReport = Clock::now() + std::chrono::seconds(3);
    const std::chrono::duration<double> time = Clock::now() - m_begin;
    std::printf(
        "%4.0f s: %llu lookups, %llu changes, %llu compactions, %llu kills (%llu cut a change, "
        "%llu left half "
        "of a rewrite), %llu files, %llu errors\n",
        time.count(), Number(g_ledger->lookups), Number(g_ledger->changes),
        Number(g_ledger->compactions), m_kills, m_cuts, m_halves, m_files,
        Number(g_ledger->errors));
    std::fflush(stdout);
  }

 private:
  static unsigned long long Number(std::uint64_t value) { return value; }

  void Start(std::uint32_t slot) {
    m_numbers[slot] += m_numbers[slot] == 0 ? g_processes + slot : g_processes;
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) std::abort();
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::_exit(::getppid() == parent ? Worker(m_numbers[slot], m_seed).Run(m_path) : 0);
    }
    g_workers[slot] = pid;
  }

  void Kill(std::uint32_t slot) {
    if (IsDoomed(m_numbers[slot])) return;  // already
    g_ledger->doomed[slot] = m_numbers[slot];
    ::kill(g_workers[slot], SIGKILL);
    ++m_kills;
  }

  // Settles what a worker that has ended leaves behind; gives its slot, or -1.
  int Reap(int options) {
    int status = 0;
    const pid_t pid = ::waitpid(-1, &status, options);
    if (pid <= 0) return -1;
    std::uint32_t slot = 0;
    while (g_workers[slot] != pid)
      ++slot;
    g_workers[slot] = 0;
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
      Fail("a worker has ended", 0, 0, static_cast<unsigned int>(status));
    for (std::uint32_t number = 0; number < kCells; ++number)
      if (g_ledger->cells[number].owner == m_numbers[slot]) Settle(g_ledger->cells[number], number);
    return static_cast<int>(slot);
  }

  void Settle(Cell& cell, std::uint32_t number) {
    ++cell.cuts;
    ++m_cuts;
    Versions versions = cell.Acknowledged();
    bool isKnown = false;
    for (const Version version : {cell.before, cell.after}) {
      if (isKnown) break;
      versions[cell.stamp] = version;
      isKnown = AllFit(number, versions, false);
    }
    if (!isKnown && cell.kind == Cell::kRewrite && AllFit(number, versions, true)) {
      ++m_halves;
      cell.after.generation = ++cell.generations;
      cell.after.filled = Length(number, cell.stamp, cell.after.generation);
      versions[cell.stamp] = cell.after;
      isKnown = Apply(m_file, cell, number) == ZrResult::kOk && AllFit(number, versions, false);
    }
    if (!isKnown) {
      static const char* const kNames[] = {"cut store", "cut rewrite", "cut piece", "cut removal"};
      return Fail(kNames[cell.kind], number, cell.stamp, 0);
    }
    cell.acknowledged[cell.stamp] = cell.before = cell.after = versions[cell.stamp];
    cell.owner = 0;
  }

  // `half`: without the version that the cell names, and the lookups that may lead there.
  bool AllFit(std::uint32_t number, const Versions& versions, bool half) {
    for (std::uint32_t stamp = 0; stamp < kVersions; ++stamp) {
      if (half && (versions[stamp].filled == 0 || stamp == g_ledger->cells[number].stamp)) continue;
      if (!Sight(m_file, number, stamp).Fits(number, stamp, versions)) return false;
    }
    return true;
  }

  void VerifyAll() {
    ++m_files;
    for (std::uint32_t number = 0; number < kCells; ++number) {
      const Cell& cell = g_ledger->cells[number];
      if (cell.owner == 0 && !AllFit(number, cell.Acknowledged(), false))
        Fail("lost in the end", number, 0, 0);
    }
  }

  const std::filesystem::path m_native;
  const PelmUnicodeString m_path = PelmUnicodeString::FromUtf8(m_native.string());
  const std::uint64_t m_seed;
  std::mt19937_64 m_random;
  const unsigned int m_mostPause;  // in milliseconds
  const Clock::time_point m_begin = Clock::now();
  Clock::time_point m_nextReport = m_begin;
  std::array<std::uint32_t, kMostProcesses> m_numbers{};  // of the workers, by slot
  std::uint64_t m_done = 0;
  unsigned long long m_kills = 0, m_cuts = 0, m_halves = 0, m_files = 0;
  ZrCompactFile m_file;
};

extern "C" void ReportHang(int /*signal*/) {
  const char text[] = "hang: no operation has ended for 20 seconds\n";
  if (::write(STDERR_FILENO, text, sizeof text - 1) > 0) {
  }
  ::_exit(3);  // and the kernel ends the workers
}

}  // namespace

int main(int argc, char** argv) {
  const auto argument = [&](int i, unsigned long long preset) {
    return argc > i ? std::strtoull(argv[i], nullptr, 10) : preset;
  };
  const auto seconds = argument(2, 0);
  const auto mostPause = argument(5, 20);
  g_processes = static_cast<std::uint32_t>(argument(3, 4));
  if (argc < 3 || argc > 6 || g_processes < 1 || g_processes > kMostProcesses || mostPause < 2 ||
      mostPause > 1000) {
    std::fprintf(stderr, "usage: %s FOLDER SECONDS [PROCESSES [SEED [MOST_MS_BETWEEN_KILLS]]]\n",
                 argv[0]);
    return 2;
  }
  void* memory =
      ::mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 2;
  g_ledger = new (memory) Ledger();
  ::signal(SIGALRM, ReportHang);
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  Soak soak(argv[1], argument(4, std::random_device()()), static_cast<unsigned int>(mostPause));
  do
    soak.Run(end);
  while (Clock::now() < end && g_ledger->errors < 100);
  soak.Report(true);
  return g_ledger->errors == 0 ? 0 : 1;
}
