#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "FileSyscalls.h"
#include "ZrProcess.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

// The test's file holds one number.
int Get(const std::string& path) {
  int value = -1;
  std::ifstream(path).read(reinterpret_cast<char*>(&value), sizeof value);
  return value;
}

void Put(const std::string& path, int value) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (::pwrite(fd, &value, sizeof value, 0) != sizeof value) std::abort();
  ::close(fd);
}

void Replace(const std::string& path, int value) {
  Put(path + ".new", value);
  std::filesystem::rename(path + ".new", path);
}

// What keeps the number of a file in memory.
struct Owner : ZrProcess {
  explicit Owner(std::string file) : path(std::move(file)) {
    SetCallBack([](void* owner) { static_cast<Owner*>(owner)->Load(); }, this);
    Init();
  }
  unsigned int Init() { return ProcessLockInit(PelmUnicodeString::FromUtf8(path)); }
  void Load() {
    ++calls;
    value = Get(path);
    SetStateLoaded(true);
  }
  // How often it was loaded since the last call; below 0 if the number is not the file's.
  int Calls() {
    const bool isFresh = ReaderLock(1) && value == Get(path);
    ReaderUnlock();
    return isFresh ? std::exchange(calls, 0) : -1;
  }
  bool Add() {
    const bool isFresh = WriterLock(1) && value == Get(path);
    if (isFresh) Put(path, ++value);
    WriterUnlock();
    return isFresh;
  }

  using ZrProcess::SetStateLoaded;

  std::string path;
  int calls = 0;
  int value = 0;
};

// A forked process. It is killed in the end.
struct Child {
  explicit Child(const auto& body) : pid(::fork()) {
    if (pid < 0 || (pid == 0 && ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)) std::abort();
    if (pid == 0) ::_exit(body() ? 0 : 1);
  }
  Child(Child&&) = delete;
  ~Child() {
    Kill();
    ::waitpid(pid, nullptr, 0);
  }
  void Kill() const {
    ::kill(pid, SIGKILL);
    Wait(WEXITED);
  }
  bool Succeeds() const { return Wait(WEXITED) == 0; }
  // Waits until it has stopped itself, which tells that it has a lock.
  bool Locks() const { return Wait(WEXITED | WSTOPPED) == SIGSTOP; }
  int Wait(int events) const {
    siginfo_t info = {};
    ::waitid(P_PID, static_cast<id_t>(pid), &info, events | WNOWAIT);
    return info.si_status;
  }
  // Whether it sleeps, which it does only while it waits for a lock.
  bool IsStuck() const {
    std::string number, name, state;
    while (state.empty() || state == "R" || state == "D")
      std::ifstream("/proc/" + std::to_string(pid) + "/stat") >> number >> name >> state;
    return state == "S";
  }

  const pid_t pid;
};

struct ProcessTest : testing::Test {
  ProcessTest() { Put(path, 1); }

  // Takes the lock, for writing touches the file, and keeps it until killed.
  Child Holder(bool writer) const {
    return Child([&] {
      Owner owner(path);
      if (!(writer ? owner.WriterLock(0) : owner.ReaderLock(0))) return false;
      if (writer) Put(path, Get(path));
      return ::raise(SIGSTOP) == 0;
    });
  }
  bool IsTaken() const { return Holder(true).IsStuck(); }

  TemporaryFolder folder;
  const std::string path = folder.GetFolder() / "file";
};

TEST_F(ProcessTest, ReadersShareAndDoNotStarveAWriterWhoIsAlone) {
  Owner owner(path);
  const Child reader = Holder(false);
  ASSERT_TRUE(reader.Locks() && owner.ReaderLock(0));
  const Child writer = Holder(true);
  ASSERT_TRUE(writer.IsStuck());
  const Child late = Holder(false);
  ASSERT_TRUE(late.IsStuck());  // not past the writer, although only readers have the lock
  owner.ReaderUnlock();
  ASSERT_TRUE(writer.IsStuck());
  reader.Kill();
  ASSERT_TRUE(writer.Locks() && late.IsStuck());
  writer.Kill();
  EXPECT_TRUE(late.Locks());
}

TEST_F(ProcessTest, AReservationKeepsOutWritersAndThenReadersAsWell) {
  Owner owner(path);
  ASSERT_TRUE(owner.ReservedLock(1) && owner.ReservedLock(0));
  const Child writer = Holder(true);
  ASSERT_TRUE(writer.IsStuck() && owner.Calls() == 1);
  Put(path, 7);
  {
    const Child reader = Holder(false);
    ASSERT_TRUE(reader.Locks());  // not behind the writer, who waits for his turn to reserve
    const Child upgrading([&] {
      Owner other(path);
      return other.ReaderLock(0) && !other.ExcludeReaders() && other.isLocked();
    });
    EXPECT_TRUE(upgrading.Succeeds());
    const Child freeing([&] { return ::usleep(20000) == 0 && (reader.Kill(), true); });
    EXPECT_TRUE(owner.WriterLock(0));  // once the reader is gone
  }
  const Child late = Holder(false);
  EXPECT_TRUE(late.IsStuck() && owner.ExcludeReaders());
  for (int depth = 3; depth > 0; --depth) {
    EXPECT_TRUE(owner.isLocked() && writer.IsStuck() && late.IsStuck());
    owner.WriterUnlock();
  }
  late.Kill();  // either may come first, and would keep the other one waiting
  EXPECT_TRUE(writer.Locks());
}

TEST_F(ProcessTest, CallsBackForForeignChangesOnlyAndUntilLoaded) {
  Owner one(path), two(path);
  const auto expect = [&](int calls, int others) {
    EXPECT_EQ(std::pair(one.Calls(), two.Calls()), std::pair(calls, others));
  };
  expect(1, 1);  // nothing was loaded yet
  EXPECT_TRUE(one.Add());
  expect(0, 1);
  EXPECT_TRUE(Owner(path).Add() && Holder(true).Locks());
  expect(1, 1);
  expect(0, 0);  // the watch has not gone with that of the third one
  EXPECT_TRUE(two.Add() && one.ReaderLock(0) && one.ReaderLock(1));  // not the outermost
  one.ReaderUnlock();
  one.ReaderUnlock();
  EXPECT_TRUE(one.calls == 0 && one.WriterLock(0));
  Put(path, 20);  // on top of what it never loaded
  one.WriterUnlock();
  expect(1, 1);
  EXPECT_TRUE(one.WriterLock(1));
  one.SetStateLoaded(false);  // a write that went wrong
  one.WriterUnlock();
  expect(1, 0);
}

TEST_F(ProcessTest, OneWhoMayNotWriteSeesWhatWasWrittenBesideHim) {
  const auto open = std::exchange(GetFileSyscalls().open, [](const char* name, int flags, mode_t) {
    errno = EACCES;
    return (flags & O_ACCMODE) == O_RDWR ? -1 : ::open(name, flags);
  });
  Owner looking(path);
  GetFileSyscalls().open = open;
  Owner storing(path);
  EXPECT_TRUE(looking.ReservedLock(1) && looking.ExcludeReaders() && storing.ReservedLock(0));
  Put(path, 3);
  storing.WriterUnlock();
  looking.WriterUnlock();
  EXPECT_EQ(looking.Calls(), 2);
}

TEST_F(ProcessTest, LastUnlockReleasesAndMoreAreHarmless) {
  Owner owner(path);
  ASSERT_TRUE(owner.WriterLock(0) && owner.ReaderLock(0));
  owner.WriterUnlock();
  EXPECT_TRUE(IsTaken() && owner.isLocked());
  owner.ReaderUnlock();
  owner.ReaderUnlock();
  EXPECT_TRUE(!owner.isLocked() && Holder(true).Locks());
  ASSERT_TRUE(owner.ReaderLock(0) && owner.isLocked());  // the depth is not below 0
  owner.ProcessLockRelease();
  EXPECT_FALSE(owner.isLocked() || owner.ReaderLock(0) || IsTaken());
}

TEST_F(ProcessTest, FollowsAReplacedPathAndADeletedOneStaysDeleted) {
  Owner owner(path);
  ASSERT_TRUE(owner.WriterLock(1));
  const Child writer([&] { return Owner(path).Add() && Get(path) == 21; });
  ASSERT_TRUE(writer.IsStuck());  // on the file that the path names at first
  Replace(path, 20);
  owner.WriterUnlock();
  EXPECT_TRUE(writer.Succeeds() && owner.Calls() == 2);  // though replaced among own writes
  Replace(path, 25);
  EXPECT_EQ(owner.Calls(), 1);
  const Child early([&] {
    static bool s_replaces = true;
    GetFileSyscalls().open = [](const char* name, int flags, mode_t mode) {
      const int fd = ::open(name, flags, mode);
      if (std::exchange(s_replaces, false)) Replace(name, 30);  // before a watch can tell of it
      return fd;
    };
    Owner fresh(path);
    return fresh.WriterLock(0) && IsTaken();
  });
  EXPECT_TRUE(early.Succeeds());
  std::filesystem::remove(path);
  EXPECT_FALSE(owner.WriterLock(1) || owner.ReaderLock(0) || owner.Init() != 2);
}

TEST_F(ProcessTest, AForkedChildHasNoLock) {
  Owner owner(path);
  ASSERT_TRUE(owner.WriterLock(1));
  const Child heir([&] {
    if (owner.isLocked() || owner.WriterLock(0) || owner.ReaderLock(1)) return false;
    owner.WriterUnlock();
    return owner.Init() == 0 && owner.Add() && owner.Calls() == 2;
  });
  ASSERT_TRUE(heir.IsStuck());
  Put(path, 5);
  owner.WriterUnlock();
  EXPECT_TRUE(heir.Succeeds() && owner.Calls() == 2);
}

TEST_F(ProcessTest, ManagesWithoutEventsAndLeavesTheStandardStreamsAlone) {
  const Child child([&] {
    static time_t s_age = 3600;
    for (int fd = 0; fd < 100; ++fd)
      ::close(fd);
    const rlimit few = {4, 4};  // the lock takes descriptor 3, and none is left for events
    ::setrlimit(RLIMIT_NOFILE, &few);
    GetFileSyscalls().stat = [](const char* name, struct stat* status) {
      const int result = ::stat(name, status);
      status->st_ctim.tv_sec -= s_age;
      return result;
    };
    Owner owner(path);
    if (::fcntl(0, F_GETFD) >= 0 || owner.Calls() != 1 || owner.Calls() != 0) return false;
    std::ofstream(path, std::ios::app) << 'x';
    if (owner.Calls() != 1 || !owner.Add() || owner.Calls() < 0) return false;
    s_age = -3600;  // too young to tell one change from the next
    return owner.Calls() == 1 && owner.Calls() == 1;
  });
  EXPECT_TRUE(child.Succeeds());
}

}  // namespace
}  // namespace Zarn
