#include "PmTilesSink.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "FormatError.h"
#include "Gzip.h"
#include "Hilbert.h"
#include "PmMetadata.h"

namespace Formats {
namespace {

constexpr std::size_t kBuffer = 1 << 20;  // of writes

/// The root directory, and those to which it leads, compressed.
struct Directories {
  std::string root, leaves;
};

Directories MakeDirectories(std::span<const PmEntry> entries, std::size_t entriesPerLeaf) {
  Directories directories;
  std::vector<PmEntry> root;
  while (!entries.empty()) {
    const auto leaf = entries.first(std::min(entriesPerLeaf, entries.size()));
    const std::string bytes = Compress(EncodeDirectory(leaf));
    root.push_back(
        {leaf[0].id, directories.leaves.size(), static_cast<std::uint32_t>(bytes.size()), 0});
    directories.leaves += bytes;
    entries = entries.subspan(leaf.size());
  }
  directories.root = Compress(EncodeDirectory(root));
  return directories;
}

// One directory if it is small enough; else leaves, as small as the root directory allows, for a
// reader fetches one for the tiles of a view.
Directories MakeDirectories(std::span<const PmEntry> entries) {
  constexpr std::size_t kMostRoot = kPmStartSize - kPmHeaderSize;
  constexpr std::size_t kSmallestLeaf = 4096;
  if (entries.size() <= kPmStartSize) {  // more of them are hardly ever so small
    Directories directories{Compress(EncodeDirectory(entries)), ""};
    if (directories.root.size() < kMostRoot) return directories;
  }
  for (std::size_t size = kSmallestLeaf;; size *= 2) {
    Directories directories = MakeDirectories(entries, size);
    if (directories.root.size() < kMostRoot) return directories;
  }
}

}  // namespace

PmTilesSink::PmTilesSink(const std::filesystem::path& path, bool replace)
    : m_file(path, replace), m_spool(path, replace) {}

void PmTilesSink::Put(const hx::Tile& tile, hx::Bytes bytes) {
  if (!IsRowOf(tile.z, tile.x) || !IsRowOf(tile.z, tile.y))
    throw FormatError(m_file.GetPath(), "has no place for the tile " + tile.name());
  if (bytes.empty() || bytes.size() > UINT32_MAX)
    throw FormatError(m_file.GetPath(), "cannot hold a tile of this size: " + tile.name());
  m_extent.Add(tile, bytes);
  m_tiles.push_back({IdOf(tile), Store(bytes)});
}

// The hash only tells with which content to compare. Contents of one hash are rare; only the first
// of them is found again.
std::uint32_t PmTilesSink::Store(hx::Bytes bytes) {
  const auto number = static_cast<std::uint32_t>(m_contents.size());
  const auto [found, isNew] =
      m_byHash.try_emplace(std::hash<std::string_view>()(bytes.text()), number);
  if (!isNew && IsContent(m_contents[found->second], bytes)) return found->second;
  if (number == UINT32_MAX) throw FormatError(m_file.GetPath(), "cannot hold so many tiles");
  m_contents.push_back(
      {m_spoolLength + m_unwritten.size(), static_cast<std::uint32_t>(bytes.size())});
  m_unwritten += bytes.text();
  if (m_unwritten.size() >= kBuffer) FlushSpool();
  return number;
}

bool PmTilesSink::IsContent(const Content& content, hx::Bytes bytes) {
  if (content.length != bytes.size()) return false;
  if (content.offset >= m_spoolLength)
    return std::string_view(m_unwritten).substr(content.offset - m_spoolLength, content.length) ==
           bytes.text();
  m_compared.resize(content.length);
  m_spool.ReadAt(content.offset, m_compared.data(), content.length);
  return m_compared == bytes.text();
}

void PmTilesSink::FlushSpool() {
  m_spool.WriteAt(m_spoolLength, m_unwritten.data(), m_unwritten.size());
  m_spoolLength += m_unwritten.size();
  m_unwritten.clear();
}

void PmTilesSink::Finish() {
  if (m_tiles.empty()) throw FormatError(m_file.GetPath(), "would have no tiles");
  FlushSpool();
  SortTiles();
  const std::vector<PmEntry> entries = MakeEntries();
  PmHeader header;
  WriteStart(header, entries);
  CopyTiles(header.tiles.offset);
  m_file.Publish();
}

void PmTilesSink::SortTiles() {
  std::sort(m_tiles.begin(), m_tiles.end(),
            [](const Placed& a, const Placed& b) { return a.id < b.id; });
  const auto twice = std::adjacent_find(m_tiles.begin(), m_tiles.end(),
                                        [](const auto& a, const auto& b) { return a.id == b.id; });
  if (twice != m_tiles.end())
    throw FormatError(m_file.GetPath(), "was given a tile twice: " + TileOf(twice->id).name());
}

// Contents get their places in the order in which the sorted tiles first have them.
std::vector<PmEntry> PmTilesSink::MakeEntries() {
  constexpr std::uint64_t kNone = UINT64_MAX;
  std::vector<std::uint64_t> offsets(m_contents.size(), kNone);
  std::vector<PmEntry> entries;
  std::uint64_t end = 0;
  for (const auto& [id, number] : m_tiles) {
    const std::uint32_t length = m_contents[number].length;
    std::uint64_t& offset = offsets[number];
    if (offset == kNone) {
      offset = end;
      end += length;
      m_order.push_back(number);
    }
    PmEntry* const last = entries.empty() ? nullptr : &entries.back();
    if (last != nullptr && last->offset == offset && last->id + last->runLength == id &&
        last->runLength < UINT32_MAX)
      ++last->runLength;
    else
      entries.push_back({id, offset, length, 1});
  }
  return entries;
}

void PmTilesSink::WriteStart(PmHeader& header, const std::vector<PmEntry>& entries) {
  header.tileCount = m_tiles.size();
  header.entryCount = entries.size();
  header.contentCount = m_contents.size();
  header.isClustered = true;
  if (m_extent.IsGzip()) header.tileCompression = PmCompression::kGzip;
  if (m_extent.IsPlain()) header.tileCompression = PmCompression::kNone;
  m_extent.Complete(m_metadata, m_file.GetPath());
  // Readers take the header's word that there are no tiles at other zooms.
  m_metadata.set_zooms(static_cast<int>(m_extent.MinZoom()), static_cast<int>(m_extent.MaxZoom()));
  const std::string metadata = Compress(WritePmMetadata(m_metadata, header));
  const Directories directories = MakeDirectories(entries);

  header.root = {kPmHeaderSize, directories.root.size()};
  header.metadata = {header.root.offset + header.root.length, metadata.size()};
  header.leaves = {header.metadata.offset + header.metadata.length, directories.leaves.size()};
  header.tiles = {header.leaves.offset + header.leaves.length, m_spoolLength};
  const auto start = EncodeHeader(header);
  m_file.WriteAt(0, start.data(), start.size());
  m_file.WriteAt(header.root.offset, directories.root.data(), header.root.length);
  m_file.WriteAt(header.metadata.offset, metadata.data(), header.metadata.length);
  m_file.WriteAt(header.leaves.offset, directories.leaves.data(), header.leaves.length);
}

// What lies together in both files is read at once.
void PmTilesSink::CopyTiles(std::uint64_t position) {
  std::string buffer;
  for (std::size_t i = 0; i < m_order.size();) {
    const std::uint64_t begin = m_contents[m_order[i]].offset;
    std::uint64_t end = begin;
    for (; i < m_order.size() && m_contents[m_order[i]].offset == end && end - begin < kBuffer; ++i)
      end += m_contents[m_order[i]].length;
    const std::size_t filled = buffer.size();
    buffer.resize(filled + (end - begin));
    m_spool.ReadAt(begin, buffer.data() + filled, end - begin);
    if (buffer.size() < kBuffer && i < m_order.size()) continue;
    m_file.WriteAt(position, buffer.data(), buffer.size());
    position += buffer.size();
    buffer.clear();
  }
}

}  // namespace Formats
