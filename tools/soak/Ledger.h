#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <compare>
#include <cstdint>
#include <functional>
#include <iterator>

namespace Soak {

constexpr std::uint32_t kSide = 32;
constexpr std::uint32_t kTiles = kSide * kSide;  // of each file
constexpr std::uint32_t kAllTiles = 2 * kTiles;  // the second half have names
constexpr std::uint32_t kVersions = 6;           // of each tile, by stamp
constexpr std::uint32_t kMostProcesses = 64;
constexpr std::uint32_t kMostThreads = 3;  // of a process that has several

/// State of a version. Each store that begins it anew, and each removal, is a generation of its
/// own, and stores of pieces fill it further; so of two states the greater is the newer.
struct alignas(8) Version {
  auto operator<=>(const Version&) const = default;

  std::uint32_t generation = 0;
  std::uint32_t filled = 0;  // 0: it is not there
};
using Versions = std::array<Version, kVersions>;
using Generations = std::array<std::uint32_t, kVersions>;

/// Whether some version is older there.
inline bool IsBehind(const Versions& versions, const Versions& seen) {
  return !std::equal(versions.begin(), versions.end(), seen.begin(), std::greater_equal<>());
}

/// What is known of a tile. The worker that owns it changes that; anybody looks.
struct Tile {
  enum Kind : std::uint32_t {
    kStore,
    kContinue,
    kRemove,
    kReplaceAll,  // the other versions are removed
  };

  std::atomic<std::uint32_t> owner;   // number of a worker; 0: nobody
  std::atomic<std::uint32_t> change;  // goes up by two with each; odd while that is being planned
  std::array<std::atomic<Version>, kVersions> acknowledged;
  // The newest states that any process has acknowledged or seen: no later lookup gives older ones.
  std::array<std::atomic<Version>, kVersions> seen;
  std::array<std::atomic<std::uint32_t>, kVersions>
      removed;                       // in which generation, as last planned
  std::atomic<Kind> kind;            // of the latest change
  std::atomic<std::uint32_t> stamp;  // of which version it is, and what becomes of that
  std::atomic<Version> after;
  std::uint32_t generations;

  Versions Acknowledged() const { return Copy<Versions>(acknowledged); }
  Versions Seen() const { return Copy<Versions>(seen); }
  Generations Removed() const { return Copy<Generations>(removed); }
  Versions After() const {
    const Version becomes = after;
    Versions versions = Acknowledged();
    if (kind == kReplaceAll) versions.fill({becomes.generation, 0});
    versions[stamp] = becomes;
    return versions;
  }
  bool IsPlanned() const { return change % 2 == 0; }

  void Plan(Kind how, std::uint32_t which, Version becomes) {
    change |= 1;
    kind = how;
    stamp = which;
    after = becomes;
    const Versions versions = After();
    for (std::uint32_t i = 0; i < kVersions; ++i)
      if (versions[i].filled == 0) removed[i] = versions[i].generation;
    ++change;
  }
  void Acknowledge() {
    const Versions versions = After();
    std::copy(versions.begin(), versions.end(), acknowledged.begin());
    See(versions);
  }
  /// The latest change was not done.
  void Withdraw() {
    Plan(kStore, stamp, acknowledged[stamp]);
    Acknowledge();
  }
  /// Whether that was not seen before.
  bool See(std::uint32_t which, Version version) {
    Version latest = seen[which];
    while (latest < version)
      if (seen[which].compare_exchange_weak(latest, version)) return true;
    return false;
  }
  bool See(const Versions& versions) {
    bool isNew = false;
    for (std::uint32_t i = 0; i < kVersions; ++i)
      isNew |= See(i, versions[i]);
    return isNew;
  }

 private:
  template <typename To, typename From>
  static To Copy(const From& from) {
    To to;
    for (std::size_t i = 0; i < to.size(); ++i)
      to[i] = from[i];
    return to;
  }
};

/// How a process uses the files.
enum class Kind : std::uint32_t {
  kEngine,
  kThreads,    // several threads with one object
  kReadOnly,   // opened for reading only
  kOtherUser,  // the same, in a process that has no right to do more
  kLight,      // ZrCompactFileReader
  kStub,       // ZrCompactFileStub, and a light reader
};
constexpr const char* kKindNames[] = {"engine",     "threads", "read-only",
                                      "other user", "light",   "stub"};

/// What is known of a worker's thread.
struct Lane {
  std::atomic<std::int64_t> begun;        // its latest operation: when, in ms
  std::atomic<std::uint32_t> compacting;  // 1 + which file; 0: none
};

/// What is wrong.
enum Wrong : std::uint32_t { kLost, kTorn, kStale, kOther, kNothing };
constexpr const char* kWrongNames[] = {"lost", "torn", "stale", "failed"};

struct Ledger {
  using Count = std::atomic<std::uint64_t>;

  std::array<Tile, kAllTiles> tiles;
  std::array<std::array<Lane, kMostThreads>, kMostProcesses> lanes;  // by slot
  // Of each file: the latest password that was tried, and how many compactions were begun.
  std::array<std::atomic<std::uint32_t>, 2> passwords, compactionsBegun;
  std::array<std::array<Count, 2>, std::size(kKindNames)> lookups;  // without and with kMapped
  std::array<Count, kNothing> wrong;
  std::uint32_t operationsPerCompaction;  // of one worker
  bool hasStubs;                          // then the grid has no password, for a stub knows none
  Count told, changes, batches, compactions, newPasswords, refused, waits;

  /// Whether a process is compacting that file, or was killed meanwhile.
  bool MayBeCompacting(bool named) const {
    for (const auto& slot : lanes)
      for (const Lane& lane : slot)
        if (lane.compacting == 1U + named) return true;
    return false;
  }
  std::uint64_t Errors() const {
    std::uint64_t sum = 0;
    for (const Count& count : wrong)
      sum += count;
    return sum;
  }
};

/// In memory that all processes share.
extern Ledger* g_ledger;

std::int64_t Now();  // in ms

/// Says so, and counts it.
void Fail(Wrong wrong, const char* what, std::uint32_t tile = 0, std::uint32_t stamp = 0,
          unsigned int result = 0);

/// A pipe by which processes tell each other the tiles of which they have stored or seen something
/// new. They enter it in `seen` before, so a process that was told must find that or something
/// newer. The pipe holds one message, so its reader looks at once; a message that finds it full is
/// dropped.
class News {
 public:
  static void Begin();
  static void Tell(std::uint32_t tile);
  /// Waits for some, but not for long.
  static void Wait();
  /// False if there are none.
  static bool Get(std::uint32_t& tile);
};

}  // namespace Soak
