// A writer changes a file while others look tiles up in it, in every order of their system calls;
// or it is killed at any of them, and another writer goes on.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
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
                             Set(2, 2, 200, 'd')};
constexpr Change kLastName = Set(7, 1, 30, 'y');  // where there is no room for another name
constexpr Change kBySecondWriter = Set(5, 1, 300, 'z');

// What the first writer does, and what each reader looks up.
struct Row {
  const char* name;
  std::vector<Change> changes;
  std::vector<Place> looks;
  bool isInPlace = false;  // a light reader may get half of the old tile

  friend std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }
};
const Row kRows[] = {
    {"NewTile", {Set(3, 1, 300, 'e')}, {{3}, {3}}},
    {"NewTileBesideOther", {Set(3, 1, 300, 'e')}, {{0}, {3}}},
    {"TwoNewTiles", {Set(3, 1, 300, 'e'), Set(4, 1, 300, 'f')}, {{4}, {3}}},
    {"RewriteAcrossPages", {Set(0, 1, 4900, 'e')}, {{0}, {0}}, true},
    {"RewriteInPage", {Set(1, 1, 90, 'e')}, {{1}, {1}}, true},
    {"RewriteThenNew", {Set(0, 1, 5000, 'e'), Set(3, 1, 4900, 'f')}, {{0}, {3}}, true},
    {"NewVersion", {Set(0, 2, 300, 'e')}, {{0}, {0, 1}}},
    {"RewriteOlder", {Set(2, 1, 4900, 'e')}, {{2, 1}, {2, 1}}},
    {"MoveOlder", {Set(2, 1, 6000, 'e')}, {{2, 1}, {2}}},
    {"MoveOlderThenNew", {Set(2, 1, 6000, 'e'), Set(2, 3, 200, 'f')}, {{2, 1}, {2}}},
    {"RemoveOnly", {Remove(1, 1)}, {{1}, {1}}},
    {"RemoveNewest", {Remove(2, 2)}, {{2}, {2, 1}}},
    {"RemoveOlder", {Remove(2, 1)}, {{2}, {2, 1}}},
    {"RemoveThenNew", {Remove(1, 1), Set(1, 1, 50, 'e')}, {{1}, {1}}},
    {"Batch", {{Change::kSetBatch, 3, 1, 300, 'e'}}, {{4}, {3}}},
    {"Compact", {{Change::kCompact, 0, 0}}, {{0}, {2, 1}}, true},
};

// Which kind of file, and who writes. In a wide grid the entry of the cell that is changed first
// lies on two pages.
enum Layout { kGrid, kWideGrid, kNames, kFullNames, kByStub, kByLightWriter };
constexpr const char* kLayouts[] = {"Grid",      "WideGrid", "Names",
                                    "FullNames", "ByStub",   "ByLightWriter"};

struct Reader {
  enum Kind { kFresh, kKnowing, kMapped, kOpening, kLight } kind;
  const char* name;
  std::size_t maps = 0;  // what can be mapped
  unsigned int count = 1;
};
constexpr Reader kReaders[] = {{Reader::kFresh, "has read nothing"},
                               {Reader::kKnowing, "has read all"},
                               {Reader::kKnowing, "is one of two", 0, 2},
                               {Reader::kMapped, "has mapped the file", SIZE_MAX},
                               {Reader::kMapped, "has mapped the first page", 4096},
                               {Reader::kOpening, "opens the file"},
                               {Reader::kLight, "is a light one"}};

// Of each run, unless HX_ORDERS says more: the faults that rules are there for mostly take some
// 100.
constexpr unsigned int kOrders = 10;

unsigned int Setting(const char* name, unsigned int otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<unsigned int>(std::atoi(text));
}

class Orders : public ::testing::TestWithParam<std::tuple<Row, Layout>> {
 protected:
  // A writer, and what its changes lead to. A lookup shows a state that is not older than what any
  // lookup before has seen, or what the writer had done when the lookup began.
  struct Writer {
    std::vector<Change> changes;
    std::size_t begun = 0, done = 0;
    std::vector<std::vector<Tile>> states;  // of each look, after so many changes
    std::vector<std::size_t> seen;
  };

  Orders() : m_folder(TemporaryFolder::kMemory) {
    m_first.changes = GetRow().changes;
    m_second.changes = {kBySecondWriter};
  }

  static const Row& GetRow() { return std::get<0>(GetParam()); }
  static Layout GetLayout() { return std::get<1>(GetParam()); }
  static bool IsNaming() { return GetLayout() == kNames || GetLayout() == kFullNames; }
  static PelmUnicodeString Name(unsigned int cell) { return {u"names of tiles", 1 + cell}; }
  static unsigned int Col(unsigned int cell) {
    if (GetLayout() != kWideGrid) return cell;
    return cell == GetRow().changes[0].cell ? 502 : 495 + cell;
  }

  // Of the cell's or the name's entry.
  static off_t GetMiddle(unsigned int cell) {
    return IsNaming() ? off_t{104} + 16 * off_t{cell} : off_t{80} + 8 * off_t{Col(cell)};
  }

  static unsigned int Apply(ZrCompactFile& file, const Change& change) {
    const ZrByteArray data = Data(std::string(change.size, change.letter));
    const auto [what, cell, stamp, size, letter] = change;
    if (what == Change::kCompact) return file.Compact();
    if (what == Change::kRemove)
      return IsNaming() ? file.Remove(Name(cell), stamp) : file.Remove(0, Col(cell), stamp);
    if (what == Change::kSet)
      return IsNaming() ? file.SetAt(Name(cell), data, 0, 0, stamp)
                        : file.SetAt(0, Col(cell), data, 0, 0, stamp);
    std::vector<unsigned int> results;
    if (IsNaming())
      return file.SetBatch({{Name(cell), &data, 0, 0, stamp}, {Name(cell + 1), &data, 0, 0, stamp}},
                           results);
    return file.SetBatch(
        {{0, Col(cell), &data, 0, 0, stamp}, {0, Col(cell + 1), &data, 0, 0, stamp}}, results);
  }
  // The light classes only store.
  static unsigned int Apply(ZrCompactFileWriter& file, const Change& change) {
    const ZrByteArray data = Data(std::string(change.size, change.letter));
    return file.SetAt(0, Col(change.cell), data, 0, 0, change.stamp);
  }
  static unsigned int Apply(ZrCompactFileStub& file, const Change& change) {
    const ZrByteArray data = Data(std::string(change.size, change.letter));
    return file.Write(0, Col(change.cell), data, 0, 0, change.stamp) ? 0 : 1;
  }
  template <typename File>
  unsigned int Open(File& file) {
    return file.Open(m_path, u"", kLocked);
  }
  unsigned int Open(ZrCompactFileStub& file) {
    file.SetPath(m_path);
    return 0;
  }

  static Tile Look(ZrCompactFile& file, const Place& place) {
    return IsNaming() ? ReadTile(file, Name(place.cell), place.stamp)
                      : ReadTile(file, 0, Col(place.cell), place.stamp);
  }
  static Tile Look(ZrCompactFileReader& file, const Place& place) {
    ZrByteArray data;
    Tile tile;
    tile.result = file.Lookup(0, Col(place.cell), data, tile.filled, place.stamp);
    tile.payload = Content(data);
    return tile.result == 0 && tile.payload.empty() ? Tile{kNotFound, "", 0} : tile;
  }

  void MakeFile() {
    ZrCompactFile file;
    const unsigned int names = GetLayout() == kFullNames ? 4 : 16;
    const unsigned int cols = GetLayout() == kWideGrid ? 520 : 8;
    ASSERT_EQ(IsNaming() ? file.Create(m_path, names, u"", kLocked)
                         : file.Create(m_path, 1, cols, u"", kLocked),
              0U);
    for (const Change& tile : kTiles)
      ASSERT_EQ(Apply(file, tile), 0U);
    if (GetLayout() == kFullNames) {
      ASSERT_EQ(Apply(file, kLastName), 0U);
    }
    file.Close();
    m_image = Support::ReadFile(m_path);
  }
  void Restore() {
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.GetFolder()))
      if (entry.path().string() != m_path.ToUtf8()) std::filesystem::remove(entry.path());
    Support::WriteFile(m_path, m_image);
  }
  // Makes the changes with nobody else there.
  template <typename File>
  void Learn(Writer& writer, const std::vector<Place>& looks) {
    Restore();
    File file;
    ASSERT_EQ(Open(file), 0U);
    writer.states.resize(looks.size());
    for (std::size_t i = 0; i <= writer.changes.size(); ++i) {
      if (i > 0) {
        ASSERT_EQ(Apply(file, writer.changes[i - 1]), 0U);
      }
      ZrCompactFile reader;
      ASSERT_EQ(Open(reader), 0U);
      for (std::size_t look = 0; look < looks.size(); ++look)
        writer.states[look].push_back(Look(reader, looks[look]));
    }
  }
  template <typename File>
  void Prepare() {
    Learn<File>(m_first, GetRow().looks);
    m_write = [this] { Write<File>(m_first); };
  }

  void Complain(std::string what) {
    if (m_complaint.empty()) m_complaint = std::move(what);
  }
  template <typename File>
  void LookAt(File& file, Writer& writer, const std::vector<Place>& looks, std::size_t look) {
    Schedule::Listen("looks up");
    std::size_t& seen = writer.seen[std::ranges::find(looks, looks[look]) - looks.begin()];
    const std::size_t least = std::max(writer.done, seen);
    const Tile tile = Look(file, looks[look]);
    const std::vector<Tile>& states = writer.states[look];
    std::size_t state = least;
    while (state < writer.begun && states[state] != tile)
      ++state;
    if (states[state] == tile) {
      if (state > seen) Schedule::Tell("has seen it");
      seen = std::max(seen, state);
      return;
    }
    std::ostringstream text;
    text << "cell " << looks[look].cell << " stamp " << looks[look].stamp << ": " << Short(tile);
    for (std::size_t i = 0; i < states.size(); ++i)
      text << (i == 0 ? "; states " : ", ") << Short(states[i]);
    text << "; from " << least << " to " << writer.begun << " were possible";
    Complain(text.str());
  }
  // Runs of letters.
  static std::string Short(const Tile& tile) {
    std::ostringstream text;
    text << tile.result << ':';
    for (std::size_t i = 0; i < tile.payload.size();) {
      const std::size_t end =
          std::min(tile.payload.find_first_not_of(tile.payload[i], i), tile.payload.size());
      text << end - i << (std::isalpha(tile.payload[i]) != 0 ? tile.payload[i] : '?');
      i = end;
    }
    return text.str();
  }

  template <typename File>
  void Write(Writer& writer) {
    File file;
    if (Open(file) != 0) Complain("A writer cannot open the file");
    Schedule::Begin();
    for (std::size_t i = 0; i < writer.changes.size(); ++i) {
      ++writer.begun;
      const unsigned int result = Apply(file, writer.changes[i]);
      if (!Schedule::IsAlive()) return;
      if (result != 0) Complain("A change answers " + std::to_string(result));
      Schedule::Tell("has changed it");
      ++writer.done;
    }
    if (!m_closes) Schedule::End();
  }
  template <typename File>
  void Read(Reader::Kind kind) {
    File file;
    const ZrCompactFile::ZrOpenMode mode =
        kLocked | (kind == Reader::kMapped ? ZrCompactFile::kMapped : 0);
    if (kind == Reader::kOpening) Schedule::Begin();
    if (file.Open(m_path, u"", mode) != 0) Complain("A reader cannot open the file");
    if (kind == Reader::kKnowing || kind == Reader::kMapped)
      for (const Place& place : GetRow().looks)
        Look(file, place);
    if (kind != Reader::kOpening) Schedule::Begin();
    for (std::size_t look = 0; look < GetRow().looks.size(); ++look)
      LookAt(file, m_first, GetRow().looks, look);
    if (!m_closes) Schedule::End();
  }
  // The file in the end, once for each that comes out.
  void CheckAll() {
    const bool isNew = m_ends
                           .emplace(Support::ReadFile(m_path), m_folder.CountFiles(), m_first.begun,
                                    m_first.done, m_first.seen, m_second.done)
                           .second;
    if (!isNew) return;
    ZrCompactFile file;
    if (file.Open(m_path, u"", kLocked) != 0) return Complain("The file cannot be opened");
    for (std::size_t look = 0; look < GetRow().looks.size(); ++look)
      LookAt(file, m_first, GetRow().looks, look);
    LookAt(file, m_second, {{kBySecondWriter.cell}}, 0);
    ZrVerifySummary summary;
    if (file.Verify(summary) != 0) Complain("The file is damaged");
    file.Close();
    const Support::Bytes bytes = Support::ReadFile(m_path);
    if (std::any_of(bytes.begin() + 27, bytes.begin() + 64,
                    [](unsigned char byte) { return byte != 0; }))
      Complain("The reserved bytes are not zero in the end");
  }

  void RunAll(const Reader& reader, bool kills) {
    Schedule::Limits limits;
    limits.preemptions = (kills || reader.count > 1 ? 1 : 2) + Setting("HX_MORE", 0);
    limits.kills = kills;
    limits.maps = reader.maps;
    m_closes = reader.kind == Reader::kOpening;
    limits.leavesOut = reader.maps == 0 && Setting("HX_ALL", 0) == 0;
    limits.orders = Setting("HX_ORDERS", kOrders);
    limits.cuts = {GetMiddle(m_first.changes[0].cell)};
    Schedule schedule(limits);
    const auto read = [&] {
      reader.kind == Reader::kLight ? Read<ZrCompactFileReader>(reader.kind)
                                    : Read<ZrCompactFile>(reader.kind);
    };
    std::vector<Schedule::Process> processes = {{"writer", true, m_write}, {"reader", false, read}};
    if (reader.count > 1) processes.push_back({"other", false, read});
    if (kills && GetLayout() != kByLightWriter)
      processes.push_back({"second", false, [&] { Write<ZrCompactFile>(m_second); }});
    while (m_complaint.empty() && schedule.Next()) {
      Restore();
      for (Writer* writer : {&m_first, &m_second}) {
        writer->begun = writer->done = 0;
        writer->seen.assign(writer->states.size(), 0);
      }
      schedule.Run(processes);
      if (!schedule.GetFailure().empty()) Complain(schedule.GetFailure());
      if (m_complaint.empty()) CheckAll();
      if (!m_complaint.empty())
        ADD_FAILURE() << m_complaint << "\nafter " << schedule.CountOrders()
                      << " orders; the reader " << reader.name << schedule.Describe();
    }
    std::printf("%s%s: %zu orders%s\n", reader.name, kills ? ", with kills" : "",
                schedule.CountOrders(), schedule.IsComplete() ? "" : ", not all");
  }

  TemporaryFolder m_folder;
  const PelmUnicodeString m_path = m_folder.GetPath("t.cf");
  Support::Bytes m_image;
  Writer m_first, m_second;
  std::function<void()> m_write;  // by the first one
  std::set<std::tuple<Support::Bytes, std::size_t, std::size_t, std::size_t,
                      std::vector<std::size_t>, std::size_t>>
      m_ends;
  bool m_closes = false;  // while others may still be at work
  std::string m_complaint;
};

// In some seconds; HX_MORE makes it go through all kinds of readers everywhere, with so many more
// preemptions, and HX_ORDERS through so many orders of each.
TEST_P(Orders, LookupsSeeWholeTilesNoOlderThanKnown) {
  const auto& looks = GetRow().looks;
  ASSERT_NO_FATAL_FAILURE(MakeFile());
  GetLayout() == kByStub          ? Prepare<ZrCompactFileStub>()
  : GetLayout() == kByLightWriter ? Prepare<ZrCompactFileWriter>()
                                  : Prepare<ZrCompactFile>();
  Learn<ZrCompactFile>(m_second, {{kBySecondWriter.cell}});
  ASSERT_FALSE(HasFatalFailure());
  const bool isQuick = std::getenv("HX_MORE") == nullptr;
  const bool looksBack = std::ranges::any_of(looks, [](Place at) { return at.stamp != kNewest; });
  for (const Reader& reader : kReaders)
    for (const bool kills : {false, true}) {
      const bool isMain =
          (reader.kind == Reader::kKnowing && reader.count == 1) || reader.kind == Reader::kLight;
      if (isQuick && !isMain && (kills || GetLayout() != kGrid)) continue;
      if (reader.kind == Reader::kLight && (IsNaming() || looksBack || GetRow().isInPlace))
        continue;
      if (reader.kind != Reader::kLight && GetLayout() == kByLightWriter) continue;
      m_complaint.clear();
      RunAll(reader, kills);
    }
}

std::vector<std::tuple<Row, Layout>> MakeCases() {
  std::vector<std::tuple<Row, Layout>> cases;
  for (const Row& row : kRows)
    for (const Layout layout : {kGrid, kWideGrid, kNames, kFullNames, kByStub, kByLightWriter}) {
      const bool isPlain = std::ranges::all_of(row.changes, [](const Change& change) {
        return change.what == Change::kSet && change.stamp == 1 && change.cell != 2;
      });
      if (layout == kFullNames ? row.changes[0].cell >= 3 : layout < kByStub || isPlain)
        cases.emplace_back(row, layout);
    }
  return cases;
}
INSTANTIATE_TEST_SUITE_P(Engine, Orders, ::testing::ValuesIn(MakeCases()), [](const auto& test) {
  return std::string(std::get<0>(test.param).name) + kLayouts[std::get<1>(test.param)];
});

}  // namespace
}  // namespace Zarn
