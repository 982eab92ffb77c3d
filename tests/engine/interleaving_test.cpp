// A writer changes a file while others look tiles up in it, in orders of their system calls; or it
// is killed at any of them, and another writer goes on. HX_TWICE and HX_ORDERS run more of them.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "ZrCompactFileReader.h"
#include "ZrCompactFileStub.h"
#include "ZrCompactFileWriter.h"
#include "engine/EngineFixture.h"
#include "support/RawFile.h"
#include "support/Schedule.h"

namespace Zarn {
namespace {

constexpr ZrCompactFile::ZrOpenMode kLocked =
    ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;
constexpr unsigned int kNewest = 9;  // no tile has this stamp
constexpr unsigned int kNotFound = 5;

// A tile is a letter over and over again.
struct Change {
  enum What { kSet, kSetBatch, kRemove, kCompact } what;
  unsigned int cell, stamp;
  std::size_t size = 0;
  char letter = 0;
};
constexpr Change Set(unsigned int cell, unsigned int stamp, std::size_t size, char letter) {
  return {Change::kSet, cell, stamp, size, letter};
}
constexpr Change Remove(unsigned int cell, unsigned int stamp) {
  return {Change::kRemove, cell, stamp};
}
struct Place {
  unsigned int cell, stamp = kNewest;

  bool operator==(const Place&) const = default;
};

// At first there are these tiles: of cells 0 and 2 across pages, of cell 1 in one page.
constexpr Change kTiles[] = {Set(0, 1, 5000, 'a'), Set(1, 1, 100, 'b'), Set(2, 1, 5000, 'c'),
                             Set(2, 2, 200, 'd'), Set(7, 1, 30, 'y')};
constexpr Change kBySecondWriter = Set(5, 1, 300, 'z');

// What the first writer does, and what each reader looks up.
struct Row {
  const char* name;
  std::vector<Change> changes;
  std::vector<Place> looks;
  bool isInPlace = false;  // a light reader may get half of the old tile
};
const std::vector<Row> kRows = {
    {"NewTileBesideOther", {Set(3, 1, 300, 'e')}, {{0}, {3}}},
    {"TwoNewTiles", {Set(3, 1, 300, 'e'), Set(4, 1, 300, 'f')}, {{4}, {3}}},
    {"RewriteAcrossPages", {Set(0, 1, 4900, 'e')}, {{0}, {0}}, true},
    {"RewriteInPage", {Set(1, 1, 90, 'e')}, {{1}, {1}}, true},
    {"RewriteThenNew", {Set(0, 1, 5000, 'e'), Set(3, 1, 4900, 'f')}, {{0}, {3}}, true},
    {"NewVersion", {Set(0, 2, 300, 'e')}, {{0}, {0, 1}}},
    {"RewriteOlder", {Set(2, 1, 4900, 'e')}, {{2, 1}, {2, 1}}},
    {"MoveOlderThenNew", {Set(2, 1, 6000, 'e'), Set(2, 3, 200, 'f')}, {{2, 1}, {2}}},
    {"RemoveNewest", {Remove(2, 2)}, {{2}, {2, 1}}},
    {"RemoveOlder", {Remove(2, 1)}, {{2}, {2, 1}}},
    {"RemoveThenNew", {Remove(1, 1), Set(1, 1, 50, 'e')}, {{1}, {1}}},
    {"Batch", {{Change::kSetBatch, 3, 1, 300, 'e'}}, {{4}, {3}}},
    {"Compact", {{Change::kCompact, 0, 0}}, {{0}, {2, 1}}, true},
};

// Which kind of file, and who writes. In a wide grid the entry of the cell that is changed first
// lies on two pages.
enum Layout { kGrid, kWideGrid, kNames, kFullNames, kByStub, kByLightWriter };

struct Reader {
  enum Kind { kFresh, kKnowing, kMapped, kOpening, kLight } kind;
  const char* name;
  std::size_t maps = 0;  // what can be mapped
  unsigned int count = 1;
};
constexpr Reader kReaders[] = {{Reader::kKnowing, "that has read all"},
                               {Reader::kLight, "that is a light one"},
                               {Reader::kFresh, "that has read nothing"},
                               {Reader::kKnowing, "that is one of two", 0, 2},
                               {Reader::kMapped, "that has mapped the file", SIZE_MAX},
                               {Reader::kMapped, "that has mapped the first page", 4096},
                               {Reader::kOpening, "that opens the file"}};

class Orders : public EngineTest, public ::testing::WithParamInterface<std::size_t> {
 protected:
  struct Writer {
    std::vector<Change> changes;
    std::size_t begun = 0, done = 0;
  };

  Orders() : EngineTest(TemporaryFolder::kMemory) {}

  bool IsNaming() const { return m_layout == kNames || m_layout == kFullNames; }
  Subject At(unsigned int cell) const {
    if (IsNaming()) return PelmUnicodeString(u"names of tiles", 1 + cell);
    return {0, Col(cell)};
  }
  unsigned int Col(unsigned int cell) const {
    if (m_layout != kWideGrid) return cell;
    return cell == m_row.changes[0].cell ? 502 : 495 + cell;
  }
  // Of the cell's or the name's entry.
  off_t GetMiddle(unsigned int cell) const {
    return IsNaming() ? off_t{104} + 16 * off_t{cell} : off_t{80} + 8 * off_t{Col(cell)};
  }

  static ZrByteArray DataOf(const Change& change) {
    return Data(std::string(change.size, change.letter));
  }
  unsigned int Apply(ZrCompactFile& file, const Change& change) const {
    const ZrByteArray data = DataOf(change);
    if (change.what == Change::kCompact) return file.Compact();
    if (change.what == Change::kRemove) return RemoveTile(file, At(change.cell), change.stamp);
    if (change.what == Change::kSet) return StoreTile(file, At(change.cell), data, change.stamp);
    std::vector<ZrCompactFile::ZrCellStore> cells;
    std::vector<ZrCompactFile::ZrNameStore> names;
    std::vector<unsigned int> results;
    for (const unsigned int cell : {change.cell, change.cell + 1}) {
      cells.push_back({0, Col(cell), &data, 0, 0, change.stamp});
      names.push_back({At(cell).name, &data, 0, 0, change.stamp});
    }
    return IsNaming() ? file.SetBatch(names, results) : file.SetBatch(cells, results);
  }
  // The light classes only store.
  unsigned int Apply(ZrCompactFileWriter& file, const Change& change) const {
    return file.SetAt(0, Col(change.cell), DataOf(change), 0, 0, change.stamp);
  }
  unsigned int Apply(ZrCompactFileStub& file, const Change& change) const {
    return file.Write(0, Col(change.cell), DataOf(change), 0, 0, change.stamp) ? 0 : 1;
  }
  template <typename File>
  unsigned int Open(File& file, ZrCompactFile::ZrOpenMode mode = kLocked) {
    return file.Open(path, u"", mode);
  }
  unsigned int Open(ZrCompactFileStub& file) {
    file.SetPath(path);
    return 0;
  }

  // Of a tile that is not there, light readers answer no bytes.
  Tile Look(auto& file, const Place& place) const {
    const Tile tile = ReadTile(file, At(place.cell), place.stamp);
    return tile == Tile() ? Tile{kNotFound, "", 0} : tile;
  }

  void MakeFile() {
    const unsigned int names = m_layout == kFullNames ? 4 : 16;
    const unsigned int cols = m_layout == kWideGrid ? 520 : 8;
    Forget();
    ASSERT_EQ(IsNaming() ? object.Create(path, names, u"", kLocked)
                         : object.Create(path, 1, cols, u"", kLocked),
              0U);
    for (const Change& tile : kTiles)
      ASSERT_EQ(Apply(object, tile), 0U);
    object.Close();
    m_image = Support::ReadFile(path);
  }
  // Makes the changes with nobody else there.
  template <typename File>
  void Prepare() {
    m_write = [this] { RunWriter<File>(m_first); };
    m_states = {};
    File file;
    ASSERT_EQ(Open(file), 0U);
    for (std::size_t i = 0; i <= m_row.changes.size(); ++i) {
      ASSERT_EQ(i == 0 ? 0 : Apply(file, m_row.changes[i - 1]), 0U);
      ZrCompactFile reader;
      ASSERT_EQ(Open(reader), 0U);
      for (std::size_t look = 0; look < m_states.size(); ++look)
        m_states[look].push_back(Look(reader, m_row.looks[look]));
    }
  }

  // They show states that are not older than what any lookup of the same before has seen, or than
  // what the writer had done when the lookup began.
  template <typename File>
  void LookAtAll(File& file) {
    for (std::size_t look = 0; look < m_states.size(); ++look) {
      Schedule::Step("looks up");
      const Place& place = m_row.looks[look];
      std::size_t& seen = m_seen[place == m_row.looks[0] ? 0 : look];
      const std::size_t least = std::max(m_first.done, seen);
      const Tile tile = Look(file, place);
      const auto begin = m_states[look].begin(), end = begin + m_first.begun + 1;
      seen = std::find(begin + least, end, tile) - begin;
      if (begin + seen != end) continue;
      std::string letters = tile.payload;
      letters.erase(std::unique(letters.begin(), letters.end()), letters.end());
      ADD_FAILURE() << "A lookup of cell " << place.cell << " stamp " << place.stamp << " answers "
                    << tile.result << " with " << letters << " in " << tile.payload.size()
                    << " bytes, as after " << std::find(begin, end, tile) - begin << " changes; "
                    << least << " were seen and " << m_first.begun << " begun";
    }
  }

  template <typename File>
  void RunWriter(Writer& writer) {
    File file;
    EXPECT_EQ(Open(file), 0U);
    Schedule::Begin();
    for (const Change& change : writer.changes) {
      ++writer.begun;
      const unsigned int result = Apply(file, change);
      if (!Schedule::IsAlive()) return;
      EXPECT_EQ(result, 0U);
      ++writer.done;
    }
    if (!m_closes) Schedule::End();
  }
  template <typename File>
  void RunReader(Reader::Kind kind) {
    File file;
    if (kind == Reader::kOpening) Schedule::Begin();
    EXPECT_EQ(Open(file, kLocked | (kind == Reader::kMapped ? ZrCompactFile::kMapped : 0)), 0U);
    if (kind == Reader::kKnowing || kind == Reader::kMapped)
      for (const Place& place : m_row.looks)
        Look(file, place);
    if (kind != Reader::kOpening) Schedule::Begin();
    LookAtAll(file);
    if (!m_closes) Schedule::End();
  }
  void CheckEnd() {
    ZrCompactFile file;
    EXPECT_EQ(Open(file), 0U);
    LookAtAll(file);
    EXPECT_EQ(Look(file, {kBySecondWriter.cell}).payload, std::string(m_second.done * 300, 'z'));
    ZrVerifySummary summary;
    EXPECT_EQ(file.Verify(summary), 0U);
    file.Close();
    const Support::Bytes bytes = Support::ReadFile(path);
    EXPECT_EQ(std::count(bytes.begin() + 27, bytes.begin() + 64, 0), 37) << "Reserved bytes";
  }

  void RunAll(const Reader& reader, bool kills) {
    const char* const random = std::getenv("HX_ORDERS");
    m_closes = reader.kind == Reader::kOpening;
    Schedule schedule({.twice = std::getenv("HX_TWICE") != nullptr,
                       .random = random == nullptr ? 10 : std::stoul(random),
                       .kills = kills,
                       .maps = reader.maps,
                       .cut = GetMiddle(m_row.changes[0].cell)});
    const auto read = [&] {
      reader.kind == Reader::kLight ? RunReader<ZrCompactFileReader>(reader.kind)
                                    : RunReader<ZrCompactFile>(reader.kind);
    };
    std::vector<Schedule::Process> processes = {{"writer", m_write}, {"reader", read}};
    if (reader.count > 1) processes.push_back({"other", read});
    if (kills && m_layout != kByLightWriter)
      processes.push_back({"second", [&] { RunWriter<ZrCompactFile>(m_second); }});
    while (!HasFailure() && schedule.Next()) {
      for (const auto& entry : std::filesystem::directory_iterator(folder.GetFolder()))
        if (entry.path().string() != path.ToUtf8()) std::filesystem::remove(entry.path());
      Support::WriteFile(path, m_image);
      m_first.begun = m_first.done = m_second.done = 0;
      m_seen = {};
      EXPECT_EQ(schedule.Run(processes), "");
      CheckEnd();
      if (HasFailure())
        ADD_FAILURE() << "In layout " << m_layout << ", with a reader " << reader.name << ':'
                      << schedule.Describe();
    }
  }
  void RunAll(Layout layout) {
    m_layout = layout;
    ASSERT_NO_FATAL_FAILURE(MakeFile());
    layout == kByStub          ? Prepare<ZrCompactFileStub>()
    : layout == kByLightWriter ? Prepare<ZrCompactFileWriter>()
                               : Prepare<ZrCompactFile>();
    const bool looksBack =
        std::ranges::any_of(m_row.looks, [](Place at) { return at.stamp != kNewest; });
    const bool suitsLight = !IsNaming() && !looksBack && !m_row.isInPlace;
    for (const Reader& reader : kReaders) {
      const bool isLight = reader.kind == Reader::kLight, isMain = isLight || &reader == kReaders;
      if (isLight ? !suitsLight : layout == kByLightWriter || (layout != kGrid && !isMain))
        continue;
      RunAll(reader, false);
      if (isMain) RunAll(reader, true);
    }
  }

  const Row& m_row = kRows[GetParam()];
  Layout m_layout = kGrid;
  Support::Bytes m_image;
  Writer m_first{m_row.changes}, m_second{{kBySecondWriter}};
  std::function<void()> m_write;              // by the first one
  std::array<std::vector<Tile>, 2> m_states;  // of each look, after so many changes
  std::array<std::size_t, 2> m_seen{};
  bool m_closes = false;  // while others may still be at work
};

TEST_P(Orders, LookupsSeeWholeTilesNoOlderThanKnown) {
  const bool isPlain = std::ranges::all_of(m_row.changes, [](const Change& change) {
    return change.what == Change::kSet && change.stamp == 1 && change.cell != 2;
  });
  for (const Layout layout : {kGrid, kWideGrid, kNames, kFullNames, kByStub, kByLightWriter})
    if (layout == kFullNames ? m_row.changes[0].cell >= 3 : layout < kByStub || isPlain)
      RunAll(layout);
}
INSTANTIATE_TEST_SUITE_P(Engine, Orders, ::testing::Range(std::size_t{0}, kRows.size()),
                         [](const auto& test) { return std::string(kRows[test.param].name); });

}  // namespace
}  // namespace Zarn
