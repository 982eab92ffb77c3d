#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "TileSource.h"

namespace Formats {

/// A folder of files "z/x/y.ext", and "metadata.json" beside the zooms. All tiles have the
/// extension of the first one; it is their format, unless the metadata say another one. Files and
/// folders of other names are reported.
class FolderSource : public TileSource {
 public:
  FolderSource(const std::filesystem::path& path, Rows rows);

  const hx::Metadata& GetMetadata() const override { return m_metadata; }
  std::optional<std::uint64_t> Count() override { return std::nullopt; }
  void Visit(const TileFilter& filter, const Visitor& visit, const Report& report) override;

 private:
  struct Numbered;
  using Give = std::function<bool(const hx::Tile&, const std::filesystem::path&)>;

  void ReadMetadata();
  bool VisitFiles(const TileFilter& filter, const Give& give, const Report& report) const;
  std::vector<Numbered> List(const std::filesystem::path& folder, bool isFolders,
                             const Report& report) const;

  std::filesystem::path m_path;
  Rows m_rows;
  std::string m_extension;  // with the dot, or empty
  hx::Metadata m_metadata;
};

}  // namespace Formats
