// Processes and threads use one file at the same time. How long and in which order they do so in
// general is for the soak and for the test of all orders; here are the promises one by one.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"
#include "engine/EngineFixture.h"
#include "support/Processes.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Mode = ZrCompactFile::ZrOpenMode;

constexpr Mode kLocked = ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;

class Sharing : public EngineTest {
 protected:
  ZrCompactFile fresh;
};

TEST_F(Sharing, ARecordIsBeingWrittenWhenACheckBegins) {
  static off_t s_length = 100;  // of the file as the check finds it: within the record's head
  MakeGrid(1, 2);
  ASSERT_EQ(Store(0, 0, "tile", 1), 0U);
  const SyscallFaults restore;
  GetFileSyscalls().lseek = [](int fd, off_t offset, int whence) {
    const off_t result = ::lseek(fd, offset, whence);
    return whence == SEEK_END ? std::min(result, std::exchange(s_length, result)) : result;
  };
  ZrCompactFile::ZrVerifySummary summary;
  EXPECT_EQ(object.Verify(summary, {}), 0U);
}

TEST_F(Sharing, OpenersOfAMissingFileMakeOne) {
  static ZrCompactFile* s_fresh;  // which makes it before the other one can
  static PelmUnicodeString s_path;
  static int (*s_rename)(const char*, const char*);
  s_fresh = &fresh;
  s_path = path;
  s_rename = GetFileSyscalls().renameNoReplace;
  GetFileSyscalls().renameNoReplace = [](const char* from, const char* to) {
    GetFileSyscalls().renameNoReplace = s_rename;
    EXPECT_EQ(s_fresh->Open(s_path, u"", kLocked), 0U);
    EXPECT_EQ(s_fresh->SetAt(u"theirs", Data("tile"), 0, 0, 1), 0U);
    return s_rename(from, to);
  };
  ASSERT_EQ(object.Open(path, u"", kLocked) + Store(u"ours", "tile"), 0U);
  EXPECT_EQ(Read(u"theirs").payload + Read(u"ours").payload, "tiletile");
  EXPECT_EQ(folder.CountFiles(), 1U);
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
    ZrCompactFile other;
    return other.Open(path, from, kLocked) == 0 ? other.SetPassword(to) : 0;
  };
  EXPECT_EQ(change(u"", u"secret"), 1U);
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

// While one opens the two files in turn. A sanitizer sees the threads of one object here.
TEST_F(Sharing, ThreadsGoOnAndNeverMixTwoFiles) {
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
      const Tile cell = Read(0, 1, 1), named = Read(u"name", 1);
      faults += (cell.result == 0 && cell.payload != "ours") ||
                (named.result == 0 && named.payload != "named");
      Store(0, 3, "its", 1);
      Store(u"name", "named", 1);
      if (info == Info{1, 16, 1}) --info[2];
      faults += (info != Info{} && info != Info{0, 3, 5} && info != Info{1, 16, 0}) ||
                (name != path && name != naming) || value >> 56 != 1 ||
                (status != ZrCompactFile::kComplete && status != ZrCompactFile::kUnknown);
      if (object.IsOpen() && object.IsVersionEnabled() && object.IsDeadLocked()) object.Flush();
      object.SetMaxSize(1, 2);
    }
  });
  for (int i = 0; i < 100; ++i) {
    const Mode mode = kLocked | (i % 2 == 0 ? ZrCompactFile::kMapped : 0);
    faults += object.Open(path, u"", mode) != 0 || Store(0, 2, "ours", 1) != 0;
    faults += fresh.SetAt(0, 1, Data("theirs"), 0, 0, 2) != 0;
    faults += Read(0, 2, 1).payload != "ours" || !object.Close();
    faults += object.Create(naming, 16ULL, u"", ZrCompactFile::kReplace | mode) != 0;
    faults += Store(u"name", "named", 1) != 0;
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
    ::seteuid(user);
    bool isRight = object.Open(seen, u"", mode) == 0 && object.Compact() == 2 &&
                   ZrCompactFileReader().Open(seen, u"", mode) == 0;
    Read(0, 0, stamp);
    ::seteuid(0);
    isRight = isRight && fresh.Open(kind == "Mount" ? path : seen, u"", kLocked) == 0 &&
              fresh.SetAt(0, 0, Data("new"), 0, 0, stamp) == 0;
    ::seteuid(user);
    isRight = isRight && Read(0, 0, stamp).payload == "new";
    object.Close();
    return ::seteuid(0) == 0 && fresh.Close() && isRight;
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
  const Support::Child child([&] {
    if (!MakeView()) ::_exit(kUnable);
    return SeesWhatIsStored(kReadOnly | ZrCompactFile::kMapped, 2) &&
           SeesWhatIsStored(kReadOnly, 3);
  });
  const int end = child.Wait(WEXITED);
  if (end == kUnable) GTEST_SKIP() << "needs root, and that it may mount";
  EXPECT_EQ(end, 0);
}

// What a light writer stores takes no lock, so it may come at any moment of the batch.
TEST_F(Sharing, ABatchLeavesAloneTheCellsBetweenItsOwn) {
  static ZrCompactFileWriter* s_writer;
  static off_t s_entry;
  ASSERT_EQ(object.Create(path, 1, 100, u"", kMode | ZrCompactFile::kProcessLock), 0U);
  ZrCompactFileWriter writer;
  ASSERT_EQ(writer.Open(path, u"", kMode), 0U);
  s_writer = &writer;
  s_entry = 76 + 3 * 8;
  const ZrByteArray data = Data("batch");
  std::vector<unsigned int> results;
  const SyscallFaults restore;
  GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
    if (position == s_entry) {
      s_entry = 0;
      EXPECT_EQ(s_writer->SetAt(0, 5, Data("light"), 0, 0, 1), 0U);
    }
    return ::pwrite(fd, bytes, size, position);
  };
  EXPECT_EQ(object.SetBatch({{0, 3, &data}, {0, 9, &data}}, results), 0U);
  EXPECT_EQ(s_entry, 0);
  for (const unsigned int cell : {3, 5, 9})
    EXPECT_EQ(Read(0, cell, 1).payload, cell == 5 ? "light" : "batch");
}

}  // namespace
}  // namespace Zarn
