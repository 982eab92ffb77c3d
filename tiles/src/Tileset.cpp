#include "hx/tileset.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <system_error>
#include <utility>

#include "Json.h"
#include "ZrFile64.h"
#include "ZrNewFile.h"

namespace hx {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Zarn::ZrResult;

constexpr char kManifestName[] = "tileset.json";
constexpr Stamp kMetadataStamp = UINT64_MAX;  // they never become too old

[[noreturn]] void Fail(unsigned int code, Cause cause, const fs::path& path, const char* action,
                       int systemError = 0) {
  Zarn::ZrError error;
  error.result = code;
  error.cause = cause;
  error.systemError = systemError;
  error.path = path.string();
  error.action = action;
  throw Error(error);
}

fs::path GridPath(const fs::path& folder, std::uint32_t zoom) {
  return folder / (std::to_string(zoom) + ".cf");
}

Json ToJson(const ZoomRange& range) {
  return {{"zoom", range.zoom},
          {"first_col", range.first_col},
          {"first_row", range.first_row},
          {"cols", range.cols},
          {"rows", range.rows}};
}

std::optional<ZoomRange> ToRange(const Json& json) {
  ZoomRange range;
  for (const auto& [key, field] :
       {std::pair("zoom", &range.zoom), std::pair("first_col", &range.first_col),
        std::pair("first_row", &range.first_row), std::pair("cols", &range.cols),
        std::pair("rows", &range.rows)}) {
    const auto value = json.is_object() ? json.find(key) : json.end();
    if (value == json.end() || !value->is_number_unsigned() ||
        value->get<std::uint64_t>() > UINT32_MAX)
      return std::nullopt;
    *field = value->get<std::uint32_t>();
  }
  return range;
}

// One without a manifest may have been left by somebody who was killed.
Container MakeGrid(const fs::path& folder, const ZoomRange& range, const Options& options) {
  const fs::path path = GridPath(folder, range.zoom);
  Container grid = Container::open_or_create(path, Layout::grid(range.rows, range.cols), options);
  const Layout layout = grid.layout();
  if (!layout.is_grid() || layout.rows() != range.rows || layout.cols() != range.cols)
    Fail(ZrResult::kNotCreated, Cause::kExists, path, "create");
  return grid;
}

struct Manifest {
  std::vector<ZoomRange> ranges;
  Metadata metadata;
};

Manifest ReadManifest(const fs::path& folder) {
  const fs::path path = folder / kManifestName;
  std::ifstream file(path, std::ios::binary);
  if (!file) Fail(ZrResult::kNotFound, Cause::kNoFile, path, "read", errno);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const Json json = ParseJson(text).value_or(Json());
  Manifest manifest;
  const auto damaged = [&] { Fail(ZrResult::kWrongFile, Cause::kWrongFormat, path, "understand"); };
  if (!json.is_object() || !json.contains("zooms") || !json["zooms"].is_array()) damaged();
  for (const Json& zoom : json["zooms"]) {
    const auto range = ToRange(zoom);
    if (!range) damaged();
    manifest.ranges.push_back(*range);
  }
  if (json.contains("metadata")) {
    auto metadata = Metadata::from_json(json["metadata"].dump());
    if (!metadata) damaged();
    manifest.metadata = std::move(*metadata);
  }
  return manifest;
}

Cause CauseOf(int systemError) {
  switch (systemError) {
    case ENOSPC:
      return Cause::kDiskFull;
    case EACCES:
    case EPERM:
      return Cause::kPermission;
    case EROFS:
      return Cause::kReadOnly;
    default:
      return Cause::kOther;
  }
}

// Whole or not at all. `isNew`: none may be there.
void WriteManifest(const fs::path& folder, const Manifest& manifest, bool isNew) {
  Json json = {{"zooms", Json::array()}, {"metadata", manifest.metadata.values()}};
  for (const ZoomRange& range : manifest.ranges)
    json["zooms"].push_back(ToJson(range));
  const std::string text = json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  const fs::path path = folder / kManifestName;
  Zarn::ZrFile64 stream;
  Zarn::ZrNewFile file(stream);
  using Outcome = Zarn::ZrNewFile::Outcome;
  errno = 0;
  const bool isWritten = file.Begin(PelmUnicodeString::FromUtf8(path.native())) &&
                         stream.WriteAt(0, text.data(), text.size()) && stream.Sync();
  const Outcome outcome = !isWritten ? Outcome::kFailed : isNew ? file.Publish() : file.Replace();
  if (outcome == Outcome::kExists) Fail(ZrResult::kNotCreated, Cause::kExists, path, "create");
  if (outcome == Outcome::kFailed)
    Fail(ZrResult::kWriteFailure, CauseOf(errno), path, "write", errno);
  file.Commit();
}

}  // namespace

// One layer, without a range, is the container of names.
struct Tileset::Set {
  struct Layer {
    ZoomRange range;
    Container container;
  };

  bool IsGrids() const { return !folder.empty(); }
  template <typename Call>
  void ForEach(Call call) {
    for (Layer& layer : layers)
      call(layer.container);
  }

  fs::path folder;          // of grids
  bool isReadOnly = false;  // of those; a container knows it
  std::vector<Layer> layers;
};

// Where a tile is; no container where none can be.
struct Tileset::Place {
  Container* container = nullptr;
  Key key;
};

Tileset::Tileset() noexcept = default;
Tileset::Tileset(Tileset&&) noexcept = default;
Tileset& Tileset::operator=(Tileset&&) noexcept = default;
Tileset::~Tileset() = default;

Tileset::Tileset(Container names) : m_set(std::make_unique<Set>()) {
  if (names.layout().is_grid())
    Fail(ZrResult::kWrongFile, Cause::kWrongKind, names.path(), "open as a tileset");
  m_set->layers.push_back({{}, std::move(names)});
}

// Of what is not open, a container that is not open tells.
Tileset::Set& Tileset::Use() const {
  static Set closed = [] {
    Set set;
    set.layers.emplace_back();
    return set;
  }();
  return m_set != nullptr ? *m_set : closed;
}

Tileset::Place Tileset::Find(const Tile& tile) const noexcept {
  Set& set = Use();
  if (!set.IsGrids()) return {&set.layers[0].container, tile};
  for (auto& [range, container] : set.layers)
    if (range.holds(tile))
      return {&container, Cell{tile.y - range.first_row, tile.x - range.first_col}};
  return {nullptr, tile};
}

Tileset Tileset::open(const fs::path& path, const Options& options) {
  std::error_code ignored;
  if (!fs::is_directory(path, ignored)) return Tileset(Container::open(path, options));
  Tileset tileset;
  tileset.m_set = std::make_unique<Set>();
  tileset.m_set->folder = path;
  tileset.m_set->isReadOnly = options.read_only;
  for (const ZoomRange& range : ReadManifest(path).ranges)
    tileset.m_set->layers.push_back({range, Container::open(GridPath(path, range.zoom), options)});
  return tileset;
}

Tileset Tileset::create(const fs::path& path, const Metadata& metadata, const Options& options) {
  Tileset tileset(Container::create(path, Layout::names(), options));
  if (!metadata.empty()) tileset.set_metadata(metadata);
  return tileset;
}

Tileset Tileset::open_or_create(const fs::path& path, const Options& options) {
  std::error_code ignored;
  if (fs::is_directory(path, ignored)) return open(path, options);
  return Tileset(Container::open_or_create(path, Layout::names(), options));
}

Tileset Tileset::create_grids(const fs::path& folder, const std::vector<ZoomRange>& ranges,
                              const Metadata& metadata, const Options& options) {
  std::error_code ignored;
  if (fs::exists(folder / kManifestName, ignored))
    Fail(ZrResult::kNotCreated, Cause::kExists, folder / kManifestName, "create");
  Tileset tileset;
  tileset.m_set = std::make_unique<Set>();
  tileset.m_set->folder = folder;
  for (const ZoomRange& range : ranges) {
    for (const auto& layer : tileset.m_set->layers)
      if (layer.range.zoom == range.zoom)
        Fail(ZrResult::kNotCreated, Cause::kOutOfRange, folder, "create two grids for a zoom in");
    tileset.m_set->layers.push_back({range, MakeGrid(folder, range, options)});
  }
  WriteManifest(folder, {ranges, metadata}, true);
  return tileset;
}

void Tileset::close() noexcept { m_set.reset(); }

Container* Tileset::names() const noexcept {
  return m_set != nullptr && !m_set->IsGrids() ? &m_set->layers[0].container : nullptr;
}

Container* Tileset::grid(std::uint32_t zoom) const noexcept {
  if (m_set == nullptr || !m_set->IsGrids()) return nullptr;
  for (auto& [range, container] : m_set->layers)
    if (range.zoom == zoom) return &container;
  return nullptr;
}

std::vector<ZoomRange> Tileset::ranges() const {
  std::vector<ZoomRange> ranges;
  if (Use().IsGrids())
    for (const auto& layer : Use().layers)
      ranges.push_back(layer.range);
  return ranges;
}

// Text that is no JSON object counts as none.
Metadata Tileset::metadata() const {
  Set& set = Use();
  if (set.IsGrids()) return ReadManifest(set.folder).metadata;
  const auto text = set.layers[0].container.find(kMetadataName);
  return text ? Metadata::from_json(text->text()).value_or(Metadata()) : Metadata();
}

void Tileset::set_metadata(const Metadata& metadata) {
  Set& set = Use();
  if (set.isReadOnly)
    Fail(ZrResult::kWriteFailure, Cause::kReadOnly, set.folder, "change the metadata of");
  if (set.IsGrids())
    WriteManifest(set.folder, {ranges(), metadata}, false);
  else
    set.layers[0].container.put(kMetadataName, metadata.to_json(), {kMetadataStamp});
}

Status Tileset::try_get(const Tile& tile, Payload& payload, Stamp stamp) const noexcept {
  const Place place = Find(tile);
  if (place.container != nullptr) return place.container->try_get(place.key, payload, stamp);
  payload = Payload();
  return {ZrResult::kNotFound, Cause::kNoTile};
}

Payload Tileset::get(const Tile& tile, Stamp stamp) const {
  const Place place = Find(tile);
  if (place.container == nullptr)
    Fail(ZrResult::kNotFound, Cause::kNoTile, Use().folder, "look up a tile in");
  return place.container->get(place.key, stamp);
}

std::optional<Payload> Tileset::find(const Tile& tile, Stamp stamp) const {
  const Place place = Find(tile);
  return place.container != nullptr ? place.container->find(place.key, stamp) : std::nullopt;
}

bool Tileset::contains(const Tile& tile) const {
  const Place place = Find(tile);
  return place.container != nullptr && place.container->contains(place.key);
}

Status Tileset::try_put(const Tile& tile, Bytes bytes, const PutOptions& options) noexcept {
  const Place place = Find(tile);
  if (place.container == nullptr) return {ZrResult::kWriteFailure, Cause::kOutOfRange};
  return place.container->try_put(place.key, bytes, options);
}

Tileset::Place Tileset::FindToStore(const Tile& tile) const {
  const Place place = Find(tile);
  if (place.container == nullptr)
    Fail(ZrResult::kWriteFailure, Cause::kOutOfRange, Use().folder, "store into");
  return place;
}

void Tileset::put(const Tile& tile, Bytes bytes, const PutOptions& options) {
  const Place place = FindToStore(tile);
  place.container->put(place.key, bytes, options);
}

void Tileset::put_all(const std::vector<TilePut>& puts) {
  std::map<Container*, std::vector<Put>> batches;
  for (const auto& [tile, bytes, options] : puts) {
    const Place place = FindToStore(tile);
    batches[place.container].push_back({place.key, bytes, options});
  }
  for (const auto& [container, batch] : batches)
    container->put_all(batch);
}

bool Tileset::erase(const Tile& tile) {
  const Place place = Find(tile);
  return place.container != nullptr && place.container->erase(place.key);
}

bool Tileset::erase(const Tile& tile, Stamp stamp) {
  const Place place = Find(tile);
  return place.container != nullptr && place.container->erase(place.key, stamp);
}

std::uint64_t Tileset::erase_older_than(Stamp stamp) {
  std::uint64_t removed = 0;
  Use().ForEach([&](Container& container) { removed += container.erase_older_than(stamp); });
  return removed;
}

std::vector<Version> Tileset::versions(const Tile& tile) const {
  const Place place = Find(tile);
  return place.container != nullptr ? place.container->versions(place.key) : std::vector<Version>();
}

// Names that are no tiles are passed over.
void Tileset::for_each(const std::function<bool(const Tile&, const Entry&)>& visit,
                       std::optional<std::uint32_t> zoom, const CursorOptions& options) const {
  Set& set = Use();
  if (!set.IsGrids()) {
    CursorOptions named = options;
    if (zoom) named.prefix = std::to_string(*zoom) + "/";
    for (const Entry& entry : set.layers[0].container.tiles(named))
      if (const auto tile = Tile::parse(entry.name()); tile && !visit(*tile, entry)) return;
    return;
  }
  for (const auto& [range, container] : set.layers) {
    if (zoom && range.zoom != *zoom) continue;
    for (const Entry& entry : container.tiles(options)) {
      const Cell cell = entry.cell();
      if (!visit({range.zoom, range.first_col + cell.col, range.first_row + cell.row}, entry))
        return;
    }
  }
}

std::uint64_t Tileset::size() const {
  std::uint64_t count = 0;
  if (Use().IsGrids()) {
    Use().ForEach([&](Container& container) { count += container.size(); });
    return count;
  }
  for_each([&](const Tile&, const Entry&) { return ++count != 0; }, {}, {false, {}});
  return count;
}

Statistics Tileset::statistics(const Container::Progress& progress) const {
  Statistics sum;
  Use().ForEach([&](Container& container) { sum += container.statistics(progress); });
  return sum;
}

void Tileset::flush() {
  Use().ForEach([](Container& container) { container.flush(); });
}

void Tileset::compact(const Container::Progress& progress) {
  Use().ForEach([&](Container& container) { container.compact(progress); });
}

bool Tileset::verify(const std::function<bool(const Finding&)>& report) const {
  bool isSound = true, goesOn = true;
  const auto tell = [&](const Finding& finding) {
    goesOn = !report || report(finding);
    return goesOn;
  };
  Use().ForEach([&](Container& container) {
    if (goesOn) isSound = container.verify(tell) && isSound;
  });
  return isSound;
}

}  // namespace hx
