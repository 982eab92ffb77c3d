#include "TileStore.h"

#include <gmock/gmock.h>

#include <functional>
#include <map>

#include "NameKey.h"
#include "Tail.h"
#include "support/RawFile.h"
#include "support/TemporaryFolder.h"

namespace Zarn::Engine {
namespace {

using namespace Support;

/// Writes entries into the file, and fails when it is told.
struct Entries final : EntryWriter {
  bool WriteIndexValue(TileEntry& entry) override {
    if (entry.Value() == entry.stored) return true;
    if (++calls == failing) return false;
    std::uint64_t value;
    StoreScalar(&value, entry.Value(), swap);
    entry.stored = entry.Value();
    return file->WriteAt(index.EntryAt(entry.number), &value, sizeof value);
  }

  ZrFile64* file = nullptr;
  Format::IndexShape index;
  bool swap = false;
  int calls = 0;
  int failing = 0;  // the call of this number fails
};

struct Version {
  std::uint64_t stamp;
  std::uint64_t status;
  std::uint64_t position;
};

/// One tile of a grid or a naming file, in either byte order.
class TileStoreTest : public ::testing::TestWithParam<std::tuple<bool, bool>> {
 protected:
  void SetUp() override {
    const auto [isNaming, swap] = GetParam();
    index = isNaming ? Format::IndexShape::OfNames(64, 8) : Format::IndexShape::OfGrid(64, 2, 4);
    shape = {index.kind, Format::kCurrentVersion, swap};
    isBig = swap != (std::endian::native == std::endian::big);
    WriteFile(path, Bytes(index.End()));
    ASSERT_TRUE(file.Open(path, ZrFile64::kReadWrite));
    tail = Io::Tail(index, swap, Io::Tail::kOwn);
    board.emplace(Io::Board::kInObject, file, Format::HeaderImage{}, false);
    entries.file = &file;
    entries.index = index;
    entries.swap = swap;
  }

  /// Stores data into the version, or without data removes it.
  bool Change(std::uint64_t stamp, const std::string& text, std::uint64_t capacity = 0,
              std::uint64_t offset = 0) {
    const ZrByteArray data(text.data(), text.size());
    const auto span = Format::ResolveStore(capacity, offset, text.size());
    TileStore store({file, nullptr, shape, index, true, tail, *board, entries}, buffer);
    TileEntry tile = entry;
    std::string scratch;
    const NameKey key(ownName, shape);
    if (!(span ? store.StoreIntoTile(tile, {data, *span, stamp, key.GetStoredName(scratch)})
               : store.RemoveFromTile(tile, stamp, false)))
      return false;
    if (span) tile.FollowCompleteness(*span);
    if (!entries.WriteIndexValue(tile)) return store.PutBack(), false;
    tile.isHeadRead = false;
    entry = tile;
    return true;
  }
  /// What a lookup gives, as far as it is filled.
  std::string Read(std::uint64_t stamp, const PelmUnicodeString& name = u"ab") {
    const TileStore::Place place = {file, nullptr, shape, index, true, tail, *board, entries};
    const NameKey wanted(name, shape);
    TileEntry tile = entry;
    View view(*board, file, nullptr);
    Io::RecordReader record(file, shape);
    const auto result = TileStore::LookUp_Inner(
        place, view, tile, index.IsGrid() ? nullptr : &wanted, stamp, buffer, record);
    if (result != 0) return "result " + std::to_string(result);
    return std::string(buffer.GetData(), buffer.GetData() + record.Head().filledLength);
  }

  Bytes Word(std::uint64_t value, std::size_t width = 8) { return Number(value, width, isBig); }
  /// A record of these versions whose payload area holds the text.
  Bytes Record(const std::vector<Version>& versions, std::uint64_t filled, const std::string& text,
               const Bytes& slack = {}) {
    Bytes body = Word(versions.size(), 4);
    for (const Version& version : versions)
      body = body + Word(version.stamp) + Word(version.status << 56 | version.position);
    body = body + Word(text.size()) + Word(filled) + Text(text) + slack;
    if (!index.IsGrid()) body = Word(251, 4) + Word(4, 4) + Word('a', 2) + Word('b', 2) + body;
    return Word(body.size() + 8) + body;
  }

  TemporaryFolder folder;
  const PelmUnicodeString path = folder.GetPath("t");
  const PelmUnicodeString ownName = u"ab";
  Format::IndexShape index;
  Format::RecordShape shape;
  bool isBig = false;
  ZrFile64 file;
  ZrByteArray buffer;
  Io::Tail tail{{}, false, Io::Tail::kOwn};
  std::optional<Io::Board> board;
  Entries entries;
  TileEntry entry{3};
};

// Every step runs first with an entry that cannot be written, and then leaves the tile as it was.
TEST_P(TileStoreTest, EveryStepByteForByte) {
  const std::uint64_t first = index.End(), head = Record({{}}, 0, "").size();
  const std::uint64_t second = first + head + 5, third = second + head + 16 + 6,
                      fourth = third + head + 5, fifth = fourth + head + 32 + 6;
  Bytes slack = Word(6) + Word(6) + Text("nineme");
  slack.erase(slack.begin(), slack.end() - 16);  // what lay there
  const std::vector<Version> two = {{9, 2, second}, {5, 1, first}};
  const struct {
    std::function<bool()> run;
    std::uint64_t status, position;        // of the entry
    std::map<std::size_t, Bytes> records;  // that it makes or changes
  } steps[] = {
      {[&] { return Change(5, "five!"); }, 1, first, {{0, Record({{5, 1, 0}}, 5, "five!")}}},
      {[&] { return Change(9, "nine", 6); },
       2,
       second,
       {{1, Record({{9, 2, 0}, two[1]}, 4, std::string("nine\0\0", 6))}}},
      {[&] { return Change(9, "me", 6, 4); }, 1, second, {{1, Record(two, 6, "nineme")}}},
      {[&] { return Change(7, "seven"); },
       1,
       fourth,
       {{2, Record({{7, 1, 0}}, 5, "seven")},
        {3, Record({two[0], {7, 1, third}, two[1]}, 6, "nineme")}}},
      {[&] { return Change(5, "5", 5); }, 2, fourth, {{0, Record({{5, 1, 0}}, 1, "5ive!")}}},
      {[&] { return Change(5, "longer", 7); },
       2,
       fourth,
       {{3, Record({two[0], {7, 1, third}, {5, 2, fifth}}, 6, "nineme")},
        {4, Record({{5, 1, 0}}, 6, std::string("longer\0", 7))}}},
      {[&] { return Change(7, ""); },
       2,
       fourth,
       {{3, Record({two[0], {5, 2, fifth}}, 6, "nineme", slack)}}},
      {[&] { return Change(9, ""); },
       2,
       fifth,
       {{4, Record({{5, 2, fifth}}, 6, std::string("longer\0", 7))}}},
      {[&] { return Change(5, ""); }, 0, fifth, {}}};
  std::map<std::size_t, Bytes> records;
  const auto readAll = [&] { return records.empty() ? "" : Read(5) + Read(7) + Read(9); };
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    const std::size_t length = ReadFile(path).size();
    const std::string before = readAll();
    entries.calls = 0;
    entries.failing = 1;
    if (!step.run()) {
      EXPECT_EQ(readAll(), before);
      ASSERT_TRUE(file.SetLength(length));
      ASSERT_TRUE(step.run());
    }
    Bytes expected;
    for (const auto& [number, record] : step.records)
      records[number] = record;
    for (const auto& [number, record] : records)
      expected = expected + record;
    const Bytes bytes = ReadFile(path);
    EXPECT_EQ(Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(first), bytes.end()), expected);
    const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(index.EntryAt(entry.number));
    EXPECT_EQ(Bytes(at, at + 8), Word(step.status << 56 | step.position));
  }
  EXPECT_EQ(Read(0), "longer");
  EXPECT_EQ(Read(0, u"cd"), index.IsGrid() ? "longer" : "result 5");
}

// A record across pages has a copy while it is replaced; whichever entry fails decides which
// counts.
TEST_P(TileStoreTest, ACopyCountsMeanwhile) {
  const std::string before(5000, 'o'), after(5000, 'n');
  for (const auto& [failing, isStored, isHome] :
       {std::tuple{0, true, true}, {1, false, true}, {2, true, false}}) {
    SCOPED_TRACE(failing);
    entries.failing = 0;
    entry = {3};
    ASSERT_TRUE(Change(1, before));
    const std::uint64_t home = entry.position;
    const std::size_t length = ReadFile(path).size();
    entries.calls = 0;
    entries.failing = failing;
    EXPECT_EQ(Change(1, after), isStored);
    EXPECT_EQ(entry.position == home, isHome);
    EXPECT_EQ(Read(1), isStored ? after : before);
    tail.CutSpare(file);
    EXPECT_EQ(ReadFile(path).size() == length, failing == 0);
  }
}

INSTANTIATE_TEST_SUITE_P(KindsAndByteOrders, TileStoreTest,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

}  // namespace
}  // namespace Zarn::Engine
