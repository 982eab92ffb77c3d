#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ZrFile.h"
#include "ZrFile64.h"
#include "ZrToolkit.h"
#include "engine/EngineFixture.h"
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
  Name TemporaryPath() const { return folder.GetPath(".$t.cf"); }
};

class CompactionInBothOrders : public Compaction, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Engine, CompactionInBothOrders, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Foreign" : "Native"; });

// A compacted file is what the same versions give that are stored anew, one after the other.
TEST_P(CompactionInBothOrders, GridIsAsIfStoredAnew) {
  std::vector<std::pair<unsigned int, unsigned int>> cells;
  for (unsigned int row = 0; row < 3; ++row)
    for (unsigned int col = row; col < 20000; col += col % 7 == 0 ? 701 : 1)
      cells.emplace_back(row, col);
  const auto store = [&](const auto& cell, const std::vector<unsigned int>& versions) {
    const std::size_t size = cell.second == 708 ? 2U << 20 : cell.second % 40;
    for (const unsigned int version : versions) {
      const std::string text(size + version, static_cast<char>('a' + version));
      ASSERT_EQ(Store(cell.first, cell.second, text, version), 0U);
    }
  };
  MakeGrid(3, 20000, GetParam());
  for (unsigned int col = 0; col < 20000; col += 10)  // so that pages of the index empty again
    ASSERT_EQ(Store(2, col, "gone", 1) + object.Remove(2, col, 1), 0U);
  for (auto cell = cells.rbegin(); cell != cells.rend(); ++cell)
    store(*cell, {7, 2, 5, 9, 7});
  ASSERT_EQ(object.Compact(), 0U);
  Support::Bytes bytes = ReadFile(path);
  MakeGrid(3, 20000);
  for (const auto& cell : cells)
    store(cell, {2, 5, 7, 9});
  const Support::Bytes wanted = ReadFile(path);
  ASSERT_EQ(bytes.size(), wanted.size());
  std::copy_n(wanted.begin() + 11, 8, bytes.begin() + 11);  // the time of creation
  EXPECT_TRUE(bytes == wanted);
}

// What the tables say is gone goes; but the newest version is there, whatever its entry says.
TEST_P(CompactionInBothOrders, GoneVersionsGo) {
  MakeGrid(1, 1, GetParam());
  for (const auto version : {1ULL, 2ULL, 3ULL, 4ULL})  // the last record's table is at 303
    ASSERT_EQ(Store(0, 0, "version " + std::to_string(version), version), 0U);
  const std::size_t status = 303 + 8 + (IsBig() ? 0 : 7);
  object.Close();
  for (const auto& [offset, value] :
       {std::pair<std::size_t, unsigned char>{0, 4}, {16, 0}, {32, 4}})  // of 4, 3 and 2
    Support::Poke(path, status + offset, {value});
  Support::Poke(path, 72, Number(0, 4));  // the flags: no versions
  Reopen();
  unsigned long long removed = 0;
  EXPECT_EQ(object.RemoveOlderThan(4, removed) + object.RemoveAll(0, 0) + removed, 0U);
  ASSERT_EQ(Read(0, 0, 3).payload, "version 3");
  ASSERT_EQ(object.Compact(), 0U);
  EXPECT_TRUE(object.IsVersionEnabled());
  using Support::Native;
  EXPECT_EQ(Last(61), Native(2, 4) + Native(4) + Native(1ULL << 56) + Native(1) +
                          Native(1ULL << 56 | 84) + Native(9) + Native(9) +
                          Support::Text("version 4"));
  EXPECT_EQ(Read(0, 0, 1).payload + Read(0, 0, 3).payload, "version 1version 4");
}

// The tables of older versions are left out where they would take most of the file. Nobody notices.
TEST_P(CompactionInBothOrders, ManyVersionsTakeNoMoreThanTheirPayloads) {
  MakeNaming(1, GetParam());
  for (unsigned int version = 2; version <= 400; version += 2)
    ASSERT_EQ(Store(u"name", "text " + std::to_string(version), version), 0U);
  ASSERT_EQ(object.Compact(), 0U);
  EXPECT_LT(Check().size(), 200U * (60 + 8 + 16) + 4096 + 200);
  for (unsigned int newest = 400; newest > 390; newest -= 2) {
    ASSERT_EQ(Store(u"name", "new " + std::to_string(newest - 1), newest - 1), 0U);
    ASSERT_EQ(object.Remove(u"name", newest) + object.Remove(u"name", newest - 1), 0U);
    EXPECT_EQ(Read(u"name").payload, "text " + std::to_string(newest - 2));
    EXPECT_EQ(Read(u"name", 2).payload, "text 2");
    Check();
  }
}

// A tile whose older versions have records of one entry; and then all lie in what others have
// reserved, of which the first has the most, and comes last in the index.
TEST_F(Compaction, NoFileBecomesLonger) {
  for (const bool crowded : {false, true}) {
    SCOPED_TRACE(crowded);
    Forget();
    ZrCompactFileWriter writer;
    ASSERT_EQ(writer.Create(path, 1, 40, u"", kMode), 0U);
    const auto write = [&](std::string_view text, std::size_t capacity, unsigned int version) {
      ZrCompactFile::ZrStatus status;
      const std::size_t room = crowded ? std::max(capacity, text.size()) : text.size();
      return 1ULL << 56 |
             writer.WriteDataToFile(status, Data(text), room, 0, version, ReadFile(path).size());
    };
    ASSERT_TRUE(writer.WriteIndexValue(0, 39, write(std::string(70000, 'f'), 90000, 1)));
    for (unsigned int col = 1; col < 39; ++col)
      ASSERT_TRUE(writer.WriteIndexValue(0, col, write(CrowdedTile(col), 3000, 1)));
    std::vector<std::pair<unsigned long long, std::uint64_t>> versions = {{20, 0}};
    for (unsigned int version = 19; version > 0; --version)
      versions.emplace_back(version, write("older", version == 1 ? 5000 : 0, version));
    const std::size_t current = ReadFile(path).size();
    ASSERT_TRUE(writer.WriteIndexValue(0, 0, 1ULL << 56 | current));
    Support::Poke(path, current, Record(versions, "new"));
    if (crowded) Support::WriteFile(path, ReadFile(path) + Support::Bytes(90000));
    const auto readAll = [&] {
      std::vector<Tile> tiles;
      for (unsigned int i = 0; i < 60; ++i) {
        Tile tile = Read(0, i < 40 ? i : 0, i < 40 ? 99 : i - 39);
        std::fill(tile.payload.begin() + static_cast<int>(tile.filled), tile.payload.end(), 0);
        tiles.push_back(tile);
      }
      return tiles;
    };
    Reopen();
    const std::vector<Tile> before = readAll();
    const std::size_t length = Check().size();
    ASSERT_EQ(object.Compact(), 0U);
    EXPECT_EQ(readAll(), before);
    EXPECT_LE(Check().size(), length);
    ASSERT_EQ(Store(0, 39, std::string(90000, 'x'), 1) + Store(0, 38, "last", 1), 0U);
    EXPECT_EQ(Read(0, 5, 1).payload.substr(0, 6), "tile 5");
  }
}

// The size of the index stays, and what the host has put there. Others tell by the time of creation
// that the slots have another order by now, so it grows, whatever the clock says.
TEST_P(CompactionInBothOrders, Names) {
  for (const double time : {1e9, HUGE_VAL}) {
    MakeNaming(5, GetParam());
    object.Close();
    Support::Poke(path, 11, Number(std::bit_cast<std::uint64_t>(time)));
    Reopen();
    object.SetMaxSize(1.5, 2.5);
    ASSERT_EQ(Store(u"gone", "old") + Store(u"kept", "new") + object.Remove(u"gone", 1), 0U);
    ASSERT_EQ(object.Compact(), 0U);
    const Support::Bytes file = ReadFile(path);
    EXPECT_EQ(Support::Bytes(file.begin() + 64, file.begin() + 96),
              Support::Native(5) + Support::Native(1) +
                  Support::Native(std::bit_cast<std::uint64_t>(1.5)) +
                  Support::Native(std::bit_cast<std::uint64_t>(2.5)));
    double now;
    std::memcpy(&now, &file[11], sizeof now);
    EXPECT_TRUE(std::isfinite(time) ? now > time : std::isfinite(now));
    ASSERT_EQ(object.Remove(u"kept", 1) + object.Compact(), 0U);
    EXPECT_EQ(Check().size(), 64U + 36U + 5U * 16U);
  }
}

// Each name comes from the charset that its record has, and goes to UTF-16.
TEST_P(CompactionInBothOrders, NamesOfAnOlderFile) {
  MakeNaming(4, GetParam(), 20111111);
  const Name greek(u"\u03B1\u03B2\u03B3");
  ASSERT_TRUE(ZrToolkit::SetCurCharset(PELMCharset::kGreek));
  EXPECT_EQ(Store(greek, "tile"), 0U);  // record at 164, with three bytes of name
  ASSERT_TRUE(ZrToolkit::SetCurCharset(PELMCharset::kUtf8));
  ASSERT_EQ(Store(u"caf\u00E9 \u03B1", "other"), 0U);
  const Support::Bytes before = ReadFile(path);
  // Of a charset that there is not, or of UTF-8, which it is not.
  for (const unsigned int charset : {9999U, unsigned{PELMCharset::kUtf8}}) {
    Support::Poke(path, 172, Number(charset, 4));
    EXPECT_EQ(object.Compact(), 10U) << charset;
    EXPECT_EQ(folder.CountFiles(), 1U);
    Support::WriteFile(path, before);
  }
  ASSERT_EQ(Store(greek, "the same in UTF-8"), 0U);
  EXPECT_EQ(object.Compact(), 10U) << "two names would become one";
  ASSERT_EQ(object.Remove(greek, 1) + object.Compact(), 0U);
  EXPECT_EQ(Read(greek).payload + Read(u"caf\u00E9 \u03B1").payload, "tileother");

  const Name longest(std::u16string(128, u'n').c_str());
  MakeNaming(1, GetParam(), 20111111);
  ASSERT_EQ(Store(longest, "short"), 0U);
  EXPECT_EQ(object.Compact(), 0U) << "although the file becomes longer";
  EXPECT_EQ(Read(longest).payload, "short");
}

// Two slots of one hash hold the same bytes, of which a lookup finds the first, whatever their
// charsets. Where these make two names of them, both are kept.
TEST_P(CompactionInBothOrders, BytesOfTwoCharsets) {
  using Case = std::tuple<unsigned char, PELMCharset::Charset, PELMCharset::Charset, bool>;
  for (const auto& [last, first, second, areTwo] :
       {Case{'c', PELMCharset::kUtf8, PELMCharset::kGreek, false},
        {0xE1, PELMCharset::kGreek, PELMCharset::kAnsi, true}}) {
    MakeNaming(4, GetParam(), 20111111);
    ASSERT_EQ(Store(u"abc", "one") + Store(u"abd", "two"), 0U);  // records at 164 and 222
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
    EXPECT_EQ(Read(areTwo ? u"ab\u03B1" : u"abc").payload, "one");
    EXPECT_EQ(Read(u"ab\u00E1").payload, areTwo ? "two" : "");
    Check();
  }
}

TEST_F(Compaction, Answers) {
  EXPECT_EQ(object.Compact(), 6U);
  MakeNaming(2);
  ASSERT_EQ(Store(u"a", "tile"), 0U);
  const std::string leftover = TemporaryPath().ToUtf8();
  std::filesystem::create_directory(leftover);
  EXPECT_EQ(object.Compact(), 2U) << "something else has the name";
  std::filesystem::remove(leftover);
  for (const bool canBeOpened : {true, false}) {
    const Name& claimed = canBeOpened ? TemporaryPath() : path;
    ASSERT_EQ(::mknod(leftover.c_str(), (canBeOpened ? S_IFREG : S_IFIFO) | 0600, 0), 0);
    ZrFile64 other;
    ASSERT_TRUE(other.Open(claimed, ZrFile64::kReadWrite) && other.TryClaim(claimed));
    EXPECT_EQ(object.Compact(), 2U) << "another compaction is at work";
    EXPECT_EQ(folder.CountFiles(), 2U);
    other.Close();
    EXPECT_EQ(object.Compact(), 0U) << "a leftover is replaced";
    EXPECT_EQ(folder.CountFiles(), 1U);
  }
  for (const bool named : {false, true}) {
    named ? MakeNaming(4) : MakeGrid(2, 2);
    Reopen(kLocked);
    Support::Poke(path, 19, Support::Native(1));  // of the index: now it cannot be refreshed
    Support::Poke(path, 32, Support::Native(9));  // generation: it must be
    EXPECT_EQ(object.Compact(), named ? 2U : 9U);
    EXPECT_EQ(folder.CountFiles(), 1U);
  }
  MakeGrid(1, 1);
  const SyscallFaults restore;
  GetFileSyscalls().statx = [](int, const char* name, int, unsigned int, struct statx* status) {
    status->stx_mask = STATX_MNT_ID;
    status->stx_mnt_id = std::string_view(name).ends_with(".cf");
    return 0;
  };
  EXPECT_EQ(object.Compact(), 2U) << "mounted by itself: others look for the image elsewhere";
  GetFileSyscalls().statx = [](auto...) { return errno = ENOSYS, -1; };
  EXPECT_EQ(object.Compact(), 0U);
  GetFileSyscalls().rename = [](auto...) { return errno = EACCES, -1; };
  GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t at) {
    return at == 0 && size < 64 ? (errno = EIO, -1) : ::pwrite(fd, bytes, size, at);
  };
  EXPECT_EQ(object.Compact(), 10U) << "not even the mark is written";
  EXPECT_EQ(folder.CountFiles(), 1U);
  ASSERT_EQ(::rename(path.ToUtf8().c_str(), folder.GetPath("moved.cf").ToUtf8().c_str()), 0);
  EXPECT_EQ(object.Compact(), 2U) << "no longer at its path";
}

TEST_F(Compaction, ProgressTellsAndCancels) {
  MakeGrid(1, 50);
  for (unsigned int col = 0; col < 50; ++col)
    ASSERT_EQ(Store(0, col, std::string(100000, 'x'), 1), 0U);
  const Support::Bytes before = ReadFile(path);
  const ZrCompactFile::CompactProgress cancels[] = {
      [](auto, auto) { return false; }, [](auto done, auto) { return done == 0; },
      [](auto, auto) -> bool { throw 1; },
      [&](auto, auto) { return ZrFile::Delete(TemporaryPath()) || true; }};
  for (const auto& cancel : cancels) {
    EXPECT_EQ(object.Compact(cancel), 10U);
    EXPECT_TRUE(ReadFile(path) == before) << "no mark without an image";
    EXPECT_EQ(folder.CountFiles(), 1U);
  }
  unsigned long long last = 0;
  unsigned int steps = 0;
  const auto watch = [&](unsigned long long done, unsigned long long total) {
    EXPECT_EQ(total, 2 * before.size());
    EXPECT_LE(std::exchange(last, done), done);
    ++steps;
    if (done > before.size()) return false;  // too late
    EXPECT_EQ(Read(0, 49, 1).payload.size(), 100000U);
    EXPECT_EQ(Store(0, 0, "lost", 2), 10U) << "the object can only be read meanwhile";
    EXPECT_EQ(object.Compact(), 9U);
    EXPECT_EQ(object.Open(folder.GetPath("x"), u"", 4), 1U);
    EXPECT_EQ(object.Create(folder.GetPath("x"), 1ULL, u"", 4), 2U);
    return object.Close();
  };
  EXPECT_EQ(object.Compact(watch), 0U);
  EXPECT_EQ(last, 2 * before.size());
  EXPECT_GT(steps, 6U);
}

TEST_F(Compaction, AnImageLetsInNobodyElse) {
  constexpr const char* kList = "system.posix_acl_access";
  const std::string file = path.ToUtf8(), its = TemporaryPath().ToUtf8();
  const auto compact = [&] {
    std::pair<unsigned int, bool> seen;  // the mode of the image, and whether it has a list
    object.Compact([&](auto, auto) {
      struct stat status = {};
      ::stat(its.c_str(), &status);
      seen = {status.st_mode & 0777, ::getxattr(its.c_str(), kList, nullptr, 0) > 0};
      return false;
    });
    return seen;
  };
  // User 1234 may read and write, the group may not, which the mode does not tell.
  Support::Bytes list = Support::Number(2, 4, false);  // the version
  for (const auto& [who, may, id] :
       {std::tuple{1, 6, -1}, {2, 6, 1234}, {4, 0, -1}, {0x10, 6, -1}, {0x20, 0, -1}})
    list = list + Support::Number(who, 2, false) + Support::Number(may, 2, false) +
           Support::Number(id, 4, false);
  const auto setList = [&](const std::string& name, const char* kind) {
    return ::setxattr(name.c_str(), kind, list.data(), list.size(), 0) == 0;
  };
  const SyscallFaults restore;
  MakeGrid(1, 1);
  if (!setList(file, kList)) GTEST_SKIP() << "no lists here";
  EXPECT_EQ(compact(), std::pair(0660U, true));
  GetFileSyscalls().fsetxattr = [](auto...) { return errno = EPERM, -1; };
  EXPECT_EQ(compact(), std::pair(0600U, false));
  ASSERT_EQ(::removexattr(file.c_str(), kList) + ::chmod(file.c_str(), 0664), 0);
  ASSERT_TRUE(setList(folder.GetFolder().string(), "system.posix_acl_default"));
  EXPECT_EQ(compact(), std::pair(0664U, false)) << "the folder's is for new files";
  if (::chown(file.c_str(), 0, 1234) != 0) GTEST_SKIP() << "needs root";
  GetFileSyscalls().fchown = [](auto...) { return errno = EPERM, -1; };
  EXPECT_EQ(compact(), std::pair(0644U, false)) << "another group";
}

// A file through a symbolic link. Where the path beside it cannot be expressed, nothing changes.
TEST_F(Compaction, OnlyTheContentsChange) {
  MakeGrid(2, 2);
  const std::string link = path.ToUtf8();
  for (const char* name : {"where", "\xFF"}) {
    object.Close();
    const auto there = folder.GetFolder() / name / "t.cf";
    std::filesystem::create_directory(there.parent_path());
    std::filesystem::rename(std::filesystem::canonical(link), there);
    std::filesystem::remove(link);
    std::filesystem::create_symlink(there, link);
    struct stat before, after;
    ASSERT_EQ(::chmod(link.c_str(), 0640) + ::stat(link.c_str(), &before), 0);
    Reopen();
    EXPECT_EQ(object.Compact(), *name == 'w' ? 0U : 2U);
    ASSERT_EQ(::stat(link.c_str(), &after), 0);
    EXPECT_TRUE(before.st_mode == after.st_mode && before.st_ino == after.st_ino);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(CountEntries(there.parent_path()), 1U);
  }
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

// What is left of a container that is marked is not thrown away by one who has it open still, and
// is put back only if it is whole. Where a file cannot be written it is finished under its name:
// nobody else waits for who has locked the one of before.
TEST_F(Compaction, IsFinishedByOneWhoHasTheFileOfBefore) {
  Support::Bytes marked, image;
  const auto keep = [&](unsigned long long done, unsigned long long total) {
    if (done <= total / 2 || !marked.empty()) return true;
    marked = ReadFile(path);
    image = ReadFile(TemporaryPath());
    return true;
  };
  const auto leaveAsKilled = [&] {
    Support::WriteFile(path, marked);
    Support::WriteFile(TemporaryPath(), image);
  };
  const std::string tile(200'000, 't');  // several chunks of the checksum
  MakeGrid(1, 2);
  ASSERT_EQ(Store(0, 0, tile, 1) + object.Compact(keep), 0U);
  const Support::Bytes whole = ReadFile(path);
  leaveAsKilled();
  EXPECT_EQ(object.Compact(), 2U);
  EXPECT_EQ(ReadFile(TemporaryPath()), image);
  for (const std::size_t at : {image.size() / 2, image.size() - 48}) {
    ++image[at];  // damaged, or of another compaction
    leaveAsKilled();
    --image[at];
    EXPECT_EQ(ZrCompactFile().Open(path, u"", kMode), 3U);
  }
  // Another process has the claim for a while, and finishes or not.
  static std::function<bool()> s_isClaimed;
  for (const bool finishes : {false, true}) {
    leaveAsKilled();
    s_isClaimed = [&, calls = 0]() mutable {
      if (++calls == 2 && finishes) Support::WriteFile(path, whole);
      return calls < 4;
    };
    const SyscallFaults faults;
    GetFileSyscalls().lock = [](int fd, int command, struct flock* lock) {
      const bool fails = lock->l_type == F_WRLCK && s_isClaimed();
      return fails ? (errno = EAGAIN, -1) : ::fcntl(fd, command, lock);
    };
    ZrCompactFile late;
    EXPECT_EQ(late.Open(path, u"", kMode), 0U);
    EXPECT_EQ(ReadTile(late, {0, 0}, 1).payload, tile);
  }
  leaveAsKilled();
  Reopen(kLocked);
  leaveAsKilled();
  Support::Poke(path, 32, Support::Native(1));  // another generation, as a compaction makes it
  {
    const SyscallFaults faults;
    GetFileSyscalls().ftruncate = [](int, off_t) { return -1; };
    EXPECT_EQ(Store(0, 1, "unlocked", 1), 10U);
  }
  EXPECT_FALSE(ZrFile::IsExist(TemporaryPath()));
  EXPECT_EQ(Read(0, 1, 1).result, 5U) << "locked by now";
  EXPECT_EQ(Read(0, 0, 1).payload, tile);
}

}  // namespace
}  // namespace Zarn
