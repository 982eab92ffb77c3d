#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <limits>
#include <thread>

#include "ZrCompactFileCollection.h"
#include "ZrCompactFileManager.h"
#include "engine/EngineFixture.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

namespace fs = std::filesystem;

bool Put(ZrCompactFileStub& stub, unsigned int col, const std::string& text,
         unsigned int room = 0) {
  return stub.Write(1, col, Data(text), room, 0, 1);
}
// The filled part of a tile, or all of it if nothing is said to be filled; "no" if Read fails.
std::string Get(ZrCompactFileStub& stub, unsigned int col, unsigned int stamp = 9) {
  ZrByteArray data = Data("as before");
  unsigned long long filled = 77;
  if (!stub.Read(1, col, data, filled, stamp)) return "no";
  return Content(data).substr(0, filled == 0 ? data.GetSize() : filled);
}
template <typename Body>
void InThreads(unsigned int count, Body body) {
  std::vector<std::jthread> threads;
  for (unsigned int i = 0; i < count; ++i)
    threads.emplace_back(body, i);
}

class Access : public EngineTest {
 public:
  PelmUnicodeString given = folder.GetPath("d/t"), other = folder.GetPath("d/T");
  std::string file = given.ToUtf8() + ".cf", otherFile = other.ToUtf8() + ".cf";
  ZrCompactFileStub stub;
};

TEST_F(Access, CollectionSharesByPathAndCountsUsers) {
  {
    const ZrCompactFileCollection first;
    { const ZrCompactFileCollection second; }
    EXPECT_EQ(ZrCompactFileCollection::GetSingletonPtr(), &first);
  }
  auto& collection = ZrCompactFileCollection::GetSingleton();
  const auto before = CountOpenDescriptors();
  ZrCompactFile* const shared = collection.GetCompactFile(given, 2, 3);
  ASSERT_TRUE(shared->Close() && shared->GetFullPath().ToUtf8() == file);
  InThreads(1, [&](int) { EXPECT_EQ(shared->Open(given, u"", 8), 0U); });
  EXPECT_EQ(collection.GetCompactFile(given, 9, 9), shared);
  EXPECT_NE(collection.GetCompactFile(other), shared);
  ZrCompactFile* const failed = collection.GetCompactFile(given + u".cf", 9, 9);
  EXPECT_FALSE(failed == nullptr || failed->IsOpen());
  collection.DelCompactFile(given);
  collection.DelCompactFile(u"unknown");
  EXPECT_TRUE(shared->IsOpen());
  collection.DelCompactFile(given);  // in a thread that has not opened it
  EXPECT_LE(CountOpenDescriptors(), before + 1) << "the queue of events stays open";
}

TEST_F(Access, ManagerKeepsFourStubsByKey) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double scale :
       {0.5, -0.0, 2.5e-15, -1.7976931348623157e308, infinity, -std::nan("")}) {
    char text[400];
    std::snprintf(text, sizeof text, "%.15f_-2_7", scale);
    EXPECT_EQ(ZrCompactFileManager::GetKey(scale, -2, 7).ToUtf8(), text);
  }
  ZrCompactFileManager& manager = *ZrCompactFileManager::GetInstance();
  const auto isKept = [&](const char16_t* key) { return Get(*manager.LookUp(key), 0) != "no"; };
  for (const char16_t* key : {u"\xFFFF", u"m", u"k", u"\x8000"})
    manager.LookUp(key)->SetPath(given);
  EXPECT_EQ(manager.LookUp(u"M"), manager.LookUp(u"m"));
  ZrCompactFileStub* made = nullptr;
  for (std::size_t n = 1; made == nullptr; ++n) {
    EXPECT_TRUE(isKept(u"k"));
    SyscallFaults shortage;
    shortage.FailCall(n, ENOMEM);
    made = manager.LookUp(0.5, 3, 7);
  }
  EXPECT_EQ(made, manager.LookUp(u"0.500000000000000_3_7")) << "smallest, but not the victim";
  EXPECT_TRUE(isKept(u"m") && isKept(u"\x8000") && isKept(u"\xFFFF") && !isKept(u"k"));
}

TEST_F(Access, StubFollowsItsPath) {
  EXPECT_TRUE(!Put(stub, 0, "x") && Get(stub, 0) == "no" && !fs::exists(".cf"));
  stub.SetPath(given);
  EXPECT_TRUE(Get(stub, 0).empty() && Put(stub, 0, "first") && !Put(stub, 128, "x"));
  EXPECT_EQ(fs::file_size(file), 76 + 8 * 128 * 128 + 44 + 5);
  ZrCompactFileStub fresh;
  fresh.SetPath(given);
  EXPECT_TRUE(Put(stub, 1, "second") && Put(fresh, 2, "third", 100));
  stub.SetPath(other);
  EXPECT_TRUE(Put(stub, 3, "fourth") && !fs::exists(otherFile)) << "the same but for case";
  InThreads(1, [&](int) { EXPECT_EQ(Get(stub, 0) + Get(stub, 3), "firstfourth"); });
  fs::copy(file, otherFile);
  stub.SetPath(other);
  EXPECT_TRUE(Put(stub, 3, "fifth")) << "into a file of its own now";
  EXPECT_EQ(Get(stub, 3) + Get(fresh, 1) + Get(fresh, 2) + Get(fresh, 3), "fifthsecondthirdfourth");
  ASSERT_EQ(object.Open(given, u"", 8), 0U);
  ASSERT_EQ(Store(1, 4, "old", 1) + Store(1, 4, "new", 2), 0U);
  EXPECT_EQ(Get(fresh, 4) + Get(fresh, 4, 1), "newas before");
  fs::rename(otherFile, file);
  EXPECT_TRUE(Put(fresh, 4, "moved") && Get(fresh, 3) == "fifth") << "another file is there";
  InThreads(1, [&](int) {
    EXPECT_EQ(Get(stub, 3), "no");
    EXPECT_TRUE(Put(stub, 3, "again") && Get(stub, 3) == "no") << "this reader has failed for good";
  });
  EXPECT_EQ(Get(stub, 3), "again");
  MakeNaming(1);
  for (const PelmUnicodeString& unusable : {PelmUnicodeString(), path, folder.GetPath("t.sc")}) {
    stub.SetPath(unusable);
    EXPECT_TRUE(!Put(stub, 3, "x") && Get(stub, 3) == "no");
  }
}

// Two that append at the same position would lose a tile.
TEST_F(Access, AWriteExcludesOthers) {
  static std::string s_file;
  static bool s_isExclusive;
  s_file = file;
  s_isExclusive = false;
  stub.SetPath(given);
  ASSERT_TRUE(Put(stub, 0, "first"));
  const SyscallFaults restore;
  GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
    struct flock shared = {};
    shared.l_type = F_RDLCK;
    const int beside = ::open(s_file.c_str(), O_RDWR);
    ::fcntl(beside, F_OFD_GETLK, &shared);
    ::close(beside);
    s_isExclusive = shared.l_type == F_WRLCK;
    return ::pwrite(fd, bytes, size, position);
  };
  EXPECT_TRUE(Put(stub, 1, "second") && s_isExclusive);
}

// The memory of a large tile, which comes back with the next lookup, does not go to those who look
// up small ones. A length may be either of the 64-bit types.
TEST_F(Access, CallersKeepLittleMoreThanTheirTiles) {
  const ZrByteArray tiles[] = {Data(std::string(4 << 20, 'l')), Data("small")};
  MakeGrid(1, 2);
  for (const unsigned int i : {0U, 1U})
    ASSERT_EQ(object.SetAt(0, i, tiles[i], 0, 0, 1), 0U);
  stub.SetPath(path);
  for (const bool byStub : {true, false}) {
    ZrByteArray data;
    for (const unsigned int i : {0U, 1U, 1U, 0U}) {
      std::uint64_t filled = 0;
      EXPECT_TRUE(byStub ? stub.Read(0, i, data, filled, 1)
                         : object.Lookup(0, i, data, filled, 1) == 0);
      EXPECT_TRUE(filled == tiles[i].GetSize() && Content(data) == Content(tiles[i])) << i;
      EXPECT_LE(data.GetReserve(), 2 * filled + 64 * 1024) << i << byStub;
    }
  }
}

TEST_F(Access, ShortageOfMemoryIsAnAnswer) {
  bool isShort = true;
  for (std::size_t n = 1; isShort; ++n) {
    ZrCompactFileCollection collection;
    ZrCompactFileStub fresh;
    fresh.SetPath(given);
    ZrByteArray data;
    unsigned long long filled = 0;
    SyscallFaults shortage;
    shortage.FailCall(n, ENOMEM);
    const bool isShared = collection.GetCompactFile(other, 2, 2) != nullptr;
    const bool isRead = fresh.Read(1, 0, data, filled, 1);
    isShort = shortage.HasFailed();
    EXPECT_TRUE(isShort ? n < 100 : n > 10 && isShared && isRead);
  }
}

TEST_F(Access, ThousandsOfThreadsOnOneStubAndOneCollection) {
  ZrCompactFileCollection collection;
  std::atomic<int> faults = 0;
  for (unsigned int round = 0; round < 625; ++round) {
    ZrCompactFileStub fresh;
    InThreads(8, [&](unsigned int i) {
      const std::string tile(20 + i * 7, static_cast<char>('a' + i));
      stub.SetPath(given);
      fresh.SetPath(given);
      faults += !Put(stub, i, tile) || Get(fresh, i) != tile || Get(stub, i) != tile;
      ZrCompactFile* const shared = collection.GetCompactFile(path, 8, 8);
      faults += shared->Open(path, u"", 4) != 0 || shared->SetAt(i, 0, Data("x"), 0, 0, round) != 0;
      shared->Close();
      collection.DelCompactFile(path);
    });
  }
  EXPECT_TRUE(faults == 0 && CountOpenDescriptors() <= 60);
  Check();
}

}  // namespace
}  // namespace Zarn
