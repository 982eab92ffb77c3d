#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "FileSyscalls.h"
#include "ZrCompactFileReader.h"
#include "ZrFile.h"
#include "ZrFile64.h"
#include "ZrToolkit.h"
#include "engine/EngineFixture.h"
#include "support/PowerLoss.h"
#include "support/Processes.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Name = PelmUnicodeString;
using Support::operator+;
using Support::ReadFile;

constexpr ZrCompactFile::ZrOpenMode kLocked = 12;

class Compaction : public EngineTest {
 public:
  using EngineTest::EngineTest;
  Name TemporaryPath() const { return folder.GetPath(".$t.cf"); }
  unsigned int Put(const Name& name, std::string_view text, unsigned long long version = 1) {
    return object.SetAt(name, Data(text), 0, 0, version);
  }
  Tile Get(const Name& name) { return ReadTile(object, name, ~0ULL); }
};

class CompactionInBothOrders : public Compaction, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Engine, CompactionInBothOrders, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Foreign" : "Native"; });

// A compacted file is what the same versions give that are stored anew, one after the other.
TEST_P(CompactionInBothOrders, GridIsAsIfStoredAnew) {
  struct Cell {
    unsigned int row, col;
    std::size_t size;
  };
  std::vector<Cell> cells;
  for (unsigned int row = 0; row < 3; ++row)
    for (unsigned int col = row; col < 20000; col += col % 7 == 0 ? 701 : 1)
      cells.push_back({row, col, col % 40 + (col == 708 ? 2U << 20 : 0U)});
  const auto text = [](const Cell& cell, unsigned long long version) {
    return std::string(cell.size + version, static_cast<char>('a' + version));
  };
  MakeGrid(3, 20000, GetParam());
  for (unsigned int col = 0; col < 20000; col += 10)  // so that pages of the index empty again
    ASSERT_EQ(Store(2, col, "gone", 1) + object.Remove(2, col, 1), 0U);
  for (auto cell = cells.rbegin(); cell != cells.rend(); ++cell)
    for (const auto version : {7ULL, 2ULL, 5ULL, 9ULL, 7ULL})
      ASSERT_EQ(Store(cell->row, cell->col, text(*cell, version), version), 0U);
  ASSERT_EQ(object.Remove(1, 1, 5), 0U);
  std::uint64_t before = Check().GetSize();
  ASSERT_EQ(object.Compact(), 0U);
  EXPECT_LT(Check().GetSize(), before);
  EXPECT_EQ(folder.CountFiles(), 1U);
  EXPECT_EQ(Read(1, 1, 5).payload, text({1, 1, 1}, 9)) << "it went with its version";
  EXPECT_EQ(Store(2, 19999, "more", 1), 0U) << "the object works on";
  ASSERT_EQ(object.Remove(2, 19999, 1), 0U);

  ZrCompactFile anew;
  const Name anewPath = folder.GetPath("anew.cf");
  ASSERT_EQ(anew.Create(anewPath, 3, 20000, u"", kMode), 0U);
  for (const Cell& cell : cells)
    for (const auto version : {2ULL, 5ULL, 7ULL, 9ULL})
      if (cell.row != 1 || cell.col != 1 || version != 5) {
        const ZrByteArray data = Data(text(cell, version));
        ASSERT_EQ(anew.SetAt(cell.row, cell.col, data, 0, 0, version), 0U);
      }
  ASSERT_EQ(object.Compact(), 0U);
  Support::Bytes bytes = ReadFile(path);
  const Support::Bytes wanted = ReadFile(anewPath);
  ASSERT_EQ(bytes.size(), wanted.size());
  std::copy_n(wanted.begin() + 11, 8, bytes.begin() + 11);  // the time of creation
  EXPECT_TRUE(bytes == wanted);
}

// What the tables say is gone goes; but the newest version is there, whatever its entry says.
TEST_P(CompactionInBothOrders, GoneVersionsGo) {
  MakeGrid(1, 1, GetParam());
  for (const auto version : {1ULL, 2ULL, 3ULL, 4ULL})  // the last record's table is at 303
    ASSERT_EQ(Store(0, 0, "version " + std::to_string(version), version), 0U);
  const std::size_t statusOfEntry = 303 + 8 + (IsBig() ? 0 : 7);
  object.Close();
  Support::Poke(path, statusOfEntry, {4});                  // 4
  Support::Poke(path, statusOfEntry + 16, {0});             // 3
  Support::Poke(path, statusOfEntry + 32, {4});             // 2
  Support::Poke(path, 72, Support::Number(0, 4, IsBig()));  // the flags: no versions
  Reopen();
  ASSERT_FALSE(object.IsVersionEnabled());
  ASSERT_EQ(Read(0, 0, 3).payload, "version 3");
  ASSERT_EQ(object.Compact(), 0U);
  EXPECT_TRUE(object.IsVersionEnabled());
  EXPECT_EQ(Check().Describe(Check().GetEntry() & 0x00FFFFFFFFFFFFFF), "69, 4:1|0 1:1|84, 9/9");
  for (const auto& [version, found] : {std::pair{1ULL, "version 1"}, {3ULL, "version 4"}})
    EXPECT_EQ(Read(0, 0, version).payload, found);
}

// The tables of older versions are left out where they would take most of the file. Nobody notices:
// two objects give the same answers, one of which has compacted its file.
TEST_P(CompactionInBothOrders, ManyVersionsTakeNoMoreThanTheirPayloads) {
  for (const bool named : {false, true}) {
    object.Close();
    ZrFile::Delete(path);
    const auto store = [named](ZrCompactFile& file, unsigned int version, unsigned int size,
                               unsigned int capacity = 0, unsigned int offset = 0) {
      const ZrByteArray data = Data(std::string(size, static_cast<char>('a' + version % 26)));
      return named ? file.SetAt(u"name", data, capacity, offset, version)
                   : file.SetAt(0, 0, data, capacity, offset, version);
    };
    const auto remove = [named](ZrCompactFile& file, unsigned int version) {
      return named ? file.Remove(u"name", version) : file.Remove(0, 0, version);
    };
    const auto readAll = [named](ZrCompactFile& file) {
      std::ostringstream text;
      text << static_cast<int>(named ? file.GetStatus(u"name") : file.GetStatus(0, 0));
      for (unsigned int version = 0; version < 420; ++version)
        text << "\n" << (named ? ReadTile(file, u"name", version) : ReadTile(file, 0, 0, version));
      return text.str();
    };
    if (named)
      MakeNaming(1, GetParam());
    else
      MakeGrid(1, 1, GetParam());
    for (unsigned int version = 2; version <= 400; version += 2)
      ASSERT_EQ(store(object, version, 9), 0U);
    ZrCompactFile twin;
    const Name twinPath = folder.GetPath("twin.cf");
    Support::WriteFile(twinPath, ReadFile(path));
    ASSERT_EQ(object.Compact() + twin.Open(twinPath, u"", kMode), 0U);
    EXPECT_LT(Check().GetSize(), 200U * (60 + 9 + 16) + 4096 + 200);
    const std::function<unsigned int(ZrCompactFile&)> steps[] = {
        [&](ZrCompactFile& file) { return remove(file, 400); },
        [&](ZrCompactFile& file) { return store(file, 200, 5); },
        [&](ZrCompactFile& file) { return store(file, 202, 5, 9, 4); },
        [&](ZrCompactFile& file) { return store(file, 204, 50); },
        [&](ZrCompactFile& file) { return store(file, 201, 50); },
        [&](ZrCompactFile& file) { return store(file, 1, 50); },
        [&](ZrCompactFile& file) { return store(file, 410, 5, 12, 7); },
        [&](ZrCompactFile& file) { return remove(file, 410); },
        [&](ZrCompactFile& file) { return remove(file, 398); },
        [&](ZrCompactFile& file) { return remove(file, 200); },
        [&](ZrCompactFile& file) { return store(file, 396, 9); },
        [&](ZrCompactFile& file) { return file.Compact(); },
        [&](ZrCompactFile& file) { return remove(file, 396); }};
    for (const auto& step : steps) {
      ASSERT_EQ(step(object) + step(twin), 0U);
      ASSERT_EQ(readAll(object), readAll(twin)) << &step - steps;
      Check();
    }
  }
}

// Older versions whose records have one entry; and tiles in what others have reserved, of which the
// first has the most, has an older version there and comes last in the index.
TEST_F(Compaction, NoFileBecomesLonger) {
  using Support::Native;
  const std::string first(70000, 'f');
  for (const bool crowded : {false, true}) {
    SCOPED_TRACE(crowded);
    ZrCompactFileWriter writer;
    ZrFile::Delete(path);
    ASSERT_EQ(writer.Create(path, 1, 40, u"", kMode), 0U);
    Support::Bytes table;
    const auto write = [&](std::string_view text, unsigned long long capacity,
                           unsigned long long version) {
      ZrCompactFile::ZrStatus status;
      const auto room = crowded ? std::max<unsigned long long>(capacity, text.size()) : text.size();
      const auto at =
          writer.WriteDataToFile(status, Data(text), room, 0, version, ReadFile(path).size());
      return unsigned{status} * (1ULL << 56) | at;
    };
    ASSERT_TRUE(writer.WriteIndexValue(0, 39, write(first, 90000, 1)));
    for (unsigned int col = 1; col < 39; ++col)
      ASSERT_TRUE(writer.WriteIndexValue(0, col, write("tile " + std::to_string(col), 8000, 1)));
    for (unsigned long long version = 1; version < 20; ++version)
      table = Native(version) + Native(write("older", version == 1 ? 5000 : 0, version)) + table;
    const std::size_t current = ReadFile(path).size();
    ASSERT_TRUE(writer.WriteIndexValue(0, 0, 1ULL << 56 | current));
    Support::Poke(path, current,
                  Native(28 + 20 * 16 + 3) + Native(20, 4) + Native(20) + Native(1ULL << 56) +
                      table + Native(3) + Native(3) + Support::Text("new"));
    if (crowded) Support::WriteFile(path, ReadFile(path) + Support::Bytes(90000));
    const auto readAll = [&] {
      std::ostringstream text;
      for (unsigned int tile = 0; tile < 60; ++tile) {
        const auto status = object.GetStatus(0, tile < 40 ? tile : 0);
        Tile read = Read(0, tile < 40 ? tile : 0, tile < 40 ? 99 : tile - 39);
        const auto size = read.payload.size();
        read.payload.resize(read.filled);
        text << int{status} << " " << read << " " << size << "\n";
      }
      return text.str();
    };
    Reopen();
    const std::string before = readAll();
    const std::size_t length = Check().GetSize();
    Support::Bytes marked, image;
    const auto look = [&](unsigned long long done, unsigned long long total) {
      if (done <= total / 2 || !marked.empty()) return true;
      marked = ReadFile(path);
      image = ReadFile(TemporaryPath());
      return true;
    };
    ASSERT_EQ(object.Compact(look), 0U);
    for (const bool isFinished : {false, true}) {  // by whoever opens it
      EXPECT_EQ(readAll(), before);
      EXPECT_LE(Check().GetSize(), length);
      if (isFinished) break;
      Support::WriteFile(path, marked);
      Support::WriteFile(TemporaryPath(), image);
      Reopen();
    }
    ASSERT_EQ(Store(0, 39, std::string(90000, 'x'), 1) + Store(0, 38, "last", 1), 0U);
    EXPECT_EQ(Read(0, 5, 1).payload.substr(0, 6), "tile 5");
  }
}

// The size of the index stays, and what the host has put there.
TEST_P(CompactionInBothOrders, Names) {
  MakeNaming(5, GetParam());
  object.SetMaxSize(1.5, 2.5);
  ASSERT_EQ(Put(u"first", "new") + Put(u"gone", "old") + object.Remove(u"gone", 1), 0U);
  ASSERT_EQ(Put(u"second", "old"), 0U);
  ASSERT_EQ(object.SetAt(u"first", Data("partial"), 10, 1, 2), 0U);
  ASSERT_EQ(object.Compact(), 0U);
  EXPECT_EQ(Get(u"first"), (Tile{0, std::string("\0partial\0\0", 10), 8}));
  EXPECT_EQ(object.GetStatus(u"first"), ZrCompactFile::kPartial);
  unsigned int capacity, count;
  EXPECT_EQ(object.GetIndexInfo(capacity, count), 1U);
  EXPECT_EQ(capacity * 10 + count, 52U);
  const Support::Bytes file = ReadFile(path);
  EXPECT_EQ(Support::Bytes(file.begin() + 80, file.begin() + 96),
            Support::Native(0x3FF8000000000000) + Support::Native(0x4004000000000000));
  for (const char16_t* name : {u"third", u"fourth", u"fifth"})
    ASSERT_EQ(Put(name, "new"), 0U);
  EXPECT_EQ(object.Compact(), 0U) << "a full index stays full";
  EXPECT_EQ(object.GetIndexInfo(capacity, count), 1U);
  EXPECT_EQ(capacity * 10 + count, 55U);
  for (const char16_t* name : {u"first", u"second", u"third", u"fourth", u"fifth"})
    ASSERT_EQ(object.Remove(name, 1), 0U);
  ASSERT_EQ(object.Remove(u"first", 2), 0U);
  EXPECT_EQ(object.Compact(), 0U);
  EXPECT_EQ(Check().GetSize(), 64U + 36U + 5U * 16U);
}

// Each name comes from the charset that its record has, and goes to UTF-16.
TEST_P(CompactionInBothOrders, NamesOfAnOlderFile) {
  MakeNaming(4, GetParam(), 20111111);
  const Name greek(u"\u03B1\u03B2\u03B3");
  struct Restore {
    ~Restore() { ZrToolkit::SetCurCharset(PELMCharset::kUtf8); }
  } restore;
  ASSERT_TRUE(ZrToolkit::SetCurCharset(PELMCharset::kGreek));
  ASSERT_EQ(Put(greek, "tile"), 0U);  // record at 164, with three bytes of name
  ASSERT_TRUE(ZrToolkit::SetCurCharset(PELMCharset::kUtf8));
  ASSERT_EQ(Put(u"caf\u00E9 \u03B1", "other"), 0U);
  const Support::Bytes before = ReadFile(path);

  // A name that is no text of its charset, of a charset that there is not, or of the current one,
  // which it is not; and two names that would become one.
  const Support::Bytes charset = Support::Number(9999, 4, IsBig());
  const std::size_t lastOfCharset = IsBig() ? 175 : 172;
  for (const auto& [offset, bytes] :
       {std::pair{std::size_t{172}, charset}, {lastOfCharset, Support::Bytes{1}}}) {
    Support::Poke(path, offset, bytes);
    const Support::Bytes damaged = ReadFile(path);
    EXPECT_EQ(object.Compact(), 10U);
    EXPECT_EQ(ReadFile(path), damaged);
    EXPECT_EQ(folder.CountFiles(), 1U);
    Support::WriteFile(path, before);
  }
  ASSERT_EQ(Put(greek, "the same in UTF-8"), 0U);
  EXPECT_EQ(object.Compact(), 10U);
  ASSERT_EQ(object.Remove(greek, 1), 0U);
  ASSERT_EQ(object.Compact(), 0U);
  EXPECT_EQ(Get(greek).payload, "tile");
  EXPECT_EQ(Get(u"caf\u00E9 \u03B1").payload, "other");
  const Support::Bytes after = ReadFile(path);
  EXPECT_EQ(Support::Bytes(after.begin() + 3, after.begin() + 7), Support::Native(20120214, 4));

  object.Close();
  const Name longest(std::u16string(128, u'n').c_str());
  MakeNaming(1, GetParam(), 20111111);
  ASSERT_EQ(Put(longest, "short"), 0U);
  EXPECT_EQ(object.Compact(), 0U) << "although the file becomes longer";
  EXPECT_EQ(Get(longest).payload, "short");
}

// Two slots of one hash hold the same bytes, of which a lookup finds the first, whatever their
// charsets. Where these make two names of them, both are kept.
TEST_P(CompactionInBothOrders, BytesOfTwoCharsets) {
  using Case = std::tuple<unsigned char, PELMCharset::Charset, PELMCharset::Charset, bool>;
  for (const auto& [last, first, second, areTwo] :
       {Case{'c', PELMCharset::kUtf8, PELMCharset::kGreek, false},
        {0xE1, PELMCharset::kGreek, PELMCharset::kAnsi, true}}) {
    MakeNaming(4, GetParam(), 20111111);
    ASSERT_EQ(Put(u"abc", "one") + Put(u"abd", "two"), 0U);  // records at 164 and 222
    Support::Bytes code = ReadFile(path);
    code = Support::Bytes(code.begin() + 108, code.begin() + 116);
    code[IsBig() ? 0 : 7] = 1;
    Support::Poke(path, 124, code);
    for (const auto& [record, charset] : {std::pair{164, first}, {222, second}}) {
      Support::Poke(path, record + 8, Number(charset, 4));
      Support::Poke(path, record + 18, Support::Bytes{last});
    }
    Reopen();
    EXPECT_EQ(object.Compact(), 0U);
    EXPECT_EQ(Get(areTwo ? u"ab\u03B1" : u"abc").payload, "one");
    EXPECT_EQ(Get(u"ab\u00E1").payload, areTwo ? "two" : "");
    Check();
    object.Close();
    ZrFile::Delete(path);
  }
}

TEST_F(Compaction, Answers) {
  EXPECT_EQ(object.Compact(), 6U);
  EXPECT_EQ(folder.CountFiles(), 0U);
  MakeNaming(2);
  ASSERT_EQ(Put(u"a", "tile"), 0U);
  Reopen(ZrCompactFile::kReadOnly);
  EXPECT_EQ(object.Compact(), 2U);
  Reopen();

  const Support::Bytes before = ReadFile(path);
  std::filesystem::create_directory(TemporaryPath().ToUtf8());
  EXPECT_EQ(object.Compact(), 2U) << "something else has the name";
  std::filesystem::remove(TemporaryPath().ToUtf8());
  Support::WriteFile(TemporaryPath(), Support::Bytes(100000, 'x'));
  {
    ZrFile64 other;
    ASSERT_TRUE(other.Open(TemporaryPath(), ZrFile64::kReadWrite) &&
                other.TryClaim(TemporaryPath()));
    EXPECT_EQ(object.Compact(), 2U) << "another compaction is at work";
    EXPECT_EQ(ReadFile(TemporaryPath()).size(), 100000U);
  }
  for (const bool isFifo : {true, false}) {  // neither of which can be opened
    const std::string leftover = TemporaryPath().ToUtf8();
    std::filesystem::remove(leftover);
    ASSERT_EQ(isFifo ? ::mkfifo(leftover.c_str(), 0600) : ::symlink("nowhere", leftover.c_str()),
              0);
    ZrFile64 other;
    ASSERT_TRUE(other.Open(path, ZrFile64::kReadWrite) && other.TryClaim(path));
    EXPECT_EQ(object.Compact(), 2U) << "another compaction is at work";
    EXPECT_EQ(folder.CountFiles(), 2U);
    other.Close();
    EXPECT_EQ(object.Compact(), 0U);
    EXPECT_EQ(folder.CountFiles(), 1U);
  }
  struct Damage {
    const char* what;
    std::size_t offset;
    Support::Bytes bytes;
    unsigned int result;
  };
  const Damage damages[] = {
      {"status of the slot", 107, {3}, 9},
      {"position of the slot", 100, {0xFF, 0xFF}, 9},
      {"length of the record", 132, {0xFF, 0xFF}, 9},
      {"no version", 150, {0}, 9},
      {"half a unit of name", 144, {1}, 9},
  };
  for (const Damage& damage : damages) {
    SCOPED_TRACE(damage.what);
    Support::Poke(path, damage.offset, damage.bytes);
    Reopen();
    EXPECT_EQ(object.Compact(), damage.result);
    EXPECT_TRUE(object.IsOpen());
    EXPECT_EQ(folder.CountFiles(), 1U) << "neither an image nor a leftover";
    Support::WriteFile(path, before);
  }
  Reopen();
  Support::WriteFile(TemporaryPath(), Support::Bytes(100, 'x'));
  EXPECT_EQ(object.Compact(), 0U) << "a leftover is replaced";
  EXPECT_EQ(Get(u"a").payload, "tile");

  Support::Poke(path, 7, Support::Native(2, 4));
  Reopen();
  EXPECT_EQ(object.Compact(), 8U);
  for (const bool named : {false, true}) {
    object.Close();
    ASSERT_TRUE(ZrFile::Delete(path));
    if (named)
      ASSERT_EQ(object.Create(path, 4ULL, u"", kLocked), 0U);
    else
      ASSERT_EQ(object.Create(path, 2U, 2U, u"", kLocked), 0U);
    Support::Poke(path, 19, Support::Native(1));  // of the index: now it cannot be refreshed
    Support::Poke(path, 32, Support::Native(9));  // generation: it must be
    EXPECT_EQ(object.Compact(), named ? 2U : 9U);
    EXPECT_FALSE(ZrFile::IsExist(TemporaryPath()));
  }
  object.Close();
  ASSERT_TRUE(ZrFile::Delete(path));
  MakeGrid(1, 1);
  ASSERT_TRUE(ZrFile::Rename(path, folder.GetPath("moved.cf")));
  EXPECT_EQ(object.Compact(), 2U) << "no longer at its path";
}

TEST_F(Compaction, ProgressTellsAndCancels) {
  MakeGrid(1, 50);
  for (unsigned int col = 0; col < 50; ++col)
    ASSERT_EQ(Store(0, col, std::string(100000, 'x'), 1), 0U);
  const Support::Bytes before = ReadFile(path);
  for (int calls = 0; calls < 3; ++calls) {
    int left = calls;
    const auto cancel = [&](unsigned long long, unsigned long long) {
      if (calls == 1) throw left;
      return left-- > 0;
    };
    EXPECT_EQ(object.Compact(cancel), 10U);
    EXPECT_EQ(ReadFile(path), before);
    EXPECT_EQ(folder.CountFiles(), 1U);
  }
  EXPECT_EQ(object.Compact([&](auto, auto) { return ZrFile::Delete(TemporaryPath()) || true; }),
            10U);
  EXPECT_EQ(ReadFile(path), before) << "no mark without an image";
  unsigned long long last = 0;
  unsigned int changes = 0, steps = 0;
  const auto watch = [&](unsigned long long done, unsigned long long total) {
    EXPECT_EQ(total, 2 * before.size());
    EXPECT_LE(last, done);
    last = done;
    ++steps;
    if (done > before.size()) return false;  // too late
    EXPECT_EQ(Read(0, 49, 1).payload.size(), 100000U);
    changes += (Store(0, 0, "lost", 2) != 10) + (object.Compact() != 9) +
               (object.Open(folder.GetPath("x"), u"", 4) != 1) +
               (object.Create(folder.GetPath("x"), 1ULL, u"", 4) != 2);
    EXPECT_TRUE(object.Close());
    return true;
  };
  EXPECT_EQ(object.Compact(watch), 0U);
  EXPECT_EQ(last, 2 * before.size());
  EXPECT_GT(steps, 6U);
  EXPECT_EQ(changes, 0U) << "the object can only be read meanwhile";
  EXPECT_EQ(Read(0, 0, 2).payload.size(), 100000U);
}

// A file through a symbolic link, with permissions of its own, in the working directory.
TEST_F(Compaction, OnlyTheContentsChange) {
  MakeGrid(2, 2);
  ASSERT_EQ(Store(1, 1, "old", 1) + Store(1, 1, "new and longer", 2), 0U);
  object.Close();
  ::chmod(path.ToUtf8().c_str(), 0640);
  const Name link = folder.GetPath("sub/link.cf");
  std::filesystem::create_directory(folder.GetFolder() / "sub");
  std::filesystem::create_symlink(path.ToUtf8(), link.ToUtf8());
  struct stat before, during, after;
  ASSERT_EQ(::stat(path.ToUtf8().c_str(), &before), 0);
  ASSERT_EQ(object.Open(link, u"", kMode), 0U);
  const auto look = [&](unsigned long long, unsigned long long) {
    return ::stat(TemporaryPath().ToUtf8().c_str(), &during) == 0;
  };
  ASSERT_EQ(object.Compact(look), 0U);
  ASSERT_EQ(::stat(path.ToUtf8().c_str(), &after), 0);
  EXPECT_EQ(before.st_mode, during.st_mode);
  EXPECT_EQ(before.st_mode, after.st_mode);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_TRUE(std::filesystem::is_symlink(link.ToUtf8()));

  // Where the path beside the file cannot be expressed, nothing changes.
  const auto unnamed = folder.GetFolder() / "\xFF", there = unnamed / "t.cf";
  std::filesystem::create_directory(unnamed);
  std::filesystem::rename(path.ToUtf8(), there);
  std::filesystem::create_symlink(there, path.ToUtf8());
  Reopen();
  EXPECT_EQ(object.Compact(), 2U);
}

// An access control list: user 1234 may read and write, the group may not, which the mode does not
// tell.
bool SetList(const std::string& file, const char* name) {
  Support::Bytes list = Support::Number(2, 4, false);
  for (const auto& [tag, permissions, user] :
       {std::tuple(1U, 6U, ~0U), {2U, 6U, 1234U}, {4U, 0U, ~0U}, {16U, 6U, ~0U}, {32U, 0U, ~0U}})
    list =
        list + Support::Number(tag | permissions << 16, 4, false) + Support::Number(user, 4, false);
  return ::setxattr(file.c_str(), name, list.data(), list.size(), 0) == 0;
}

TEST_F(Compaction, AnImageLetsInNobodyElse) {
  constexpr const char* kList = "system.posix_acl_access";
  const std::string file = path.ToUtf8(), where = folder.GetFolder().string();
  // The mode of the image, and whether it has a list.
  std::pair<unsigned int, bool> seen;
  const auto look = [&](auto, auto) {
    struct stat status = {};
    const std::string image = TemporaryPath().ToUtf8();
    ::stat(image.c_str(), &status);
    seen = {status.st_mode & 0777, ::getxattr(image.c_str(), kList, nullptr, 0) > 0};
    return false;
  };
  const auto compact = [&] {
    EXPECT_EQ(object.Compact(look), 10U);
    return seen;
  };
  const SyscallFaults restore;
  MakeGrid(1, 1);
  if (!SetList(file, kList)) GTEST_SKIP() << "no lists here";
  EXPECT_EQ(compact(), std::pair(0660U, true));
  GetFileSyscalls().fsetxattr = [](auto...) { return errno = EPERM, -1; };
  EXPECT_EQ(compact(), std::pair(0600U, false));
  ASSERT_EQ(::removexattr(file.c_str(), kList) + ::chmod(file.c_str(), 0664), 0);
  ASSERT_TRUE(SetList(where, "system.posix_acl_default"));
  EXPECT_EQ(compact(), std::pair(0664U, false)) << "the folder's is for new files";
  if (::chown(file.c_str(), 0, 1234) != 0) GTEST_SKIP() << "needs root";
  GetFileSyscalls().fchown = [](auto...) { return errno = EPERM, -1; };
  EXPECT_EQ(compact(), std::pair(0644U, false)) << "another group";
}

// The folder of a file that is mounted by itself is not where others look for an image.
TEST_F(Compaction, NotOfASingleMountedFile) {
  MakeGrid(1, 1);
  ASSERT_EQ(Store(0, 0, "old", 1) + Store(0, 0, "newer", 1), 0U);
  const Support::Bytes before = ReadFile(path);
  const Name mounted = folder.GetPath("mounted/t.cf");
  ASSERT_TRUE(ZrFile::MkDirEx(ZrFile::GetDir(mounted)));
  Support::WriteFile(mounted, {});
  constexpr int kUnable = 100;
  const auto children = Support::Fork(1, [&](unsigned int) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(path.ToUtf8().c_str(), mounted.ToUtf8().c_str(), nullptr, MS_BIND, nullptr) != 0)
      ::_exit(kUnable);
    ZrCompactFile file;
    bool hasLooked = false;
    const auto look = [&](auto, auto) { return hasLooked = true; };
    return file.Open(mounted, u"", kMode) == 0 && file.Compact(look) == 2 && !hasLooked ? 0 : 1;
  });
  int status = 0;
  ASSERT_EQ(::waitpid(children[0], &status, 0), children[0]);
  if (WEXITSTATUS(status) == kUnable) GTEST_SKIP() << "needs to mount";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(path), before);
  const SyscallFaults restore;
  GetFileSyscalls().statx = [](auto...) { return errno = ENOSYS, -1; };
  EXPECT_EQ(object.Compact(), 0U);
}

TEST_F(Compaction, AHugeEmptyGridIsAndStaysSmall) {
  MakeGrid(16384, 16384);
  ASSERT_EQ(Store(3, 3, "first", 1) + Store(16383, 16383, "last", 1), 0U);
  for (const bool compacted : {false, true}) {
    struct stat status;
    ASSERT_EQ(compacted ? object.Compact() : 0U, 0U);
    EXPECT_EQ(Read(16383, 16383, 1).payload, "last");
    ASSERT_EQ(::stat(path.ToUtf8().c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, 1 << 20);
  }
}

// Other objects and processes see the old file until it is over, and then the new one.
TEST_F(Compaction, OthersSeeTheOldFileOrTheNewOne) {
  MakeGrid(100, 100, false, kLocked);
  for (const auto row : {50U, 99U, 0U})
    ASSERT_EQ(Store(row, 5, "gone", 1) + object.Remove(row, 5, 1) + Store(row, 7, "tile", 1), 0U);
  ZrCompactFile other;
  ASSERT_EQ(other.Open(path, u"", kLocked), 0U);
  unsigned long long known, now;
  ASSERT_TRUE(other.GetGridIdxValue(0, 7, known));
  ZrCompactFile::ZrStatus status = ZrCompactFile::kUnknown;
  std::thread waiting;
  const auto look = [&](unsigned long long done, unsigned long long total) {
    if (waiting.joinable()) return true;
    if (done > total / 2) {
      waiting = std::thread([&] { status = other.GetStatus(99, 7); });
    } else {
      EXPECT_TRUE(other.GetGridIdxValue(0, 7, now) && now == known) << "nobody waits meanwhile";
      EXPECT_EQ(ReadTile(other, 50, 7, 1).payload, "tile");
    }
    return true;
  };
  ASSERT_EQ(object.Compact(look), 0U);
  waiting.join();
  EXPECT_EQ(status, ZrCompactFile::kComplete);
  EXPECT_TRUE(other.GetGridIdxValue(0, 7, now));
  EXPECT_NE(now, known);
  EXPECT_EQ(ReadTile(other, 50, 7, 1).payload, "tile");
  std::thread([&] { EXPECT_EQ(Read(0, 7, 1).payload, "tile"); }).join();
}

TEST_F(Compaction, OthersFindTheNamesOfTheNewFile) {
  ASSERT_EQ(object.Create(path, 8ULL, u"", kLocked), 0U);
  for (const char16_t* name : {u"a", u"b", u"c"})
    ASSERT_EQ(Put(name, "old"), 0U);
  ZrCompactFile other;
  ASSERT_EQ(other.Open(path, u"", kLocked), 0U);
  ASSERT_EQ(object.Remove(u"a", 1) + object.Compact() + Put(u"d", "new"), 0U);
  for (const auto& [name, found] :
       {std::pair{u"a", ""}, {u"b", "old"}, {u"c", "old"}, {u"d", "new"}})
    EXPECT_EQ(ReadTile(other, name, 1).payload, found);
}

// The crash tests work on a small file: tiles with several versions, partial and gone ones.
class CompactionCutShort : public Compaction {
 public:
  CompactionCutShort() : Compaction(TemporaryFolder::kMemory) {}
  void SetUp() override {
    ASSERT_EQ(m_another.Create(m_elsewhere.GetPath("a.cf"), 1U, 1U, u"", kLocked), 0U);
    MakeGrid(2, 3);
    for (const auto version : {4ULL, 2ULL, 8ULL, 4ULL}) {
      ASSERT_EQ(Store(0, 0, std::string(2500 + version, 'x'), version), 0U);
      ASSERT_EQ(Store(1, 2, "text", version, 20, version), 0U);
    }
    ASSERT_EQ(Store(0, 1, "gone", 1) + object.Remove(0, 1, 1), 0U);
    ASSERT_EQ(object.SetPassword(u"secret"), 1U);
    m_expected = ReadAll(object);
    object.Close();
    m_bytes = ReadFile(path);
  }
  static std::string ReadAll(ZrCompactFile& file) {
    std::ostringstream text;
    for (unsigned int cell = 0; cell < 6; ++cell) {
      text << "\n" << static_cast<int>(file.GetStatus(cell / 3, cell % 3));
      for (const auto version : {2ULL, 4ULL, 8ULL})
        text << " " << ReadTile(file, cell / 3, cell % 3, version);
    }
    return text.str();
  }
  // Whatever happened: the file opens.
  void ExpectAllThere() {
    ZrCompactFile file;
    ASSERT_EQ(file.Open(path, u"secret", kLocked), 0U);
    ASSERT_EQ(ReadAll(file), m_expected);
  }
  void PutBack() {
    ZrFile::Delete(TemporaryPath());
    ZrFile::Delete(path);
    Support::WriteFile(path, m_bytes);
  }

  std::string m_expected;
  Support::Bytes m_bytes;

 private:
  // As long as something is open with the lock, closing other files is quick.
  TemporaryFolder m_elsewhere{TemporaryFolder::kMemory};
  ZrCompactFile m_another;
};

// A container that is marked, and its image, as a kill leaves them.
class CompactionToFinish : public CompactionCutShort {
 public:
  void SetUp() override {
    CompactionCutShort::SetUp();
    const auto look = [&](unsigned long long done, unsigned long long total) {
      if (done <= total / 2 || !marked.empty()) return true;
      marked = ReadFile(path);
      image = ReadFile(TemporaryPath());
      return true;
    };
    ZrCompactFile file;
    ASSERT_EQ(file.Open(path, u"secret", kMode) + file.Compact(look), 0U);
    file.Close();
    Leave();
  }
  void Leave() {
    Support::WriteFile(path, marked);
    Support::WriteFile(TemporaryPath(), image);
  }

  Support::Bytes marked, image;
};

// Several at once, by links, with and without the lock; and while others store as soon as they can.
TEST_F(CompactionToFinish, ByWhoeverComes) {
  const Name link = folder.GetPath("link.cf");
  std::filesystem::create_symlink(path.ToUtf8(), link.ToUtf8());
  for (int round = 0; round < 30 && !HasFailure(); ++round) {
    PutBack();
    Leave();
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&, i] {
        ZrCompactFileReader light;
        EXPECT_EQ(light.Open(i == 0 ? link : path, u"secret", 2), 0U);
      });
      threads.emplace_back([&, i] {
        ZrCompactFile file;
        ASSERT_EQ(file.Open(path, u"secret", kLocked), 0U);
        const unsigned int col = i == 0 ? 0 : 1;
        ASSERT_EQ(file.SetAt(1, col, Data("stored at once"), 0, 0, 1), 0U);
        EXPECT_EQ(ReadTile(file, 1, col, 1).payload, "stored at once");
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    ZrCompactFile file;
    ASSERT_EQ(file.Open(path, u"secret", kLocked), 0U);
    for (const auto col : {0U, 1U})
      ASSERT_EQ(ReadTile(file, 1, col, 1).payload, "stored at once");
    ASSERT_EQ(file.Remove(1, 0, 1) + file.Remove(1, 1, 1), 0U);
    ASSERT_EQ(ReadAll(file), m_expected);
  }
}

// A file that cannot be written is finished under its name: nobody else waits for who has locked
// the one of before.
TEST_F(CompactionToFinish, AsAnotherFileThatIsNotLockedYet) {
  PutBack();
  ASSERT_EQ(object.Open(path, u"secret", kLocked), 0U);
  Leave();
  Support::Poke(path, 32, Support::Native(1));  // another generation, as a compaction makes it
  {
    const SyscallFaults faults;
    GetFileSyscalls().ftruncate = [](int, off_t) { return -1; };
    EXPECT_EQ(Store(1, 0, "unlocked", 1), 10U);
  }
  EXPECT_FALSE(ZrFile::IsExist(TemporaryPath()));
  EXPECT_EQ(Read(1, 0, 1).result, 5U) << "locked by now";
  ExpectAllThere();
}

// What is left of a container that is marked is not thrown away by one who has it open still.
TEST_F(CompactionToFinish, NotByACompactionOfThePast) {
  PutBack();
  ASSERT_EQ(object.Open(path, u"secret", kMode), 0U);
  Support::Poke(path, 0, marked);
  Support::WriteFile(TemporaryPath(), image);
  EXPECT_EQ(object.Compact(), 2U);
  EXPECT_EQ(ReadFile(TemporaryPath()), image);
}

// A child of fork has no claim, and keeps nobody waiting.
TEST_F(CompactionToFinish, WhileAForkedChildLivesOn) {
  int lives[2];
  ASSERT_EQ(::pipe(lives), 0);
  const pid_t host = ::fork();
  if (host == 0) {
    ::close(lives[1]);
    ZrFile64 stream;
    if (!stream.Open(TemporaryPath(), ZrFile64::kReadWrite) || !stream.Claim(TemporaryPath()))
      ::_exit(1);
    if (::fork() != 0) ::kill(::getpid(), SIGKILL);
    char nothing;
    ::_exit(static_cast<int>(::read(lives[0], &nothing, 1)));  // until the test is over
  }
  int status = 0;
  ASSERT_EQ(::waitpid(host, &status, 0), host);
  ASSERT_TRUE(WIFSIGNALED(status));
  ::alarm(10);  // rather than wait for the child
  ExpectAllThere();
  ::alarm(0);
  ::close(lives[0]);
  ::close(lives[1]);
}

// The power may go at any moment, and take any part of what was not synced with it.
class CompactionWithoutPower : public CompactionCutShort {
 public:
  // Leaves what may be left before every step from `first` on, and expects all of it.
  void ExpectAllThereBeforeEachStep(PowerLoss& power, std::size_t first) {
    const std::size_t steps = power.CountSteps();
    std::mt19937 random(1);
    for (std::size_t step = first; step <= steps && !HasFailure(); ++step)
      for (const unsigned int kept : {0U, 1U, 2U, 2U, 2U, 2U}) {
        SCOPED_TRACE(std::to_string(step) + " of " + std::to_string(steps));
        power.Leave(step, [&] { return kept < 2 ? kept == 1 : random() % 2 == 0; });
        power.GoOn();
        ASSERT_NO_FATAL_FAILURE(ExpectAllThere());
      }
  }
  unsigned int OpenAndCompact() {
    ZrCompactFile file;
    const unsigned int opened = file.Open(path, u"secret", kLocked);
    return opened == 0 ? file.Compact() : opened;
  }
  std::string Folder() const { return folder.GetFolder().string(); }
};

TEST_F(CompactionWithoutPower, NothingIsLost) {
  for (const std::size_t refuse : {std::size_t{99}, std::size_t{1}, std::size_t{2}}) {
    SCOPED_TRACE(refuse);  // writes to the file fail, and the image is renamed over it
    PutBack();
    const auto inode = [this] {
      struct stat status = {};
      ::stat(path.ToUtf8().c_str(), &status);
      return status.st_ino;
    };
    const auto before = inode();
    PowerLoss power(Folder());
    power.RefuseWrites("t.cf", refuse);
    ASSERT_EQ(OpenAndCompact(), 0U);
    EXPECT_EQ(inode() == before, refuse == 99);
    ExpectAllThereBeforeEachStep(power, 0);
  }
}

TEST_F(CompactionWithoutPower, NothingIsLostAfterAKill) {
  std::size_t steps = 0;
  for (std::size_t stop = 0; stop == 0 || stop <= steps; ++stop) {
    SCOPED_TRACE(stop);
    PutBack();
    PowerLoss power(Folder());
    if (stop == 0) {
      ASSERT_EQ(OpenAndCompact(), 0U);
      steps = power.CountSteps();
      continue;
    }
    power.StopAt(stop);
    OpenAndCompact();
    power.GoOn();
    ASSERT_EQ(OpenAndCompact(), 0U) << "finishes what was begun, and compacts once more";
    ExpectAllThereBeforeEachStep(power, stop);
  }
  EXPECT_GT(steps, 12U);
}

}  // namespace
}  // namespace Zarn
