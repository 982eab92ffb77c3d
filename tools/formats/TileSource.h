#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <hx/bytes.h>
#include <hx/key.h>
#include <hx/metadata.h>
#include "TileFilter.h"

namespace Formats {

/// In which direction the names of a folder count rows. MBTiles and PMTiles say that themselves.
enum class Rows {
  kDown,  ///< from the north, as hx::Tile does
  kUp,    ///< from the south
};

/// What was passed over, in a sentence.
using Report = std::function<void(const std::string&)>;

/// A set of tiles in another format, open for reading. Its calls throw FormatError if they cannot
/// go on. One thread at a time uses it.
class TileSource {
 public:
  /// False ends the walk. The bytes are never empty, and valid during the call.
  using Visitor = std::function<bool(const hx::Tile&, hx::Bytes)>;

  virtual ~TileSource() = default;
  /// By the keys of MBTiles.
  virtual const hx::Metadata& GetMetadata() const = 0;
  /// How many tiles there are, or are said to be, where that takes no walk over them.
  virtual std::optional<std::uint64_t> Count() = 0;
  /// Walks over the tiles, in the order in which they are read fastest. What is no tile, or none
  /// that can be used, is passed over and reported.
  virtual void Visit(const TileFilter& filter, const Visitor& visit, const Report& report = {}) = 0;

 protected:
  static void Tell(const Report& report, const std::string& text) {
    if (report) report(text);
  }
};

struct SourceOptions {
  Rows rows = Rows::kDown;
};
/// Opens what is at `path`: a folder, or a file of a format that its first bytes tell.
std::unique_ptr<TileSource> OpenSource(const std::filesystem::path& path,
                                       const SourceOptions& options = {});

}  // namespace Formats
