#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ZrCacheFile.h"
#include "ZrFile.h"
#include "ZrTileCursor.h"
#include "engine/EngineFixture.h"
#include "support/SyscallFaults.h"

namespace {

bool g_clockStands;

}  // namespace

/// The C library's, which the engine calls. While its clock stands, no lookup is late enough to
/// look at the path again.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t clock,
                                                            timespec* time) noexcept {
  if (g_clockStands && clock == CLOCK_MONOTONIC_COARSE) return *time = {}, 0;
  return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
}

namespace Zarn {
namespace {

using Support::Bytes;
using Support::ReadFile;
using Support::operator+;

constexpr ZrCompactFile::ZrOpenMode kLocked = 12;

class Lifecycle : public EngineTest {
 protected:
  using Info = std::array<unsigned int, 3>;  // the kind, and what there are two numbers of
  static Info IndexInfo(const ZrCompactFile& file) {
    Info info = {0, 77, 77};
    info[0] = file.GetIndexInfo(info[1], info[2]);
    return info;
  }
  // Of a store, a lookup, removals of the same version and of another, a password, a compaction.
  std::string Answers() {
    std::ostringstream text;
    text << Store(0, 1, "x", 1) << ' ' << Read(0, 0, 1).result << ' ' << object.Remove(0, 0, 1)
         << ' ' << object.Remove(0, 0, 2) << ' ' << object.SetPassword(u"x") << ' '
         << object.Compact();
    return text.str();
  }
  // As another process does.
  void StoreFromElsewhere(const auto&... where) {
    ASSERT_EQ(other.Open(path, u"", kLocked) + other.SetAt(where..., Data("theirs"), 0, 0, 1), 0U);
  }

  ZrCompactFile other;
};

TEST_F(Lifecycle, OpenMakesAMissingFileUnlessTheModeIsExactlyReadOnly) {
  EXPECT_EQ(object.Open(folder.GetPath("d/tiles"), u"", 2), 5U);
  EXPECT_EQ(folder.CountFiles(), 0U);
  EXPECT_EQ(object.Open(folder.GetPath("d/tiles"), u"", 4), 0U);
  EXPECT_EQ(object.GetFullPath(), folder.GetPath("d/tiles.cf"));
  EXPECT_EQ(IndexInfo(object), (Info{1, 128, 0}));
  EXPECT_EQ(object.Open(folder.GetPath("ten"), u"", 10), 0U);
  EXPECT_EQ(object.Open(folder.GetPath("mapped"), u"", 18), 5U);
  for (const PelmUnicodeString& none : {PelmUnicodeString(), PelmUnicodeString(u"a\0b", 3)}) {
    EXPECT_EQ(object.Open(none, u"", 4), 2U);
    EXPECT_EQ(object.Open(none, u"", 2), 5U);
  }
  ZrFile::MkDirEx(folder.GetPath("dir.cf"));
  for (const auto mode : {kMode, kLocked})
    EXPECT_EQ(object.Open(folder.GetPath("dir"), u"", mode), 6U);
}

TEST_F(Lifecycle, CreateAnswers) {
  const auto grid = [&](const char* name, unsigned int rows, unsigned int cols,
                        ZrCompactFile::ZrOpenMode mode = kMode) {
    return object.Create(folder.GetPath(name), rows, cols, u"", mode);
  };
  // The last product wraps in 32 bits, and is too large all the same.
  for (const auto& [rows, cols] :
       {std::pair{0U, 1U}, {1U, 0U}, {0x10000001U, 1U}, {65536U, 65537U}})
    EXPECT_EQ(grid("g", rows, cols), 2U) << rows;
  for (const unsigned long long capacity : {0ULL, 0x8000001ULL, ~0ULL})
    EXPECT_EQ(object.Create(folder.GetPath("n"), capacity, u"", kMode), 2U) << capacity;
  EXPECT_EQ(grid("old.SC", 1, 1), 2U);
  EXPECT_EQ(object.Create(u"", 1, 1, u"", kMode), 2U);
  EXPECT_EQ(folder.CountFiles(), 0U);
  EXPECT_FALSE(object.IsOpen());

  object.SetMaxSize(2.5, -1.0);
  EXPECT_EQ(object.Create(path, 4ULL, u"", kMode), 0U);
  const Bytes naming = ReadFile(path);
  EXPECT_EQ(Bytes(naming.begin() + 64, naming.end()),
            Number(4) + Number(0) + Number(0x4004000000000000) + Number(0xBFF0000000000000) +
                Number(1, 4) + Bytes(64));

  EXPECT_EQ(grid("g", 3, 5), 0U);
  ASSERT_EQ(Store(2, 4, "kept", 1), 0U);
  EXPECT_EQ(Store(3, 0, "x", 1) + Store(0, 5, "x", 1), 20U);
  EXPECT_EQ(Read(3, 0, 1), (Tile{9, "before", 0}));
  EXPECT_EQ(grid("g", 3, 5), 2U) << "exists";
  ASSERT_EQ(object.Open(folder.GetPath("g"), u"", kMode), 0U);
  EXPECT_EQ(Read(2, 4, 1).payload, "kept");
  const std::string native = folder.GetPath("g.cf").ToUtf8();
  ASSERT_EQ(::chmod(native.c_str(), 0640), 0);
  static int s_wider;  // permissions, before it has the path
  const SyscallFaults restore;
  GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
    struct stat status = {};
    s_wider += ::fstat(fd, &status) != 0 || (status.st_mode & 0077) != 0;
    return ::pwrite(fd, bytes, size, position);
  };
  EXPECT_EQ(grid("g", 1, 1, ZrCompactFile::kReplace), 0U);
  struct stat status = {};
  EXPECT_TRUE(::stat(native.c_str(), &status) == 0 && (status.st_mode & 0777) == 0640);
  EXPECT_EQ(s_wider, 0);
  EXPECT_EQ(IndexInfo(object), (Info{0, 1, 1}));
  EXPECT_EQ(folder.CountFiles(), 2U);
  ZrFile::MkDirEx(folder.GetPath("dir.cf"));
  EXPECT_EQ(grid("dir", 1, 1, ZrCompactFile::kReplace), 2U);
  EXPECT_TRUE(std::filesystem::is_directory(folder.GetFolder() / "dir.cf"));
}

TEST_F(Lifecycle, AClosedObjectAnswers) {
  unsigned long long value = 7;
  std::vector<unsigned int> results;
  MakeGrid(1, 2);
  EXPECT_TRUE(object.Close() && object.Close());
  EXPECT_EQ(Answers(), "6 9 10 10 0 6");
  EXPECT_EQ(Store(0, 0, "x", 1, 0x7FFFFF9D), 10U);
  EXPECT_EQ(object.SetBatch(std::vector<ZrCompactFile::ZrCellStore>(2), results), 6U);
  EXPECT_EQ(results, std::vector(2, 6U));
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kUnknown);
  RefeshIndexCallBack(&object);
  RefeshIndexCallBack(nullptr);
  EXPECT_FALSE(object.IsOpen() || object.Flush() || object.GetGridIdxValue(0, 0, value));
  MakeGrid(1024, 1, false, kLocked);
  ZrFile::Delete(path);
  for (const unsigned int row : {0U, 1023U, 1024U})
    EXPECT_EQ(object.GetStatus(row, 0), ZrCompactFile::kUnknown) << "of a file without a path";
}

TEST_F(Lifecycle, ForReadingOnly) {
  MakeGrid(1, 2);
  ASSERT_EQ(Store(0, 0, "tile", 1), 0U);
  object.Close();
  const Bytes before = ReadFile(path);
  for (const ZrCompactFile::ZrOpenMode mode : {2U, 10U}) {
    Reopen(mode);
    EXPECT_EQ(Answers(), "10 0 10 0 0 2") << "there is nothing to remove of the other version";
  }
  EXPECT_EQ(ReadFile(path), before);

  // Who creates it for reading only writes until another process has changed it.
  MakeGrid(1, 2, false, 10);
  EXPECT_EQ(Store(0, 0, "mine", 1), 0U);
  StoreFromElsewhere(0, 1);
  EXPECT_EQ(Store(0, 0, "mine", 1), 10U);
  EXPECT_EQ(Read(0, 1, 1).payload, "theirs");
}

TEST_F(Lifecycle, ARelativePathOutlivesAChangeOfFolder) {
  const auto start = std::filesystem::current_path();
  const auto unnamed = folder.GetFolder() / "\xFF";  // no UTF-8, so it cannot be expressed
  std::filesystem::create_directory(unnamed);
  std::filesystem::current_path(folder.GetFolder());
  EXPECT_EQ(object.Create(u"t", 1, 1, u"", kLocked), 0U);
  std::filesystem::current_path(unnamed);
  EXPECT_EQ(other.Open(u"o", u"", kMode), 5U);
  EXPECT_EQ(other.Create(u"c", 1, 1, u"", kMode), 2U);
  EXPECT_TRUE(std::filesystem::is_empty(unnamed));
  EXPECT_EQ(object.GetFullPath(), PelmUnicodeString(u"t.cf"));
  StoreFromElsewhere(0, 0);
  EXPECT_EQ(Read(0, 0, 1).result, 0U);
  std::filesystem::current_path(start);
}

// A host's class for older files. What it is asked for has a result of its own.
class Cache : public ZrCacheFile {
 public:
  std::uint32_t Open(const PelmUnicodeString& file, const PelmUnicodeString&,
                     unsigned int direction) override {
    m_path = file;
    return direction == 2 ? 0 : 99;
  }
  bool Close() override {
    ++closed;
    return !std::exchange(m_path, u"").IsEmpty();
  }
  bool IsOpen() const override { return !m_path.IsEmpty(); }
  PelmUnicodeString GetFullPath() const override { return m_path; }
  std::uint32_t GetStatus(ZrCacheFileStatus& status, std::uint32_t) override {
    status = {11, 22};
    return 0;
  }
  std::uint32_t SetPassword(const PelmUnicodeString&) override { return 31; }
  std::uint32_t Reconstruction() override { return 32; }
  std::uint32_t ListFiles(PelmArray<PelmUnicodeString>& names) override {
    names.Add(u"a");
    return 0;
  }
  std::uint32_t AddFile(const ZrByteArray& data, const PelmUnicodeString&) override {
    return Content(data) == "tile" ? 33 : 0;
  }
  std::uint32_t AddFile(const PelmUnicodeString& filePath, const PelmUnicodeString&) override {
    return filePath == u"file" ? 34 : 0;
  }
  std::uint32_t ReadFile(const PelmUnicodeString&, ZrByteArray&) override { return 35; }
  std::uint32_t RemoveFile(const PelmUnicodeString&, std::uint32_t, std::uint32_t) override {
    return 36;
  }

  static inline int closed = 0;

 private:
  PelmUnicodeString m_path;
};

TEST_F(Lifecycle, OlderCacheFilesAreHandedOn) {
  EXPECT_EQ(object.Open(u"none.sc", u"", kMode), 1U) << "nobody has registered";
  EXPECT_FALSE(object.IsOpen());
  ZrCacheFile::Register([]() -> std::unique_ptr<ZrCacheFile> { return std::make_unique<Cache>(); });
  { ZrCompactFile().Open(u"old.sc", u"", kMode); }
  EXPECT_EQ(Cache::closed, 1) << "the object closes it when it goes";
  EXPECT_EQ(other.Open(u"old.Sc", u"", kMode), 0U);
  ZrCacheFile::Register(nullptr);
  EXPECT_TRUE(other.IsOpen());
  EXPECT_EQ(other.GetFullPath(), PelmUnicodeString(u"old.Sc"));
  const ZrByteArray tile = Data("tile");
  PelmArray<PelmUnicodeString> names;
  std::vector<unsigned int> results;
  std::vector<ZrVersion> versions;
  ZrCompactFile::ZrVerifySummary summary;
  ZrStatistics statistics;
  unsigned long long removed = 0;
  EXPECT_EQ(
      (std::vector{other.SetPassword(u"x"), other.Compact(), StoreTile(other, u"a", tile, 1),
                   other.SetAt(u"a", tile.GetData(), 4, 0, 0, 1),
                   other.SetBatch({{u"a", &tile, 0, 0, 1}}, results), other.SetAt(u"a", u"file", 1),
                   ReadTile(other, u"a", 1).result, other.Remove(u"a", 1), other.RemoveAll(u"a")}),
      (std::vector{31U, 32U, 33U, 33U, 33U, 34U, 35U, 36U, 36U}));
  EXPECT_TRUE(other.GetValidNamingList(names) && names.GetSize() == 1);
  EXPECT_EQ((std::vector{other.GetVersions(u"a", versions), other.RemoveOlderThan(1, removed),
                         other.GetStatistics(statistics), ZrTileCursor(other).Next(),
                         other.Verify(summary)}),
            std::vector(5, 1U));
  EXPECT_EQ(other.Open(path, u"", 2), 5U) << "closes it and leaves it attached";
  EXPECT_FALSE(other.IsOpen());
  EXPECT_EQ(IndexInfo(other), (Info{3, 11, 22}));
  Support::WriteFile(path, {'X'});
  EXPECT_EQ(other.Open(path, u"", kMode), 3U) << "lets it go before it loads the file";
  EXPECT_EQ(IndexInfo(other)[0], 0U);
  EXPECT_EQ(other.Create(path, 2, 1, u"", ZrCompactFile::kReplace), 0U);
  EXPECT_EQ(IndexInfo(other), (Info{0, 2, 1}));
}

// By any kind of store or removal that works in a record's place.
TEST_F(Lifecycle, NothingRunsOverTilesInWhatARecordHasReserved) {
  const std::string news(500, 'n');
  unsigned long long room = 0;
  const std::function<unsigned int()> kinds[] = {
      [&] { return Store(0, 3, news, 1); },
      [&] {  // whose head is known
        return Store(0, 3, "new", 1, room) + Store(0, 3, news + std::string(room - 500, '-'), 1);
      },
      [&] { return Store(0, 3, "far", 1, room, room - 3) + Store(0, 3, news, 1, room); },
      [&] { return Store(0, 3, "newer", 2) + Store(0, 3, news, 1); },
      [&] {  // one that becomes the newest
        return Store(0, 3, news, 1) + Store(0, 5, "newer", 2) + object.Remove(0, 5, 2);
      }};
  for (std::size_t i = 0; i < 2 * std::size(kinds); ++i) {
    SCOPED_TRACE(i);
    room = i % 2 == 0 ? 9000 : 90000;
    MakeCrowded(20, room);
    Reopen();
    EXPECT_EQ(kinds[i / 2](), 0U);
    EXPECT_EQ(Read(0, 3, 1).payload.substr(0, news.size()), news);
    for (unsigned int col = 0; col < 20; col += col == 2 ? 2 : 1)
      EXPECT_EQ(Read(0, col, 1).payload.find(CrowdedTile(col)), 0U) << col;
  }
}

TEST_F(Lifecycle, SystemCallsPerOperation) {
  g_clockStands = true;
  const auto calls = [](auto operation) {
    const SyscallFaults counter;
    EXPECT_EQ(operation(), 0U);
    return counter.GetCount();
  };
  const auto store = [&](auto... what) { return calls([&] { return Store(what...); }); };
  const auto read = [&](auto... what) { return calls([&] { return Read(what...).result; }); };
  MakeGrid(2048, 2048);
  store(0, 0, "first", 1);  // loads the page of the index
  EXPECT_EQ(store(0, 1, "second", 1), 3U) << "length of the file, record, entry";
  EXPECT_EQ(store(0, 1, "2nd", 1), 3U) << "head, what is replaced, record in place";
  store(0, 2, "piece", 1, 99, 50);
  EXPECT_EQ(store(0, 2, "another", 1, 99, 5), 4U) << "head, how far it is filled, data, the same";
  EXPECT_EQ(store(0, 1, "newest", 2), 4U) << "head, length of the file, record, entry";
  EXPECT_EQ(read(0, 1, 2), 1U) << "two versions";
  EXPECT_EQ(read(0, 1, 1), 2U) << "older: the newest, then that with what follows";
  object.Close();
  EXPECT_EQ(calls([&] { return object.Open(path, u"", kMode); }), 5U)
      << "existence, open, kind of file, header, grid header";
  EXPECT_EQ(read(0, 0, 1), 2U) << "a page of the index; the next entry tells the record's size";

  Reopen(kLocked);
  read(0, 0, 1);
  StoreFromElsewhere(0, 3);
  EXPECT_EQ(read(0, 3, 1), 5U)
      << "words, and as they have changed: entry, record, the end of the file, words";
  EXPECT_EQ(read(0, 3, 1), 2U) << "record, words";
  store(0, 4, "maps the words", 1);
  EXPECT_EQ(store(0, 5, "new", 1), 5U) << "lock, path, record, entry, unlock";
  const std::string large(9000, 'l');
  store(0, 6, large, 1);
  EXPECT_EQ(store(0, 6, large, 1), 8U) << "the same, with head, copy, its entry before the record";
  Reopen(kLocked | ZrCompactFile::kMapped);
  read(0, 6, 1);
  EXPECT_EQ(read(0, 6, 1), 0U);

  std::vector<unsigned int> results;
  std::vector<ZrCompactFile::ZrCellStore> cells;
  const ZrByteArray tile = Data(std::string(1000, 't'));
  for (unsigned int i = 0; i < 2000; ++i)
    cells.push_back({i / 50, i % 50, &tile, 0, 0, 1});
  MakeGrid(40, 50);
  EXPECT_EQ(calls([&] { return object.SetBatch(cells, results); }), 4 * 2 + 3 + 2 + 3 * 2 + 1U)
      << "blocks of 512, end of the data, pages of the index, entries on two pages, all entries";
  for (unsigned int i = 0; i < 2000; ++i)
    cells[i].row = 0, cells[i].col = 8 * i;
  MakeGrid(1, 16000);
  EXPECT_EQ(calls([&] { return object.SetBatch(cells, results); }), 4 * 2 + 5 + 3 + 2 * 2U)
      << "the same; each 64 KiB of entries are read and written";
  MakeNaming(256);
  store(u"5", "first");
  store(u"6", "next");
  Reopen();
  read(u"6");  // loads a page of the index
  EXPECT_EQ(read(u"5"), 1U) << "the size is known from the next slot";
  EXPECT_EQ(calls([&] { return Read(u"unknown").result - 5; }), 0U);
  EXPECT_EQ(store(u"5", "2nd"), 3U) << "head, which has the name; what is replaced; record";
  EXPECT_EQ(store(u"new", "tile"), 4U) << "length of the file, record, slot, count";
  Reopen(kLocked);
  StoreFromElsewhere(PelmUnicodeString(u"theirs"));
  EXPECT_EQ(read(u"theirs"), 18U) << "does not load all names again";
  g_clockStands = false;
}

}  // namespace
}  // namespace Zarn
