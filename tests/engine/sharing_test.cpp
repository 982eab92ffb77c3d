// Processes and threads use one file at the same time. How long and in which order they do so in
// general is for the soak and for the test of all orders; here are the promises one by one.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZrCompactFileReader.h"
#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/Processes.h"
#include "support/RawFile.h"

namespace Zarn {
namespace {

using Mode = ZrCompactFile::ZrOpenMode;
using Support::ExpectEnd;
using Support::Fork;

constexpr Mode kLocked = ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;
constexpr Mode kMapped = kLocked | ZrCompactFile::kMapped;
constexpr unsigned int kSide = 40;
constexpr unsigned int kRewritten = 4;     // the first tiles: large, and rewritten in their place
constexpr unsigned int kVersioned = 8;     // those before get one version after the other
constexpr unsigned int kTiles = 8 + 1200;  // the others are new

// What is known about the file, in memory that all threads and processes share.
struct Ledger {
  std::atomic<unsigned int> arrived, stored;
  std::atomic<bool> isOver;
  std::array<std::atomic<unsigned int>, kTiles> newest;  // the highest value stored or seen
};

// Files are read and written bit by bit, and now and then somebody else goes first: who does not
// keep others out, or does not wait for them, will notice.
void Pause() {
  static std::atomic<unsigned int> s_calls = 0;
  if (++s_calls % 64 == 0) std::this_thread::yield();
}
std::size_t SomeOf(std::size_t size) { return size <= 8 ? 1 : std::min<std::size_t>(size, 1000); }

class Sharing : public EngineTest {
 public:
  Sharing() {
    GetFileSyscalls().pread = [](int fd, void* bytes, std::size_t size, off_t position) {
      Pause();
      return ::pread(fd, bytes, size <= 8 ? 1 : size, position);
    };
    GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
      Pause();
      return ::pwrite(fd, bytes, SomeOf(size), position);
    };
    GetFileSyscalls().pwritev = [](int fd, const iovec* parts, int, off_t position) {
      return ::pwrite(fd, parts->iov_base, SomeOf(parts->iov_len), position);
    };
  }
  ~Sharing() override { ::munmap(&ledger, sizeof ledger); }

 protected:
  const PretendToSync quick;  // restores all calls
  Ledger& ledger = *new (::mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Ledger();
  ZrCompactFile fresh;
};

// Who uses what kind of file.
struct Users {
  const char* name;
  unsigned int objects;  // that threads use in turn; 0: processes
  bool isNaming;
  bool isForeign;
  Mode mode;

  friend std::ostream& operator<<(std::ostream& out, const Users& users) {
    return out << users.name;
  }
};
const Users kUsers[] = {
    {"Processes", 0, false, false, kLocked},
    {"ProcessesForeign", 0, false, true, kLocked},
    {"ProcessesMapped", 0, false, false, kMapped},
    {"ProcessesByName", 0, true, false, kLocked},
    {"ThreadsOfOneObject", 1, false, false, 4},
    {"ThreadsOfOneLockedObject", 1, false, true, kLocked},
    {"ThreadsOfTwoObjects", 2, false, false, kLocked},
    {"ThreadsByName", 1, true, false, 4},
    {"ThreadsOfTwoObjectsByName", 2, true, false, kMapped},
};

class SharingOneFile : public Sharing, public ::testing::WithParamInterface<Users> {
 public:
  // Calls the one that is for names, or for cells.
  template <typename Call>
  static auto At(unsigned int tile, Call call) {
    if (GetParam().isNaming) return call(PelmUnicodeString::FromUtf8(std::to_string(tile)));
    return call(tile / kSide, tile % kSide);
  }
  // A tile names itself and its value all over, so any piece of it tells where it belongs.
  static std::string Payload(unsigned int tile, unsigned int value) {
    const std::string name = std::to_string(tile) + ":" + std::to_string(value) + ";";
    const std::size_t size = tile < kRewritten ? 9000 : 20 + (tile + value) * 397 % 2000;
    std::string payload;
    while (payload.size() < size)
      payload += name;
    return payload.substr(0, size);
  }
  void Note(unsigned int tile, unsigned int value) {
    unsigned int known = ledger.newest[tile];
    while (known < value && !ledger.newest[tile].compare_exchange_weak(known, value)) {
    }
  }
  bool Put(ZrCompactFile& file, unsigned int tile, unsigned int stamp, unsigned int value) {
    const ZrByteArray data = Data(Payload(tile, value));
    const bool isDone =
        At(tile, [&](auto... at) { return file.SetAt(at..., data, 0, 0, stamp); }) == 0;
    if (isDone) Note(tile, value);
    return isDone;
  }
  // A lookup gives all of one store, and none older than what was known before.
  bool IsRight(ZrCompactFile& file, unsigned int tile) {
    const unsigned int known = ledger.newest[tile];
    const Tile found = At(tile, [&](auto... at) { return ReadTile(file, at..., 1 << 30); });
    unsigned int value = 0;
    std::sscanf(found.payload.c_str(), "%*u:%u;", &value);
    Note(tile, value);
    const std::string whole = Payload(tile, value);
    return value >= known && found == (value == 0 ? Tile{5, "", 0} : Tile{0, whole, whole.size()});
  }
  // One stores new tiles, one rewrites and removes, one checks and compacts, the others look.
  bool DoesRight(ZrCompactFile& file, unsigned int role, unsigned int round) {
    const unsigned int tile = round % kVersioned, value = 1 + round / kVersioned;
    if (role == 0) {
      const unsigned int next = kVersioned + ledger.stored;
      ledger.isOver = ++ledger.stored == kTiles - kVersioned;
      return Put(file, next, 1, 1);
    }
    if (role == 1 && tile < kRewritten) return Put(file, tile, 1, value);
    if (role == 1)
      return Put(file, tile, value, value) && (value < 3 || At(tile, [&](auto... at) {
                                                              return file.Remove(at..., value - 2);
                                                            }) == 0);
    ZrCompactFile::ZrVerifySummary summary;
    // The index of names moves when it grows, which ends a check.
    if (role == 2 && round % 64 == 0)
      return file.Verify(summary) <= (GetParam().isNaming ? 1U : 0U);
    if (role == 2 && round % 1024 == 100) return file.Compact() == 0;
    const unsigned int newest = std::min(kVersioned + ledger.stored + 2, kTiles - 1);
    return IsRight(file, newest - newest * (round % 8) / 8) && IsRight(file, tile);
  }
  int Work(ZrCompactFile& file, unsigned int role) {
    int faults = 0;
    for (unsigned int round = 0; !ledger.isOver && faults == 0; ++round)
      faults += !DoesRight(file, role, round);
    ledger.isOver = true;
    return faults;
  }
  // As many threads work with these objects, the first of which has the role `first`.
  int RunThreads(unsigned int first, unsigned int count, const std::vector<ZrCompactFile*>& files) {
    std::atomic<int> faults = 0;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < count; ++i)
      threads.emplace_back([&, i] {
        faults += Work(*files[i % files.size()], first + i);
        files[i % files.size()]->Close();
      });
    for (std::thread& thread : threads)
      thread.join();
    return faults;
  }
};
INSTANTIATE_TEST_SUITE_P(Engine, SharingOneFile, ::testing::ValuesIn(kUsers),
                         [](const auto& param) { return param.param.name; });

TEST_P(SharingOneFile, StoresAreSeenAtOnceAndWhole) {
  const auto [name, objects, isNaming, isForeign, mode] = GetParam();
  isNaming ? MakeNaming(16, isForeign) : MakeGrid(kSide, kSide, isForeign);
  Reopen(mode);
  if (objects != 1) {
    ASSERT_EQ(fresh.Open(path, u"", mode), 0U);
  }
  if (objects != 0) {
    EXPECT_EQ(RunThreads(0, 6, {&object, objects == 1 ? &object : &fresh}), 0);
  } else {
    const auto work = [&](unsigned int i) {
      ZrCompactFile file;
      return file.Open(path, u"", GetParam().mode) != 0 ||
             RunThreads(i, i == 3 ? 3 : 1, {&file}) != 0;
    };
    ExpectEnd(Fork(4, work), 0);
  }
  fresh.Close();
  Reopen(mode);
  for (unsigned int tile = 0; tile < kTiles; ++tile)
    ASSERT_TRUE(IsRight(object, tile)) << tile;
  Check();
}

TEST_F(Sharing, ARecordIsBeingWrittenWhenACheckBegins) {
  static off_t s_length = 100;  // of the file as the check finds it: within the record's head
  MakeGrid(1, 2);
  ASSERT_EQ(Store(0, 0, "tile", 1), 0U);
  GetFileSyscalls().lseek = [](int fd, off_t offset, int whence) {
    const off_t result = ::lseek(fd, offset, whence);
    return whence == SEEK_END ? std::min(result, std::exchange(s_length, result)) : result;
  };
  ZrCompactFile::ZrVerifySummary summary;
  EXPECT_EQ(object.Verify(summary, {}), 0U);
}

TEST_F(Sharing, OpenersOfAMissingFileMakeOne) {
  constexpr unsigned int kProcesses = 4, kRounds = 100;
  const auto children = Fork(kProcesses, [&](unsigned int i) {
    int faults = 0;
    for (unsigned int round = 1; round <= kRounds; ++round) {
      for (++ledger.arrived; ledger.arrived < kProcesses * round;)
        std::this_thread::yield();
      ZrCompactFile file;
      faults += file.Open(folder.GetPath(std::to_string(round)), u"", kLocked) != 0 ||
                file.SetAt(PelmUnicodeString(u"names", 1 + i), Data("tile"), 0, 0, 1) != 0;
    }
    return faults;
  });
  ExpectEnd(children, 0);
  EXPECT_EQ(folder.CountFiles(), kRounds);
  unsigned int capacity = 0, count = 0;
  for (unsigned int round = 1; round <= kRounds; ++round) {
    ASSERT_EQ(object.Open(folder.GetPath(std::to_string(round)), u"", 2), 0U);
    object.GetIndexInfo(capacity, count);
    ASSERT_EQ(count, kProcesses) << "a tile of each";
  }
}

TEST_F(Sharing, FollowsThePath) {
  const std::string here = path.ToUtf8(), there = folder.GetPath("there.cf").ToUtf8();
  ASSERT_EQ(fresh.Create(folder.GetPath("there"), 3, 3, u"", kLocked), 0U);
  ASSERT_EQ(fresh.SetAt(2, 2, Data("new"), 0, 0, 1), 0U);
  MakeGrid(2, 2, false, ZrCompactFile::kProcessLock);
  std::filesystem::rename(there, here);
  EXPECT_EQ(Read(2, 2, 1).payload, "new");
  EXPECT_EQ(Store(1, 1, "kept", 1), 0U);
  std::filesystem::rename(here, there);
  EXPECT_EQ(Read(0, 0, 1), (Tile{9, "before", 0}));
  EXPECT_EQ(Store(0, 0, "lost", 1), 10U);
  EXPECT_EQ(object.SetPassword(u"lost"), 0U);
  EXPECT_FALSE(std::filesystem::exists(here)) << "nothing makes it again";
  std::filesystem::rename(there, here);
  EXPECT_EQ(Read(1, 1, 1).payload, "kept");
}

TEST_F(Sharing, AnotherPasswordShutsOut) {
  MakeGrid(1, 2, false, kLocked);
  ASSERT_EQ(Store(0, 0, "tile", 1), 0U);
  const auto change = [&](const PelmUnicodeString& from, const PelmUnicodeString& to) {
    return fresh.Open(path, from, kLocked) == 0 ? fresh.SetPassword(to) : 0;
  };
  ExpectEnd(Fork(1, [&](unsigned int) { return change(u"", u"secret") - 1; }), 0);
  const Support::Bytes scrambled = Support::ReadFile(path);
  EXPECT_EQ(Read(0, 0, 1), (Tile{9, "before", 0}));
  EXPECT_EQ(Store(0, 1, "x", 1), 10U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kUnknown);
  EXPECT_EQ(object.SetPassword(u"mine"), 0U);
  EXPECT_EQ(Support::ReadFile(path), scrambled);
  EXPECT_EQ(change(u"secret", u""), 1U);
  EXPECT_EQ(Read(0, 0, 1).payload, "tile");
  EXPECT_EQ(Store(0, 1, "x", 1), 0U);
  EXPECT_EQ(object.SetPassword(u"mine"), 1U);
  ZrCompactFile other;
  EXPECT_EQ(other.Open(path, u"mine", kLocked) + other.Compact(), 0U);
  EXPECT_EQ(Read(0, 0, 1).payload, "tile") << "by the password that it has set itself";
}

TEST_F(Sharing, AccessorsGoOnAndNeverMixTwoFiles) {
  using Info = std::array<unsigned int, 3>;
  const PelmUnicodeString naming = folder.GetPath("n.cf");
  MakeGrid(3, 5, false, kLocked);
  ASSERT_EQ(Store(0, 1, "ours", 1) + fresh.Open(path, u"", kLocked), 0U);
  std::atomic<int> faults = 0, working = 1;
  std::thread asking([&] {
    while (working > 0) {
      Info info = {};
      info[0] = object.GetIndexInfo(info[1], info[2]);
      const PelmUnicodeString name = object.GetFullPath();
      unsigned long long value = 1ULL << 56;
      object.GetGridIdxValue(0, 1, value);
      const auto status = object.GetStatus(0, 1);
      faults += (info != Info{} && info != Info{0, 3, 5} && info != Info{1, 16, 0}) ||
                (name != path && name != naming) || value >> 56 != 1 ||
                (status != ZrCompactFile::kComplete && status != ZrCompactFile::kUnknown);
      if (object.IsOpen() && object.IsVersionEnabled() && object.IsDeadLocked()) object.Flush();
      object.SetMaxSize(1, 2);
    }
  });
  for (int i = 0; i < 100; ++i) {
    faults += object.Open(path, u"", kLocked) != 0 || Store(0, 2, "ours", 1) != 0;
    faults += fresh.SetAt(0, 1, Data("theirs"), 0, 0, 2) != 0;
    faults += Read(0, 2, 1).payload != "ours" || !object.Close();
    faults += object.Create(naming, 16ULL, u"", ZrCompactFile::kReplace | kLocked) != 0;
  }
  --working;
  asking.join();
  EXPECT_EQ(faults, 0);
}

TEST_F(Sharing, TheLastUserClosesTheFile) {
  ASSERT_EQ(fresh.Create(folder.GetPath("other"), 1, 1, u"", kMode), 0U);
  ASSERT_EQ(fresh.SetAt(0, 0, Data("other"), 0, 0, 1), 0U);
  Support::WriteFile(folder.GetPath("bad.cf"), {});
  MakeGrid(1, 1);
  const auto inThread = [](auto body) { std::thread(body).join(); };
  inThread([&] {
    EXPECT_EQ(object.Open(path, u"", kMode), 0U);
    EXPECT_TRUE(object.Close());
    EXPECT_TRUE(object.IsOpen()) << "the first thread has it open";
  });
  EXPECT_TRUE(object.Close());
  EXPECT_FALSE(object.IsOpen());
  Reopen();
  inThread([&] {
    EXPECT_EQ(object.Open(folder.GetPath("bad"), u"", kMode), 3U);
    EXPECT_EQ(Read(0, 0, 1).result, 5U) << "taken away only for one that can be opened";
    EXPECT_EQ(object.Open(folder.GetPath("other"), u"", kMode), 0U);
  });
  EXPECT_EQ(Read(0, 0, 1).payload, "other");
  EXPECT_TRUE(object.Close());
  EXPECT_TRUE(object.IsOpen()) << "the second thread has not closed it";
}

// One who may not write the file: as another user, under a mount for reading only, and where the
// first one who opens the file for writing gives it a copy of its own, in another layer.
class SharingReadOnly : public Sharing, public ::testing::WithParamInterface<const char*> {
 public:
  const std::string here = folder.GetFolder(), view = here + "/view", kind = GetParam();

  // False if this process may not.
  bool MakeView() {
    if (::geteuid() != 0 || ::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return false;
    const std::string layers =
        "lowerdir=" + here + ",upperdir=" + here + "/upper,workdir=" + here + "/work";
    if (kind == "Overlay")
      return ::mount("overlay", view.c_str(), "overlay", 0, layers.c_str()) == 0;
    const auto flags = MS_REMOUNT | MS_BIND | (kind == "Mount" ? MS_RDONLY : 0);
    return ::mount(here.c_str(), view.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
           ::mount(nullptr, view.c_str(), nullptr, flags, nullptr) == 0;
  }
  bool SeesWhatIsStored(Mode mode, unsigned int stamp) {
    const uid_t user = kind == "Mount" ? 0 : 65534;
    const PelmUnicodeString seen = PelmUnicodeString::FromUtf8(view + "/t.cf");
    ZrCompactFile reader, writer;
    ::seteuid(user);
    bool isRight = reader.Open(seen, u"", mode) == 0 && reader.Compact() == 2 &&
                   ZrCompactFileReader().Open(seen, u"", mode) == 0;
    ReadTile(reader, 0, 0, stamp);
    ::seteuid(0);
    isRight = isRight && writer.Open(kind == "Mount" ? path : seen, u"", kLocked) == 0 &&
              writer.SetAt(0, 0, Data("new"), 0, 0, stamp) == 0;
    ::seteuid(user);
    isRight = isRight && ReadTile(reader, 0, 0, stamp).payload == "new";
    return ::seteuid(0) == 0 && isRight;
  }
};
INSTANTIATE_TEST_SUITE_P(Engine, SharingReadOnly, ::testing::Values("User", "Mount", "Overlay"),
                         [](const auto& param) { return std::string(param.param); });

TEST_P(SharingReadOnly, SeesWhatIsStored) {
  constexpr Mode kReadOnly = ZrCompactFile::kReadOnly | ZrCompactFile::kProcessLock;
  constexpr int kUnable = 42;
  MakeGrid(1, 1, false, kLocked);
  ASSERT_EQ(Store(0, 0, "old", 1), 0U);
  object.Close();
  for (const char* name : {"/view", "/upper", "/work"})
    std::filesystem::create_directory(here + name);
  ::chmod(path.ToUtf8().c_str(), 0644);
  ::chmod(here.c_str(), 0755);
  const auto child = Fork(1, [&](unsigned int) {
    if (!MakeView()) ::_exit(kUnable);
    return SeesWhatIsStored(kReadOnly | ZrCompactFile::kMapped, 2) && SeesWhatIsStored(kReadOnly, 3)
               ? 0
               : 1;
  });
  int status = -1;
  ::waitpid(child[0], &status, 0);
  if (status == kUnable << 8) GTEST_SKIP() << "needs root, and that it may mount";
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace Zarn
