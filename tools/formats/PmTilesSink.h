#pragma once

#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

#include "Extent.h"
#include "OutputFile.h"
#include "PmDirectory.h"
#include "PmHeader.h"
#include "TileSink.h"

namespace Formats {

/// Writes a PMTiles file of version 3: clustered, equal tiles stored once, directories and metadata
/// compressed by gzip.
///
/// Directories and metadata come first in the file, and their size is known last. So tiles go to a
/// temporary file as they come, and Finish copies them in the order of their ids. Memory: 16 bytes
/// for each tile, and some 70 for each content.
class PmTilesSink : public TileSink {
 public:
  PmTilesSink(const std::filesystem::path& path, bool replace);

  void SetMetadata(const hx::Metadata& metadata) override { m_metadata = metadata; }
  void Put(const hx::Tile& tile, hx::Bytes bytes) override;
  void Finish() override;

 private:
  /// A payload in the temporary file.
  struct Content {
    std::uint64_t offset;
    std::uint32_t length;
  };
  struct Placed {
    std::uint64_t id;
    std::uint32_t content;  // its number
  };

  std::uint32_t Store(hx::Bytes bytes);
  bool IsContent(const Content& content, hx::Bytes bytes);
  void FlushSpool();
  void SortTiles();
  std::vector<PmEntry> MakeEntries();
  void WriteStart(PmHeader& header, const std::vector<PmEntry>& entries);
  void CopyTiles(std::uint64_t position);

  OutputFile m_file, m_spool;
  std::string m_unwritten;             // end of the temporary file
  std::uint64_t m_spoolLength = 0;     // without that
  std::vector<Content> m_contents;     // in the order in which they came
  std::vector<std::uint32_t> m_order;  // their numbers, as the file will have them
  std::unordered_map<std::uint64_t, std::uint32_t> m_byHash;
  std::vector<Placed> m_tiles;
  std::string m_compared;  // read back
  Extent m_extent;
  hx::Metadata m_metadata;
};

}  // namespace Formats
