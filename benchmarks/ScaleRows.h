#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "Fresh.h"
#include "PelmUnicodeString.h"
#include "Rows.h"

namespace Bench {

/// How much is measured of large files.
struct LargeScale {
  unsigned int cells = 1 << 24, filled = 1 << 21;  // of a large grid
  unsigned int sparseCells = 1 << 28, sparseFilled = 100000;
  unsigned int gets = 2000000, names = 4000000, grown = 2000000;
  unsigned int turns = 7, longTurns = 3;
  unsigned int coldTiles = 65536, coldRows = 16;
  unsigned int pieces = 160;
  unsigned int rewrites = 4000;
  unsigned int compacted = 67000;  // tiles, each stored twice
  unsigned int mostCells = 100000000, mostNames = 10000000;
};

inline constexpr unsigned int kBatchTiles = 2048;
inline const std::vector<const char*> kThreeModes = {kEngine, kLocked, kMapped};
inline const std::vector<const char*> kModesAndLmdb = {kEngine, kLocked, kMapped, kMappedLocked,
                                                       kLmdb};

inline PelmUnicodeString TilesIn(const std::filesystem::path& folder) {
  return PelmUnicodeString::FromUtf8((folder / "tiles.cf").string());
}

// Each adds its rows and goals to the report, and works in a folder of its own.
void MeasureFirstPuts(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureBeside(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureMemory(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureSparseBatches(Report& report, const LargeScale& size,
                          const std::filesystem::path& folder);
void MeasureNames(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureGrowth(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureFreshOpening(Report& report, const LargeScale& size,
                         const std::filesystem::path& folder);
void MeasureCold(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasurePieces(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureLength(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureCompaction(Report& report, const LargeScale& size, const std::filesystem::path& folder);
void MeasureOlderVersions(Report& report, const LargeScale& size,
                          const std::filesystem::path& folder);

/// How the cost of a file's first operations depends on its size: FOLDER/sweep.svg, of the medians
/// of some processes.
void DrawSweep(const LargeScale& size, const std::filesystem::path& folder,
               const std::filesystem::path& out);

}  // namespace Bench
