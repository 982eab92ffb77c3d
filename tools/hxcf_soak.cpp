// Processes share a grid file and a naming file: they store tiles whole, in pieces, in versions and
// in batches, rewrite and remove them, look them up, compact the files and change their passwords,
// while one after the other is stopped for a while, or killed and replaced, at a random moment.
// There are all kinds of users: with and without a mapping, several threads with one object, some
// that may only read, light readers and stubs. What they have acknowledged or seen stands in memory
// that they share, and is held against what lookups give: nothing may be lost, torn, or older than
// what any process has seen or told another before; nobody may wait for ever. An operation that was
// cut short must have been done, or not; one that a limit on the size of files stops must have
// changed nothing.

#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Ledger.h"
#include "User.h"
#include "Worker.h"
#include "ZrCompactFile.h"

namespace Soak {
namespace {

using Zarn::ZrResult;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kAge(6);  // then other files are begun
constexpr unsigned int kHangSeconds = 20;

struct Options {
  Places places;
  std::chrono::seconds time{0};
  std::uint32_t processes = 8;
  std::uint64_t seed = 0;
  unsigned int mostPause = 50;  // in milliseconds, between two kills
  bool onlyCreates = false;
  bool keeps = false;
  int descriptors = 0;
  std::uint32_t compactEvery = 2000;  // operations of a worker
};

/// Starts, stops and kills the workers, and settles what they leave behind; one more user of the
/// files.
class Supervisor {
 public:
  explicit Supervisor(const Options& options) : m_options(options), m_random(options.seed) {}

  /// Creates the files, or opens those that are there, for reading.
  bool Begin(bool keep) {
    const bool isMapped = keep || Random(2) == 0;
    m_user.emplace(m_options.places.folder, keep ? Kind::kReadOnly : Kind::kEngine, isMapped);
    g_ledger->passwords[0] = g_ledger->passwords[1] = 0;
    g_ledger->hasStubs = Random(2) == 0;
    for (Tile& tile : g_ledger->tiles)
      new (&tile) Tile();
    return keep ? m_user->Open() : m_user->files[0].Create() && m_user->files[1].Create();
  }

  /// Works on new files for a while, or until the time is over.
  void Run(Clock::time_point end) {
    if (!Begin(m_options.keeps && m_files == 0)) return Fail(kOther, "not created");
    for (std::uint32_t slot = 0; slot < m_options.processes; ++slot)
      Start(slot);
    end = std::min(end, Clock::now() + kAge);
    for (auto next = Clock::now(); next < end;) {
      ::alarm(kHangSeconds);
      next += std::chrono::microseconds(2000 + m_random() % (1000 * m_options.mostPause - 1999));
      std::this_thread::sleep_until(next);
      if (Random(3) == 0)
        KillWhileStopped(Random(m_options.processes));
      else
        KillOne(Random(m_options.processes));
      for (int slot; (slot = Reap(WNOHANG)) >= 0;)
        Start(static_cast<std::uint32_t>(slot));
      Report(false);
    }
    for (const pid_t worker : m_workers)
      if (worker != 0) ::kill(worker, SIGKILL);
    while (Reap(0) >= 0) {
    }
    ::alarm(0);  // to remove a large file takes its time
    VerifyByAnother();
    ++m_files;
  }

  void Report(bool always) {
    if (!always && Clock::now() < m_nextReport) return;
    m_nextReport = Clock::now() + std::chrono::seconds(3);
    const std::chrono::duration<double> time = Clock::now() - m_begin;
    std::printf(
        "%4.0f s: %llu changes, %llu refused, %llu batches, %llu compactions (%llu waits), %llu "
        "passwords, %llu kills (%llu left a change: %llu of them done), %llu stops, %llu pairs of "
        "files, longest operation %lld ms\n        lookups (+ mapped):",
        time.count(), Number(g_ledger->changes), Number(g_ledger->refused),
        Number(g_ledger->batches), Number(g_ledger->compactions), Number(g_ledger->waits),
        Number(g_ledger->newPasswords), m_kills, m_cuts, m_done, m_stops, m_files,
        static_cast<long long>(m_longest));
    for (std::size_t kind = 0; kind < g_ledger->lookups.size(); ++kind)
      std::printf(" %llu + %llu %s,", Number(g_ledger->lookups[kind][0]),
                  Number(g_ledger->lookups[kind][1]), kKindNames[kind]);
    std::printf(" %llu told\n", Number(g_ledger->told));
    std::fflush(stdout);
  }

  /// What was done in all, in one line.
  void Conclude() const {
    unsigned long long lookups = 0;
    for (const auto& kind : g_ledger->lookups)
      lookups += kind[0] + kind[1];
    std::printf("%llu lookups, %llu stores, %llu kills, %llu stops:", lookups,
                Number(g_ledger->changes), m_kills, m_stops);
    for (std::size_t i = 0; i < g_ledger->wrong.size(); ++i)
      std::printf("%s %llu %s", i == 0 ? "" : ",", Number(g_ledger->wrong[i]), kWrongNames[i]);
    std::printf(" (seed %llu)\n", Number(m_options.seed));
  }

 private:
  static unsigned long long Number(std::uint64_t value) { return value; }

  std::uint32_t Random(std::uint32_t count) {
    return static_cast<std::uint32_t>(m_random() % count);
  }

  void Start(std::uint32_t slot) {
    std::uint32_t& number = m_numbers[slot];
    number += number == 0 ? m_options.processes + slot : m_options.processes;
    for (Lane& lane : g_ledger->lanes[slot])
      lane.begun = 0;
    g_ledger->lanes[slot][0].begun = Now();
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) std::abort();
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::_exit(::getppid() == parent ? Work(number, slot, m_options.seed, m_options.places) : 0);
    }
    m_workers[slot] = pid;
  }

  // How long the operations of a worker last, at most.
  static std::int64_t Duration(std::uint32_t slot) {
    const std::int64_t now = Now();
    std::int64_t longest = 0;
    for (const Lane& lane : g_ledger->lanes[slot])
      if (const std::int64_t begun = lane.begun; begun != 0)
        longest = std::max(longest, now - begun);
    return longest;
  }

  // Not one that waits: if that lasts for ever, it is to be noticed.
  void KillOne(std::uint32_t slot) {
    constexpr std::int64_t kPatience = 1000;
    for (std::uint32_t any = 0; any < m_options.processes; ++any)
      m_longest = std::max(m_longest, Duration(any));
    if (m_longest > 1000 * kHangSeconds) ::raise(SIGALRM);
    if (Duration(slot) > kPatience) return;
    ::kill(m_workers[slot], SIGKILL);
    ++m_kills;
  }

  // Kills that one or another. Nothing is settled meanwhile, as that might wait for the stopped
  // one.
  void KillWhileStopped(std::uint32_t slot) {
    ::kill(m_workers[slot], SIGSTOP);
    ++m_stops;
    std::this_thread::sleep_for(std::chrono::microseconds(Random(20000)));
    if (Random(2) == 0) KillOne(Random(m_options.processes));
    ::kill(m_workers[slot], SIGCONT);
  }

  // Settles what a worker that has ended leaves behind; gives its slot, or -1.
  int Reap(int options) {
    int status = 0;
    const pid_t pid = ::waitpid(-1, &status, options);
    if (pid <= 0) return -1;
    const auto slot = static_cast<std::uint32_t>(
        std::find(m_workers.begin(), m_workers.end(), pid) - m_workers.begin());
    m_workers[slot] = 0;
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
      Fail(kOther, "a worker has ended", 0, 0, static_cast<unsigned int>(status));
    for (std::uint32_t number = 0; number < kAllTiles; ++number)
      if (g_ledger->tiles[number].owner == m_numbers[slot]) Settle(number);
    for (Lane& lane : g_ledger->lanes[slot]) {
      // The next operation finishes a compaction.
      if (lane.compacting != 0) m_user->files[lane.compacting - 1].Lookup(0, kNewest);
      lane.compacting = 0;
    }
    return static_cast<int>(slot);
  }

  // From here on there is only what is found now.
  void Settle(std::uint32_t number) {
    Tile& tile = g_ledger->tiles[number];
    const Versions before = tile.Acknowledged();
    const bool isDone = tile.IsPlanned() && m_user->Of(number).AllFit(number, tile.After());
    ++m_cuts;
    m_done += isDone;
    if (!isDone && IsBehind(before, tile.Seen()))
      return Fail(kLost, "cut and seen before", number, tile.stamp);
    if (!isDone && !m_user->Of(number).AllFit(number, before))
      return Fail(kTorn, "cut", number, tile.stamp, tile.kind);
    if (isDone)
      tile.Acknowledge();
    else
      tile.Withdraw();
    tile.owner = 0;
  }

  // By a process that has had nothing to do with the files so far.
  void VerifyByAnother() {
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::alarm(kHangSeconds);
      for (const Kind kind : {Kind::kEngine, Kind::kLight}) {
        User user(m_options.places.folder, kind, false);
        if (!user.Open()) Fail(kOther, "not opened in the end");
        for (std::uint32_t number = 0; number < user.count * kTiles; ++number) {
          const Tile& tile = g_ledger->tiles[number];
          if (tile.owner == 0 && !user.Of(number).AllFit(number, tile.Acknowledged()))
            Fail(kLost, "in the end", number);
        }
        if (kind == Kind::kLight) continue;
        for (File& file : user.files)
          if (file.Verify() != ZrResult::kOk) Fail(kOther, "unsound in the end");
      }
      ::_exit(0);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || status != 0) Fail(kOther, "no end");
  }

  const Options m_options;
  std::mt19937_64 m_random;
  const Clock::time_point m_begin = Clock::now();
  Clock::time_point m_nextReport = m_begin;
  std::array<std::uint32_t, kMostProcesses> m_numbers{};  // of the workers, by slot
  std::array<pid_t, kMostProcesses> m_workers{};          // 0: none
  std::int64_t m_longest = 0;
  unsigned long long m_kills = 0, m_stops = 0, m_cuts = 0, m_done = 0, m_files = 0;
  std::optional<User> m_user;
};

/// Other files that are open meanwhile: enough for this process, and so for those that it starts,
/// to have that number of descriptors.
class Crowd {
 public:
  bool Open(const std::filesystem::path& folder, int descriptors) {
    if (descriptors > 0) std::filesystem::create_directories(folder);
    for (int count = 0; count < descriptors;) {
      const auto path =
          PelmUnicodeString::FromUtf8((folder / std::to_string(m_files.size())).string());
      const auto mode = Zarn::ZrCompactFile::kReplace | Zarn::ZrCompactFile::kProcessLock |
                        Zarn::ZrCompactFile::kMapped;
      m_files.push_back(std::make_unique<Zarn::ZrCompactFile>());
      if (m_files.back()->Create(path, 1, 1, u"", mode) != ZrResult::kOk) return false;
      count = ::dup(STDERR_FILENO);  // the lowest that is free
      if (count < 0 || ::close(count) != 0) return false;
    }
    return true;
  }

 private:
  std::vector<std::unique_ptr<Zarn::ZrCompactFile>> m_files;
};

extern "C" void ReportHang(int /*signal*/) {
  const char text[] = "hang: an operation has not ended for 20 seconds\n";
  if (::write(STDERR_FILENO, text, sizeof text - 1) > 0) {
  }
  ::_exit(3);  // and the kernel ends the workers
}

constexpr char kUsage[] =
    "usage: %s [OPTION...] FOLDER SECONDS [PROCESSES [SEED [MOST_MS_BETWEEN_KILLS]]]\n"
    "  --view=FOLDER          the same folder, for half of the processes\n"
    "  --readers-view=FOLDER  the same folder, for those that only read\n"
    "  --mounts=FILE          the mount namespace in which these two are, as in /proc/PID/ns/mnt\n"
    "  --create               only creates the files\n"
    "  --keep                 begins with the files that are there, which are empty\n"
    "  --open=COUNT           every process has that many descriptors of other files\n"
    "  --compact-every=COUNT  compacts in one of so many operations (2000)\n";

bool Parse(int argc, char** argv, Options& options) {
  enum Name { kView, kReadersView, kMounts, kCreate, kKeep, kOpen, kCompactEvery };
  const option names[] = {{"view", required_argument, nullptr, kView},
                          {"readers-view", required_argument, nullptr, kReadersView},
                          {"mounts", required_argument, nullptr, kMounts},
                          {"create", no_argument, nullptr, kCreate},
                          {"keep", no_argument, nullptr, kKeep},
                          {"open", required_argument, nullptr, kOpen},
                          {"compact-every", required_argument, nullptr, kCompactEvery},
                          {}};
  for (int name; (name = ::getopt_long(argc, argv, "", names, nullptr)) != -1;) {
    if (name == kView) options.places.view = optarg;
    if (name == kReadersView) options.places.readersView = optarg;
    if (name == kMounts) options.places.mounts = ::open(optarg, O_RDONLY | O_CLOEXEC);
    if (name == kCreate) options.onlyCreates = true;
    if (name == kKeep) options.keeps = true;
    if (name == kOpen) options.descriptors = std::atoi(optarg);
    if (name == kCompactEvery) options.compactEvery = static_cast<std::uint32_t>(std::atoi(optarg));
    if (name == '?' || (name == kMounts && options.places.mounts < 0)) return false;
  }
  const auto number = [&](int i, unsigned long long preset) {
    return argc > optind + i ? std::strtoull(argv[optind + i], nullptr, 10) : preset;
  };
  if (argc - optind < 2 || argc - optind > 5) return false;
  options.places.folder = std::filesystem::absolute(argv[optind]);
  options.time = std::chrono::seconds(number(1, 0));
  options.processes = static_cast<std::uint32_t>(number(2, options.processes));
  options.seed = number(3, std::random_device()());
  options.mostPause = static_cast<unsigned int>(number(4, options.mostPause));
  return options.compactEvery >= 1 && options.processes >= 1 &&
         options.processes <= kMostProcesses && options.mostPause >= 2 && options.mostPause <= 1000;
}

int Run(const Options& options) {
  Supervisor supervisor(options);
  if (options.onlyCreates) return supervisor.Begin(false) ? 0 : 2;
  Crowd crowd;
  if (!crowd.Open(options.places.folder / "crowd", options.descriptors)) {
    std::fprintf(stderr, "cannot open %d files\n", options.descriptors);
    return 2;
  }
  std::printf("seed %llu\n", static_cast<unsigned long long>(options.seed));
  std::fflush(stdout);
  const auto end = Clock::now() + options.time;
  do
    supervisor.Run(end);
  while (Clock::now() < end && g_ledger->Errors() < 100);
  supervisor.Report(true);
  supervisor.Conclude();
  return g_ledger->Errors() == 0 ? 0 : 1;
}

}  // namespace
}  // namespace Soak

int main(int argc, char** argv) {
  Soak::Options options;
  if (!Soak::Parse(argc, argv, options)) {
    std::fprintf(stderr, Soak::kUsage, argv[0]);
    return 2;
  }
  void* memory = ::mmap(nullptr, sizeof(Soak::Ledger), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 2;
  Soak::g_ledger = new (memory) Soak::Ledger();
  Soak::g_ledger->operationsPerCompaction = options.compactEvery;
  Soak::News::Begin();
  ::signal(SIGALRM, Soak::ReportHang);
  std::filesystem::create_directories(options.places.folder);
  return Soak::Run(options);
}
