#pragma once

namespace Zarn {

/// What a file consists of, in numbers. While others store, each is right for some moment of the
/// count, and not all for the same one.
struct ZrStatistics {
  unsigned long long tiles = 0;         ///< cells or names that hold one
  unsigned long long entries = 0;       ///< cells of a grid, or slots in use of a naming file
  unsigned long long indexBytes = 0;    ///< of the file's header and the index
  unsigned long long fileBytes = 0;     ///< the length of the file
  unsigned long long versions = 0;      ///< of all tiles, the newest included
  unsigned long long payloadBytes = 0;  ///< of the payload areas of all versions
  unsigned long long liveBytes = 0;     ///< of the records of all versions
  unsigned long long deadBytes = 0;     ///< the rest, which a compaction would give back
  unsigned long long damaged = 0;       ///< tiles that cannot be read; `tiles` does not count them

  /// Of several files together.
  ZrStatistics& operator+=(const ZrStatistics& other) {
    tiles += other.tiles;
    entries += other.entries;
    indexBytes += other.indexBytes;
    fileBytes += other.fileBytes;
    versions += other.versions;
    payloadBytes += other.payloadBytes;
    liveBytes += other.liveBytes;
    deadBytes += other.deadBytes;
    damaged += other.damaged;
    return *this;
  }
};

}  // namespace Zarn
