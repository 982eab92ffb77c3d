#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FileSyscalls.h"
#include "ZrFile.h"
#include "ZrProcess.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

// The test's file holds one number, twice; only who has no lock can see two different ones.
constexpr std::int64_t kTorn = -1;

std::int64_t Get(const PelmUnicodeString& path) {
  std::int64_t values[2] = {0, 1};
  const int fd = ::open(path.ToUtf8().c_str(), O_RDONLY | O_CLOEXEC);
  const bool whole = ::pread(fd, &values[0], 8, 0) == 8 && ::pread(fd, &values[1], 8, 8) == 8;
  ::close(fd);
  return whole && values[0] == values[1] ? values[0] : kTorn;
}

void Put(const PelmUnicodeString& path, std::int64_t value) {
  const int fd = ::open(path.ToUtf8().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  const bool whole = ::pwrite(fd, &value, 8, 0) == 8 && ::pwrite(fd, &value, 8, 8) == 8;
  ::close(fd);
  if (!whole) std::abort();
}

// Puts another file in the place of the one at `path`.
void ReplaceBy(const PelmUnicodeString& path, std::int64_t value) {
  const PelmUnicodeString fresh = path + u".new";
  Put(fresh, value);
  std::filesystem::rename(fresh.ToUtf8(), path.ToUtf8());
}

// What keeps the number of a file in memory.
class Owner : public ZrProcess {
 public:
  explicit Owner(const PelmUnicodeString& path) : m_path(path) {
    SetCallBack([](void* owner) { static_cast<Owner*>(owner)->Load(); }, this);
    m_result = ProcessLockInit(path);
  }

  using ZrProcess::IsLockReadOnly;
  using ZrProcess::IsPathDeleted;
  using ZrProcess::IsStateLoaded;
  using ZrProcess::m_bLockDisabled;
  using ZrProcess::SetStateLoaded;

  // Callbacks during a reader lock.
  int Calls() {
    EXPECT_TRUE(ReaderLock(1));
    ReaderUnlock();
    return std::exchange(m_calls, 0);
  }
  // Whether the number in memory is the file's, under a lock.
  bool Reads() {
    if (!ReaderLock(1)) return false;
    const bool isFresh = m_value == Get(m_path);
    ReaderUnlock();
    return isFresh;
  }
  // Adds 1; false if the number in memory was not the file's.
  bool Add() {
    if (!WriterLock(1)) return false;
    const bool isFresh = m_value == Get(m_path);
    Put(m_path, ++m_value);
    WriterUnlock();
    return isFresh;
  }

  unsigned int m_result;
  int m_calls = 0;
  bool m_confirms = true;
  std::int64_t m_value = 0;

 private:
  void Load() {
    ++m_calls;
    m_value = Get(m_path);
    if (m_confirms) SetStateLoaded(true);
  }

  PelmUnicodeString m_path;
};

// A forked process, and a line to it. It ends with what `body` returns.
class Child {
 public:
  explicit Child(const std::function<int(Child&)>& body) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    m_pid = ::fork();
    m_line = ends[m_pid == 0 ? 0 : 1];
    ::close(ends[m_pid == 0 ? 1 : 0]);
    if (m_pid == 0) ::_exit(body(*this));
  }
  ~Child() {
    Signal(SIGKILL);
    Join();
    ::close(m_line);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void Tell() const { ::send(m_line, "", 1, MSG_NOSIGNAL); }
  // False if the other side ends without a word.
  bool Hear() const {
    char word;
    return ::recv(m_line, &word, 1, 0) == 1;
  }
  // Whether it cannot go on: it sleeps and has said nothing, so it waits for a lock.
  bool IsStuck() const {
    for (char state = 'R'; !HasSpoken(); state = State()) {
      if (state == 'S') return !HasSpoken();
      if (state == 'Z') return false;
    }
    return false;
  }
  void Signal(int number) const {
    if (m_pid > 0) ::kill(m_pid, number);
  }
  // Whether a signal has not yet come to it.
  bool IsToBeSignalled() const {
    std::ifstream file("/proc/" + std::to_string(m_pid) + "/status");
    std::string word;
    while (file >> word && word != "ShdPnd:") {
    }
    return file >> word && word.find_first_not_of('0') != std::string::npos;
  }
  // What it returned, or minus the signal that ended it.
  int Join() {
    if (m_pid <= 0) return m_status;
    int status = 0;
    while (::waitpid(std::exchange(m_pid, 0), &status, 0) < 0 && errno == EINTR) {
    }
    m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return m_status;
  }

 private:
  bool HasSpoken() const {
    char word;
    return ::recv(m_line, &word, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }
  char State() const {
    std::ifstream file("/proc/" + std::to_string(m_pid) + "/stat");
    std::string number, name, state;
    file >> number >> name >> state;
    return state.empty() ? 'Z' : state[0];
  }

  pid_t m_pid;
  int m_line;
  int m_status = 0;
};

class ProcessTest : public testing::Test {
 protected:
  void SetUp() override { Put(m_path, 1); }
  void TearDown() override { GetFileSyscalls() = m_syscalls; }

  // What a child does that locks and says so, and unlocks when told.
  std::function<int(Child&)> Holder(bool writer) const {
    return [this, writer](Child& line) {
      Owner owner(m_path);
      if (!(writer ? owner.WriterLock(0) : owner.ReaderLock(0))) return 1;
      line.Tell();
      return line.Hear() ? 0 : 2;
    };
  }  // Whether somebody has the lock.
  bool IsTaken() const { return Child(Holder(true)).IsStuck(); }

  TemporaryFolder m_folder;
  PelmUnicodeString m_path = m_folder.GetPath("file");
  FileSyscalls m_syscalls = GetFileSyscalls();
};

TEST_F(ProcessTest, NoUpdateIsLostAndNoneIsMissed) {
  constexpr int kProcesses = 4;
  constexpr int kRounds = 500;
  std::list<Child> children;
  for (int i = 0; i < kProcesses; ++i)
    children.emplace_back([&](Child&) {
      Owner owner(m_path);
      for (int round = 0; round < kRounds; ++round)
        if (!owner.Add() || !owner.Reads()) return 1;
      return 0;
    });
  for (Child& child : children)
    EXPECT_EQ(child.Join(), 0);
  EXPECT_EQ(Get(m_path), 1 + kProcesses * kRounds);
}

TEST_F(ProcessTest, ObjectsOfOneProcessExcludeEachOther) {
  constexpr int kThreads = 3;
  constexpr int kRounds = 200;
  std::list<Owner> owners;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  std::atomic<int> failures = 0, running = kThreads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, &owner = owners.emplace_back(m_path)] {
      for (int round = 0; round < kRounds; ++round)
        failures += !owner.Add() + !owner.Reads();
      --running;
    });
  }
  while (running > 0)  // meanwhile another thread asks
    for (const Owner& owner : owners)
      static_cast<void>(owner.isLocked());
  for (std::thread& thread : threads)
    thread.join();
  for (const Owner& owner : owners)
    EXPECT_FALSE(owner.isLocked());
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(Get(m_path), 1 + kThreads * kRounds);
}

TEST_F(ProcessTest, ReadersShareAndAWriterIsAlone) {
  Owner owner(m_path);
  ASSERT_TRUE(owner.WriterLock(0));
  Child reader(Holder(false));
  ASSERT_TRUE(reader.IsStuck());
  owner.WriterUnlock();
  ASSERT_TRUE(reader.Hear());
  ASSERT_TRUE(owner.ReaderLock(0));
  Child writer(Holder(true));
  ASSERT_TRUE(writer.IsStuck());
  owner.ReaderUnlock();
  ASSERT_TRUE(writer.IsStuck());
  Child late(Holder(false));
  ASSERT_TRUE(late.IsStuck());  // not past the writer, although only a reader has the lock
  reader.Tell();
  ASSERT_TRUE(writer.Hear());
  ASSERT_TRUE(late.IsStuck());
  writer.Tell();
  ASSERT_TRUE(late.Hear());
  late.Tell();
  for (Child* child : {&reader, &writer, &late})
    EXPECT_EQ(child->Join(), 0);
}

TEST_F(ProcessTest, OverlappingReadersDoNotStarveAWriter) {
  struct Shared {
    std::atomic<int> readers, rounds;
    std::atomic<bool> done;
  };
  constexpr int kMostRounds = 200000;
  void* memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto& shared = *new (memory) Shared{};
  const auto read = [&](Child&) {
    Owner owner(m_path);
    while (!shared.done && ++shared.rounds < kMostRounds) {
      if (!owner.ReaderLock(0)) return 1;
      ++shared.readers;  // and stay until another one has come, within limits
      for (int i = 0; i < 100 && shared.readers < 2; ++i)
        std::this_thread::yield();
      --shared.readers;
      owner.ReaderUnlock();
    }
    return 0;
  };
  {
    Child one(read), two(read), three(read);
    Owner owner(m_path);
    while (shared.readers == 0)
      std::this_thread::yield();
    for (int i = 0; i < 50; ++i)
      EXPECT_TRUE(owner.Add());
    shared.done = true;
    EXPECT_EQ(one.Join() + two.Join() + three.Join(), 0);
  }
  EXPECT_LT(shared.rounds, kMostRounds);
  ::munmap(memory, sizeof(Shared));
}

TEST_F(ProcessTest, CallsBackForForeignChangesOnly) {
  Owner one(m_path), two(m_path);
  EXPECT_EQ(one.Calls(), 1);  // nothing was loaded yet
  EXPECT_EQ(one.Calls(), 0);
  EXPECT_TRUE(one.Add());
  EXPECT_EQ(one.Calls(), 0);
  EXPECT_EQ(two.Calls(), 1);
  EXPECT_TRUE(two.Add());
  EXPECT_EQ(two.Calls(), 0);
  EXPECT_EQ(one.Calls(), 1);
  EXPECT_EQ(Child([&](Child&) { return Owner(m_path).Add() ? 0 : 1; }).Join(), 0);
  ASSERT_TRUE(one.ReaderLock(0));
  EXPECT_FALSE(one.IsStateLoaded());
  ASSERT_TRUE(one.ReaderLock(1));  // not the outermost
  one.ReaderUnlock();
  one.ReaderUnlock();
  EXPECT_EQ(one.m_calls, 0);
  EXPECT_EQ(one.Calls(), 1);
  EXPECT_EQ(two.Calls(), 1);
  EXPECT_EQ(one.m_value, 4);
}

TEST_F(ProcessTest, CallsBackUntilTheStateIsLoaded) {
  Owner owner(m_path);
  owner.m_confirms = false;
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.Calls(), 1);
  ASSERT_TRUE(owner.WriterLock(0));
  Put(m_path, 2);  // on top of what it never loaded
  owner.WriterUnlock();
  EXPECT_EQ(owner.Calls(), 1);
  owner.m_confirms = true;
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.Calls(), 0);
  ASSERT_TRUE(owner.WriterLock(1));
  owner.SetStateLoaded(false);  // a write that went wrong
  owner.WriterUnlock();
  EXPECT_EQ(owner.Calls(), 1);
}

TEST_F(ProcessTest, LostEventsCountAsChange) {
  std::int64_t limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  if (limit > 1000000) GTEST_SKIP() << "queue too long to fill";
  const PelmUnicodeString paths[] = {m_folder.GetPath("one"), m_folder.GetPath("two")};
  for (const PelmUnicodeString& path : paths)
    Put(path, 1);
  Owner owner(m_path), one(paths[0]), two(paths[1]);
  EXPECT_EQ(owner.Calls(), 1);
  std::ofstream files[] = {std::ofstream(paths[0].ToUtf8()), std::ofstream(paths[1].ToUtf8())};
  for (std::int64_t i = 0; i <= limit; ++i)
    files[i % 2] << 'x' << std::flush;
  Put(m_path, 2);
  EXPECT_EQ(owner.Calls(), 1);
  for (std::int64_t i = 0; i <= limit; ++i)
    files[i % 2] << 'x' << std::flush;
  ReplaceBy(m_path, 3);
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.m_value, 3);
  EXPECT_EQ(owner.Calls(), 0);
  ASSERT_TRUE(owner.WriterLock(0));
  EXPECT_TRUE(IsTaken());
}

TEST_F(ProcessTest, DeathFreesTheLockAndShowsWhatWasWritten) {
  Owner owner(m_path);
  EXPECT_EQ(owner.Calls(), 1);
  Child writer([&](Child& line) {
    Owner doomed(m_path);
    if (!doomed.WriterLock(0)) return 1;
    Put(m_path, 7);
    line.Tell();
    return line.Hear() ? 2 : 3;
  });
  ASSERT_TRUE(writer.Hear());
  Child waiting(Holder(true));
  ASSERT_TRUE(waiting.IsStuck());
  waiting.Signal(SIGKILL);  // with the gate
  writer.Signal(SIGKILL);
  EXPECT_EQ(waiting.Join(), -SIGKILL);
  EXPECT_EQ(writer.Join(), -SIGKILL);
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.m_value, 7);
}

TEST_F(ProcessTest, AnInterruptedWaitGoesOn) {
  Owner owner(m_path);
  ASSERT_TRUE(owner.WriterLock(0));
  const auto wait = [&](bool writer) {
    return [this, writer](Child& line) {
      struct sigaction action = {};
      action.sa_handler = [](int) {};
      ::sigaction(SIGUSR1, &action, nullptr);
      return Holder(writer)(line);
    };
  };
  Child writer(wait(true)), reader(wait(false));
  for (const Child* child : {&writer, &reader}) {
    ASSERT_TRUE(child->IsStuck());
    child->Signal(SIGUSR1);
    while (child->IsToBeSignalled())
      std::this_thread::yield();
    EXPECT_TRUE(child->IsStuck());
    child->Tell();
  }
  owner.WriterUnlock();
  EXPECT_EQ(writer.Join(), 0);
  EXPECT_EQ(reader.Join(), 0);
}

TEST_F(ProcessTest, LastUnlockReleasesAndMoreAreHarmless) {
  Owner owner(m_path);
  owner.WriterUnlock();
  EXPECT_FALSE(owner.isLocked());
  ASSERT_TRUE(owner.WriterLock(0));
  ASSERT_TRUE(owner.ReaderLock(0));
  ASSERT_TRUE(owner.WriterLock(0));
  owner.WriterUnlock();
  owner.ReaderUnlock();
  bool otherThreadSeesIt = false;
  std::thread([&] { otherThreadSeesIt = owner.isLocked(); }).join();
  EXPECT_TRUE(otherThreadSeesIt);
  EXPECT_TRUE(IsTaken());
  owner.WriterUnlock();
  EXPECT_FALSE(owner.isLocked());
  Child writer(Holder(true));
  ASSERT_TRUE(writer.Hear());
  owner.WriterUnlock();
  EXPECT_TRUE(IsTaken());  // by the writer still
  writer.Tell();
  ASSERT_TRUE(owner.ReaderLock(0));  // and the depth is not below 0
  EXPECT_TRUE(owner.isLocked());
  owner.ReaderUnlock();
  EXPECT_FALSE(owner.isLocked());
}

TEST_F(ProcessTest, AReaderCannotBecomeTheWriter) {
  const auto upgrade = [&] {
    Owner owner(m_path);  // made here, since a forked child has no lock
    EXPECT_TRUE(owner.ReaderLock(0));
    EXPECT_FALSE(owner.WriterLock(0));
    owner.ReaderUnlock();
    EXPECT_FALSE(owner.isLocked());
  };
  EXPECT_DEBUG_DEATH(upgrade(), "wait for each other");
}

TEST_F(ProcessTest, FollowsThePath) {
  Owner owner(m_path);
  EXPECT_EQ(owner.Calls(), 1);
  ReplaceBy(m_path, 2);
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.m_value, 2);
  EXPECT_EQ(owner.Calls(), 0);
  EXPECT_TRUE(owner.Add());
  ASSERT_TRUE(owner.WriterLock(0));
  Child writer([&](Child&) { return static_cast<int>(Owner(m_path).Add() ? Get(m_path) : 0); });
  ASSERT_TRUE(writer.IsStuck());  // on the file that the path names at first
  Put(m_path, 4);
  ReplaceBy(m_path, 20);
  owner.WriterUnlock();
  EXPECT_EQ(writer.Join(), 21);
  EXPECT_EQ(owner.Calls(), 1);  // although the file was replaced among own writes
  EXPECT_EQ(owner.m_value, 21);
}

TEST_F(ProcessTest, FollowsThePathFromTheBeginning) {
  static const PelmUnicodeString* path;
  path = &m_path;
  static const auto open = GetFileSyscalls().open;
  Owner owner(m_path);
  EXPECT_EQ(owner.Calls(), 1);
  GetFileSyscalls().open = [](const char* name, int flags, mode_t mode) {
    GetFileSyscalls().open = open;
    const int fd = open(name, flags, mode);
    ReplaceBy(*path, 2);  // before a watch can tell of it
    return fd;
  };
  ASSERT_EQ(owner.ProcessLockInit(m_path), 0U);
  ASSERT_TRUE(owner.WriterLock(0));
  EXPECT_TRUE(IsTaken());
}

TEST_F(ProcessTest, ADeletedFileStaysDeleted) {
  Owner owner(m_path), never(m_folder.GetPath("never")), folder(m_folder.GetPath(""));
  EXPECT_EQ(owner.m_result, 0U);
  EXPECT_EQ(never.m_result, 2U);
  EXPECT_EQ(folder.m_result, 3U);
  EXPECT_FALSE(never.ReaderLock(0));
  EXPECT_FALSE(folder.WriterLock(0));
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_FALSE(owner.IsPathDeleted());
  ASSERT_TRUE(ZrFile::Delete(m_path));
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(owner.WriterLock(1));
    EXPECT_FALSE(owner.ReaderLock(0));
    EXPECT_TRUE(owner.IsPathDeleted());
    EXPECT_FALSE(owner.isLocked());
  }
  EXPECT_FALSE(ZrFile::IsExist(m_path));
  EXPECT_EQ(owner.m_calls, 0);
  Put(m_path, 5);
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.m_value, 5);
}

TEST_F(ProcessTest, AForkedChildHasNoLock) {
  Owner owner(m_path);
  EXPECT_EQ(owner.Calls(), 1);
  ASSERT_TRUE(owner.WriterLock(0));
  Child child([&](Child&) {
    if (owner.isLocked() || owner.WriterLock(0) || owner.ReaderLock(1)) return 1;
    owner.WriterUnlock();
    owner.ReaderUnlock();
    owner.ProcessLockRelease();
    return 0;
  });
  EXPECT_EQ(child.Join(), 0);
  EXPECT_TRUE(owner.isLocked());
  Child heir([&](Child& line) {
    if (owner.ProcessLockInit(m_path) != 0 || owner.m_calls != 0) return 1;
    const bool added = owner.Add() && owner.m_calls == 1 && owner.Calls() == 1;
    line.Tell();
    return added ? 0 : 2;
  });
  ASSERT_TRUE(heir.IsStuck());
  Put(m_path, 5);
  owner.SetStateLoaded(true);
  owner.WriterUnlock();
  EXPECT_TRUE(heir.Hear());
  EXPECT_EQ(heir.Join(), 0);
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.m_value, 6);
}

TEST_F(ProcessTest, AReaderOfAFileItMayNotWriteKeepsWritersOut) {
  Owner owner(m_path);
  EXPECT_FALSE(owner.IsLockReadOnly());
  GetFileSyscalls().open = [](const char* path, int flags, mode_t mode) {
    if ((flags & O_ACCMODE) == O_RDONLY) return ::open(path, flags, mode);
    errno = EACCES;
    return -1;
  };
  Owner guest(m_path);
  GetFileSyscalls() = m_syscalls;
  EXPECT_EQ(guest.m_result, 1U);
  EXPECT_TRUE(guest.IsLockReadOnly());
  ASSERT_TRUE(guest.WriterLock(1));
  EXPECT_TRUE(owner.Reads());  // a writer that cannot write disturbs no reader
  Child writer(Holder(true));
  ASSERT_TRUE(writer.IsStuck());
  guest.WriterUnlock();
  ASSERT_TRUE(writer.Hear());
  writer.Tell();
  EXPECT_EQ(writer.Join(), 0);
  EXPECT_EQ(guest.Calls(), 1);
}

TEST_F(ProcessTest, PassesThroughWhileDisabled) {
  Owner owner(m_path), other(m_path);
  EXPECT_EQ(owner.Calls(), 1);
  ASSERT_TRUE(other.WriterLock(0));
  owner.m_bLockDisabled = true;
  EXPECT_TRUE(owner.WriterLock(1));
  EXPECT_FALSE(owner.isLocked());
  EXPECT_TRUE(owner.IsStateLoaded());
  owner.m_bLockDisabled = false;
  EXPECT_FALSE(owner.IsStateLoaded());
  owner.WriterUnlock();
  other.m_bLockDisabled = true;
  other.WriterUnlock();
  EXPECT_TRUE(other.isLocked());
  other.m_bLockDisabled = false;
  other.WriterUnlock();
  EXPECT_EQ(owner.Calls(), 0);
}

// Ages the time of change of the files that are looked at; below 0 it makes them younger.
std::int64_t g_age = 0;

int StatOfAge(const char* path, struct stat* status) {
  const int result = ::stat(path, status);
  status->st_ctim.tv_sec -= g_age;
  return result;
}

TEST_F(ProcessTest, ManagesWithoutEvents) {
  Child child([&](Child&) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const int next = ::dup(0);
    ::close(next);
    const rlimit roomForOne{static_cast<rlim_t>(next) + 1, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &roomForOne);
    Owner owner(m_path);  // has no descriptor for the events
    ::setrlimit(RLIMIT_NOFILE, &limit);
    GetFileSyscalls().stat = StatOfAge;
    g_age = -3600;
    if (owner.m_result != 0 || owner.Calls() != 1 || owner.Calls() != 1) return 1;
    g_age = 3600;
    if (owner.Calls() != 1 || owner.Calls() != 0) return 2;
    std::ofstream(m_path.ToUtf8(), std::ios::app) << "x";
    if (owner.Calls() != 1 || owner.Calls() != 0) return 3;
    if (!owner.Add() || !owner.Reads()) return 4;
    std::filesystem::rename(m_path.ToUtf8(), m_folder.GetPath("other").ToUtf8());
    return owner.ReaderLock(0) || !owner.IsPathDeleted() ? 5 : 0;
  });
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(ProcessTest, TrustsNoEventsOfAFileSystemThatIsNotOnTheDisk) {
  GetFileSyscalls().stat = StatOfAge;
  g_age = 3600;
  Owner owner(u"/proc/self/comm");
  EXPECT_EQ(owner.Calls(), 1);
  EXPECT_EQ(owner.Calls(), 1);
}

TEST_F(ProcessTest, LeavesTheStandardStreamsAlone) {
  Child child([&](Child&) {
    for (int fd = 0; fd < 3; ++fd)
      ::close(fd);
    Owner owner(m_path);
    if (!owner.Add()) return 1;
    for (int fd = 0; fd < 3; ++fd)
      if (::fcntl(fd, F_GETFD) >= 0) return 2;
    return 0;
  });
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(ProcessTest, GivesEverythingBack) {
  const auto descriptors = [] {
    std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
  };
  const auto before = descriptors();
  Owner owner(m_path), other(m_path);
  EXPECT_GT(descriptors(), before);
  ASSERT_TRUE(owner.WriterLock(0));
  owner.ProcessLockRelease();
  EXPECT_FALSE(owner.isLocked());
  EXPECT_FALSE(owner.WriterLock(0));
  EXPECT_TRUE(other.Add());
  EXPECT_EQ(std::exchange(other.m_calls, 0), 1);
  EXPECT_EQ(owner.ProcessLockInit(m_path), 0U);
  EXPECT_TRUE(owner.Add());
  EXPECT_EQ(other.Calls(), 1);
  owner.ProcessLockRelease();
  EXPECT_EQ(Child([&](Child&) { return Owner(m_path).Add() ? 0 : 1; }).Join(), 0);
  EXPECT_EQ(other.Calls(), 1);  // its watch has not gone with the other one's
  other.ProcessLockRelease();
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace Zarn
