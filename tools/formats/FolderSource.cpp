#include "FolderSource.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "FileReader.h"
#include "FormatError.h"
#include "TileFormat.h"

namespace Formats {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMetadata = "metadata.json";

// As hx::Tile writes them: digits, and no zero in front.
std::optional<std::uint32_t> ToNumber(std::string_view text) {
  std::uint32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, number);
  const bool isLong = text.size() > 1 && text[0] == '0';
  return error == std::errc() && next == end && !isLong ? std::optional(number) : std::nullopt;
}

}  // namespace

/// A file or folder whose name is a number.
struct FolderSource::Numbered {
  std::uint32_t number;
  fs::path path;
};

FolderSource::FolderSource(const fs::path& path, Rows rows) : m_path(path), m_rows(rows) {
  ReadMetadata();
  bool hasTiles = false;
  VisitFiles({},
             [&](const hx::Tile&, const fs::path& file) {
               m_extension = file.extension();
               hasTiles = true;
               return false;
             },
             {});
  if (!hasTiles && m_metadata.empty()) throw FormatError(path, "has neither tiles nor metadata");
  if (!m_metadata.get("format").empty() || m_extension.empty()) return;
  const TileFormat format = FormatOfName(m_extension.substr(1));
  m_metadata.set("format", format != TileFormat::kUnknown ? NameOf(format) : m_extension.substr(1));
}

void FolderSource::ReadMetadata() {
  const fs::path path = m_path / kMetadata;
  std::error_code ignored;
  if (!fs::exists(path, ignored)) return;
  FileReader file;
  if (!file.Read(path)) throw FormatError(path, file.GetFault());
  auto metadata = hx::Metadata::from_json(file.GetBytes().text());
  if (!metadata) throw FormatError(path, "is no JSON object");
  m_metadata = *std::move(metadata);
}

// In the order of numbers, so that walks are the same on every file system.
std::vector<FolderSource::Numbered> FolderSource::List(const fs::path& folder, bool isFolders,
                                                       const Report& report) const {
  std::vector<Numbered> list;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::path& path = entry->path();
    std::error_code ignored;
    const auto number = ToNumber((isFolders ? path.filename() : path.stem()).native());
    if (number && entry->is_directory(ignored) == isFolders)
      list.push_back({*number, path});
    else if (path != m_path / kMetadata)
      Tell(report, path.string() + ": is no part of a set of tiles");
  }
  if (error) throw FormatError(folder, "cannot be listed: " + error.message());
  std::sort(list.begin(), list.end(),
            [](const Numbered& a, const Numbered& b) { return a.number < b.number; });
  return list;
}

bool FolderSource::VisitFiles(const TileFilter& filter, const Give& give,
                              const Report& report) const {
  for (const auto& [zoom, zoomPath] : List(m_path, true, report)) {
    if (!filter.HasZoom(zoom)) continue;
    for (const auto& [x, columnPath] : List(zoomPath, true, report)) {
      if (!filter.RangeOf(zoom).HasColumn(x)) continue;
      for (const auto& [row, path] : List(columnPath, false, report)) {
        const bool isFlipped = m_rows == Rows::kUp;
        if (isFlipped && !IsRowOf(zoom, row)) {
          Tell(report, path.string() + ": the zoom has no such row");
          continue;
        }
        const hx::Tile tile{zoom, x, isFlipped ? FlipRow(zoom, row) : row};
        if (filter.Holds(tile) && !give(tile, path)) return false;
      }
    }
  }
  return true;
}

void FolderSource::Visit(const TileFilter& filter, const Visitor& visit, const Report& report) {
  FileReader file;
  const auto give = [&](const hx::Tile& tile, const fs::path& path) {
    const auto tell = [&](const std::string& what) {
      Tell(report, path.string() + ": " + what);
      return true;
    };
    if (path.extension() != m_extension) return tell("has another extension than the first tile");
    if (!file.Read(path)) return tell(file.GetFault());
    if (file.GetBytes().empty()) return tell("is empty");
    return visit(tile, file.GetBytes());
  };
  VisitFiles(filter, give, report);
}

}  // namespace Formats
