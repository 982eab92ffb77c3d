#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hx/tiles.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/TemporaryFolder.h"

namespace {

using hx::Cause;
using hx::Cell;
using hx::Container;
using hx::Layout;
using hx::Tile;
using hx::Tileset;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

class Tiles : public testing::Test {
 protected:
  std::filesystem::path Path(const std::string& name) const { return m_folder.GetFolder() / name; }

  TemporaryFolder m_folder;
};

template <typename Call>
Cause CauseOf(Call call) try {
  call();
  return Cause::kNone;
} catch (const hx::Error& error) {
  EXPECT_NE(error.code(), Zarn::ZrResult::kOk);
  EXPECT_NE(std::string(error.what()), "");
  return error.cause();
}

std::vector<hx::Stamp> StampsOf(const std::vector<hx::Version>& versions) {
  std::vector<hx::Stamp> stamps;
  for (const hx::Version& version : versions)
    stamps.push_back(version.stamp);
  return stamps;
}

TEST(Tile, NamesAreThoseOfOneTileOnly) {
  for (const Tile tile : {Tile{0, 0, 0}, Tile{14, 8721, 5433}, Tile{4294967295, 1, 4294967295}}) {
    EXPECT_EQ(Tile::parse(tile.name()), tile);
    EXPECT_EQ(hx::Key(tile).name(), tile.name());
  }
  EXPECT_EQ((Tile{14, 8721, 5433}.name()), "14/8721/5433");
  for (const char* const name : {"", "1", "1/2", "1/2/", "1/2/3/", "1/2/3/4", "/1/2/3", "01/2/3",
                                 "1/2/03", "1/ 2/3", "1/-2/3", "1/+2/3", "4294967296/0/0", "a/b/c"})
    EXPECT_EQ(Tile::parse(name), std::nullopt) << name;
}

TEST(Bytes, TakeWhateverHasBytes) {
  const std::vector<std::byte> vector{std::byte{'a'}, std::byte{0}};
  const std::array<unsigned char, 2> array{'a', 0};
  const std::string string("a\0", 2);
  for (const hx::Bytes& bytes : {hx::Bytes(vector), hx::Bytes(array), hx::Bytes(string),
                                 hx::Bytes(string.data(), 2), hx::Bytes(std::string_view(string))})
    EXPECT_EQ(bytes.text(), string);
  EXPECT_EQ(hx::Bytes("text").size(), 4U);
}

TEST(Metadata, KeepsWhatItIsGivenAndReadsNumbers) {
  hx::Metadata metadata;
  metadata.set("name", "\"quoted\" Straße");
  metadata.set_bounds({-10.5, 20, 30.25, 40});
  metadata.set_center({1.5, -2.25, 7});
  metadata.set_zooms(0, 14);
  const auto copy = hx::Metadata::from_json(metadata.to_json());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->values(), metadata.values());
  EXPECT_EQ(copy->get("bounds"), "-10.5,20,30.25,40");
  EXPECT_EQ(copy->bounds()->east, 30.25);
  EXPECT_EQ(copy->center()->latitude, -2.25);
  EXPECT_EQ(copy->center()->zoom, 7);
  EXPECT_EQ(copy->max_zoom(), 14);

  const auto other =
      hx::Metadata::from_json(R"({"minzoom": 3, "bounds": [1, 2, 3, 4], "l": [{}]})");
  ASSERT_TRUE(other);
  EXPECT_EQ(other->min_zoom(), 3);
  EXPECT_EQ(other->bounds()->north, 4);
  EXPECT_EQ(other->get("l"), "[{}]");
  for (const char* const text : {"", "1", "[]", "{", "{\"a\":}"})
    EXPECT_FALSE(hx::Metadata::from_json(text)) << text;
  for (const char* const text : {"", "1,2,3", "1,2,3,4,5", "1,2,3,x", "1 2 3 4"}) {
    metadata.set("bounds", text);
    EXPECT_FALSE(metadata.bounds()) << text;
  }
  metadata.set("center", "1,2,1e99");
  EXPECT_FALSE(metadata.center());
}

/// What a container answers, by cell and by name.
class Containers : public Tiles, public testing::WithParamInterface<bool> {
 protected:
  bool IsGrid() const { return GetParam(); }
  Layout GetLayout() const { return IsGrid() ? Layout::grid(4, 5) : Layout::names(2); }
  hx::Key Key(std::uint32_t number) const {
    if (IsGrid()) return Cell{number / 5, number % 5};
    return Tile{7, number, 0};
  }
  Container Create() const { return Container::create(Path("tiles"), GetLayout()); }
};

TEST_P(Containers, GiveBackWhatWasStored) {
  Container tiles = Create();
  EXPECT_EQ(tiles.path(), Path("tiles.cf").string());
  EXPECT_EQ(tiles.layout().is_grid(), IsGrid());
  tiles.put(Key(1), "one");
  tiles.put_all({{Key(2), "two", {9}}, {Key(3), "three", {9, 10, 2}}});
  tiles.flush();

  const Container moved = std::move(tiles);
  EXPECT_EQ(moved.get(Key(1)).text(), "one");
  EXPECT_EQ(moved.find(Key(2))->stamp(), 9U);
  const hx::Payload piece = moved.get(Key(3));
  EXPECT_EQ(piece.size(), 10U);
  EXPECT_EQ(piece.filled(), 7U);
  EXPECT_FALSE(piece.complete());
  EXPECT_EQ(piece.text().substr(2, 5), "three");
  EXPECT_EQ(piece.to_vector().size(), 10U);
  char start[2];
  EXPECT_EQ(moved.read(Key(2), start, sizeof start), 3U);
  EXPECT_EQ(std::string_view(start, 2), "tw");

  EXPECT_TRUE(moved.contains(Key(1)));
  EXPECT_FALSE(moved.contains(Key(4)));
  EXPECT_FALSE(moved.find(Key(4)));
  EXPECT_FALSE(moved.read(Key(4), start, sizeof start));
  EXPECT_EQ(CauseOf([&] { moved.get(Key(4)); }), Cause::kNoTile);
  hx::Payload payload = moved.get(Key(1));
  EXPECT_TRUE(moved.try_get(Key(4), payload).missing());
  EXPECT_TRUE(payload.empty());
  EXPECT_EQ(payload.filled(), 0U);
  EXPECT_EQ(moved.size(), 3U);
  EXPECT_TRUE(moved.verify());
  std::uint64_t done = 0;
  EXPECT_TRUE(
      moved.verify({}, nullptr, [&](auto now, auto total) { return done = now, done <= total; }));
  EXPECT_GT(done, 0U);
  const auto cancel = [](auto, auto) { return false; };
  EXPECT_EQ(CauseOf([&] { moved.verify({}, nullptr, cancel); }), Cause::kCancelled);
}

TEST_P(Containers, KeepVersionsUntilTheyAreErased) {
  Container tiles = Create();
  for (const hx::Stamp stamp : {20, 10, 30})
    tiles.put(Key(1), std::to_string(stamp), {stamp});
  tiles.put(Key(2), "25", {25});
  EXPECT_THAT(StampsOf(tiles.versions(Key(1))), ElementsAre(30, 20, 10));
  EXPECT_TRUE(tiles.versions(Key(3)).empty());
  EXPECT_EQ(tiles.get(Key(1)).text(), "30");
  EXPECT_EQ(tiles.get(Key(1), 20).text(), "20");

  EXPECT_TRUE(tiles.erase(Key(1), 20));
  EXPECT_FALSE(tiles.erase(Key(1), 20));
  EXPECT_THAT(StampsOf(tiles.versions(Key(1))), ElementsAre(30, 10));
  EXPECT_EQ(tiles.erase_older_than(30), 2U);
  EXPECT_FALSE(tiles.contains(Key(2)));
  EXPECT_TRUE(tiles.erase(Key(1)));
  EXPECT_FALSE(tiles.erase(Key(1)));
  EXPECT_EQ(tiles.size(), 0U);

  std::uint64_t last = 0;
  tiles.compact(
      [&](std::uint64_t done, std::uint64_t total) { return (last = total - done, true); });
  EXPECT_EQ(last, 0U);
  EXPECT_EQ(tiles.statistics().deadBytes, 0U);
  EXPECT_EQ(CauseOf([&] { tiles.compact([](auto, auto) { return false; }); }), Cause::kCancelled);
}

TEST_P(Containers, AreWalkedOver) {
  Container tiles = Create();
  std::map<std::string, std::string> stored, found;
  for (std::uint32_t number = 0; number < 20; number += 3) {
    const std::string text = "tile " + std::to_string(number);
    tiles.put(Key(number), text);
    const Cell cell = Key(number).cell();
    stored[IsGrid() ? std::to_string(cell.row * 5 + cell.col) : std::string(Key(number).name())] =
        text;
  }
  tiles.for_each([&](const hx::Entry& entry) {
    const Cell cell = entry.cell();
    found[IsGrid() ? std::to_string(cell.row * 5 + cell.col) : entry.name()] =
        entry.payload().text();
    EXPECT_THAT(entry.stamps(), ElementsAre(0));
    EXPECT_EQ(entry.size(), entry.filled());
  });
  EXPECT_EQ(found, stored);
  for (const hx::Entry& entry : tiles.tiles({false, {}}))
    EXPECT_TRUE(entry.payload().empty());
  hx::CursorOptions prefix;
  prefix.prefix = "7/1";
  if (IsGrid())
    EXPECT_EQ(CauseOf([&] { tiles.for_each([](auto&) {}, prefix); }), Cause::kWrongKind);
  else
    EXPECT_EQ(std::distance(tiles.tiles(prefix).begin(), {}), 3);  // 12, 15 and 18
}

TEST_P(Containers, SayWhatTheyCannotDo) {
  Container tiles = Create();
  const hx::Key other = IsGrid() ? hx::Key("name") : hx::Key(Cell{0, 0});
  EXPECT_EQ(CauseOf([&] { tiles.put(other, "x"); }), Cause::kWrongKind);
  EXPECT_EQ(CauseOf([&] { tiles.get(other); }), Cause::kWrongKind);
  EXPECT_EQ(CauseOf([&] { tiles.put(Key(1), ""); }), Cause::kEmptyArgument);
  EXPECT_EQ(CauseOf([&] { tiles.put(Key(1), "x", {0, 1, 1}); }), Cause::kOutOfRange);
  std::vector<unsigned int> results;
  EXPECT_FALSE(tiles.try_put_all({{Key(1), "x"}, {Key(2), ""}}, results));
  EXPECT_THAT(results, ElementsAre(Zarn::ZrResult::kOk, Zarn::ZrResult::kWriteFailure));
  if (IsGrid()) {
    EXPECT_EQ(CauseOf([&] { tiles.put(Cell{4, 0}, "x"); }), Cause::kOutOfRange);
  }

  const auto open = [&](const char* name, const hx::Options& options = {}) {
    return CauseOf([&] { Container::open(Path(name), options); });
  };
  EXPECT_EQ(open("tiles"), Cause::kNone);
  EXPECT_EQ(open("missing"), Cause::kNoFile);
  EXPECT_FALSE(std::filesystem::exists(Path("missing.cf")));
  hx::Options password;
  password.password = "secret";
  EXPECT_EQ(open("tiles", password), Cause::kWrongFormat);
  tiles.set_password("secret");
  EXPECT_EQ(open("tiles"), Cause::kWrongFormat);
  EXPECT_EQ(open("tiles", password), Cause::kNone);
  tiles.set_password("");
  EXPECT_EQ(CauseOf([&] { Create(); }), Cause::kExists);
  EXPECT_EQ(CauseOf([&] { Container::open(Path("tiles"), {true}).put(Key(1), "x"); }),
            Cause::kReadOnly);
  tiles.close();
  EXPECT_FALSE(tiles.is_open());
  EXPECT_EQ(CauseOf([&] { tiles.get(Key(1)); }), Cause::kNotOpen);
  EXPECT_EQ(CauseOf([&] { tiles.put(Key(1), "x"); }), Cause::kNotOpen);

  EXPECT_EQ(Container::open_or_create(Path("tiles"), GetLayout()).get(Key(1)).text(), "x");
  EXPECT_EQ(Container::replace(Path("tiles"), GetLayout()).size(), 0U);
  EXPECT_EQ(Container::open_or_create(Path("new"), GetLayout()).size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Both, Containers, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Grid" : "Names"; });

// Threads that ended without closing anything must not keep it.
TEST_F(Tiles, ContainersCloseForThreadsThatHaveEnded) {
  Container tiles = Container::create(Path("tiles"), Layout::grid(1, 8));
  std::vector<std::thread> threads;
  for (std::uint32_t col = 0; col < 8; ++col)
    threads.emplace_back([&tiles, col] { tiles.put(Cell{0, col}, std::to_string(col)); });
  for (std::thread& thread : threads)
    thread.join();
  tiles.close();
  // Whoever has the file to itself may replace it in another way, and leaves no words in the
  // header.
  std::ifstream file(Path("tiles.cf"), std::ios::binary);
  std::string header(64, '\0');
  ASSERT_TRUE(file.read(header.data(), 64));
  EXPECT_EQ(header.substr(32), std::string(32, '\0'));
}

/// A set in one file, and one of grids that hold parts of two zooms.
class Tilesets : public Tiles, public testing::WithParamInterface<bool> {
 protected:
  bool IsGrids() const { return GetParam(); }
  std::filesystem::path SetPath() const { return Path(IsGrids() ? "set" : "set.cf"); }
  Tileset Create(const hx::Metadata& metadata = {}) const {
    return IsGrids()
               ? Tileset::create_grids(SetPath(), {{3, 2, 4, 5, 3}, {4, 0, 0, 32, 16}}, metadata)
               : Tileset::create(SetPath(), metadata);
  }
};

TEST_P(Tilesets, HoldTilesAndMetadata) {
  hx::Metadata metadata;
  metadata.set("name", "Test");
  const std::vector<Tile> all = {{3, 2, 4}, {3, 6, 6}, {4, 31, 15}};
  {
    Tileset set = Create(metadata);
    set.put_all({{all[0], "a"}, {all[1], "b"}});
    set.put(all[2], "c", {7});
    EXPECT_EQ(CauseOf([&] { Create(); }), Cause::kExists);
  }
  Tileset set = Tileset::open(SetPath());
  EXPECT_EQ(set.metadata().values(), metadata.values());
  EXPECT_EQ(set.ranges().size(), IsGrids() ? 2U : 0U);
  EXPECT_EQ(set.names() != nullptr, !IsGrids());
  EXPECT_EQ(set.grid(4) != nullptr && set.grid(4)->get(Cell{15, 31}).text() == "c", IsGrids());
  EXPECT_EQ(set.grid(5), nullptr);
  EXPECT_EQ(set.get(all[0]).text(), "a");
  EXPECT_EQ(set.find(all[1])->text(), "b");
  EXPECT_THAT(StampsOf(set.versions(all[2])), ElementsAre(7));
  EXPECT_EQ(set.size(), 3U);
  for (const Tile missing :
       {Tile{3, 3, 4}, Tile{3, 7, 6}, Tile{3, 1, 4}, Tile{3, 2, 3}, Tile{5, 0, 0}}) {
    EXPECT_FALSE(set.find(missing)) << missing.name();
    EXPECT_FALSE(set.contains(missing));
    EXPECT_FALSE(set.erase(missing));
    EXPECT_EQ(CauseOf([&] { set.get(missing); }), Cause::kNoTile);
  }
  if (IsGrids()) {
    EXPECT_EQ(CauseOf([&] { set.put({3, 7, 6}, "x"); }), Cause::kOutOfRange);
  }

  std::set<std::string> found;
  const auto visit = [&](const Tile& tile, const hx::Entry& entry) {
    return found.insert(tile.name() + std::string(entry.payload().text())), true;
  };
  set.for_each(visit);
  EXPECT_THAT(found, UnorderedElementsAre("3/2/4a", "3/6/6b", "4/31/15c"));
  found.clear();
  set.for_each(visit, 4);
  EXPECT_THAT(found, UnorderedElementsAre("4/31/15c"));

  metadata.set("name", "Another");
  EXPECT_EQ(CauseOf([&] { Tileset::open(SetPath(), {true}).set_metadata(metadata); }),
            Cause::kReadOnly);
  set.set_metadata(metadata);
  EXPECT_EQ(set.erase_older_than(UINT64_MAX), 3U);
  set.compact();
  EXPECT_EQ(Tileset::open(SetPath()).metadata().get("name"), "Another");
  EXPECT_EQ(set.size(), 0U);
  EXPECT_TRUE(set.verify());
}

INSTANTIATE_TEST_SUITE_P(Both, Tilesets, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Grids" : "Names"; });

// Somebody was killed before the manifest was there.
TEST_F(Tiles, GridsThatWereLeftAreUsedIfTheyFit) {
  Container::create(Path("set/3.cf"), Layout::grid(3, 5)).put(Cell{0, 0}, "a");
  EXPECT_EQ(CauseOf([&] {
              Tileset::create_grids(Path("set"), {{3, 2, 4, 5, 2}});
            }),
            Cause::kExists);
  EXPECT_EQ(Tileset::create_grids(Path("set"), {{3, 2, 4, 5, 3}}).get({3, 2, 4}).text(), "a");
}

TEST_F(Tiles, FoldersThatAreNoSetsAreNotOpened) {
  EXPECT_EQ(CauseOf([&] { Tileset::open(m_folder.GetFolder()); }), Cause::kNoFile);
  Container::create(Path("grid"), Layout::grid(1, 1));
  EXPECT_EQ(CauseOf([&] { Tileset::open(Path("grid.cf")); }), Cause::kWrongKind);
  EXPECT_EQ(CauseOf([&] { Tileset::open_or_create(Path("grid")); }), Cause::kWrongKind);
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  for (const std::string& text :
       {std::string(), std::string("[]"), std::string("{}"), std::string(R"({"zooms": [1]})"),
        std::string(R"({"zooms": [{"zoom": 1}]})"), std::string(R"({"zooms": [], "metadata": 1})"),
        R"({"zooms": [], "metadata": )" + deep + "}"}) {
    std::ofstream(Path("tileset.json")) << text;
    EXPECT_EQ(CauseOf([&] { Tileset::open(m_folder.GetFolder()); }), Cause::kWrongFormat)
        << text.substr(0, 99);
  }
  EXPECT_EQ(
      CauseOf([&] {
        Tileset::create_grids(Path("two"), {hx::ZoomRange::whole(1), hx::ZoomRange::whole(1)});
      }),
      Cause::kOutOfRange);
}

}  // namespace
