#include <array>

#include "FolderSink.h"
#include "FolderSource.h"
#include "FormatError.h"
#include "InputFile.h"
#include "MbTilesSink.h"
#include "MbTilesSource.h"
#include "PmHeader.h"
#include "PmTilesSink.h"
#include "PmTilesSource.h"
#include "TileSink.h"
#include "TileSource.h"

namespace Formats {

std::unique_ptr<TileSource> OpenSource(const std::filesystem::path& path,
                                       const SourceOptions& options) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    return std::make_unique<FolderSource>(path, options.rows);
  InputFile file(path);
  const std::string start(file.ReadUpTo(0, kPmMagic.size() + kSqliteMagic.size()).text());
  if (start.starts_with(kSqliteMagic)) return std::make_unique<MbTilesSource>(path);
  if (start.starts_with(kPmMagic)) return std::make_unique<PmTilesSource>(path);
  throw FormatError(path, "is neither MBTiles nor PMTiles nor a folder");
}

std::unique_ptr<TileSink> CreateSink(const std::filesystem::path& path,
                                     const SinkOptions& options) {
  const auto extension = path.extension();
  if (extension == ".mbtiles") return std::make_unique<MbTilesSink>(path, options.replace);
  if (extension == ".pmtiles") return std::make_unique<PmTilesSink>(path, options.replace);
  if (extension.empty()) return std::make_unique<FolderSink>(path, options.rows);
  throw FormatError(path,
                    "has an extension that tells no format: .mbtiles, .pmtiles, or none for a "
                    "folder");
}

}  // namespace Formats
