#include "Facts.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>

#include "Encoding.h"
#include "HttpDate.h"

namespace Serve {
namespace {

constexpr std::uint32_t kMostFields = 512, kFields = 128;
constexpr std::uint32_t kMostNames = 10'000, kNames = 100;

const char* NameOf(ServedFile::Kind kind) {
  switch (kind) {
    case ServedFile::Kind::kPyramid:
      return "pyramid";
    case ServedFile::Kind::kGrid:
      return "grid";
    default:
      return "names";
  }
}

// Where the file lies is nobody's business.
std::string FileNameOf(const ServedFile& file) {
  const auto& path = file.Path();
  return (path.has_filename() ? path : path.parent_path()).filename().string();
}

// Numbers of JavaScript hold 53 bits.
Json ToJson(std::uint64_t number) {
  constexpr std::uint64_t kMost = std::uint64_t{1} << 53;
  return number > kMost ? Json(std::to_string(number)) : Json(number);
}

// A number of the query, from `least` to `most`.
std::uint32_t NumberOf(const Url& url, const char* key, std::uint32_t usual, std::uint32_t least,
                       std::uint32_t most) {
  if (url.Get(key).empty()) return usual;
  const auto number = ParseNumber<std::uint32_t>(url.Get(key));
  if (!number || *number < least || *number > most)
    throw Refusal(400, std::string(key) + " is a number from " + std::to_string(least) + " to " +
                           std::to_string(most));
  return *number;
}

// The first and the last row and column of a part of a grid.
struct Box {
  std::uint32_t firstRow, firstCol, lastRow, lastCol;
};

// "row0,col0,row1,col1", cut to what is filled.
Box ParseBox(std::string_view text, const Level& level) {
  std::array<std::uint32_t, 4> numbers;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const std::size_t end = i + 1 < numbers.size() ? text.find(',') : text.size();
    const auto number = ParseNumber<std::uint32_t>(text.substr(0, end));
    if (end == text.npos || !number)
      throw Refusal(400, "a box is four numbers: row,column,last row,last column");
    numbers[i] = *number;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return {std::max(numbers[0], level.firstRow), std::max(numbers[1], level.firstCol),
          std::min(numbers[2], level.lastRow), std::min(numbers[3], level.lastCol)};
}

// The cells of a box, looked up one by one: of a large grid a survey knows larger fields only.
HeatMap LookInto(const ServedFile& file, const Box& box, std::optional<std::uint32_t> zoom,
                 const std::atomic<bool>& isStopping) {
  HeatMap heat;
  if (box.firstRow > box.lastRow || box.firstCol > box.lastCol) return heat;
  const std::uint64_t rows = std::uint64_t{box.lastRow} - box.firstRow + 1,
                      cols = std::uint64_t{box.lastCol} - box.firstCol + 1;
  if (rows * cols > HeatMap::kMostFields)
    throw Refusal(400, "a box has " + std::to_string(HeatMap::kMostFields) + " cells at most");
  for (std::uint32_t i = 0; i < rows * cols; ++i) {
    if (isStopping) throw Refusal(503, "the server ends");
    const auto row = static_cast<std::uint32_t>(box.firstRow + i / cols),
               col = static_cast<std::uint32_t>(box.firstCol + i % cols);
    try {
      const auto versions = file.Versions(zoom ? Address(hx::Tile{*zoom, col, row})  //
                                               : Address(hx::Cell{row, col}));
      if (!versions.empty())
        heat.Add(row, col, {1, versions.size(), versions.front().filledLength});
    } catch (const hx::Error&) {
      heat.Add(row, col, {1, 0, 0});  // damaged: it is there, and nothing else is known
    }
  }
  return heat;
}

// A value of the metadata that may be JSON; null if it is none. To write and to destroy it takes
// the stack for each level, so there is a limit.
Json ParseValue(const std::string& text) {
  constexpr int kDeepest = 100;
  bool isTooDeep = false;
  const auto look = [&](int depth, Json::parse_event_t, Json&) {
    isTooDeep |= depth > kDeepest;
    return !isTooDeep;
  };
  Json json = Json::parse(text, look, false);
  return isTooDeep || json.is_discarded() ? Json() : json;
}

// Those that have a name of their own: a map can do nothing with others.
Json LayersOf(const hx::Metadata& metadata) {
  Json told = ParseValue(metadata.get("vector_layers"));
  if (const Json json = ParseValue(metadata.get("json"));
      !told.is_array() && json.is_object() && json.contains("vector_layers"))
    told = json["vector_layers"];
  if (!told.is_array()) return Json();
  Json layers = Json::array();
  std::set<std::string> names;
  for (const Json& layer : told)
    if (layer.is_object() && layer.contains("id") && layer["id"].is_string() &&
        names.insert(layer["id"].get<std::string>()).second)
      layers.push_back(layer);
  return layers;
}

constexpr int kMostZoom = 30;  // of TileJSON

std::optional<int> ZoomOf(std::optional<int> zoom) {
  return zoom && *zoom >= 0 && *zoom <= kMostZoom ? zoom : std::nullopt;
}

// Where the tiles are, as far as it makes sense.
void AddPlace(const hx::Metadata& metadata, Json& json) {
  const auto isIn = [](double value, double most) { return value >= -most && value <= most; };
  if (auto bounds = metadata.bounds()) {
    bounds->west = std::max(bounds->west, -180.0);
    bounds->east = std::min(bounds->east, 180.0);
    bounds->south = std::max(bounds->south, -90.0);
    bounds->north = std::min(bounds->north, 90.0);
    if (bounds->west < bounds->east && bounds->south < bounds->north)
      json["bounds"] = {bounds->west, bounds->south, bounds->east, bounds->north};
  }
  if (const auto center = metadata.center();
      center && isIn(center->longitude, 180) && isIn(center->latitude, 90) && ZoomOf(center->zoom))
    json["center"] = {center->longitude, center->latitude, center->zoom};
}

bool IsUtf8(const std::string& text) {
  try {
    return !Json(text).dump().empty();
  } catch (const Json::type_error&) {
    return false;
  }
}

Json ToJson(const Level& level, const Json& zoom) {
  return {{"zoom", zoom},
          {"tiles", level.sum.tiles},
          {"versions", level.sum.versions},
          {"bytes", level.sum.bytes},
          {"rows", level.sum.tiles == 0 ? Json::array() : Json{level.firstRow, level.lastRow}},
          {"columns", level.sum.tiles == 0 ? Json::array() : Json{level.firstCol, level.lastCol}}};
}

}  // namespace

hx::Tile ParseTile(std::string_view z, std::string_view x, std::string_view y) {
  const auto zoom = ParseNumber<std::uint32_t>(z), col = ParseNumber<std::uint32_t>(x),
             row = ParseNumber<std::uint32_t>(y);
  if (!zoom || !col || !row) throw Refusal(400, "a tile is three numbers: zoom/column/row");
  return {*zoom, *col, *row};
}

hx::Cell ParseCell(std::string_view row, std::string_view col) {
  const auto r = ParseNumber<std::uint32_t>(row), c = ParseNumber<std::uint32_t>(col);
  if (!r || !c) throw Refusal(400, "a cell is two numbers: row/column");
  return {*r, *c};
}

Json ListOf(const std::vector<std::unique_ptr<ServedFile>>& files) {
  Json list = Json::array();
  for (const auto& file : files) {
    Json entry = {{"name", file->Name()}, {"path", FileNameOf(*file)}};
    try {
      const auto facts = file->GetFacts();
      entry.update(
          {{"kind", NameOf(facts->kind)}, {"format", facts->format}, {"tiles", facts->tiles}});
    } catch (const hx::Error& error) {
      entry.update({{"kind", ""}, {"format", ""}, {"tiles", 0}, {"error", error.what()}});
    }
    list.push_back(std::move(entry));
  }
  return list;
}

Json TileJsonOf(const ServedFile& file, const std::string& base,
                const std::atomic<bool>& isStopping) {
  const auto facts = file.GetFacts();
  if (facts->kind != ServedFile::Kind::kPyramid)
    throw Refusal(404, file.Name() + " is no pyramid of tiles");
  const hx::Metadata& metadata = facts->metadata;
  const std::string extension = facts->format.empty() ? "" : "." + facts->format;
  Json json = {{"tilejson", "3.0.0"},
               {"tiles", {base + EncodeSegment(file.Name()) + "/{z}/{x}/{y}" + extension}},
               {"name", metadata.get("name").empty() ? file.Name() : metadata.get("name")}};
  for (const char* const key : {"description", "attribution", "version", "legend"})
    if (const std::string value = metadata.get(key); !value.empty()) json[key] = value;
  json["scheme"] = "xyz";
  if (!facts->format.empty()) json["format"] = facts->format;
  auto least = ZoomOf(metadata.min_zoom()), most = ZoomOf(metadata.max_zoom());
  if (least && most && *least > *most) least = most = std::nullopt;
  if (!least || !most) {
    const auto survey = file.GetSurvey(isStopping);
    if (!survey->zooms.empty()) {
      least = least.value_or(static_cast<int>(survey->zooms.begin()->first));
      most = most.value_or(static_cast<int>(survey->zooms.rbegin()->first));
    }
  }
  least = ZoomOf(least), most = ZoomOf(most);
  if (least) json["minzoom"] = *least;
  if (most) json["maxzoom"] = *most;
  AddPlace(metadata, json);
  if (const Json layers = LayersOf(metadata); layers.is_array()) json["vector_layers"] = layers;
  return json;
}

Json InfoOf(const ServedFile& file, const std::atomic<bool>& isStopping) {
  const auto facts = file.GetFacts();
  const auto survey = file.GetSurvey(isStopping);
  const hx::Statistics& count = survey->statistics;
  Json json = {{"kind", NameOf(facts->kind)}, {"path", FileNameOf(file)},
               {"format", facts->format},     {"fileSize", count.fileBytes},
               {"tiles", count.tiles},        {"versions", count.versions},
               {"bytes", count.payloadBytes}, {"live", count.liveBytes},
               {"dead", count.deadBytes},     {"index", count.indexBytes},
               {"damaged", count.damaged},    {"hasPassword", file.HasPassword()},
               {"zooms", Json::array()},      {"metadata", facts->metadata.values()}};
  if (survey->grid) json["zooms"].push_back(ToJson(*survey->grid, Json()));
  for (const auto& [zoom, level] : survey->zooms)
    json["zooms"].push_back(ToJson(level, zoom));
  return json;
}

Json HeatOf(const ServedFile& file, const Url& url, const std::atomic<bool>& isStopping) {
  const std::uint32_t size = NumberOf(url, "size", kFields, 1, kMostFields);
  const std::uint32_t zoom = NumberOf(url, "zoom", 0, 0, UINT32_MAX);
  const auto survey = file.GetSurvey(isStopping);
  const auto found = survey->zooms.find(zoom);
  if (!survey->grid && found == survey->zooms.end())
    throw Refusal(404, "there are no tiles of this zoom");
  const Level& level = survey->grid ? *survey->grid : found->second;
  const std::string_view box = url.Get("box");
  const HeatMap::Picture picture =
      box.empty() ? level.heat.Draw(size)
                  : LookInto(file, ParseBox(box, level),
                             survey->grid ? std::nullopt : std::optional(zoom), isStopping)
                        .Draw(size);
  Json tiles = Json::array(), versions = Json::array(), bytes = Json::array();
  for (const Field& field : picture.fields) {
    tiles.push_back(field.tiles);
    versions.push_back(field.versions);
    bytes.push_back(field.bytes);
  }
  const std::uint64_t endRow =
                          std::min(level.endRow, picture.firstRow + picture.step * picture.rows),
                      endCol =
                          std::min(level.endCol, picture.firstCol + picture.step * picture.cols);
  return {{"rows", endRow - picture.firstRow},
          {"columns", endCol - picture.firstCol},
          {"fieldRows", picture.rows},
          {"fieldColumns", picture.cols},
          {"step", picture.step},
          {"box", picture.fields.empty()
                      ? Json::array()
                      : Json{picture.firstRow, picture.firstCol, endRow - 1, endCol - 1}},
          {"tiles", tiles},
          {"versions", versions},
          {"bytes", bytes}};
}

Json NamesOf(const ServedFile& file, const Url& url, const std::atomic<bool>& isStopping) {
  const std::uint32_t limit = NumberOf(url, "limit", kNames, 1, kMostNames);
  const auto after = DecodeSegment(url.Get("after"));
  if (!after) throw Refusal(400, "after is what the answer before has as next");
  const auto names = file.Names(url.Get("prefix"), *after, limit, isStopping);
  Json json = {{"names", names},
               {"next", names.size() == limit ? Json(EncodeSegment(names.back())) : Json()}};
  for (std::size_t i = 0; i < names.size(); ++i)
    if (!IsUtf8(names[i])) json["escaped"][std::to_string(i)] = EncodeSegment(names[i]);
  return json;
}

Json VersionsOf(const ServedFile& file, const Url& url) {
  const std::string_view tile = url.Get("tile"), cell = url.Get("cell"), name = url.Get("name");
  if (int{!tile.empty()} + int{!cell.empty()} + int{!name.empty()} != 1)
    throw Refusal(400, "versions are those of one tile, cell or name");
  Address address = std::string(name);
  if (!tile.empty()) {
    const auto parsed = hx::Tile::parse(tile);
    if (!parsed) throw Refusal(400, "a tile is three numbers: zoom/column/row");
    address = *parsed;
  }
  if (!cell.empty()) {
    const std::size_t slash = std::min(cell.find('/'), cell.size());
    address = ParseCell(cell.substr(0, slash), cell.substr(std::min(slash + 1, cell.size())));
  }
  Json list = Json::array();
  hx::Payload payload;
  for (const hx::Version& version : file.Versions(address)) {
    const auto time = TimeOf(version.stamp);
    Json entry = {{"stamp", ToJson(version.stamp)},
                  {"time", time ? Json(ToIsoDate(*time)) : Json()},
                  {"bytes", version.filledLength}};
    if (file.Find(address, payload, version.stamp).ok() && payload.stamp() == version.stamp) {
      const Media media = LookAtPayload(payload, file, address);
      entry.update({{"type", media.type}, {"encoding", NameOf(media.encoding)}});
    }
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace Serve
