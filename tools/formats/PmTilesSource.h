#pragma once

#include <filesystem>
#include <string>

#include "InputFile.h"
#include "PmDirectory.h"
#include "PmHeader.h"
#include "TileSource.h"

namespace Formats {

/// A PMTiles file of version 3.
///
/// The file may say anything. Whatever it says of places is checked against its length first. A
/// directory or the metadata inflate to at most 64 MiB and 16 MiB, and a thousand times what they
/// take in the file; at most four directories are in memory, each within another. Ids only go up,
/// so a walk reads no directory twice.
class PmTilesSource : public TileSource {
 public:
  explicit PmTilesSource(const std::filesystem::path& path);

  const hx::Metadata& GetMetadata() const override { return m_metadata; }
  std::optional<std::uint64_t> Count() override;
  void Visit(const TileFilter& filter, const Visitor& visit, const Report& report) override;

 private:
  struct Walk;

  [[noreturn]] void Fail(const std::string& reason) const;
  void CheckHeader() const;
  std::string ReadSection(const PmSection& section, std::size_t most, const char* what);
  bool VisitDirectory(Walk& walk, const PmSection& section, std::uint64_t endId, int level);
  bool VisitRun(const Walk& walk, const PmEntry& entry);

  InputFile m_file;
  PmHeader m_header;
  hx::Metadata m_metadata;
};

}  // namespace Formats
