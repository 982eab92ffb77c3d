#pragma once

#include "IndexValue.h"

namespace Zarn::Format {

/// Of what kind an index is and where it lies: its header at `begin`, then `count` entries.
struct IndexShape {
  bool operator==(const IndexShape&) const = default;

  std::uint32_t kind = kGridFile;
  std::uint64_t begin = 0;
  std::uint64_t count = 0;

  static constexpr IndexShape OfGrid(std::uint64_t begin, std::uint32_t rows, std::uint32_t cols) {
    return {kGridFile, begin, GridEntryCount(rows, cols)};
  }
  static constexpr IndexShape OfNames(std::uint64_t begin, std::uint64_t capacity) {
    return {kNamingFile, begin, capacity};
  }

  constexpr bool IsGrid() const { return kind == kGridFile; }
  constexpr std::uint64_t EntrySize() const { return IsGrid() ? kGridEntrySize : kNamingSlotSize; }
  constexpr std::uint64_t HeaderSize() const {
    return IsGrid() ? kGridHeaderSize : kNamingHeaderSize;
  }
  /// Where an entry lies in the file.
  constexpr std::uint64_t EntryAt(std::uint64_t number) const {
    return begin + HeaderSize() + number * EntrySize();
  }
  /// First byte behind the index.
  constexpr std::uint64_t End() const { return EntryAt(count); }
  /// The entries of which a file of this length holds at least a byte.
  constexpr std::uint64_t CountIn(std::uint64_t fileLength) const {
    const std::uint64_t first = EntryAt(0);
    if (fileLength <= first) return 0;
    const std::uint64_t entries = (fileLength - first + EntrySize() - 1) / EntrySize();
    return entries < count ? entries : count;
  }
  /// Whether a record may lie there: behind the file's header, and outside the index.
  constexpr bool LeavesRoom(std::uint64_t position, std::uint64_t length) const {
    if (position < kHeaderSize) return false;
    return position >= End() || (position < begin && length <= begin - position);
  }
};

/// How the records of a file are laid out.
struct RecordShape {
  std::uint32_t kind = kGridFile;
  std::uint32_t formatVersion = kCurrentVersion;  ///< decides the form of names
  bool swap = false;                              ///< the file is in the other byte order

  constexpr bool IsNaming() const { return kind == kNamingFile; }
};

}  // namespace Zarn::Format
