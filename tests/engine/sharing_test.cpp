#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FileSyscalls.h"
#include "ZrCompactFileReader.h"
#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/Processes.h"

namespace Zarn {
namespace {

using Support::ExpectEnd;
using Support::Fork;

constexpr unsigned int kSide = 91;
constexpr unsigned int kShared = 8;         // the first cells: all workers add versions to them
constexpr unsigned int kOwn = kShared + 4;  // those before: one worker each, rewritten in place
constexpr ZrCompactFile::ZrOpenMode kLocked = 12;

// A tile names its cell and its value all over, so any piece of it tells where it belongs.
std::string Payload(unsigned int cell, unsigned int value) {
  std::string payload = std::to_string(cell) + ":" + std::to_string(value) + ";";
  while (payload.size() < 9000)
    payload += payload;
  const bool large = cell >= kShared && cell < kOwn;
  return payload.substr(0, large ? 9000 : 20 + (cell + value) * 397 % 2000);
}

bool Put(ZrCompactFile& file, unsigned int cell, unsigned int stamp, unsigned int value) {
  return file.SetAt(cell / kSide, cell % kSide, Data(Payload(cell, value)), 0, 0, stamp) == 0;
}
Tile Get(ZrCompactFile& file, unsigned int cell, unsigned int stamp = 1 << 30) {
  return ReadTile(file, cell / kSide, cell % kSide, stamp);
}

// What is known about the file, in memory that all threads and processes share.
struct Ledger {
  std::atomic<unsigned int> stamps, arrived;
  std::atomic<bool> isOver;
  // By cell, the highest value that was stored or seen.
  std::array<std::atomic<unsigned int>, std::size_t{kSide} * kSide> newest;

  bool Note(unsigned int cell, unsigned int value) {
    unsigned int known = newest[cell];
    while (known < value && !newest[cell].compare_exchange_weak(known, value)) {
    }
    return true;
  }
  // A lookup gives all of one store, and none older than what was known before.
  bool Verify(ZrCompactFile& file, unsigned int cell) {
    const unsigned int known = newest[cell];
    const Tile tile = Get(file, cell);
    unsigned int value = 0;
    std::sscanf(tile.payload.c_str(), "%*u:%u;", &value);
    const std::string expected = Payload(cell, value);
    return value >= known &&
           tile == (value == 0 ? Tile{5, "", 0} : Tile{0, expected, expected.size()}) &&
           Note(cell, value);
  }
  // Stores cells of its own, rewrites the shared ones, looks up anybody's. Returns the faults.
  int Work(ZrCompactFile& file, unsigned int worker, unsigned int stores) {
    int faults = 0;
    const auto put = [&](unsigned int cell, unsigned int stamp, unsigned int value) {
      faults += !(Put(file, cell, stamp, value) && Note(cell, value));
    };
    for (unsigned int i = 0; i < stores; ++i) {
      put(kOwn + worker * stores + i, 1, 1);
      faults += !Verify(file, i % 2 == 0 ? i / 2 % kOwn : i * 7919 % (kSide * kSide));
      put(kShared + worker, 1, newest[kShared + worker] + 1);
      if (i % 8 != 0) continue;
      const unsigned int stamp = ++stamps;
      put(stamp % kShared, stamp, stamp);
    }
    return faults;
  }
};

bool g_stopsAtNextCall = false;

void Pause() {
  static std::atomic<unsigned int> calls = 0;
  if (g_stopsAtNextCall) g_stopsAtNextCall = ::raise(SIGSTOP) != 0;
  if (++calls % 64 == 0) std::this_thread::yield();
}

class Sharing : public EngineTest {
 public:
  // Files are written bit by bit, and now and then somebody else goes first: who does not keep
  // others out, or does not wait for them, will notice.
  Sharing() {
    GetFileSyscalls().pread = [](int fd, void* bytes, std::size_t size, off_t position) {
      Pause();
      return ::pread(fd, bytes, size, position);
    };
    GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
      Pause();
      return ::pwrite(fd, bytes, std::min<std::size_t>(size, 1000), position);
    };
    GetFileSyscalls().pwritev = [](int fd, const iovec* parts, int, off_t position) {
      return GetFileSyscalls().pwrite(fd, parts->iov_base, parts->iov_len, position);
    };
    GetFileSyscalls().fdatasync = GetFileSyscalls().fsync = [](int) { return 0; };
  }
  ~Sharing() override {
    GetFileSyscalls() = m_syscalls;
    ::munmap(&ledger, sizeof ledger);
  }

  void ExpectAll(unsigned int cells) {
    ASSERT_EQ(fresh.Open(path, u"", kLocked), 0U);
    for (unsigned int cell = 0; cell < cells; ++cell)
      ASSERT_EQ(Get(fresh, cell).payload, Payload(cell, ledger.newest[cell]));
    for (unsigned int stamp = 1; stamp <= ledger.stamps; ++stamp)
      ASSERT_EQ(Get(fresh, stamp % kShared, stamp).payload, Payload(stamp % kShared, stamp));
    Check();
  }
  // Four threads that work and two that look, one of which also compacts, on the objects in turn.
  void RunThreads(const std::vector<ZrCompactFile*>& objects) {
    std::atomic<int> faults = 0, working = 4;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 6; ++i)
      threads.emplace_back([&, i, &file = *objects[i % objects.size()]] {
        if (i < 4) faults += ledger.Work(file, i, 400);
        if (i < 4) --working;
        for (unsigned int looks = 0; working > 0; ++looks) {
          faults += !ledger.Verify(file, looks % kOwn);
          if (i == 4 && looks % 256 == 0) faults += file.Compact() != 0;
        }
        file.Close();
      });
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(faults, 0);
    ExpectAll(kOwn + 1600);
  }

 private:
  const FileSyscalls m_syscalls = GetFileSyscalls();

 protected:
  Ledger& ledger = *new (::mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Ledger();
  ZrCompactFile fresh;
};

TEST_F(Sharing, Processes) {
  MakeGrid(kSide, kSide, false, kLocked);
  const auto children = Fork(4, [&](unsigned int i) {
    return fresh.Open(path, u"", kLocked) == 0 ? ledger.Work(fresh, i, 2000) : 1;
  });
  ZrProcess lock;
  EXPECT_EQ(lock.ProcessLockInit(path), 0U);
  for (int i = 0; i < 10; ++i) {  // between any two operations the file is well-formed
    EXPECT_TRUE(lock.ReaderLock(0));
    Check();
    lock.ReaderUnlock();
  }
  ExpectEnd(children, 0);
  ExpectAll(kOwn + 8000);
}

class SharingNewTiles : public Sharing,
                        public ::testing::WithParamInterface<std::pair<bool, bool>> {};
INSTANTIATE_TEST_SUITE_P(Engine, SharingNewTiles,
                         ::testing::Values(std::pair(false, false), std::pair(true, false),
                                           std::pair(false, true)),
                         [](const auto& param) {
                           return std::string(param.param.first ? "Foreign" : "Native") +
                                  (param.param.second ? "Mapped" : "");
                         });

// While one process stores new tiles and another one rewrites some, others find what was stored at
// once, and whole or not at all; even if an index entry is written and read in parts.
TEST_P(SharingNewTiles, AreSeenAtOnceAndWhole) {
  constexpr unsigned int kTiles = 1500;
  const auto [isForeign, isMapped] = GetParam();
  const ZrCompactFile::ZrOpenMode mode = kLocked | (isMapped ? ZrCompactFile::kMapped : 0U);
  GetFileSyscalls().pread = [](int fd, void* bytes, std::size_t size, off_t position) {
    Pause();
    return ::pread(fd, bytes, size <= 8 ? 1 : size, position);
  };
  GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
    Pause();
    return ::pwrite(fd, bytes, size <= 8 ? 1 : std::min<std::size_t>(size, 1000), position);
  };
  MakeGrid(kSide, kSide, isForeign, kLocked);
  std::atomic<unsigned int>& stored = ledger.stamps;
  // The roles: 0 stores, 1 rewrites, 2 verifies now and then, all others look up.
  const auto work = [&](unsigned int role) {
    int faults = fresh.Open(path, u"", mode) != 0;
    ZrCompactFile::ZrVerifySummary summary;
    for (unsigned int round = 0; !ledger.isOver && faults == 0; ++round) {
      if (role == 0) {
        const unsigned int cell = kOwn + stored;
        faults += !(Put(fresh, cell, 1, 1) && ledger.Note(cell, 1));
        ledger.isOver = ++stored == kTiles;
      } else if (role == 1) {
        const unsigned int cell = kShared + round % (kOwn - kShared), value = round + 1;
        faults += !(Put(fresh, cell, 1, value) && ledger.Note(cell, value));
        ::usleep(1000);
      } else if (role == 2 && round % 16 == 0) {
        faults += fresh.Verify(summary) != 0;
      } else {
        faults += !ledger.Verify(fresh, kOwn + (stored + 3) * (round % 8 + 1) / 8) +
                  !ledger.Verify(fresh, kShared + round % (kOwn - kShared));
      }
    }
    ledger.isOver = true;
    return faults;
  };
  const auto children = Fork(4, [&](unsigned int i) {
    std::atomic<int> faults = 0;
    std::vector<std::thread> others;
    for (unsigned int thread = 0; i == 3 && thread < 3; ++thread)
      others.emplace_back([&] { faults += work(i); });
    faults += work(i);
    for (std::thread& other : others)
      other.join();
    return faults.load();
  });
  ExpectEnd(children, 0);
  EXPECT_EQ(ledger.stamps, kTiles);
  ASSERT_EQ(fresh.Open(path, u"", mode), 0U);
  for (unsigned int cell = kShared; cell < kOwn + kTiles; ++cell)
    ASSERT_TRUE(ledger.Verify(fresh, cell)) << cell;
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
  constexpr unsigned int kProcesses = 8, kRounds = 200;
  const auto pathOf = [&](unsigned int round) { return folder.GetPath(std::to_string(round)); };
  const auto children = Fork(kProcesses, [&](unsigned int i) {
    const PelmUnicodeString own = PelmUnicodeString::FromUtf8(std::to_string(i));
    std::array<ZrCompactFile, kRounds> files;  // to close one takes longer than all the rest
    int faults = 0;
    for (unsigned int round = 0; round < kRounds; ++round) {
      for (++ledger.arrived; ledger.arrived < kProcesses * (round + 1);)
        std::this_thread::yield();
      faults += files[round].Open(pathOf(round), u"", kLocked) != 0 ||
                files[round].SetAt(own, Data("tile"), 0, 0, 1) != 0;
    }
    return faults;
  });
  ExpectEnd(children, 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.GetFolder()), {}), kRounds);
  for (unsigned int round = 0; round < kRounds; ++round) {
    unsigned int capacity = 0, count = 0;
    ASSERT_EQ(object.Open(pathOf(round), u"", 2), 0U);
    ASSERT_EQ(object.GetIndexInfo(capacity, count), 1U);
    ASSERT_EQ(capacity * 10 + count, 1280U + kProcesses) << "a tile of each";
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
  EXPECT_EQ(object.GetStatus(0, 1), ZrCompactFile::kComplete);
}

TEST_F(Sharing, ThreadsOnOneAndOnTwoObjects) {
  MakeGrid(kSide, kSide);
  RunThreads({&object});
  Reopen(kLocked);
  RunThreads({&object});
  RunThreads({&object, &fresh});
}

TEST_F(Sharing, ThreadsLookUpNamesThatWereJustStored) {
  MakeNaming(1024);
  constexpr unsigned int kNames = 1000, kRounds = 10;
  const auto name = [](unsigned int i) { return PelmUnicodeString::FromUtf8(std::to_string(i)); };
  std::atomic<unsigned int> step = 0, faults = 0;
  for (unsigned int round = 0; round < kRounds; ++round) {
    for (unsigned int i = 0; i < kNames; ++i)
      ASSERT_EQ(object.SetAt(name(i), Data("tile"), 0, 0, 1), 0U);
    step = 0;
    const auto look = [&] {
      ReadTile(object, name(0), 1);
      for (unsigned int i = 0; i < kNames; ++i) {
        const PelmUnicodeString wanted = name(i);
        unsigned int waits = 0;
        for (++step; step < 2 * i + 2;)
          if (++waits % 65536 == 0) std::this_thread::yield();
        faults += ReadTile(object, wanted, 1) != Tile{0, "tile", 4};
      }
    };
    std::thread other(look);
    look();
    other.join();
  }
  EXPECT_EQ(faults, 0U);
}

TEST_F(Sharing, AccessorsGoOnAndNeverMixTwoFiles) {
  using Info = std::array<unsigned int, 3>;
  const PelmUnicodeString naming = folder.GetPath("n.cf");
  MakeGrid(3, 5, false, kLocked);
  ASSERT_EQ(Store(0, 1, "ours", 1), 0U);
  ASSERT_EQ(fresh.Open(path, u"", kLocked), 0U);
  std::atomic<int> faults = 0, working = 1;
  std::thread asking([&] {
    for (unsigned int i = 0; working > 0; ++i) {
      Info info = {};
      info[0] = object.GetIndexInfo(info[1], info[2]);
      faults += info != Info{} && info != Info{0, 3, 5} && info != Info{1, 16, 0};
      const PelmUnicodeString name = object.GetFullPath();
      faults += name != path && name != naming;
      unsigned long long value = std::uint64_t{ZrCompactFile::kComplete} << 56;
      object.GetGridIdxValue(0, 1, value);
      faults += value >> 56 != ZrCompactFile::kComplete;
      const auto status = object.GetStatus(0, 1);
      faults += status != ZrCompactFile::kComplete && status != ZrCompactFile::kUnknown;
      if (object.IsOpen() && object.IsVersionEnabled() && object.IsDeadLocked()) object.Flush();
      object.SetMaxSize(i, i);
    }
  });
  std::thread storing([&] {
    for (unsigned int stamp = 2; working > 0; ++stamp)
      faults += fresh.SetAt(0, 1, Data("theirs"), 0, 0, stamp % 100) != 0;
  });
  for (int i = 0; i < 100; ++i) {
    faults += object.Open(path, u"", kLocked) != 0 || Store(0, 2, "ours", 1) != 0;
    faults += Read(0, 2, 1).payload != "ours" || !object.Close();
    faults += object.Create(naming, 16ULL, u"", ZrCompactFile::kReplace | kLocked) != 0;
  }
  --working;
  asking.join();
  storing.join();
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

// As soon as a process neither runs nor is stopped: S where it waits, Z where it has ended.
char RestingState(pid_t process) {
  for (std::string line;; line.clear()) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::getline(file, line);
    const char state = line.at(line.rfind(')') + 2);
    if (state == 'S' || state == 'Z') return state;
  }
}

TEST_F(Sharing, AStoppedHolderIsWaitedFor) {
  const std::function<bool()> lookUp = [&] { return ledger.Verify(fresh, kShared); };
  const std::function<bool()> store = [&] { return Put(fresh, kShared, 1, 1); };
  const std::function<bool()> compact = [&] { return fresh.Compact() == 0; };
  // Stopped before the operation, or at its first read, with the lock held.
  const auto start = [&](const std::function<bool()>& operation, bool holds) {
    const pid_t child = Fork(1, [&](unsigned int) {
      const bool isOpen = fresh.Open(path, u"", kLocked) == 0;
      g_stopsAtNextCall = holds;
      if (!holds) ::raise(SIGSTOP);
      return isOpen && operation() ? 0 : 1;
    })[0];
    int status = 0;
    EXPECT_TRUE(::waitpid(child, &status, WUNTRACED) == child && WIFSTOPPED(status));
    return child;
  };
  MakeGrid(kSide, kSide, false, kLocked);
  ASSERT_TRUE(Put(object, kShared, 1, 1) && ledger.Note(kShared, 1));
  struct Case {
    const std::function<bool()>& operation;
    char writerState;
  };
  // A lookup has no lock; and writers that have only begun to read keep no lookup out.
  for (const Case& now : {Case{lookUp, 'Z'}, {store, 'S'}, {compact, 'S'}}) {
    const pid_t writer = start(store, false), reader = start(lookUp, false);
    const pid_t holder = start(now.operation, true);
    for (const auto& [other, state] : {std::pair(writer, now.writerState), {reader, 'Z'}}) {
      ::kill(other, SIGCONT);
      EXPECT_EQ(RestingState(other), state);
    }
    ::kill(holder, SIGCONT);
    ExpectEnd({holder, writer, reader}, 0);
  }
}

// For the rest of the process, nothing in the folder can be written: by this user, or here.
bool BecomeReadOnly(const char* folder, bool byMount) {
  constexpr unsigned int kNobody = 65534;
  if (!byMount) return ::setgroups(0, nullptr) + ::setgid(kNobody) + ::setuid(kNobody) == 0;
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount(folder, folder, nullptr, MS_BIND, nullptr) == 0 &&
         ::mount(nullptr, folder, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

class SharingReadOnly : public Sharing, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Engine, SharingReadOnly, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Mount" : "User"; });

TEST_P(SharingReadOnly, SeesAllAndDisturbsNobody) {
  constexpr unsigned int kCells = kOwn + 600, kReadOnly = 10, kUnable = 100;
  const char* const where = folder.GetFolder().c_str();
  MakeGrid(kSide, kSide, false, kLocked);
  ::chmod(path.ToUtf8().c_str(), 0444);
  ::chmod(where, 0555);
  const auto readers = Fork(2, [&](unsigned int) -> unsigned int {
    const bool isAble = ::geteuid() == 0 && BecomeReadOnly(where, GetParam());
    unsigned int faults = isAble && fresh.Open(path, u"", kReadOnly) != 0;
    ledger.arrived += isAble ? 1 : kUnable;
    if (!isAble) return 0;
    while (!ledger.isOver)
      for (unsigned int cell = 0; cell < kCells; ++cell)
        faults += !ledger.Verify(fresh, cell);
    ZrCompactFileReader light;
    faults += fresh.Compact() != 2 || light.Open(path, u"", kReadOnly) != 0;
    ZrByteArray data;
    unsigned long long filled;
    for (unsigned int cell = kOwn; cell < kCells; ++cell)
      faults += light.Lookup(cell / kSide, cell % kSide, data, filled, 1) != 0 ||
                Content(data) != Payload(cell, 1) || !ledger.Verify(fresh, cell);
    return faults;
  });
  while (ledger.arrived < 2)
    std::this_thread::yield();
  EXPECT_EQ(ledger.Work(object, 0, 300) + ledger.Work(object, 1, 300), 0);
  EXPECT_EQ(object.Compact(), 0U);
  ledger.isOver = true;
  ExpectEnd(readers, 0);
  if (ledger.arrived >= kUnable) GTEST_SKIP() << "needs root, and that it may mount";
}

// The first one who opens the file for writing gives it a copy of its own, in another layer.
TEST_F(Sharing, OnAnOverlayOneWhoMayNotWriteSeesWhatIsStored) {
  constexpr unsigned int kMappedForReading = 26;
  constexpr int kUnable = 42 << 8;
  constexpr uid_t kNobody = 65534;
  MakeGrid(1, 1, false, kLocked);
  ASSERT_EQ(Store(0, 0, "old", 1), 0U);
  object.Close();
  ::chmod(path.ToUtf8().c_str(), 0644);
  ::chmod(folder.GetFolder().c_str(), 0755);
  const TemporaryFolder place(TemporaryFolder::kMemory);
  const std::string upper = place.GetFolder() / "upper", work = place.GetFolder() / "work";
  const auto child = Fork(1, [&](unsigned int) -> unsigned int {
    const std::string layers =
        "lowerdir=" + folder.GetFolder().string() + ",upperdir=" + upper + ",workdir=" + work;
    if (::mkdir(upper.c_str(), 0755) + ::mkdir(work.c_str(), 0755) != 0 ||
        ::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("overlay", folder.GetFolder().c_str(), "overlay", 0, layers.c_str()) != 0 ||
        ::seteuid(kNobody) != 0)
      ::_exit(kUnable >> 8);
    unsigned int faults = fresh.Open(path, u"", kMappedForReading) != 0;
    faults += (ReadTile(fresh, 0, 0, 1).payload != "old") + (::seteuid(0) != 0);
    ZrCompactFile writer;
    faults += writer.Open(path, u"", kLocked) + writer.SetAt(0, 0, Data("new"), 0, 0, 1);
    return faults + (ReadTile(fresh, 0, 0, 1).payload != "new");
  });
  int status = -1;
  ::waitpid(child[0], &status, 0);
  if (status == kUnable) GTEST_SKIP() << "needs root, and an overlay";
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace Zarn
