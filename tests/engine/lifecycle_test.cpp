#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <tuple>

#include "ZrCacheFile.h"
#include "ZrCompactFileStub.h"
#include "ZrCompactFileWriter.h"
#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Support::Bytes;
using Support::Poke;
using Support::ReadFile;
using Support::WriteFile;
using Support::operator+;

class Lifecycle : public EngineTest {
 protected:
  using Info = std::array<unsigned int, 3>;  // the kind, and what there are two numbers of
  static Info IndexInfo(const ZrCompactFile& file) {
    Info info = {0, 77, 77};
    info[0] = file.GetIndexInfo(info[1], info[2]);
    return info;
  }
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
}

TEST_F(Lifecycle, CreateAnswers) {
  WriteFile(folder.GetPath("old.SC"), {1});
  const auto grid = [&](const char* name, unsigned int rows, unsigned int cols,
                        ZrCompactFile::ZrOpenMode mode) {
    return object.Create(folder.GetPath(name), rows, cols, u"", mode);
  };
  // The last product wraps in 32 bits, and is too large all the same.
  for (const auto& [rows, cols] :
       {std::pair{0U, 1U}, {1U, 0U}, {0x10000001U, 1U}, {65536U, 65536U}})
    EXPECT_EQ(grid("g", rows, cols, 4), 2U) << rows;
  for (const unsigned long long capacity : {0ULL, 0x8000001ULL, ~0ULL})
    EXPECT_EQ(object.Create(folder.GetPath("n"), capacity, u"", 4), 2U) << capacity;
  EXPECT_EQ(grid("old.SC", 1, 1, 1), 2U);
  EXPECT_EQ(object.Create(u"", 1, 1, u"", 4), 2U);
  EXPECT_EQ(folder.CountFiles(), 1U);
  EXPECT_FALSE(object.IsOpen());

  object.SetMaxSize(2.5, -1.0);
  EXPECT_EQ(object.Create(folder.GetPath("n"), 4ULL, u"", 4), 0U);
  const Bytes naming = ReadFile(folder.GetPath("n.cf"));
  EXPECT_EQ(Bytes(naming.begin() + 64, naming.end()),
            Number(4) + Number(0) + Number(0x4004000000000000) + Number(0xBFF0000000000000) +
                Number(1, 4) + Bytes(64));
  EXPECT_EQ(IndexInfo(object), (Info{1, 4, 0}));

  EXPECT_EQ(grid("g", 3, 5, 4), 0U);
  ASSERT_EQ(Store(2, 4, "kept", 1), 0U);
  EXPECT_EQ(Store(3, 0, "x", 1), 10U);
  EXPECT_EQ(Store(0, 5, "x", 1), 10U);
  EXPECT_EQ(Read(3, 0, 1), (Tile{9, "before", 0}));
  EXPECT_EQ(grid("g", 3, 5, 4), 2U) << "exists";
  ASSERT_EQ(object.Open(folder.GetPath("g"), u"", 4), 0U);
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
  EXPECT_EQ(grid("g", 1, 1, 1), 0U) << "replaced";
  struct stat status = {};
  EXPECT_TRUE(::stat(native.c_str(), &status) == 0 && (status.st_mode & 0777) == 0640);
  EXPECT_EQ(s_wider, 0);
  EXPECT_EQ(IndexInfo(object), (Info{0, 1, 1}));
  EXPECT_EQ(folder.CountFiles(), 3U);
}

TEST_F(Lifecycle, WhatCannotBeOpened) {
  MakeGrid(1, 1);
  object.Close();
  const Bytes good = ReadFile(path);
  ASSERT_EQ(object.Create(folder.GetPath("n"), 2ULL, u"", 4), 0U);
  object.Close();
  const Bytes naming = ReadFile(folder.GetPath("n.cf"));
  // Of which file, how much of it is left, what is put where, and the answer.
  const std::tuple<Bytes, std::size_t, std::size_t, Bytes, unsigned int> files[] = {
      {good, 84, 0, {}, 0},
      {good, 80, 0, {}, 0},  // an entry that is cut off is empty
      {good, 84, 7, Number(7, 4), 0},
      {good, 0, 0, {}, 3},
      {good, 63, 0, {}, 3},
      {good, 84, 0, {'X'}, 3},
      {good, 75, 0, {}, 1},
      {good, 84, 19, Number(63), 1},
      {good, 84, 19, Number(85), 1},
      {good, 84, 19, Number(UINT64_MAX - 5), 1},
      {naming, 99, 0, {}, 1},
      {naming, 110, 0, {}, 0},
      {naming, 132, 64, Number(0x8000001), 1},
      {naming, 132, 72, Number(3), 1},
      {naming, 132, 72, Number(UINT64_MAX), 1},
  };
  for (const auto& [file, size, offset, bytes, expected] : files) {
    WriteFile(path, file);
    std::filesystem::resize_file(path.ToUtf8(), size);
    Poke(path, offset, bytes);
    EXPECT_EQ(object.Open(path, u"", 4), expected) << size << ' ' << offset;
    EXPECT_EQ(object.IsOpen(), expected == 0);
    object.Close();
  }
  WriteFile(path, good);
  Poke(path, 7, Number(7, 4));
  ASSERT_EQ(object.Open(path, u"", 4), 0U);
  EXPECT_EQ(IndexInfo(object), (Info{7, 77, 77}));
  EXPECT_EQ(Read(0, 0, 1).result, 9U);
  const ZrByteArray data = Data("x");
  std::vector<unsigned int> results;
  EXPECT_EQ(object.SetBatch(std::vector{ZrCompactFile::ZrCellStore{0, 0, &data}}, results), 10U);
  EXPECT_EQ(object.SetBatch(std::vector{ZrCompactFile::ZrNameStore{u"a", &data}}, results), 10U);

  ZrFile::MkDirEx(folder.GetPath("dir.cf"));
  EXPECT_EQ(object.Open(folder.GetPath("dir"), u"", 4), 6U);
  ASSERT_EQ(::mkfifo(folder.GetPath("fifo.cf").ToUtf8().c_str(), 0600), 0);
  std::filesystem::resize_file(path.ToUtf8(), 63);
  object.Open(path, u"", 12);  // opens the queue of events, which stays
  const std::size_t before = CountOpenDescriptors();
  for (const ZrCompactFile::ZrOpenMode mode : {4U, 12U}) {
    EXPECT_EQ(object.Open(folder.GetPath("fifo"), u"", mode), 6U);
    EXPECT_EQ(object.Open(path, u"", mode), 3U);
  }
  EXPECT_EQ(CountOpenDescriptors(), before);
}

TEST_F(Lifecycle, AClosedObjectAnswers) {
  unsigned long long value = 7;
  EXPECT_EQ(Store(0, 0, "", 1), 6U);
  EXPECT_EQ(Store(0, 0, "x", 1, 0x7FFFFF9D), 10U);
  EXPECT_EQ(Read(0, 0, 1), (Tile{9, "before", 0}));
  EXPECT_EQ(object.Remove(0, 0, 1), 10U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kUnknown);
  EXPECT_FALSE(object.GetGridIdxValue(0, 0, value));
  EXPECT_EQ(object.SetPassword(u"x"), 0U);
  EXPECT_TRUE(object.Close());
  EXPECT_FALSE(object.Flush());
  EXPECT_FALSE(object.IsOpen());
}

TEST_F(Lifecycle, ForReadingOnly) {
  MakeGrid(1, 2);
  ASSERT_EQ(Store(0, 0, "tile", 1), 0U);
  object.Close();
  const Bytes before = ReadFile(path);
  for (const ZrCompactFile::ZrOpenMode mode : {2U, 10U}) {
    ASSERT_EQ(object.Open(path, u"", mode), 0U);
    EXPECT_EQ(Read(0, 0, 1).payload, "tile");
    EXPECT_EQ(Store(0, 1, "x", 1), 10U);
    EXPECT_EQ(object.Remove(0, 0, 1), 10U);
    EXPECT_EQ(object.Remove(0, 0, 2), 0U) << "nothing to remove";
    EXPECT_EQ(object.SetPassword(u"x"), 0U);
    EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kComplete);
    object.Close();
  }
  EXPECT_EQ(ReadFile(path), before);

  // Who creates it for reading only writes until another process has changed it.
  ASSERT_EQ(object.Create(path, 1, 2, u"", 11), 0U);
  EXPECT_EQ(Store(0, 0, "mine", 1), 0U);
  ZrCompactFile other;
  ASSERT_EQ(other.Open(path, u"", 12), 0U);
  ASSERT_EQ(other.SetAt(0, 1, Data("theirs"), 0, 0, 1), 0U);
  EXPECT_EQ(Store(0, 0, "mine", 1), 10U);
  EXPECT_EQ(Read(0, 1, 1).payload, "theirs");
}

TEST_F(Lifecycle, AFileWithoutAPathHasNoStatus) {
  MakeGrid(1024, 1, false, 12);
  ASSERT_EQ(Store(0, 0, "in memory", 1), 0U);
  ZrFile::Delete(path);
  for (const unsigned int row : {0U, 1023U})
    EXPECT_EQ(object.GetStatus(row, 0), ZrCompactFile::kUnknown);
  EXPECT_EQ(object.GetStatus(1024, 0), ZrCompactFile::kUnknown);
  object.Close();
  RefeshIndexCallBack(&object);  // does nothing to a closed object
  RefeshIndexCallBack(nullptr);
  MakeGrid(1, 1);
  object.Close();
  RefeshIndexCallBack(&object);
  EXPECT_FALSE(object.Flush());
}

TEST_F(Lifecycle, ARelativePathOutlivesAChangeOfFolder) {
  const auto start = std::filesystem::current_path();
  std::filesystem::current_path(folder.GetFolder());
  EXPECT_EQ(object.Create(u"t", 1, 1, u"", 12), 0U);
  std::filesystem::current_path(start);
  EXPECT_EQ(object.GetFullPath(), PelmUnicodeString(u"t.cf"));
  ZrCompactFile other;
  ASSERT_EQ(other.Open(path, u"", 12), 0U);
  ASSERT_EQ(other.SetAt(0, 0, Data("new"), 0, 0, 1), 0U);
  EXPECT_EQ(Read(0, 0, 1).payload, "new");
  EXPECT_FALSE(ZrFile::IsExist(u"t.cf"));

  // What would not outlive it is not made. In a folder whose name is not UTF-8, and in a deleted
  // one.
  const auto unnamed = folder.GetFolder() / "\xFF", deleted = folder.GetFolder() / "deleted";
  for (const auto& where : {unnamed, deleted}) {
    std::filesystem::create_directory(where);
    std::filesystem::current_path(where);
    if (where == deleted) std::filesystem::remove(where);
    ZrCompactFileStub stub;
    stub.SetPath(u"s");
    EXPECT_EQ(other.Open(u"o", u"", 4), 5U);
    EXPECT_EQ(other.Create(u"c", 1, 1, u"", 4), 2U);
    std::filesystem::current_path(start);
    EXPECT_FALSE(stub.Write(0, 0, Data("x"), 0, 0, 1));
  }
  EXPECT_TRUE(std::filesystem::is_empty(unnamed) && !ZrFile::IsExist(u"s.cf"));
}

// A host's class for older files, as far as it is asked here.
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
  std::uint32_t SetPassword(const PelmUnicodeString&) override { return 5; }

  static inline int closed = 0;

 private:
  PelmUnicodeString m_path;
};

TEST_F(Lifecycle, OlderCacheFilesAreHandedOn) {
  EXPECT_EQ(object.Open(u"none.sc", u"", 4), 1U) << "nobody has registered";
  EXPECT_FALSE(object.IsOpen());
  ZrCacheFile::Register([]() -> std::unique_ptr<ZrCacheFile> { return std::make_unique<Cache>(); });
  { ZrCompactFile().Open(u"old.sc", u"", 4); }
  EXPECT_EQ(Cache::closed, 1) << "the object closes it when it goes";
  ZrCompactFile cached;
  EXPECT_EQ(cached.Open(u"old.Sc", u"", 4), 0U);
  ZrCacheFile::Register(nullptr);
  EXPECT_TRUE(cached.IsOpen());
  EXPECT_EQ(cached.GetFullPath(), PelmUnicodeString(u"old.Sc"));
  EXPECT_EQ(IndexInfo(cached), (Info{3, 11, 22}));
  EXPECT_EQ(cached.SetPassword(u"x"), 5U);
  EXPECT_EQ(cached.Open(folder.GetPath("none"), u"", 2), 5U) << "closes it and leaves it attached";
  EXPECT_FALSE(cached.IsOpen());
  EXPECT_EQ(IndexInfo(cached), (Info{3, 11, 22}));
  WriteFile(path, {'X'});
  EXPECT_EQ(cached.Open(path, u"", 4), 3U) << "lets it go before it loads the file";
  EXPECT_EQ(IndexInfo(cached)[0], 0U);
  ZrFile::Delete(path);
  EXPECT_EQ(cached.Create(path, 2, 1, u"", 4), 0U);
  EXPECT_EQ(IndexInfo(cached), (Info{0, 2, 1}));
  EXPECT_EQ(cached.GetFullPath(), path);
}

// Which writes no more of its last tile than the data.
TEST_F(Lifecycle, NothingIsAppendedIntoWhatALightWriterHasReserved) {
  ZrCompactFileWriter writer;
  ASSERT_EQ(writer.Create(path, 1, 7, u"", kMode), 0U);
  ASSERT_EQ(writer.SetAt(0, 0, Data("part"), 116, 0, 1), 0U);
  writer.Close();
  Reopen(kMode | ZrCompactFile::kProcessLock);
  ZrCompactFileStub stub;
  stub.SetPath(path);
  const std::string neighbour(80, 'n'), whole(116, 'w');
  for (unsigned int col = 0; col < 6; col += 2) {
    for (const unsigned int version : {1U, 2U})
      EXPECT_EQ(Store(0, col + 1, neighbour, version) + Store(0, col, whole, 1), 0U);
    EXPECT_EQ(Read(0, col + 1, 1), (Tile{0, neighbour, 80}));
    EXPECT_EQ(Read(0, col, 1), (Tile{0, whole, 116}));
    // The second time in the place of a record that is smaller: the file does not get longer.
    if (col == 2) {
      EXPECT_TRUE(stub.Write(0, 4, Data(whole.substr(16)), 0, 0, 1));
    }
    EXPECT_TRUE(stub.Write(0, col + 2, Data("part"), 116, 0, 1));
  }
}

// A copy meanwhile lies behind what the last record has reserved; afterwards the file ends where it
// did.
TEST_F(Lifecycle, ARewriteInPlaceKeepsTheLengthOfALightWritersFile) {
  const std::string large(5000, 'L');
  ZrCompactFileWriter writer;
  ASSERT_EQ(writer.Create(path, 1, 2, u"", kMode), 0U);
  ASSERT_EQ(writer.SetAt(0, 0, Data(large), 0, 0, 1), 0U);
  ASSERT_EQ(writer.SetAt(0, 1, Data("part"), 10000, 0, 1), 0U);
  writer.Close();
  const auto before = std::filesystem::file_size(path.ToUtf8());
  ASSERT_EQ(writer.Open(path, u"", kMode) + writer.SetAt(0, 0, Data(large), 0, 0, 1), 0U);
  EXPECT_EQ(std::filesystem::file_size(path.ToUtf8()), before);
  Reopen();
  ASSERT_EQ(Store(0, 0, large, 1), 0U);
  object.Close();
  EXPECT_EQ(std::filesystem::file_size(path.ToUtf8()), before);
}

// By any kind of store or removal that works in a record's place.
TEST_F(Lifecycle, NothingRunsOverTilesInWhatARecordHasReserved) {
  const std::string news(500, 'n');
  for (const unsigned int kind : {0U, 1U, 2U, 3U, 4U}) {
    SCOPED_TRACE(kind);
    ZrFile::Delete(path);
    MakeCrowded(20, 9000);
    Reopen();
    if (kind == 0)
      EXPECT_EQ(Store(0, 3, news, 1), 0U);
    else if (kind == 1)  // whose head is remembered
      EXPECT_EQ(Store(0, 3, "new", 1, 9000) + Store(0, 3, news + std::string(8500, '-'), 1), 0U);
    else if (kind == 2)  // a piece far behind, and what lies in between
      EXPECT_EQ(Store(0, 3, "far", 1, 9000, 8997) + Store(0, 3, news, 1, 9000), 0U);
    else if (kind == 3)  // an older version
      EXPECT_EQ(Store(0, 3, "newer", 2) + Store(0, 3, news, 1), 0U);
    else  // an older version becomes the newest
      EXPECT_EQ(Store(0, 3, news, 1) + Store(0, 5, "newer", 2) + object.Remove(0, 5, 2), 0U);
    EXPECT_EQ(Read(0, 3, 1).payload.substr(0, news.size()), news);
    for (unsigned int col = 0; col < 20; col += col == 2 ? 2 : 1)
      EXPECT_EQ(Read(0, col, 1).payload.find(CrowdedTile(col)), 0U) << col;
  }
}

TEST_F(Lifecycle, NothingIsAppendedWhereTheLastRecordCannotBeRead) {
  bool failed = true;
  for (std::size_t n = 1; failed; ++n) {
    ZrFile::Delete(path);
    ZrCompactFileWriter writer;
    ASSERT_EQ(writer.Create(path, 1, 3, u"", kMode), 0U);
    ASSERT_EQ(writer.SetAt(0, 0, Data("last"), 1000, 0, 1), 0U);
    writer.Close();
    ASSERT_EQ(writer.Open(path, u"", kMode), 0U);
    {
      SyscallFaults faults;
      faults.FailCall(n, EIO);
      writer.SetAt(0, 1, Data("new"), 0, 0, 1);
      failed = faults.HasFailed();
    }
    ASSERT_EQ(writer.SetAt(0, 2, Data("next"), 0, 0, 1), 0U);
    writer.Close();
    Check();
  }
}

TEST_F(Lifecycle, SystemCallsPerOperation) {
  const auto calls = [](auto operation, auto expected) {
    const SyscallFaults counter;
    EXPECT_EQ(operation(), expected);
    return counter.GetCount();
  };
  const auto store = [&](unsigned int col, const char* text, unsigned int stamp) {
    return calls([&] { return Store(0, col, text, stamp); }, 0U);
  };
  const auto read = [&](unsigned int col, const char* text, unsigned int stamp) {
    return calls([&] { return Read(0, col, stamp).payload; }, text);
  };
  for (const unsigned int side : {8U, 2048U}) {
    SCOPED_TRACE(side);
    ZrFile::Delete(path);
    MakeGrid(side, side);
    store(0, "first", 1);  // loads the page of the index
    EXPECT_EQ(store(1, "second", 1), 3U) << "length of the file, record, entry";
    EXPECT_EQ(store(1, "2nd", 1), 3U) << "head, what is replaced, record in place";
    EXPECT_EQ(store(1, "newest", 2), 4U) << "head, length of the file, record, entry";
    EXPECT_EQ(read(1, "newest", 2), 1U) << "two versions";
    EXPECT_EQ(read(1, "2nd", 1), 3U)
        << "older: the newest, then the older with what follows, to the end of the file";
    object.Close();
    EXPECT_EQ(calls([&] { return object.Open(path, u"", 4); }, 0U), 5U)
        << "existence, open, kind of file, header, grid header";
    EXPECT_EQ(read(0, "first", 1), 2U)
        << "a page of the index, and the record, its size known from the next one";

    Reopen(12);
    read(0, "first", 1);
    ZrCompactFile other;
    ASSERT_EQ(other.Open(path, u"", 12), 0U);
    ASSERT_EQ(other.SetAt(0, 3, Data("from elsewhere"), 0, 0, 1), 0U);
    EXPECT_EQ(read(3, "from elsewhere", 1), 5U)
        << "words, and as they have changed: entry, record, the end of the file, words";
    EXPECT_EQ(read(3, "from elsewhere", 1), 2U) << "record, words";
    store(4, "maps the words", 1);
    EXPECT_EQ(store(5, "new", 1), 5U) << "lock, path, record, entry, unlock";
  }
  const auto lookUp = [&](const char16_t* name, const char* text) {
    return calls([&] { return ReadTile(object, name, 1).payload; }, text);
  };
  ZrFile::Delete(path);
  MakeNaming(4);
  for (const char16_t* name : {u"first", u"second", u"third"})
    ASSERT_EQ(object.SetAt(name, Data("tile"), 0, 0, 1), 0U);
  Reopen();
  lookUp(u"first", "tile");  // loads a page of the index
  EXPECT_EQ(lookUp(u"second", "tile"), 1U) << "the size is known from the next slot";
  EXPECT_EQ(lookUp(u"unknown", ""), 0U);
  EXPECT_EQ(calls([&] { return object.SetAt(u"second", Data("2nd"), 0, 0, 1); }, 0U), 3U)
      << "head, which has the name; what is replaced; record in place";
  EXPECT_EQ(calls([&] { return object.SetAt(u"new", Data("tile"), 0, 0, 1); }, 0U), 4U)
      << "length of the file, record, slot, count";
}

}  // namespace
}  // namespace Zarn
