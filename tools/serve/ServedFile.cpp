#include "ServedFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <utility>

#include "TileFormat.h"

namespace Serve {
namespace {

using namespace std::chrono_literals;
using hx::Cause;

// Failures after which a new object may do better.
bool IsOfObject(Cause cause) {
  switch (cause) {
    case Cause::kNotOpen:
    case Cause::kNoFile:
    case Cause::kMoved:
    case Cause::kWrongFormat:
    case Cause::kWrongKind:
    case Cause::kUnfinished:
    case Cause::kDamagedHeader:
      return true;
    default:
      return false;
  }
}

[[noreturn]] void Fail(const std::filesystem::path& path, Cause cause, const char* action) {
  Zarn::ZrError error;
  error.result =
      cause == Cause::kWrongKind ? Zarn::ZrResult::kWrongFile : Zarn::ZrResult::kReadFailure;
  error.cause = cause;
  error.path = path.string();
  error.action = action;
  throw hx::Error(error);
}

}  // namespace

bool IsMissing(Cause cause) {
  switch (cause) {
    case Cause::kNoTile:
    case Cause::kOutOfRange:  // of the grid
    case Cause::kTooLong:     // for a name
    case Cause::kBadName:
    case Cause::kEmptyArgument:
      return true;
    default:
      return false;
  }
}

int StatusOf(Cause cause) {
  switch (cause) {
    case Cause::kDamagedHeader:
    case Cause::kDamagedEntry:
    case Cause::kDamagedRecord:
    case Cause::kInputOutput:
      return 500;
    default:
      return IsMissing(cause) || cause == Cause::kWrongKind ? 404 : 503;
  }
}

// Of the manifest of a set of grids: which file it is.
using Identity = std::array<std::uint64_t, 4>;

Identity IdentityOf(const std::filesystem::path& folder) {
  struct stat status;
  if (::stat((folder / "tileset.json").c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_mtim.tv_sec),
          static_cast<std::uint64_t>(status.st_mtim.tv_nsec)};
}

// The open object: a grid, or a set in a container of names or in grids.
struct ServedFile::Handle {
  hx::Container grid;
  hx::Tileset set;
  Identity manifest = {};

  static std::shared_ptr<const Handle> Open(const std::filesystem::path& path,
                                            const hx::Options& options);
  const hx::Container* File() const { return grid.is_open() ? &grid : set.names(); }
  hx::Status Find(const Address& address, hx::Payload& payload, hx::Stamp stamp) const;
  void SetEnds(Survey& survey) const;
};

std::shared_ptr<const ServedFile::Handle> ServedFile::Handle::Open(
    const std::filesystem::path& path, const hx::Options& options) {
  auto handle = std::make_shared<Handle>();
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    handle->manifest = IdentityOf(path);
    handle->set = hx::Tileset::open(path, options);
    return handle;
  }
  hx::Container file = hx::Container::open(path, options);
  if (file.layout().is_grid())
    handle->grid = std::move(file);
  else
    handle->set = hx::Tileset(std::move(file));
  return handle;
}

hx::Status ServedFile::Handle::Find(const Address& address, hx::Payload& payload,
                                    hx::Stamp stamp) const {
  if (const auto* const tile = std::get_if<hx::Tile>(&address); tile != nullptr && set.is_open())
    return set.try_get(*tile, payload, stamp);
  if (const auto* const cell = std::get_if<hx::Cell>(&address); cell != nullptr && grid.is_open())
    return grid.try_get(*cell, payload, stamp);
  if (const auto* const name = std::get_if<std::string>(&address);
      name != nullptr && set.is_open() && set.names() != nullptr)
    return set.names()->try_get(*name, payload, stamp);
  return {Zarn::ZrResult::kWrongFile, Cause::kWrongKind};
}

// A zoom of names may have any rows and columns, although few have others than those of the web.
void ServedFile::Handle::SetEnds(Survey& survey) const {
  if (survey.grid) {
    survey.grid->endRow = grid.layout().rows();
    survey.grid->endCol = grid.layout().cols();
  }
  for (auto& [zoom, level] : survey.zooms) {
    const std::uint64_t end = std::uint64_t{1} << std::min(zoom, 32U);
    level.endRow = std::max(end, std::uint64_t{level.lastRow} + 1);
    level.endCol = std::max(end, std::uint64_t{level.lastCol} + 1);
  }
  for (const hx::ZoomRange& range : set.ranges())
    if (const auto found = survey.zooms.find(range.zoom); found != survey.zooms.end()) {
      found->second.endRow = std::uint64_t{range.first_row} + range.rows;
      found->second.endCol = std::uint64_t{range.first_col} + range.cols;
    }
}

ServedFile::ServedFile(std::string name, std::filesystem::path path, hx::Options options)
    : m_name(std::move(name)),
      m_path(std::move(path)),
      m_options(std::move(options)),
      m_handle(Handle::Open(m_path, m_options)),
      m_facts(5s),
      m_survey(5s) {}

hx::Status ServedFile::Find(const Address& address, hx::Payload& payload, hx::Stamp stamp) const {
  const hx::Status status = Use()->Find(address, payload, stamp);
  if (!IsOfObject(status.cause()) || !Reopen()) return status;
  return Use()->Find(address, payload, stamp);
}

// A set of grids that was replaced, or has got a zoom, has a new manifest.
std::shared_ptr<const ServedFile::Handle> ServedFile::Use() const {
  auto handle = m_handle.load();
  const bool isGrids = handle->set.is_open() && handle->set.names() == nullptr;
  if (isGrids && handle->manifest != IdentityOf(m_path) && Reopen()) return m_handle.load();
  return handle;
}

template <typename Read>
auto ServedFile::With(Read read) const {
  try {
    return read(*Use());
  } catch (const hx::Error& error) {
    if (!IsOfObject(error.cause()) || !Reopen()) throw;
  }
  return read(*Use());
}

// At most once in a second.
bool ServedFile::Reopen() const {
  std::unique_lock lock(m_opening, std::try_to_lock);
  const auto now = std::chrono::steady_clock::now();
  if (!lock || now < m_nextOpening) return false;
  m_nextOpening = now + 1s;
  try {
    m_handle = Handle::Open(m_path, m_options);
    return true;
  } catch (const std::exception&) {
    return false;  // the failure of the lookup tells more
  }
}

std::vector<hx::Version> ServedFile::Versions(const Address& address) const {
  return With([&](const Handle& handle) {
    const auto* const tile = std::get_if<hx::Tile>(&address);
    if (tile != nullptr && handle.set.is_open()) return handle.set.versions(*tile);
    const auto* const cell = std::get_if<hx::Cell>(&address);
    if (cell != nullptr && handle.grid.is_open()) return handle.grid.versions(*cell);
    const auto* const name = std::get_if<std::string>(&address);
    const hx::Container* const names = handle.set.is_open() ? handle.set.names() : nullptr;
    if (name != nullptr && names != nullptr) return names->versions(*name);
    Fail(m_path, Cause::kWrongKind, "look up in");
  });
}

hx::Cause ServedFile::Check() const {
  thread_local hx::Payload payload;
  const bool isGrid = Use()->grid.is_open();
  return Find(isGrid ? Address(hx::Cell{}) : Address(hx::Tile{}), payload, hx::kNewest).cause();
}

// To understand them takes longer than to look them up, and they seldom change.
std::shared_ptr<const hx::Metadata> ServedFile::GetMetadata() const {
  const auto handle = Use();
  if (!handle->set.is_open()) return std::make_shared<const hx::Metadata>();
  if (handle->set.names() == nullptr)
    return std::make_shared<const hx::Metadata>(handle->set.metadata());
  const auto payload = handle->set.names()->find(hx::Tileset::kMetadataName);
  const std::string_view text = payload ? payload->text() : std::string_view();
  auto description = m_description.load();
  if (description == nullptr || description->text != text) {
    auto metadata = hx::Metadata::from_json(text).value_or(hx::Metadata());
    description =
        std::make_shared<const Description>(Description{std::string(text), std::move(metadata)});
    m_description.store(description);
  }
  return {description, &description->metadata};
}

std::shared_ptr<const ServedFile::Facts> ServedFile::GetFacts() const {
  return m_facts.Get([this] { return With(LookAround); });
}

std::shared_ptr<const Survey> ServedFile::GetSurvey(const std::atomic<bool>& isStopping) const {
  return m_survey.Get(
      [&] { return With([&](const Handle& handle) { return WalkAll(handle, isStopping); }); });
}

// The first tile, if the first names have one.
std::optional<Address> ServedFile::FindFirst(const Handle& handle, bool& hasOtherNames) {
  constexpr int kLooks = 100;
  hx::CursorOptions options;
  options.payloads = false;
  std::optional<Address> first;
  if (handle.grid.is_open()) {
    for (const hx::Entry& entry : handle.grid.tiles(options))
      return entry.cell();
  } else if (const hx::Container* const names = handle.set.names()) {
    int looks = 0;
    for (const hx::Entry& entry : names->tiles(options)) {
      const std::string name = entry.name();
      if (const auto tile = hx::Tile::parse(name)) return *tile;
      hasOtherNames |= name != hx::Tileset::kMetadataName;
      if (++looks == kLooks) break;
    }
  } else {
    for (const hx::ZoomRange& range : handle.set.ranges()) {
      const auto take = [&](const hx::Tile& tile, const hx::Entry&) {
        first = tile;
        return false;
      };
      handle.set.for_each(take, range.zoom, options);
      if (first) break;
    }
  }
  return first;
}

ServedFile::Facts ServedFile::LookAround(const Handle& handle) {
  const hx::Container* const names = handle.set.is_open() ? handle.set.names() : nullptr;
  bool hasOtherNames = false;
  const std::optional<Address> first = FindFirst(handle, hasOtherNames);
  Facts facts;
  if (handle.grid.is_open()) {
    facts.kind = Kind::kGrid;
    facts.tiles = handle.grid.size();
  } else {
    facts.metadata = handle.set.metadata();
    const bool isPyramid = names == nullptr || first || (!facts.metadata.empty() && !hasOtherNames);
    facts.kind = isPyramid ? Kind::kPyramid : Kind::kNames;
    facts.tiles = names == nullptr ? handle.set.size()
                                   : names->size() - names->contains(hx::Tileset::kMetadataName);
  }
  const auto named = Formats::FormatOfName(facts.metadata.get("format"));
  facts.format = named != Formats::TileFormat::kUnknown ? Formats::NameOf(named)
                                                        : facts.metadata.get("format");
  hx::Payload payload;
  if (facts.format.empty() && first && handle.Find(*first, payload, hx::kNewest).ok())
    facts.format = Formats::NameOf(Formats::DetectFormat(payload));
  return facts;
}

Survey ServedFile::WalkAll(const Handle& handle, const std::atomic<bool>& isStopping) const {
  Survey survey;
  hx::CursorOptions options;
  options.payloads = false;
  const auto fieldOf = [](const hx::Entry& entry) {
    return Field{1, entry.stamps().size(), entry.size()};
  };
  if (handle.grid.is_open()) {
    Level& level = survey.grid.emplace();
    for (const hx::Entry& entry : handle.grid.tiles(options)) {
      level.Add(entry.cell().row, entry.cell().col, fieldOf(entry));
      if (isStopping) Fail(m_path, Cause::kCancelled, "walk over");
    }
  } else {
    handle.set.for_each(
        [&](const hx::Tile& tile, const hx::Entry& entry) {
          survey.zooms[tile.z].Add(tile.y, tile.x, fieldOf(entry));
          return !isStopping;
        },
        {}, options);
    if (isStopping) Fail(m_path, Cause::kCancelled, "walk over");
  }
  handle.SetEnds(survey);
  const hx::Container* const file = handle.File();
  const auto goesOn = [&](std::uint64_t, std::uint64_t) { return !isStopping; };
  survey.statistics = file == nullptr ? handle.set.statistics(goesOn) : file->statistics(goesOn);
  return survey;
}

std::vector<std::string> ServedFile::Names(std::string_view prefix, std::string_view after,
                                           std::size_t most,
                                           const std::atomic<bool>& isStopping) const {
  return With([&](const Handle& handle) {
    if (!handle.set.is_open() || handle.set.names() == nullptr)
      Fail(m_path, Cause::kWrongKind, "look up in");
    std::set<std::string> names;
    hx::CursorOptions options;
    options.payloads = false;
    options.prefix = prefix;
    for (const hx::Entry& entry : handle.set.names()->tiles(options)) {
      if (isStopping) Fail(m_path, Cause::kCancelled, "walk over");
      std::string name = entry.name();
      if (name <= after || (names.size() == most && name > *names.rbegin())) continue;
      names.insert(std::move(name));
      if (names.size() > most) names.erase(std::prev(names.end()));
    }
    return std::vector<std::string>(names.begin(), names.end());
  });
}

}  // namespace Serve
