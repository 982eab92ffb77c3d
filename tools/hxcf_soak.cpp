// Processes share a grid file and a naming file: they store tiles whole, in pieces, in versions and
// in batches, rewrite and remove them, look them up, compact the files and change their passwords,
// while one after the other is killed at a random moment and replaced. What they have acknowledged
// or seen stands in memory that they share, and is held against what lookups give: nothing may be
// lost, torn, or older than what anybody has seen before; nobody may wait for ever. An operation
// that was cut short must have been done, or not; one that a limit on the size of files stops must
// have changed nothing.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "FileSyscalls.h"
#include "ZrCompactFile.h"

namespace {

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kSide = 32;
constexpr std::uint32_t kTiles = kSide * kSide;  // of each file
constexpr std::uint32_t kAllTiles = 2 * kTiles;  // the second half have names
constexpr std::uint32_t kVersions = 6;           // of each tile, by stamp
constexpr std::uint32_t kHeadSize = 16;
constexpr std::uint32_t kMostProcesses = 64;
constexpr std::uint32_t kMostInBatch = 12;
constexpr std::uint32_t kOperationsPerCompaction = 2000;  // of one worker
constexpr std::uint32_t kOperationsPerPassword = 1000;
constexpr std::uint32_t kChangesPerLimit = 16;
constexpr std::chrono::seconds kAge(6);  // then other files are begun
constexpr unsigned int kHangSeconds = 20;
constexpr ZrCompactFile::ZrOpenMode kMode =
    ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;

/// Each store that begins a version anew, and each removal, is a generation of its own.
struct alignas(8) Version {
  std::uint32_t generation = 0;
  std::uint32_t filled = 0;  // 0: it is not there
};
using Versions = std::array<Version, kVersions>;

/// What is known of a tile. The worker that owns it changes that; anybody looks.
struct Tile {
  enum Kind { kStore, kContinue, kRemove };

  std::atomic<std::uint32_t> owner;   // number of a worker; 0: nobody
  std::atomic<std::uint32_t> change;  // goes up by two with each; odd while that is being planned
  std::atomic<std::uint32_t> seen;    // the latest change that was acknowledged, or seen to be done
  std::array<std::atomic<Version>, kVersions> acknowledged;
  std::atomic<std::uint32_t> stamp;  // the latest change: of which version, and what becomes of it
  std::atomic<Version> after;
  Kind kind;
  std::uint32_t generations;

  Versions Acknowledged() const {
    Versions versions;
    std::copy(acknowledged.begin(), acknowledged.end(), versions.begin());
    return versions;
  }
  Versions After() const {
    Versions versions = Acknowledged();
    versions[stamp] = after;
    return versions;
  }
  void Plan(Kind how, std::uint32_t which, Version becomes) {
    change |= 1;
    kind = how;
    stamp = which;
    after = becomes;
    ++change;
  }
  void Acknowledge() {
    acknowledged[stamp] = after.load();
    seen = change.load();
  }
};

struct Ledger {
  std::array<Tile, kAllTiles> tiles;
  std::array<std::atomic<std::int64_t>, kMostProcesses>
      begun;  // by slot, of its latest operation: when, in ms
  std::array<std::atomic<std::uint32_t>, 2> passwords;  // of each file: the latest that was tried
  std::atomic<std::uint64_t> lookups, changes, batches, compactions, newPasswords, refused, errors;
};

Ledger* g_ledger;
std::uint32_t g_processes;

std::int64_t Now() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
      .count();
}

void Fail(const char* what, std::uint32_t tile, std::uint32_t stamp, unsigned int result) {
  if (++g_ledger->errors <= 20)
    std::fprintf(stderr, "%s: tile %u, version %u, result %u\n", what, tile, stamp, result);
}

std::uint64_t Mix(std::uint32_t tile, std::uint32_t stamp, std::uint32_t generation) {
  return std::mt19937_64((std::uint64_t{tile} << 40) + (std::uint64_t{stamp} << 32) + generation)();
}

// One of three for each tile, so that a rewrite finds the same, a smaller or a larger one.
std::uint32_t Length(std::uint32_t tile, std::uint32_t stamp, std::uint32_t generation) {
  const std::uint64_t ofTile = Mix(tile, 0, 0) % (tile % 4 == 0 ? 20000 : 1500);
  return kHeadSize +
         static_cast<std::uint32_t>(ofTile * (1 + Mix(tile, stamp, generation) % 3) / 2);
}

/// A payload says what it is, and every byte behind that follows from it.
std::vector<unsigned char> Payload(std::uint32_t tile, std::uint32_t stamp,
                                   std::uint32_t generation) {
  const std::uint32_t length = Length(tile, stamp, generation);
  const std::uint32_t head[] = {tile, stamp, generation, length};
  std::uint64_t word = Mix(tile, stamp, generation);
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
  unsigned int result = ZrResult::kOk;

  bool Is(std::uint32_t tile, std::uint32_t stamp, Version version) const {
    if (result != ZrResult::kOk || filled != version.filled) return false;
    const auto payload = Payload(tile, stamp, version.generation);
    return data.GetSize() == payload.size() && filled <= payload.size() &&
           std::memcmp(data.GetData(), payload.data(), filled) == 0;
  }
  /// Whether it is that version, or the newest if that is not there.
  bool Fits(std::uint32_t tile, std::uint32_t stamp, const Versions& versions) const {
    if (versions[stamp].filled == 0) stamp = kVersions - 1;
    while (stamp > 0 && versions[stamp].filled == 0)
      --stamp;
    return versions[stamp].filled != 0 ? Is(tile, stamp, versions[stamp])
                                       : result == ZrResult::kNotFound && data.IsEmpty();
  }
  /// Whether it is all of some version, of a generation not below those known.
  bool IsWhole(std::uint32_t tile, const Versions& known) const {
    std::uint32_t head[kHeadSize / sizeof(std::uint32_t)];
    if (result == ZrResult::kNotFound) return true;
    if (result != ZrResult::kOk || filled < kHeadSize) return false;
    std::memcpy(head, data.GetData(), kHeadSize);
    return head[1] < kVersions && head[2] >= known[head[1]].generation &&
           Is(tile, head[1], {head[2], static_cast<std::uint32_t>(filled)});
  }
};

// The kernel stops a write of a killed process between two pages. That takes a kill within a
// microsecond, so here each page has a call of its own, and a kill mostly comes between two.
void WriteByPages() {
  Zarn::FileSyscalls& calls = Zarn::GetFileSyscalls();
  calls.pwritev = [](int fd, const iovec* parts, int count, off_t position) {
    std::array<unsigned char, 4096> page;
    const std::size_t room = page.size() - static_cast<std::size_t>(position) % page.size();
    std::size_t size = 0;
    for (int i = 0; i < count && size < room; ++i) {
      const std::size_t now = std::min(parts[i].iov_len, room - size);
      std::memcpy(&page[size], parts[i].iov_base, now);
      size += now;
    }
    std::this_thread::yield();
    return ::pwrite(fd, page.data(), size, position);
  };
  calls.pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
    const iovec part = {const_cast<void*>(bytes), size};
    return Zarn::GetFileSyscalls().pwritev(fd, &part, 1, position);
  };
}

/// One of the two files, as one of its users has it open.
class User {
 public:
  User(const std::filesystem::path& folder, bool named)
      : m_path(PelmUnicodeString::FromUtf8((folder / (named ? "names.cf" : "grid.cf")).string())),
        m_named(named) {}

  bool Create() {
    const auto mode = kMode | ZrCompactFile::kReplace;
    m_password = g_ledger->passwords[m_named] = 0;
    return (m_named ? m_file.Create(m_path, 1ULL, u"", mode)
                    : m_file.Create(m_path, kSide, kSide, u"", mode)) == ZrResult::kOk;
  }
  bool Open() {
    m_password = UINT32_MAX;  // none
    return Reopen();
  }

  Sight Lookup(std::uint32_t tile, std::uint32_t stamp) {
    Sight sight;
    sight.result = Try([&] {
      return At(tile, [&](auto... place) {
        return m_file.Lookup(place..., sight.data, sight.filled, stamp + 1);
      });
    });
    return sight;
  }
  bool AllFit(std::uint32_t tile, const Versions& versions) {
    for (std::uint32_t stamp = 0; stamp < kVersions; ++stamp)
      if (!Lookup(tile, stamp).Fits(tile, stamp, versions)) return false;
    return true;
  }
  /// Makes the changes that the tiles name: a removal alone, a store alone or in a batch.
  unsigned int Apply(const std::vector<std::uint32_t>& tiles, bool isLimited) {
    m_isLimited = isLimited;
    const unsigned int result = Apply(tiles);
    m_isLimited = false;
    return result;
  }
  unsigned int Apply(const std::vector<std::uint32_t>& tiles) {
    const std::uint32_t first = tiles[0], stamp = g_ledger->tiles[first].stamp;
    if (g_ledger->tiles[first].kind == Tile::kRemove)
      return Try([&] {
        return At(first, [&](auto... place) { return m_file.Remove(place..., stamp + 1); });
      });
    std::vector<ZrByteArray> data(tiles.size());
    std::vector<ZrCompactFile::ZrCellStore> cells;
    std::vector<ZrCompactFile::ZrNameStore> names;
    for (const std::uint32_t number : tiles) {
      const Tile& tile = g_ledger->tiles[number];
      const Version before = tile.acknowledged[tile.stamp], after = tile.after;
      const auto payload = Payload(number, tile.stamp, after.generation);
      const std::uint32_t offset = tile.kind == Tile::kContinue ? before.filled : 0;
      ZrByteArray& piece = data[cells.size()];
      piece = ZrByteArray(payload.data() + offset, after.filled - offset);
      cells.push_back(
          {number / kSide, number % kSide, &piece, payload.size(), offset, tile.stamp + 1ULL});
      names.push_back({NameOf(number), &piece, payload.size(), offset, tile.stamp + 1ULL});
    }
    std::vector<unsigned int> results;
    return Try([&] {
      if (tiles.size() > 1)
        return m_named ? m_file.SetBatch(names, results) : m_file.SetBatch(cells, results);
      return At(first, [&](auto... place) {
        return m_file.SetAt(place..., data[0], cells[0].capacity, cells[0].offset, stamp + 1);
      });
    });
  }
  std::uint64_t GetFileSize() const {
    std::error_code ignored;
    return std::filesystem::file_size(m_path.ToUtf8(), ignored);
  }
  unsigned int Compact() {
    return Try([&] { return m_file.Compact(); });
  }
  unsigned int Verify() {
    ZrCompactFile::ZrVerifySummary summary;
    return m_file.Verify(summary);
  }
  unsigned int ChangePassword() {
    const std::uint32_t next = ++g_ledger->passwords[m_named];
    return Try([&] {
      if (m_file.SetPassword(PasswordOf(next)) != 1) return ZrResult::kWriteFailure;
      m_password = next;
      return ZrResult::kOk;
    });
  }

 private:
  static PelmUnicodeString NameOf(std::uint32_t tile) {
    return PelmUnicodeString::FromUtf8("tile " + std::to_string(tile));
  }
  template <typename Operation>
  unsigned int At(std::uint32_t tile, Operation operation) const {
    return m_named ? operation(NameOf(tile)) : operation(tile / kSide, tile % kSide);
  }

  // Does it again if another process had changed the password, for which it has failed; but not
  // under a limit, which may be why.
  unsigned int Try(const std::function<unsigned int()>& operation) {
    unsigned int result = operation();
    while (!m_isLimited && result != ZrResult::kOk && result != ZrResult::kNotFound && Reopen())
      result = operation();
    return result;
  }
  // With another password than before, or false. No password comes twice; some are never set.
  bool Reopen() {
    constexpr std::uint32_t kRecent = 32;
    const std::uint32_t before = m_password;
    unsigned int result = ZrResult::kWrongFile;
    for (std::uint32_t i = 0; i < 8 * kRecent && result == ZrResult::kWrongFile; ++i) {
      const std::uint32_t latest = g_ledger->passwords[m_named];
      m_password = latest - std::min(i % kRecent, latest);
      result = m_file.Open(m_path, PasswordOf(m_password), kMode);
    }
    return result == ZrResult::kOk && m_password != before;
  }
  static PelmUnicodeString PasswordOf(std::uint32_t number) {
    return PelmUnicodeString::FromUtf8(number == 0 ? "" : std::to_string(number));
  }

  const PelmUnicodeString m_path;
  const bool m_named;
  std::uint32_t m_password = 0;
  bool m_isLimited = false;
  ZrCompactFile m_file;
};

/// A user of both files.
struct Users {
  explicit Users(const std::filesystem::path& folder)
      : files{User(folder, false), User(folder, true)} {}
  bool Open() { return files[0].Open() && files[1].Open(); }
  User& Of(std::uint32_t tile) { return files[tile / kTiles]; }

  std::array<User, 2> files;
};

/// While it lives, no file of this process becomes longer, or is written behind this place.
class SizeLimit {
 public:
  explicit SizeLimit(rlim_t size) {
    ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &m_before);
    Set({std::min(size, m_before.rlim_max), m_before.rlim_max});
  }
  ~SizeLimit() { Set(m_before); }
  SizeLimit(const SizeLimit&) = delete;
  SizeLimit& operator=(const SizeLimit&) = delete;

 private:
  static void Set(const rlimit& limit) {
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) std::abort();
  }
  rlimit m_before;
};

class Worker {
 public:
  Worker(std::uint32_t number, std::uint64_t seed, const std::filesystem::path& folder)
      : m_number(number), m_random(seed + number), m_users(folder) {}

  int Run() {
    WriteByPages();
    Begin();
    if (!m_users.Open()) return 1;
    for (;;) {
      Begin();
      User& file = m_users.files[Random(2)];
      if (Random(kOperationsPerCompaction) == 0)
        Expect(file.Compact(), "not compacted", g_ledger->compactions);
      else if (Random(kOperationsPerPassword) == 0)
        Expect(file.ChangePassword(), "no new password", g_ledger->newPasswords);
      else if (Random(2) == 0)
        Look(AnyTile(), Random(kVersions));
      else
        Change(Random(20) == 0 ? kMostInBatch : 1, Random(kChangesPerLimit) == 0);
    }
  }

 private:
  std::uint32_t Random(std::uint32_t count) {
    return static_cast<std::uint32_t>(m_random() % count);
  }
  // Of each file some are in much demand.
  std::uint32_t AnyTile() { return kTiles * Random(2) + Random(Random(2) == 0 ? 16 : kTiles); }

  void Begin() { g_ledger->begun[m_number % g_processes] = Now(); }

  static void Expect(unsigned int result, const char* what, std::atomic<std::uint64_t>& count) {
    if (result != ZrResult::kOk) Fail(what, 0, 0, result);
    ++count;
  }

  // A lookup gives the tile as the latest change has found it or leaves it; the first only until
  // somebody has seen the second. If another change has begun meanwhile, it gives all of something.
  void Look(std::uint32_t number, std::uint32_t stamp) {
    Tile& tile = g_ledger->tiles[number];
    std::uint32_t seen = tile.seen;
    const std::uint32_t change = tile.change;
    const Versions before = tile.Acknowledged(), after = tile.After();
    const Sight sight = m_users.Of(number).Lookup(number, stamp);
    ++g_ledger->lookups;
    if (change % 2 != 0 || tile.change != change) {
      if (!sight.IsWhole(number, before)) Fail("torn or old", number, stamp, sight.result);
      return;
    }
    const bool fitsBefore = sight.Fits(number, stamp, before);
    if (sight.Fits(number, stamp, after)) {
      while (!fitsBefore && seen < change && !tile.seen.compare_exchange_weak(seen, change)) {
      }
    } else if (seen == change || !fitsBefore) {
      Fail(fitsBefore ? "old" : "torn or lost", number, stamp, sight.result);
    }
  }

  // A tile that something is wrong with stays owned, which takes it out of use.
  void Change(std::uint32_t most, bool isLimited) {
    if (isLimited) most = 1;
    const std::uint32_t first = AnyTile();
    std::vector<std::uint32_t> numbers;
    for (std::uint32_t i = 0; i < most; ++i) {
      const std::uint32_t number = first / kTiles * kTiles + (first + i) % kTiles;
      std::uint32_t nobody = 0;
      if (!g_ledger->tiles[number].owner.compare_exchange_strong(nobody, m_number)) continue;
      Plan(number, Random(kVersions), most == 1);
      numbers.push_back(number);
    }
    if (numbers.empty()) return;
    User& file = m_users.Of(first);
    std::optional<SizeLimit> limit;
    if (isLimited) limit.emplace(m_random() % (file.GetFileSize() + 1));
    const unsigned int result = file.Apply(numbers, isLimited);
    limit.reset();
    if (isLimited && result == ZrResult::kWriteFailure) return Refuse(numbers[0]);
    if (result != ZrResult::kOk) return Fail("not done", numbers[0], 0, result);
    g_ledger->batches += most > 1;
    for (const std::uint32_t number : numbers)
      Acknowledge(number);
  }

  void Acknowledge(std::uint32_t number) {
    Tile& tile = g_ledger->tiles[number];
    tile.Acknowledge();
    ++g_ledger->changes;
    const Sight sight = m_users.Of(number).Lookup(number, tile.stamp);
    if (!sight.Fits(number, tile.stamp, tile.Acknowledged()))
      return Fail("not as stored", number, tile.stamp, sight.result);
    tile.owner = 0;
  }

  void Refuse(std::uint32_t number) {
    Tile& tile = g_ledger->tiles[number];
    if (!m_users.Of(number).AllFit(number, tile.Acknowledged()))
      return Fail("refused and changed", number, tile.stamp, tile.kind);
    const std::uint32_t stamp = tile.stamp;
    tile.Plan(tile.kind, stamp, tile.acknowledged[stamp].load());
    tile.Acknowledge();
    ++g_ledger->refused;
    tile.owner = 0;
  }

  void Plan(std::uint32_t number, std::uint32_t stamp, bool mayRemove) {
    Tile& tile = g_ledger->tiles[number];
    Version version = tile.acknowledged[stamp];
    const bool isThere = version.filled != 0;
    const std::uint32_t rest = Length(number, stamp, version.generation) - version.filled;
    if (isThere && rest > 0 && Random(4) != 0) {
      version.filled += 1 + Random(rest);
      return tile.Plan(Tile::kContinue, stamp, version);
    }
    version = {++tile.generations, 0};
    if (mayRemove && isThere && Random(5) == 0) return tile.Plan(Tile::kRemove, stamp, version);
    version.filled = Length(number, stamp, version.generation);
    if (Random(3) == 0) version.filled = kHeadSize + Random(version.filled - kHeadSize + 1);
    tile.Plan(Tile::kStore, stamp, version);
  }

  std::uint32_t m_number;
  std::mt19937_64 m_random;
  Users m_users;
};

/// Starts and kills the workers, and settles what they leave behind; one more user of the files.
class Soak {
 public:
  Soak(const std::filesystem::path& folder, std::uint64_t seed, unsigned int mostPause)
      : m_folder(folder), m_seed(seed), m_random(seed), m_mostPause(mostPause), m_users(folder) {}

  /// Works on new files for a while, or until the time is over.
  void Run(Clock::time_point end) {
    if (!m_users.files[0].Create() || !m_users.files[1].Create())
      return Fail("not created", 0, 0, ZrResult::kNotCreated);
    for (Tile& tile : g_ledger->tiles)
      new (&tile) Tile();
    for (std::uint32_t slot = 0; slot < g_processes; ++slot)
      Start(slot);
    end = std::min(end, Clock::now() + kAge);
    for (auto next = Clock::now(); next < end;) {
      ::alarm(kHangSeconds);
      next += std::chrono::microseconds(2000 + m_random() % (1000 * m_mostPause - 1999));
      std::this_thread::sleep_until(next);
      KillOne(static_cast<std::uint32_t>(m_random() % g_processes));
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
        "%4.0f s: %llu lookups, %llu changes, %llu refused, %llu batches, %llu compactions, "
        "%llu passwords, "
        "%llu kills (%llu left a change: %llu of them done), %llu pairs of files, "
        "longest operation %lld ms, %llu errors\n",
        time.count(), Number(g_ledger->lookups), Number(g_ledger->changes),
        Number(g_ledger->refused), Number(g_ledger->batches), Number(g_ledger->compactions),
        Number(g_ledger->newPasswords), m_kills, m_cuts, m_done, m_files,
        static_cast<long long>(m_longest), Number(g_ledger->errors));
    std::fflush(stdout);
  }

 private:
  static unsigned long long Number(std::uint64_t value) { return value; }

  void Start(std::uint32_t slot) {
    m_numbers[slot] += m_numbers[slot] == 0 ? g_processes + slot : g_processes;
    g_ledger->begun[slot] = Now();
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) std::abort();
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::_exit(::getppid() == parent ? Worker(m_numbers[slot], m_seed, m_folder).Run() : 0);
    }
    m_workers[slot] = pid;
  }

  // Not one that waits: if that lasts for ever, it is to be noticed.
  void KillOne(std::uint32_t slot) {
    constexpr std::int64_t kPatience = 1000;
    const std::int64_t now = Now();
    for (std::uint32_t any = 0; any < g_processes; ++any)
      m_longest = std::max(m_longest, now - g_ledger->begun[any]);
    if (m_longest > 1000 * kHangSeconds) ::raise(SIGALRM);
    if (now - g_ledger->begun[slot] > kPatience) return;
    ::kill(m_workers[slot], SIGKILL);
    ++m_kills;
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
      Fail("a worker has ended", 0, 0, static_cast<unsigned int>(status));
    for (std::uint32_t number = 0; number < kAllTiles; ++number)
      if (g_ledger->tiles[number].owner == m_numbers[slot]) Settle(number);
    return static_cast<int>(slot);
  }

  // From here on there is only what is found now.
  void Settle(std::uint32_t number) {
    Tile& tile = g_ledger->tiles[number];
    const bool isPlanned = tile.change % 2 == 0;
    const bool isDone = isPlanned && m_users.Of(number).AllFit(number, tile.After());
    ++m_cuts;
    m_done += isDone;
    if (!isDone && isPlanned && tile.seen == tile.change)
      return Fail("cut and lost", number, tile.stamp, 0);
    if (!isDone && !m_users.Of(number).AllFit(number, tile.Acknowledged()))
      return Fail("cut and torn", number, tile.stamp, tile.kind);
    const std::uint32_t stamp = tile.stamp;
    tile.Plan(tile.kind, stamp, isDone ? tile.after.load() : tile.acknowledged[stamp].load());
    tile.Acknowledge();
    tile.owner = 0;
  }

  // By a process that has had nothing to do with the files so far.
  void VerifyByAnother() {
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::alarm(kHangSeconds);
      Users users(m_folder);
      if (!users.Open()) Fail("not opened in the end", 0, 0, ZrResult::kNotOpen);
      for (User& file : users.files)
        if (file.Verify() != ZrResult::kOk) Fail("found unsound in the end", 0, 0, 0);
      for (std::uint32_t number = 0; number < kAllTiles; ++number) {
        const Tile& tile = g_ledger->tiles[number];
        if (tile.owner == 0 && !users.Of(number).AllFit(number, tile.Acknowledged()))
          Fail("lost in the end", number, 0, 0);
      }
      ::_exit(0);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || status != 0) Fail("no end", 0, 0, 0);
  }

  const std::filesystem::path m_folder;
  const std::uint64_t m_seed;
  std::mt19937_64 m_random;
  const unsigned int m_mostPause;  // in milliseconds
  const Clock::time_point m_begin = Clock::now();
  Clock::time_point m_nextReport = m_begin;
  std::array<std::uint32_t, kMostProcesses> m_numbers{};  // of the workers, by slot
  std::array<pid_t, kMostProcesses> m_workers{};          // 0: none
  std::int64_t m_longest = 0;
  unsigned long long m_kills = 0, m_cuts = 0, m_done = 0, m_files = 0;
  Users m_users;
};

extern "C" void ReportHang(int /*signal*/) {
  const char text[] = "hang: an operation has not ended for 20 seconds\n";
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
  const auto seed = argument(4, std::random_device()());
  const auto mostPause = argument(5, 50);
  g_processes = static_cast<std::uint32_t>(argument(3, 8));
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
  std::filesystem::create_directories(argv[1]);
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  Soak soak(argv[1], seed, static_cast<unsigned int>(mostPause));
  do
    soak.Run(end);
  while (Clock::now() < end && g_ledger->errors < 100);
  soak.Report(true);
  return g_ledger->errors == 0 ? 0 : 1;
}
