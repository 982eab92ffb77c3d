#include "PmTilesSource.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "FormatError.h"
#include "Gzip.h"
#include "Hilbert.h"
#include "PmMetadata.h"

namespace Formats {
namespace {

// The first id from `id` on whose tile is in the box of the filter; `end` if there is none before
// it. 4^k ids that begin at a multiple of that are one tile k zooms above, so where that is outside
// of the box all of them are passed over.
std::uint64_t NextInBox(const TileFilter& filter, std::uint64_t id, std::uint64_t end) {
  if (!filter.HasBounds()) return std::min(id, end);
  while (id < end) {
    const hx::Tile tile = TileOf(id);
    const TileRange range = filter.RangeOf(tile.z);
    const std::uint64_t position = id - FirstIdOf(tile.z);
    const auto fitting = static_cast<int>(std::bit_width(end - id)) - 1;
    const int most = std::min(std::countr_zero(position), fitting) / 2;
    auto levels = std::min(tile.z, static_cast<std::uint32_t>(most));
    const auto above = [&] { return hx::Tile{0, tile.x >> levels, tile.y >> levels}; };
    while (levels > 0 && range.Meets(above(), levels))
      --levels;
    if (levels == 0 && range.Holds(tile)) return id;
    id += std::uint64_t{1} << levels << levels;
  }
  return end;
}

}  // namespace

/// What does not change while the tiles are visited, and the end of what was visited.
struct PmTilesSource::Walk {
  const TileFilter& filter;
  const Visitor& visit;
  std::uint64_t firstId, endId;  // of the zooms that are asked for
  std::uint64_t doneId = 0;      // all ids below were visited or passed over
};

PmTilesSource::PmTilesSource(const std::filesystem::path& path) : m_file(path) {
  const hx::Bytes start = m_file.ReadUpTo(0, kPmHeaderSize);
  if (!start.text().starts_with(kPmMagic)) Fail("is no PMTiles file");
  if (start.size() < kPmHeaderSize) Fail("is cut short");
  const auto version = static_cast<unsigned int>(start.data()[kPmMagic.size()]);
  if (version != kPmVersion)
    Fail("is a PMTiles file of version " + std::to_string(version) + "; only 3 is known");
  m_header = DecodeHeader(start.text().data());
  CheckHeader();
  constexpr std::size_t kMostMetadata = 16 << 20;
  const std::string json = m_header.metadata.length > 0
                               ? ReadSection(m_header.metadata, kMostMetadata, "metadata")
                               : "{}";
  auto metadata = ReadPmMetadata(m_header, json);
  if (!metadata) Fail("has metadata that are no JSON object");
  m_metadata = *std::move(metadata);
}

void PmTilesSource::Fail(const std::string& reason) const {
  throw FormatError(m_file.GetPath(), reason);
}

void PmTilesSource::CheckHeader() const {
  for (const PmSection& section :
       {m_header.root, m_header.metadata, m_header.leaves, m_header.tiles})
    if (!section.LiesWithin(m_file.GetLength())) Fail("is cut short, or its header is damaged");
  if (m_header.root.length == 0) Fail("has no root directory");
  switch (m_header.internalCompression) {
    case PmCompression::kNone:
    case PmCompression::kGzip:
      return;
    case PmCompression::kBrotli:
      Fail("has directories that are compressed by Brotli, which is not supported");
    case PmCompression::kZstd:
      Fail("has directories that are compressed by Zstandard, which is not supported");
    default:
      Fail("has directories that are compressed in an unknown way");
  }
}

// A section within the file, inflated.
std::string PmTilesSource::ReadSection(const PmSection& section, std::size_t most,
                                       const char* what) {
  if (section.length > most) Fail(std::string("has ") + what + " that are too large");
  const hx::Bytes bytes = m_file.Read(section.offset, section.length);
  if (m_header.internalCompression == PmCompression::kNone) return std::string(bytes.text());
  auto inflated = Inflate(bytes.text(), most);
  if (!inflated) Fail(std::string("has ") + what + " that are damaged or too large");
  return *std::move(inflated);
}

std::optional<std::uint64_t> PmTilesSource::Count() {
  return m_header.tileCount != 0 ? std::optional(m_header.tileCount) : std::nullopt;
}

void PmTilesSource::Visit(const TileFilter& filter, const Visitor& visit, const Report&) {
  const std::uint32_t last = std::min(filter.MaxZoom(), kDeepestZoom);
  if (filter.MinZoom() > last) return;
  Walk walk{filter, visit, FirstIdOf(filter.MinZoom()),
            last == kDeepestZoom ? kEndOfIds : FirstIdOf(last + 1)};
  VisitDirectory(walk, m_header.root, kEndOfIds, 1);
}

// `endId`: no entry may reach beyond it. False if the visitor has ended the walk.
bool PmTilesSource::VisitDirectory(Walk& walk, const PmSection& section, std::uint64_t endId,
                                   int level) {
  constexpr std::size_t kMostDirectory = 64 << 20;
  constexpr int kMostLevels = 4;
  if (level > kMostLevels) Fail("has directories that are nested too deeply");
  const std::string bytes = ReadSection(section, kMostDirectory, "directories");
  PmDirectoryReader reader(bytes);
  while (reader.Next()) {
    const PmEntry& entry = reader.Entry();
    const std::uint64_t end =
        entry.IsDirectory() ? std::min(reader.NextId(), endId) : entry.id + entry.runLength;
    if (entry.id < walk.doneId || entry.id >= endId || end > endId)
      Fail("has directories that overlap");
    if (entry.id >= walk.endId) return true;
    const std::uint64_t endOfAsked = std::min(end, walk.endId);
    if (NextInBox(walk.filter, std::max(entry.id, walk.firstId), endOfAsked) < endOfAsked) {
      if (!entry.IsDirectory()) {
        if (!VisitRun(walk, entry)) return false;
      } else {
        const PmSection leaf{m_header.leaves.offset + entry.offset, entry.length};
        if (!PmSection{entry.offset, entry.length}.LiesWithin(m_header.leaves.length))
          Fail("has a directory outside of its section");
        walk.doneId = entry.id;
        if (!VisitDirectory(walk, leaf, end, level + 1)) return false;
      }
    }
    walk.doneId = end;
  }
  if (reader.IsDamaged()) Fail("has a damaged directory");
  return true;
}

// At least one of the tiles is asked for.
bool PmTilesSource::VisitRun(const Walk& walk, const PmEntry& entry) {
  if (!PmSection{entry.offset, entry.length}.LiesWithin(m_header.tiles.length))
    Fail("has a tile outside of its section: " + TileOf(entry.id).name());
  const hx::Bytes bytes = m_file.Read(m_header.tiles.offset + entry.offset, entry.length);
  const std::uint64_t end = std::min(entry.id + entry.runLength, walk.endId);
  for (std::uint64_t id = std::max(entry.id, walk.firstId);
       (id = NextInBox(walk.filter, id, end)) < end; ++id)
    if (!walk.visit(TileOf(id), bytes)) return false;
  return true;
}

}  // namespace Formats
