#pragma once

#include <vector>

#include "IndexShape.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Visits the entries of an index in order, in blocks. Entries in holes of the file and beyond its
/// end are zero and are passed over; so a large and mostly empty index costs little.
class IndexWalker {
 public:
  /// `count`: how many entries to visit, at most the index's. Others may store new tiles in a grid
  /// meanwhile if `isShared`.
  IndexWalker(const ZrFileStream& file, const Format::IndexShape& index, bool swap,
              std::uint64_t count, bool isShared = false)
      : m_file(file), m_index(index), m_swap(swap), m_isShared(isShared), m_count(count) {}

  /// Goes on to the next block. False at the end, and where the file cannot be read: then the next
  /// call goes on behind that block. Throws std::bad_alloc.
  bool Next();
  /// Why Next has answered false.
  bool HasFailed() const { return m_failed; }

  /// The number of the block's first entry; of the first one that could not be read.
  std::uint64_t First() const { return m_first; }
  /// Entries in the block.
  std::size_t Size() const { return m_size; }
  /// The index value of an entry of the block.
  std::uint64_t Value(std::size_t entry) const { return Word(entry, 0); }
  /// The hash code of a slot of the block.
  std::uint64_t Code(std::size_t slot) const { return Word(slot, Format::kWidth8); }
  /// The first entry behind the block.
  std::uint64_t Position() const { return m_next; }

 private:
  std::uint64_t Word(std::size_t entry, std::size_t offset) const {
    return LoadScalar<std::uint64_t>(&m_bytes[entry * m_index.EntrySize() + offset], m_swap);
  }
  bool ReadBlock(std::uint64_t position);

  const ZrFileStream& m_file;
  const Format::IndexShape m_index;
  const bool m_swap;
  const bool m_isShared;
  const std::uint64_t m_count;
  std::uint64_t m_next = 0;
  std::uint64_t m_first = 0;
  std::size_t m_size = 0;
  bool m_failed = false;
  std::vector<unsigned char> m_bytes;
};

}  // namespace Zarn::Io
