#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "FileSyscalls.h"
#include "ZrProcess.h"
#include "support/Processes.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

using Support::Child;

struct Owner : ZrProcess {
  explicit Owner(const std::string& file) : path(PelmUnicodeString::FromUtf8(file)) {
    SetCallBack([](void* owner) { ++static_cast<Owner*>(owner)->calls; }, this);
    Init();
  }
  unsigned int Init() { return ProcessLockInit(path); }

  using ZrProcess::EnterFile;
  using ZrProcess::IsAnotherPresent;
  using ZrProcess::LeaveFile;

  const PelmUnicodeString path;
  int calls = 0;  // of the callback
};

struct ProcessTest : testing::Test {
  ProcessTest() { MakeFile(); }

  void MakeFile() const {
    std::ofstream(path + ".new").close();
    std::filesystem::rename(path + ".new", path);
  }
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
  ASSERT_TRUE(owner.ReservedLock(1) && owner.ReservedLock(1) && owner.calls == 1);
  const Child writer = Holder(true);
  ASSERT_TRUE(writer.IsStuck());
  {
    const Child reader = Holder(false);
    ASSERT_TRUE(reader.Locks());  // not behind the writer, who waits for his turn to reserve
    Owner upgrading(path);
    EXPECT_TRUE(upgrading.ReaderLock(0) && !upgrading.ExcludeReaders() && upgrading.isLocked());
    upgrading.ReaderUnlock();
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
  Owner first(path), second(path), third(path);
  EXPECT_TRUE(first.EnterFile(Presence::kMapsFile) && !first.IsAnotherPresent(Presence::kOpen));
  EXPECT_TRUE(second.EnterFile(Presence::kOpen) && second.IsAnotherPresent(Presence::kMapsFile));
  EXPECT_TRUE(first.IsAnotherPresent(Presence::kOpen) &&
              !first.IsAnotherPresent(Presence::kMapsFile) &&
              !second.IsAnotherPresent(Presence::kWritesUnlocked));
  EXPECT_TRUE(!first.LeaveFile() && !second.IsAnotherPresent(Presence::kMapsFile));
  EXPECT_TRUE(first.EnterFile(Presence::kWritesUnlocked) && !second.LeaveFile());
  EXPECT_TRUE(third.IsAnotherPresent(Presence::kWritesUnlocked) && first.LeaveFile());
  const Child late([&] { return Owner(path).EnterFile(Presence::kOpen); });
  EXPECT_TRUE(late.IsStuck());  // until the last one has left altogether
  first.ProcessLockRelease();
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
  ASSERT_TRUE(owner.WriterLock(0) && owner.ReaderLock(1) && owner.calls == 0);
  owner.WriterUnlock();
  EXPECT_TRUE(IsTaken() && owner.isLocked());
  owner.ReaderUnlock();
  owner.ReaderUnlock();
  EXPECT_TRUE(!owner.isLocked() && !IsTaken() && owner.ReaderLock(0));
  owner.ProcessLockRelease();
  EXPECT_FALSE(owner.isLocked() || owner.ReaderLock(0) || IsTaken());
  EXPECT_TRUE(owner.Init() == 0 && owner.WriterLock(0));
  owner.WriterUnlock();  // of a lock that begins anew
  EXPECT_FALSE(owner.isLocked() || IsTaken());
}

TEST_F(ProcessTest, FollowsAReplacedPathAndADeletedOneStaysDeleted) {
  Owner owner(path);
  ASSERT_TRUE(owner.WriterLock(1));
  const Child writer = Holder(true);
  ASSERT_TRUE(writer.IsStuck());  // on the file that the path names at first
  MakeFile();
  owner.WriterUnlock();
  EXPECT_TRUE(writer.Locks() && IsTaken());
  writer.Kill();
  EXPECT_TRUE(owner.WriterLock(1) && IsTaken());
  owner.WriterUnlock();
  std::filesystem::remove(path);
  EXPECT_FALSE(owner.WriterLock(1) || owner.ReaderLock(0) || owner.Init() != 2);
}

TEST_F(ProcessTest, AForkedChildHasNoLock) {
  Owner owner(path);
  ASSERT_TRUE(owner.WriterLock(1));
  const Child heir([&] {
    if (owner.isLocked() || owner.WriterLock(0) || owner.ReaderLock(1)) return false;
    owner.WriterUnlock();
    return owner.Init() == 0 && owner.WriterLock(0);
  });
  EXPECT_TRUE(heir.IsStuck());
  owner.WriterUnlock();
  EXPECT_TRUE(heir.Succeeds());
}

TEST_F(ProcessTest, LeavesTheStandardStreamsAlone) {
  const Child child([&] {
    for (int fd = 0; fd < 100; ++fd)
      ::close(fd);
    Owner owner(path);
    return ::fcntl(0, F_GETFD) < 0 && owner.WriterLock(0);
  });
  EXPECT_TRUE(child.Succeeds());
}

}  // namespace
}  // namespace Zarn
