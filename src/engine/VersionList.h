#pragma once

#include <algorithm>
#include <vector>

#include "RecordHead.h"
#include "TileEntry.h"
#include "ZrResult.h"
#include "ZrVersion.h"

namespace Zarn::Engine {

class OpenFile;

/// The versions of one tile, read from their heads.
struct VersionList {
  /// Of a tile whose entry was just read: kOk; kNotFound; kReadFailure if the current record cannot
  /// be read. Nothing of it counts before the view is checked. Throws std::bad_alloc.
  unsigned int Read(OpenFile& file, const TileEntry& entry);
  /// Gives the caller the list, if there is an answer.
  unsigned int HandOver(unsigned int result, std::vector<ZrVersion>& target) {
    if (result == ZrResult::kNotFound) versions.clear();
    if (result == ZrResult::kOk || result == ZrResult::kNotFound) target.swap(versions);
    return result;
  }

  std::vector<ZrVersion> versions;  ///< the newest first
  std::uint64_t recordBytes = 0;    ///< of all records that could be read and are alive

 private:
  void Add(std::uint64_t stamp, std::uint8_t status, const Format::RecordHead& head);
};

}  // namespace Zarn::Engine
