#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FormatError.h"
#include "Gzip.h"
#include "Hilbert.h"
#include "NamedFiles.h"
#include "PmDirectory.h"
#include "PmHeader.h"
#include "Sqlite.h"
#include "TileFilter.h"
#include "TileFormat.h"
#include "TileSink.h"
#include "TileSource.h"
#include "support/TemporaryFolder.h"

namespace {

using namespace Formats;
using hx::Tile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string kPng = "\x89PNG\r\n\x1A\n";
const std::string kAllOf = "0/0/0";

/// What a source gives, by the names of tiles.
using Set = std::map<std::string, std::string>;

class FormatsTest : public testing::Test {
 protected:
  std::filesystem::path Path(const std::string& name) const { return m_folder.GetFolder() / name; }

  void Write(const std::string& name, const std::string& bytes) const {
    std::filesystem::create_directories(Path(name).parent_path());
    std::ofstream(Path(name), std::ios::binary) << bytes;
  }

  std::string ReadBytes(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  /// Makes an SQLite file of statements.
  void MakeDatabase(const std::string& name, const std::string& sql) const {
    Write(name, "");
    SqliteDatabase(Path(name), Path(name), true).Run(sql);
  }

  Set ReadSet(const std::string& name, const TileFilter& filter = {}, Rows rows = Rows::kDown) {
    Set set;
    m_reports.clear();
    const auto source = OpenSource(Path(name), {rows});
    source->Visit(
        filter,
        [&](const Tile& tile, hx::Bytes bytes) {
          EXPECT_TRUE(set.emplace(tile.name(), bytes.text()).second) << tile.name();
          return true;
        },
        [&](const std::string& text) { m_reports.push_back(text); });
    return set;
  }

  /// Copies a set from one format to another.
  void Copy(const std::string& from, const std::string& to, Rows rows = Rows::kDown) {
    const auto source = OpenSource(Path(from), {rows});
    const auto sink = CreateSink(Path(to), {false, rows});
    sink->SetMetadata(source->GetMetadata());
    source->Visit({},
                  [&](const Tile& tile, hx::Bytes bytes) { return sink->Put(tile, bytes), true; });
    sink->Finish();
  }

  /// Writes an archive whose directories are not compressed: the header gets its sections here.
  void WriteArchive(const std::string& name, PmHeader header, const std::string& root,
                    const std::string& leaves, const std::string& tiles,
                    const std::string& json = "{}") const {
    header.internalCompression = PmCompression::kNone;
    header.root = {kPmHeaderSize, root.size()};
    header.metadata = {header.root.offset + root.size(), json.size()};
    header.leaves = {header.metadata.offset + json.size(), leaves.size()};
    header.tiles = {header.leaves.offset + leaves.size(), tiles.size()};
    const auto start = EncodeHeader(header);
    Write(name, std::string(start.begin(), start.end()) + root + json + leaves + tiles);
  }

  TemporaryFolder m_folder{TemporaryFolder::kMemory};
  std::vector<std::string> m_reports;
};

/// The sentence of a failure; empty if there is none.
template <typename Call>
std::string FaultOf(Call call) try {
  call();
  return "";
} catch (const FormatError& error) {
  EXPECT_THAT(error.what(), HasSubstr(error.GetPath().string()));
  return error.what();
}

// The values for zooms 0 to 3 and the last ones are those of the public description.
TEST(Hilbert, NumbersTilesAlongTheCurve) {
  const std::pair<Tile, std::uint64_t> known[] = {
      {{0, 0, 0}, 0},
      {{1, 0, 0}, 1},
      {{1, 0, 1}, 2},
      {{1, 1, 1}, 3},
      {{1, 1, 0}, 4},
      {{2, 0, 0}, 5},
      {{12, 3423, 1763}, 19078479},
      {{31, 2147483647, 0}, kEndOfIds - 1},
  };
  for (const auto& [tile, id] : known) {
    EXPECT_EQ(IdOf(tile), id) << tile.name();
    EXPECT_EQ(TileOf(id), tile) << id;
  }
  // Each step of the curve goes to a neighbour.
  for (std::uint64_t id = FirstIdOf(6); id < FirstIdOf(7) - 1; ++id) {
    const Tile tile = TileOf(id), next = TileOf(id + 1);
    ASSERT_EQ(IdOf(tile), id);
    const auto distance = [](std::uint32_t a, std::uint32_t b) { return a < b ? b - a : a - b; };
    ASSERT_EQ(distance(tile.x, next.x) + distance(tile.y, next.y), 1U) << tile.name();
  }
}

TEST(TileFormat, IsToldByTheFirstBytes) {
  using namespace std::string_literals;
  const struct {
    std::string bytes;
    TileFormat format;
    const char* name;
    const char* mimeType;
  } cases[] = {
      {kPng, TileFormat::kPng, "png", "image/png"},
      {"\xFF\xD8\xFF\xE0", TileFormat::kJpg, "jpg", "image/jpeg"},
      {"RIFF\x10\0\0\0WEBPVP8 "s, TileFormat::kWebp, "webp", "image/webp"},
      {"\0\0\0\x1C"
       "ftypmif1\0\0\0\0mif1avif"s,
       TileFormat::kAvif, "avif", "image/avif"},
      {"GIF89a", TileFormat::kGif, "gif", "image/gif"},
      {"\x1A\x03\x0A\x01w", TileFormat::kPbf, "pbf", "application/vnd.mapbox-vector-tile"},
      {"\x1F\x8B\x08", TileFormat::kPbf, "pbf", "application/vnd.mapbox-vector-tile"},
      {"", TileFormat::kUnknown, "", "application/octet-stream"},
      {"RIFF\x10\0\0\0WAVE"s, TileFormat::kUnknown, "", "application/octet-stream"},
      {"\0\0\0\x14"
       "ftypheic\0\0\0\0heic"s,
       TileFormat::kUnknown, "", "application/octet-stream"},
      {"\x1A\x7F\x0A\x01w", TileFormat::kUnknown, "", "application/octet-stream"},
      {"\x1A", TileFormat::kUnknown, "", "application/octet-stream"},
  };
  for (const auto& [bytes, format, name, mimeType] : cases) {
    EXPECT_EQ(DetectFormat(bytes), format) << name;
    EXPECT_STREQ(NameOf(format), name);
    EXPECT_EQ(FormatOfName(name), format);
    EXPECT_STREQ(MimeTypeOf(format), mimeType);
  }
  EXPECT_EQ(FormatOfName("JPEG"), TileFormat::kJpg);
  EXPECT_EQ(FormatOfName("mvt"), TileFormat::kPbf);
  EXPECT_TRUE(IsGzip(Compress("x")));
  EXPECT_FALSE(IsGzip("\x1F\x8B"));
}

TEST(TileFilter, HoldsTheTilesThatMeetTheBox) {
  const auto range = [](const hx::Bounds& bounds, std::uint32_t zoom) {
    const TileRange r = TileFilter(0, 31, bounds).RangeOf(zoom);
    return std::vector<std::uint32_t>{r.firstX, r.lastX, r.firstY, r.lastY};
  };
  EXPECT_THAT(range({}, 3), ElementsAre(0, 7, 0, 7));
  EXPECT_THAT(range({-180, 0, 0, 85.06}, 1), ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(range({0.1, -0.1, 0.1, -0.1}, 2), ElementsAre(2, 2, 2, 2));
  EXPECT_THAT(range({-500, -90, 500, 90}, 31), ElementsAre(0, 2147483647, 0, 2147483647));
  EXPECT_THAT(range({170, -10, -170, 10}, 4), ElementsAre(15, 0, 7, 8));
  for (const Tile tile : {Tile{14, 8721, 5433}, Tile{20, 0, 1048575}})
    EXPECT_THAT(range(BoundsOf(tile.z, {tile.x, tile.x, tile.y, tile.y}), tile.z),
                ElementsAre(tile.x, tile.x, tile.y, tile.y));
  const TileFilter across(2, 4, hx::Bounds{170, -10, -170, 10});
  EXPECT_TRUE(across.Holds({4, 15, 7}) && across.Holds({4, 0, 8}));
  EXPECT_FALSE(across.Holds({4, 1, 7}) || across.Holds({4, 15, 6}) || across.Holds({5, 0, 15}));
}

TEST(PmDirectory, IsAsThePublicDescriptionSays) {
  const PmEntry entries[] = {{5, 0, 300, 2}, {7, 300, 9, 1}, {300, 0, 300, 1}, {400, 77, 1, 0}};
  const std::string bytes(
      "\x04\x05\x02\xA5\x02\x64\x02\x01\x01\x00\xAC\x02\x09\xAC\x02\x01\x01\x00\x01\x4E", 20);
  EXPECT_EQ(EncodeDirectory(entries), bytes);
  PmDirectoryReader reader(bytes);
  for (const PmEntry& entry : entries) {
    ASSERT_TRUE(reader.Next());
    EXPECT_EQ(reader.Entry().id, entry.id);
    EXPECT_EQ(reader.Entry().offset, entry.offset);
    EXPECT_EQ(reader.Entry().length, entry.length);
    EXPECT_EQ(reader.Entry().runLength, entry.runLength);
  }
  EXPECT_FALSE(reader.Next() || reader.IsDamaged());
  EXPECT_EQ(reader.NextId(), kEndOfIds);
}

// Two zooms with tiles of their own, the sea as runs and alone, and so many tiles that the root
// directory leads to others.
TEST_F(FormatsTest, SetsAreTheSameInEveryFormat) {
  hx::Metadata metadata;
  for (const auto& [key, value] : std::map<std::string, std::string>{
           {"name", "World"},
           {"format", "pbf"},
           {"minzoom", "2"},
           {"maxzoom", "7"},
           {"bounds", "-180,-85.05112,180,85.05112"},
           {"center", "10.5,-20.25,3"},
           {"attribution", "\"We\" & <you>"},
           {"type", "baselayer"},
           {"version", "1.0"},
           {"json", R"({"tilestats":{"count":1},"vector_layers":[{"id":"water"}]})"}})
    metadata.set(key, value);
  Set set;
  {
    const auto sink = CreateSink(Path("a.mbtiles"));
    sink->SetMetadata(metadata);
    const std::string gzip = "\x1F\x8B\x08", sea = gzip + "sea";
    for (std::uint32_t zoom : {7, 2})
      for (std::uint32_t x = 0; x < 1U << zoom; ++x)
        for (std::uint32_t y = 0; y < 1U << zoom; ++y) {
          const Tile tile{zoom, x, y};
          const bool isSea = x % 16 == 3 || x < (1U << zoom) / 4;
          const std::string bytes =
              isSea ? sea : gzip + tile.name() + std::string(x * x * (y + 7) % 2003, 'x');
          sink->Put(tile, bytes);
          set[tile.name()] = bytes;
        }
    EXPECT_FALSE(std::filesystem::exists(Path("a.mbtiles")));
    sink->Finish();
  }
  Copy("a.mbtiles", "b.pmtiles");
  Copy("b.pmtiles", "c");
  Copy("c", "d.mbtiles");
  Copy("d.mbtiles", "e", Rows::kUp);
  Copy("e", "f.pmtiles", Rows::kUp);
  EXPECT_EQ(m_folder.CountFiles(), 6U);
  EXPECT_EQ(ReadBytes("c/7/127/1.pbf"), set["7/127/1"]);
  EXPECT_EQ(ReadBytes("e/7/127/126.pbf"), set["7/127/1"]);
  for (const char* const name : {"a.mbtiles", "b.pmtiles", "c", "d.mbtiles", "f.pmtiles"}) {
    EXPECT_EQ(OpenSource(Path(name))->GetMetadata().values(), metadata.values()) << name;
    EXPECT_TRUE(ReadSet(name) == set) << name;
    EXPECT_THAT(m_reports, IsEmpty());
    const TileFilter filter(3, 9, hx::Bounds{0.1, -0.1, 3, 0.1});
    EXPECT_EQ(ReadSet(name, filter).size(), 4U) << name;
    for (const hx::Bounds& box : {hx::Bounds{-100, -5, 30, 70}, hx::Bounds{150, 10, -120, 89}}) {
      const TileFilter some(1, 7, box);
      Set expected;
      for (const auto& [tile, bytes] : set)
        if (some.Holds(*Tile::parse(tile))) expected[tile] = bytes;
      EXPECT_TRUE(ReadSet(name, some) == expected && !expected.empty()) << name;
    }
    EXPECT_EQ(ReadSet(name, {0, 6}).size(), 16U) << name;
    EXPECT_EQ(ReadSet(name, {9, 40}).size(), 0U) << name;
    const auto count = OpenSource(Path(name))->Count();
    if (count) {
      EXPECT_EQ(count, set.size()) << name;
    }
  }
  const std::string archive = ReadBytes("b.pmtiles");
  EXPECT_EQ(archive, ReadBytes("f.pmtiles"));
  const PmHeader header = DecodeHeader(archive.data());
  EXPECT_TRUE(header.isClustered);
  EXPECT_LT(header.root.offset + header.root.length, kPmStartSize);
  EXPECT_GT(header.leaves.length, 0U);
  EXPECT_EQ(header.tileCount, set.size());
  EXPECT_LT(header.contentCount, header.entryCount);
  EXPECT_LT(header.entryCount, set.size());
  EXPECT_EQ(header.tiles.offset + header.tiles.length, archive.size());
  EXPECT_EQ(header.tileCompression, PmCompression::kGzip);
}

TEST_F(FormatsTest, MissingMetadataAreMadeOfTheTiles) {
  for (const char* const name : {"set.mbtiles", "set.pmtiles", "set"}) {
    const auto sink = CreateSink(Path(name));
    sink->Put({1, 1, 0}, kPng);
    sink->Put({2, 2, 1}, kPng + "2");
    sink->Put({2, 3, 1}, kPng + "3");
    sink->Finish();
    const hx::Metadata metadata = OpenSource(Path(name))->GetMetadata();
    EXPECT_EQ(metadata.get("name"), "set");
    EXPECT_EQ(metadata.get("format"), "png");
    EXPECT_EQ(metadata.min_zoom(), 1);
    EXPECT_EQ(metadata.max_zoom(), 2);
    EXPECT_NEAR(metadata.bounds()->north, 66.51326, 1e-5);
    EXPECT_EQ(metadata.bounds()->west, 0);
    EXPECT_EQ(metadata.bounds()->south, 0);
  }
  EXPECT_EQ(ReadBytes("set/2/2/1.png"), kPng + "2");
  // Zooms are what the tiles have, where a reader would not look for others.
  const auto sink = CreateSink(Path("zooms.pmtiles"));
  hx::Metadata wrong;
  wrong.set_zooms(5, 6);
  wrong.set("format", "image/png");
  sink->SetMetadata(wrong);
  sink->Put({3, 0, 0}, "x");
  sink->Finish();
  EXPECT_EQ(OpenSource(Path("zooms.pmtiles"))->GetMetadata().max_zoom(), 3);
  EXPECT_EQ(OpenSource(Path("zooms.pmtiles"))->GetMetadata().get("format"), "png");
}

TEST_F(FormatsTest, SinksRefuseWhatTheyCannotHoldAndLeaveNothing) {
  const auto put = [](TileSink& sink, const Tile& tile, hx::Bytes bytes = kPng) {
    return FaultOf([&] { sink.Put(tile, bytes); });
  };
  for (const char* const name : {"set.mbtiles", "set.pmtiles", "set"}) {
    const auto sink = CreateSink(Path(name));
    EXPECT_THAT(put(*sink, {0, 0, 0}, ""), HasSubstr("tile")) << name;
    if (std::string(name) != "set") {
      EXPECT_THAT(put(*sink, {3, 0, 8}), HasSubstr("3/0/8")) << name;
      EXPECT_THAT(put(*sink, {32, 0, 0}), HasSubstr("32/0/0")) << name;
    }
    EXPECT_EQ(put(*sink, {1, 1, 1}), "");
    std::string twice = put(*sink, {1, 1, 1});
    if (twice.empty()) twice = FaultOf([&] { sink->Finish(); });
    EXPECT_NE(twice, "") << name;
  }
  EXPECT_EQ(m_folder.CountFiles(), 0U);
  EXPECT_THAT(FaultOf([&] { CreateSink(Path("set.pmtiles"))->Finish(); }), HasSubstr("no tiles"));
  EXPECT_THAT(FaultOf([&] { CreateSink(Path("set.zip")); }), HasSubstr("extension"));
  EXPECT_THAT(FaultOf([&] { CreateSink(Path("none/set.mbtiles")); }), HasSubstr("No such file"));
  Write("old.pmtiles", "old");
  Write("old/file", "old");
  EXPECT_THAT(FaultOf([&] { CreateSink(Path("old.pmtiles")); }), HasSubstr("exists"));
  EXPECT_THAT(FaultOf([&] { CreateSink(Path("old"), {true}); }), HasSubstr("not empty"));
  const auto sink = CreateSink(Path("old.pmtiles"), {true});
  EXPECT_EQ(put(*sink, {0, 0, 0}), "");
  EXPECT_EQ(ReadBytes("old.pmtiles"), "old");
  sink->Finish();
  EXPECT_THAT(ReadSet("old.pmtiles"), ElementsAre(std::pair(kAllOf, kPng)));
}

/// Lets no file become longer, as a full disk would.
class FileLimit {
 public:
  explicit FileLimit(rlim_t length) {
    std::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &m_before);
    const rlimit limit{length, m_before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileLimit() { ::setrlimit(RLIMIT_FSIZE, &m_before); }

 private:
  rlimit m_before;
};

TEST_F(FormatsTest, SetsThatLostAPartAreNotFinished) {
  for (const char* const name : {"set.mbtiles", "set.pmtiles", "set"}) {
    const auto sink = CreateSink(Path(name));
    {
      const FileLimit limit(100000);
      std::string fault;
      for (std::uint32_t x = 0; x < 4 && fault.empty(); ++x)
        fault = FaultOf([&] { sink->Put({2, x, 0}, std::string(1500000, 'x')); });
      EXPECT_NE(fault, "") << name;
    }
    if (std::string(name) == "set.pmtiles") continue;  // it has kept what it could not write
    sink->SetMetadata({});
    EXPECT_THAT(FaultOf([&] { sink->Finish(); }), HasSubstr("as a whole")) << name;
  }
  EXPECT_EQ(m_folder.CountFiles(), 0U);
}

TEST_F(FormatsTest, MbTilesMayHaveViewsOrImagesOnly) {
  const std::string tables =
      "CREATE TABLE map (zoom_level, tile_column, tile_row, tile_id);"
      "CREATE TABLE images (tile_id, tile_data);"
      "INSERT INTO map VALUES (1, 0, 0, 'a'), (1, 1, 1, 'a'), (1, 1, 0, 'b'), (1, 0, 1, 'none');"
      "INSERT INTO images VALUES ('a', x'41'), ('b', x'42');";
  MakeDatabase("images.mbtiles", tables);
  MakeDatabase("view.mbtiles",
               tables +
                   "CREATE TABLE metadata (name, value);"
                   "INSERT INTO metadata VALUES ('minzoom', 1), ('name', NULL), (NULL, 'x');"
                   "CREATE VIEW tiles AS SELECT zoom_level, tile_column, tile_row, tile_data"
                   " FROM map JOIN images ON images.tile_id = map.tile_id");
  for (const char* const name : {"images.mbtiles", "view.mbtiles"})
    EXPECT_THAT(ReadSet(name), ElementsAre(std::pair("1/0/1", "A"), std::pair("1/1/0", "A"),
                                           std::pair("1/1/1", "B")));
  EXPECT_EQ(OpenSource(Path("view.mbtiles"))->GetMetadata().min_zoom(), 1);
}

TEST_F(FormatsTest, MbTilesRowsThatAreNoTilesAreReported) {
  MakeDatabase("t.mbtiles",
               "CREATE TABLE tiles (zoom_level, tile_column, tile_row, tile_data);"
               "INSERT INTO tiles VALUES (1, 0, 0, x'41'), (NULL, 0, 0, x'41'), (1, 'a', 0, x'41'),"
               "(1, 0, 1.5, x'41'), (1, 0, 2, x'41'), (1, 0, -1, x'41'), (32, 0, 0, x'41'),"
               "(-1, 0, 0, x'41'), (1, 4294967296, 0, x'41'), (1, 1, 1, NULL), (1, 1, 0, 'text'),"
               "(1, 0, 1, x'')");
  EXPECT_THAT(ReadSet("t.mbtiles"), ElementsAre(std::pair("1/0/1", "A")));
  EXPECT_EQ(m_reports.size(), 11U);
  EXPECT_THAT(m_reports, testing::Contains("row 10: the tile 1/1/0 is NULL or no blob"));
}

TEST_F(FormatsTest, DamagedMbTilesAreRefusedWithASentence) {
  const auto fault = [&](const char* name) { return FaultOf([&] { ReadSet(name); }); };
  MakeDatabase("good.mbtiles",
               "CREATE TABLE tiles (zoom_level, tile_column, tile_row, tile_data);"
               "INSERT INTO tiles VALUES (1, 0, 0, zeroblob(100000)), (1, 0, 1, zeroblob(100000))");
  std::string bytes = ReadBytes("good.mbtiles");
  Write("cut.mbtiles", bytes.substr(0, bytes.size() / 2));
  Write("zeros.mbtiles", bytes.replace(4096, 4096, 4096, '\xFF'));
  Write("text.mbtiles", "a text");
  Write("empty.mbtiles", "");
  Write("magic.mbtiles", std::string(kSqliteMagic));
  MakeDatabase("foreign.mbtiles", "CREATE TABLE other (a)");
  MakeDatabase("endless.mbtiles",
               "CREATE TABLE tiles (a); CREATE VIEW metadata AS WITH RECURSIVE r(name, value) AS"
               " (SELECT 1, 'x' UNION ALL SELECT name + 1, 'x' FROM r) SELECT * FROM r");
  EXPECT_THAT(fault("endless.mbtiles"), HasSubstr("metadata that are too large"));
  MakeDatabase("columns.mbtiles", "CREATE TABLE tiles (a, b); INSERT INTO tiles VALUES (1, 2)");
  for (const char* const name :
       {"cut.mbtiles", "zeros.mbtiles", "magic.mbtiles", "columns.mbtiles"})
    EXPECT_THAT(fault(name), HasSubstr("SQLite answers: ")) << name;
  EXPECT_THAT(fault("text.mbtiles"), HasSubstr("is neither"));
  EXPECT_THAT(fault("empty.mbtiles"), HasSubstr("is neither"));
  EXPECT_THAT(fault("foreign.mbtiles"), HasSubstr("without tiles"));
  EXPECT_THAT(fault("missing.mbtiles"), HasSubstr("No such file"));
}

TEST_F(FormatsTest, PmTilesMayHaveNestedDirectories) {
  const std::string inner = EncodeDirectory(std::vector<PmEntry>{{1, 0, 1, 2}, {4, 1, 2, 1}});
  const auto length = static_cast<std::uint32_t>(inner.size());
  const std::string outer = EncodeDirectory(std::vector<PmEntry>{{1, 0, length, 0}, {5, 0, 3, 1}});
  const std::string root = EncodeDirectory(
      std::vector<PmEntry>{{0, 2, 1, 1}, {1, length, static_cast<std::uint32_t>(outer.size()), 0}});
  PmHeader header;
  header.tileType = PmTileType::kPng;
  header.tileCompression = PmCompression::kBrotli;
  WriteArchive("t.pmtiles", header, root, inner + outer, "abc", R"({"list":[1],"name":"N"})");
  EXPECT_EQ(
      ReadSet("t.pmtiles"),
      (Set{{kAllOf, "c"}, {"1/0/0", "a"}, {"1/0/1", "a"}, {"1/1/0", "bc"}, {"2/0/0", "abc"}}));
  EXPECT_EQ(ReadSet("t.pmtiles", {1, 1}).size(), 3U);
  const hx::Metadata metadata = OpenSource(Path("t.pmtiles"))->GetMetadata();
  EXPECT_EQ(metadata.get("format"), "png");
  EXPECT_EQ(metadata.get("compression"), "br");
  EXPECT_EQ(metadata.get("json"), R"({"list":[1]})");
}

TEST_F(FormatsTest, DamagedPmTilesAreRefusedWithASentence) {
  constexpr std::uint64_t kMax = UINT64_MAX;
  const std::string tooDeep(200, '[');
  const auto leafTo = [](std::uint64_t id) {  // to itself
    return EncodeDirectory(std::vector<PmEntry>{{id, 0, 5, 0}});
  };
  const struct {
    const char* what;
    std::string root, leaves = "", json = "{}";
  } cases[] = {
      {"damaged", ""},
      {"no root", ""},
      {"damaged", std::string("\0", 1)},
      {"damaged", "\x02\x01"},
      {"damaged", std::string(1, '\x7F') + std::string(507, '\1')},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{0, 0, 1, 1}}) + "x"},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{0, 0, 0, 1}})},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{1, 0, 1, 2}, {2, 0, 1, 1}})},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{1, 0, 1, 1}, {1, 0, 1, 1}})},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{2, 0, 1, 1}, {1, 0, 1, 1}})},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{kEndOfIds, 0, 1, 1}})},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{kEndOfIds - 1, 0, 1, 2}})},
      {"damaged", EncodeDirectory(std::vector<PmEntry>{{0, kMax - 1, 9, 1}})},
      {"damaged", std::string("\x01\x00\x01\x01\x00", 5)},
      {"outside of its section: 0/0/0", EncodeDirectory(std::vector<PmEntry>{{0, 1, 3, 1}})},
      {"outside of its section: 0/0/0", EncodeDirectory(std::vector<PmEntry>{{0, 9, 1, 1}})},
      {"outside of its section", EncodeDirectory(std::vector<PmEntry>{{0, 1, 5, 0}}), leafTo(0)},
      {"nested too deeply", leafTo(0), leafTo(0)},
      {"overlap", leafTo(1), leafTo(0)},
      {"overlap", EncodeDirectory(std::vector<PmEntry>{{0, 0, 5, 0}, {1, 0, 3, 1}}),
       EncodeDirectory(std::vector<PmEntry>{{0, 0, 3, 2}})},
      {"no JSON", EncodeDirectory(std::vector<PmEntry>{{0, 0, 3, 1}}), "", "[]"},
      {"no JSON", EncodeDirectory(std::vector<PmEntry>{{0, 0, 3, 1}}), "", "{\"a\":"},
      {"no JSON", EncodeDirectory(std::vector<PmEntry>{{0, 0, 3, 1}}), "",
       "{\"a\":" + tooDeep + std::string(200, ']') + "}"},
  };
  for (const auto& [what, root, leaves, json] : cases) {
    WriteArchive("t.pmtiles", {}, root, leaves, "abc", json);
    const std::string found = FaultOf([&] { ReadSet("t.pmtiles"); });
    EXPECT_THAT(found, HasSubstr(root.empty() ? "no root" : what)) << root.size();
  }
}

// One field of a good file after the other: a 64-bit number, or a byte.
TEST_F(FormatsTest, PmTilesWithDamagedHeadersAreRefused) {
  CreateSink(Path("set"), {})->Finish();
  Write("set/0/0/0.png", kPng);
  Copy("set", "good.pmtiles");
  const std::string good = ReadBytes("good.pmtiles");
  const auto fault = [&](const std::string& bytes) {
    Write("t.pmtiles", bytes);
    return FaultOf([&] { ReadSet("t.pmtiles"); });
  };
  EXPECT_EQ(fault(good), "");
  for (std::size_t field = 8; field < 72; field += 8)
    for (const char byte : {'\x7F', '\xFF'})
      EXPECT_THAT(fault(std::string(good).replace(field, 8, 8, byte)), HasSubstr("cut short"));
  for (std::size_t length = 7; length < good.size(); length += 5)
    EXPECT_NE(fault(good.substr(0, length)), "") << length;
  const std::tuple<std::size_t, char, const char*> bytes[] = {
      {7, 2, "version 2"}, {97, 0, "unknown way"}, {97, 1, "no JSON object"},
      {97, 3, "Brotli"},   {97, 4, "Zstandard"},   {97, 9, "unknown way"},
      {127, 0, "damaged"}, {0, 'x', "is neither"},
  };
  for (const auto& [offset, byte, what] : bytes)
    EXPECT_THAT(fault(std::string(good).replace(offset, 1, 1, byte)), HasSubstr(what)) << offset;
}

TEST(Gzip, InflatesNoMoreThanAllowed) {
  const std::string zeros(100000, '\0'), compressed = Compress(zeros);
  EXPECT_EQ(Inflate(compressed, zeros.size()), zeros);
  EXPECT_FALSE(Inflate(compressed, zeros.size() - 1));
  EXPECT_FALSE(Inflate(compressed.substr(0, compressed.size() - 1), zeros.size()));
  EXPECT_FALSE(Inflate(compressed + "x", zeros.size()));
  EXPECT_FALSE(Inflate("", zeros.size()));
  EXPECT_EQ(Inflate(Compress(""), 0), "");
}

TEST_F(FormatsTest, FoldersReportWhatIsNoTile) {
  for (const char* const name :
       {"s/metadata.txt", "s/0/0/0.jpeg", "s/0/0/x.jpeg", "s/0/0/1@2x.jpeg", "s/0/00/0.jpeg",
        "s/1/0/0.png", "s/1/1/1/0.jpeg", "s/2/0/0.jpeg", "s/x/0/0.jpeg"})
    Write(name, "j");
  Write("s/2/0/1.jpeg", "");
  EXPECT_EQ(ReadSet("s"), (Set{{kAllOf, "j"}, {"2/0/0", "j"}}));
  EXPECT_EQ(m_reports.size(), 8U) << testing::PrintToString(m_reports);
  EXPECT_EQ(OpenSource(Path("s"))->GetMetadata().get("format"), "jpg");
  Write("s/metadata.json", "{\"format\": \"jpeg\", \"minzoom\": 3}");
  EXPECT_EQ(OpenSource(Path("s"))->GetMetadata().get("format"), "jpeg");
  EXPECT_EQ(OpenSource(Path("s"))->GetMetadata().min_zoom(), 3);
  Write("s/metadata.json",
        "{\"deep\": " + std::string(100000, '[') + std::string(100000, ']') + "}");
  EXPECT_THAT(FaultOf([&] { OpenSource(Path("s")); }), HasSubstr("no JSON object"));
  Write("empty/file", "");
  EXPECT_THAT(FaultOf([&] { OpenSource(Path("empty")); }), HasSubstr("neither tiles"));
}

TEST_F(FormatsTest, AnyFilesGoByTheirNames) {
  Write("s/a", "1");
  Write("s/b/\xC3\xA9.txt", "2");
  Write("s/b/empty", "");
  Write("s/b/\xFF", "3");
  std::filesystem::create_directory_symlink(Path("s"), Path("s/b/loop"));
  {
    NamedFilesSink sink(Path("t/"));
    std::vector<std::string> reports;
    VisitNamedFiles(
        Path("s"),
        [&](std::string_view name, hx::Bytes bytes) {
          return sink.Write(std::string(name), bytes), true;
        },
        [&](const std::string& text) { reports.push_back(text); });
    EXPECT_EQ(reports.size(), 3U);
    for (const std::string& name :
         {std::string("../x"), std::string("/x"), std::string(), std::string("b/../../x"),
          std::string("."), std::string("b//x"), std::string("b/"), std::string("x\0y", 3)})
      EXPECT_THAT(FaultOf([&] { sink.Write(name, "x"); }), HasSubstr("name")) << name;
    EXPECT_THAT(FaultOf([&] { sink.Write("a", "x"); }), HasSubstr("twice"));
    EXPECT_THAT(FaultOf([&] { sink.Write("a/x", "x"); }), HasSubstr("a/"));
    sink.Publish();
  }
  std::map<std::string, std::string> found;
  VisitNamedFiles(Path("t"), [&](std::string_view name, hx::Bytes bytes) {
    return found.emplace(name, bytes.text()).second;
  });
  EXPECT_THAT(found, UnorderedElementsAre(std::pair("a", "1"), std::pair("b/\xC3\xA9.txt", "2")));
  EXPECT_EQ(m_folder.CountFiles(), 2U);
}

}  // namespace
