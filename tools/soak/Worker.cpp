#include "Worker.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "FileSyscalls.h"
#include "Ledger.h"
#include "Sight.h"
#include "User.h"

namespace Soak {

using Zarn::ZrResult;

namespace {

constexpr std::uint32_t kMostInBatch = 12;
constexpr std::uint32_t kOperationsPerPassword = 1000;  // of one worker
constexpr std::uint32_t kChangesPerLimit = 16;
constexpr uid_t kOtherUser = 65534;

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

/// One thread of a process.
class Worker {
 public:
  Worker(std::uint32_t number, std::uint64_t seed, Lane& lane, User& user)
      : m_number(number), m_random(seed), m_lane(lane), m_user(user) {}

  [[noreturn]] void Run() {
    for (;;) {
      m_lane.begun = Now();
      if (MayAdminister() && Random(g_ledger->operationsPerCompaction) == 0)
        Compact(Random(2));
      else if (MayAdminister() && Random(kOperationsPerPassword) == 0)
        ChangePassword(Random(2));
      else if (!m_user.MayStore() || Random(2) == 0)
        LookAround();
      else
        Change(AnyTile());
    }
  }

 private:
  std::uint32_t Random(std::uint32_t count) {
    return static_cast<std::uint32_t>(m_random() % count);
  }
  // Of each file some are in much demand.
  std::uint32_t AnyTile() {
    return kTiles * Random(m_user.count) + Random(Random(2) == 0 ? 16 : kTiles);
  }
  bool MayAdminister() const {
    return m_user.kind == Kind::kEngine || m_user.kind == Kind::kThreads;
  }

  // Nothing may be wrong with a sight by itself, and yet it is not what must be there.
  void Report(Wrong wrong, const char* when, const Sight& sight) const {
    const std::string kind = kKindNames[static_cast<std::size_t>(m_user.kind)];
    const std::string what = kind + (m_user.isMapped ? ", mapped, " : ", ") + when;
    Fail(wrong == kNothing ? kLost : wrong, what.c_str(), sight.tile, sight.asked, sight.result);
  }
  static void Expect(unsigned int result, const char* what, Ledger::Count& count) {
    if (result != ZrResult::kOk) Fail(kOther, what, 0, 0, result);
    ++count;
  }
  void Compact(bool named) {
    m_lane.compacting = 1U + named;
    ++g_ledger->compactionsBegun[named];
    Expect(m_user.files[named].Compact(), "not compacted", g_ledger->compactions);
    m_lane.compacting = 0;
  }
  void ChangePassword(bool named) {
    if (named || !g_ledger->hasStubs)
      Expect(m_user.files[named].ChangePassword(), "no new password", g_ledger->newPasswords);
  }

  // Processes that only look leave the others time to store.
  void LookAround() {
    if (!m_user.MayStore() && Random(8) == 0) News::Wait();
    const std::uint32_t first = m_user.files[0].FirstToAsk();
    const std::uint32_t asked = first + Random(kNewest - first + 1);
    std::uint32_t told;
    const bool isTold = Random(2) == 0 && News::Get(told) && told / kTiles < m_user.count;
    g_ledger->told += isTold;
    Look(isTold ? told : AnyTile(), asked);
  }

  // A lookup gives the tile as it is before or after the latest change; as before only until
  // somebody has seen it as after. If another change has begun meanwhile, it gives the whole of a
  // version that is not older than what anybody had seen before.
  void Look(std::uint32_t number, std::uint32_t asked) {
    Tile& tile = g_ledger->tiles[number];
    const Versions seen = tile.Seen();  // before the rest, which may be newer
    const std::uint32_t change = tile.change;
    const Versions before = tile.Acknowledged(), after = tile.After();
    const Sight sight = m_user.Of(number).Lookup(number, asked);
    ++g_ledger->lookups[static_cast<std::size_t>(m_user.kind)][m_user.isMapped];
    bool isNew = false;
    if (change % 2 != 0 || tile.change != change) {
      const Wrong wrong = sight.Judge(seen, tile.Removed());
      if (wrong != kNothing) return Report(wrong, "in change", sight);
      isNew = sight.Enter(seen);
    } else {
      const bool mayBeBefore = sight.Fits(before) && !IsBehind(before, seen);
      if (sight.Fits(after))
        isNew = !mayBeBefore && tile.See(after);
      else if (!mayBeBefore)
        return Report(sight.Fits(before) ? kStale : sight.Judge(seen, tile.Removed()), "at rest",
                      sight);
    }
    if (isNew) News::Tell(number);
  }

  // A tile that something is wrong with stays owned, which takes it out of use.
  void Change(std::uint32_t first) {
    const bool isEngine = m_user.kind == Kind::kEngine;
    const bool isLimited = isEngine && Random(kChangesPerLimit) == 0;
    const std::uint32_t most =
        m_user.kind != Kind::kStub && !isLimited && Random(20) == 0 ? kMostInBatch : 1;
    std::vector<std::uint32_t> numbers;
    for (std::uint32_t i = 0; i < most; ++i) {
      const std::uint32_t number = first / kTiles * kTiles + (first + i) % kTiles;
      std::uint32_t nobody = 0;
      if (!g_ledger->tiles[number].owner.compare_exchange_strong(nobody, m_number)) continue;
      Plan(number, Random(kVersions), most == 1);
      numbers.push_back(number);
    }
    if (numbers.empty()) return;
    File& file = m_user.Of(first);
    std::optional<SizeLimit> limit;
    if (isLimited) limit.emplace(m_random() % (file.GetFileSize() + 1));
    const unsigned int result = file.Apply(numbers, isLimited);
    limit.reset();
    if (isLimited && result == ZrResult::kWriteFailure) return Refuse(numbers[0]);
    if (result != ZrResult::kOk) return Fail(kOther, "not done", numbers[0], 0, result);
    g_ledger->batches += most > 1;
    for (const std::uint32_t number : numbers)
      Acknowledge(number);
  }

  void Acknowledge(std::uint32_t number) {
    Tile& tile = g_ledger->tiles[number];
    tile.Acknowledge();
    News::Tell(number);
    ++g_ledger->changes;
    File& file = m_user.Of(number);
    const Sight sight = file.Lookup(number, std::max<std::uint32_t>(tile.stamp, file.FirstToAsk()));
    if (!sight.Fits(tile.Acknowledged()))
      return Report(sight.Judge(tile.Seen(), tile.Removed()), "just stored", sight);
    tile.owner = 0;
  }

  void Refuse(std::uint32_t number) {
    Tile& tile = g_ledger->tiles[number];
    const Versions before = tile.Acknowledged();
    if (IsBehind(before, tile.Seen()) || !m_user.Of(number).AllFit(number, before))
      return Fail(kTorn, "refused and changed", number, tile.stamp, tile.kind);
    tile.Withdraw();
    ++g_ledger->refused;
    tile.owner = 0;
  }

  void Plan(std::uint32_t number, std::uint32_t stamp, bool mayRemove) {
    Tile& tile = g_ledger->tiles[number];
    Version version = tile.acknowledged[stamp];
    const bool isThere = version.filled != 0;
    const bool isStub = m_user.kind == Kind::kStub;
    const std::uint32_t rest = Length(number, stamp, version.generation) - version.filled;
    if (!isStub && isThere && rest > 0 && Random(4) != 0) {
      version.filled += 1 + Random(rest);
      return tile.Plan(Tile::kContinue, stamp, version);
    }
    version = {++tile.generations, 0};
    if (!isStub && mayRemove && isThere && Random(5) == 0)
      return tile.Plan(Tile::kRemove, stamp, version);
    version.filled = Length(number, stamp, version.generation);
    if (isStub) return tile.Plan(Tile::kReplaceAll, stamp, version);
    if (Random(3) == 0) version.filled = kHeadSize + Random(version.filled - kHeadSize + 1);
    tile.Plan(Tile::kStore, stamp, version);
  }

  const std::uint32_t m_number;
  std::mt19937_64 m_random;
  Lane& m_lane;
  User& m_user;
};

Kind AnyKind(std::uint64_t random) {
  constexpr Kind kKinds[] = {Kind::kEngine,   Kind::kEngine,    Kind::kEngine, Kind::kThreads,
                             Kind::kReadOnly, Kind::kOtherUser, Kind::kLight,  Kind::kStub};
  const Kind kind = kKinds[random % std::size(kKinds)];
  return kind == Kind::kStub && !g_ledger->hasStubs ? Kind::kEngine : kind;
}

// Not if that user cannot reach the files; false then.
bool BecomeOther(const std::filesystem::path& folder) {
  if (::geteuid() != 0) return false;
  const bool canRead = ::setegid(kOtherUser) == 0 && ::seteuid(kOtherUser) == 0 &&
                       ::faccessat(AT_FDCWD, (folder / "grid.cf").c_str(), R_OK, AT_EACCESS) == 0;
  if (::seteuid(0) != 0 || ::setegid(0) != 0) std::abort();
  return canRead && ::setgroups(0, nullptr) == 0 &&
         ::setresgid(kOtherUser, kOtherUser, kOtherUser) == 0 &&
         ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0;
}

}  // namespace

int Work(std::uint32_t number, std::uint32_t slot, std::uint64_t seed, const Places& places) {
  std::mt19937_64 random(seed + number);
  Kind kind = AnyKind(random());
  const bool isMapped = random() % 2 == 0 && kind != Kind::kLight && kind != Kind::kStub;
  const bool onlyReads =
      kind == Kind::kReadOnly || kind == Kind::kOtherUser || kind == Kind::kLight;
  std::filesystem::path folder = places.folder;
  if (!places.view.empty() && random() % 2 == 0) folder = places.view;
  if (!places.readersView.empty() && onlyReads) folder = places.readersView;
  if (folder != places.folder && places.mounts >= 0 && ::setns(places.mounts, CLONE_NEWNS) != 0)
    return 2;
  if (kind == Kind::kOtherUser && !BecomeOther(folder)) kind = Kind::kReadOnly;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // another user would have lost that

  WriteByPages();
  User user(folder, kind, isMapped);
  if (!user.Open()) return 1;
  const auto run = [&](std::uint32_t thread, std::uint64_t threadSeed) {
    Worker(number, threadSeed, g_ledger->lanes[slot][thread], user).Run();
  };
  std::vector<std::thread> others;
  while (kind == Kind::kThreads && others.size() + 1 < kMostThreads)
    others.emplace_back(run, others.size() + 1, random());
  run(0, random());
  return 0;
}

}  // namespace Soak
