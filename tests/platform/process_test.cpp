#include <gtest/gtest.h>
#include <sys/prctl.h>
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

namespace fs = std::filesystem;

// The test's file holds one number: its length.
int Get(const std::string& path) {
  std::error_code none;
  return static_cast<int>(fs::file_size(path, none));
}
void Put(const std::string& path, int value) {
  std::ofstream(path, std::ios::app).flush();
  fs::resize_file(path, static_cast<std::uintmax_t>(value));
}
void Replace(const std::string& path, int value) {
  Put(path + ".new", value);
  fs::rename(path + ".new", path);
}

// What keeps the number of a file in memory.
struct Owner : ZrProcess {
  explicit Owner(std::string file) : path(std::move(file)) {
    const auto load = [](void* owner) { static_cast<Owner*>(owner)->Load(); };
    SetCallBack(load, this);
    Init();
  }
  unsigned int Init() { return ProcessLockInit(PelmUnicodeString::FromUtf8(path)); }
  void Load() {
    ++calls;
    value = Get(path);
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

  using ZrProcess::EnterFile;
  using ZrProcess::IsAnotherPresent;
  using ZrProcess::LeaveFile;

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

  // Takes the lock, and keeps it until killed.
  Child Holder(bool writer) const {
    return Child([&] {
      Owner owner(path);
      return (writer ? owner.WriterLock(0) : owner.ReaderLock(0)) && ::raise(SIGSTOP) == 0;
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
  for (int depth = 3; depth > 0; --depth) {
    EXPECT_TRUE(owner.isLocked() && writer.IsStuck() && late.IsStuck());
    owner.WriterUnlock();
  }
  late.Kill();  // either may come first, and would keep the other one waiting
  EXPECT_TRUE(writer.Locks());
}

TEST_F(ProcessTest, TellsWhoIsPresentAndWhoLeavesLast) {
  Owner owner(path);
  const auto isPresent = [&](Presence presence) { return owner.IsAnotherPresent(presence); };
  EXPECT_TRUE(owner.EnterFile(Presence::kMapsFile) && !isPresent(Presence::kOpen));
  {
    const Child other([&] {
      Owner mapping(path);
      return mapping.EnterFile(Presence::kMapsFile) && ::raise(SIGSTOP) == 0;
    });
    ASSERT_TRUE(other.Locks());
    EXPECT_TRUE(isPresent(Presence::kOpen) && isPresent(Presence::kMapsFile) &&
                !isPresent(Presence::kWritesUnlocked));
    EXPECT_FALSE(owner.LeaveFile());
    EXPECT_TRUE(owner.EnterFile(Presence::kWritesUnlocked));
  }
  EXPECT_TRUE(!isPresent(Presence::kOpen) && owner.LeaveFile());
  const Child late([&] { return Owner(path).EnterFile(Presence::kOpen); });
  EXPECT_TRUE(late.IsStuck());  // until the last one has left altogether
  owner.ProcessLockRelease();
  EXPECT_TRUE(late.Succeeds());
}

TEST_F(ProcessTest, OneWhoMayNotWriteDoesNotKeepOutAReservation) {
  const auto open = std::exchange(GetFileSyscalls().open, [](const char* name, int flags, mode_t) {
    errno = EACCES;
    return (flags & O_ACCMODE) == O_RDWR ? -1 : ::open(name, flags);
  });
  Owner looking(path);
  GetFileSyscalls().open = open;
  EXPECT_TRUE(looking.ReservedLock(1) && looking.ExcludeReaders());
  EXPECT_TRUE(Owner(path).ReservedLock(0) && IsTaken());
}

TEST_F(ProcessTest, LastUnlockReleasesAndMoreAreHarmless) {
  Owner owner(path);
  EXPECT_TRUE(owner.Calls() == 1 && owner.Calls() == 1);
  ASSERT_TRUE(owner.WriterLock(0) && owner.ReaderLock(1));
  EXPECT_EQ(owner.calls, 0);  // only the outermost lock calls back
  owner.WriterUnlock();
  EXPECT_TRUE(IsTaken() && owner.isLocked());
  owner.ReaderUnlock();
  owner.ReaderUnlock();
  EXPECT_TRUE(!owner.isLocked() && !IsTaken());
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
  EXPECT_TRUE(writer.Succeeds() && owner.Calls() == 2);
  fs::remove(path);
  EXPECT_FALSE(owner.WriterLock(1) || owner.ReaderLock(0) || owner.Init() != 2);
}

TEST_F(ProcessTest, AForkedChildHasNoLock) {
  Owner owner(path);
  ASSERT_TRUE(owner.WriterLock(1));
  const Child heir([&] {
    if (owner.isLocked() || owner.WriterLock(0) || owner.ReaderLock(1)) return false;
    owner.WriterUnlock();
    return owner.Init() == 0 && owner.Add();
  });
  ASSERT_TRUE(heir.IsStuck());
  owner.WriterUnlock();
  EXPECT_TRUE(heir.Succeeds() && owner.Calls() == 2);
}

TEST_F(ProcessTest, LeavesTheStandardStreamsAlone) {
  const Child child([&] {
    for (int fd = 0; fd < 100; ++fd)
      ::close(fd);
    Owner owner(path);
    return ::fcntl(0, F_GETFD) < 0 && owner.Add();
  });
  EXPECT_TRUE(child.Succeeds());
}

}  // namespace
}  // namespace Zarn
