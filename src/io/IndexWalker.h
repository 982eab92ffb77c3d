#pragma once

#include <vector>

#include "IndexShape.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// How to walk over an index.
struct WalkOptions {
  std::uint64_t first = 0;      ///< the entry to begin with
  std::uint64_t blockSize = 0;  ///< entries in a block; 0: as many as lie in 64 KiB
  bool readsLastBlock = false;  ///< reads the last block even if it lies in a hole
};

/// Visits the entries of an index in order, in blocks. It passes over entries in holes of the file,
/// which are zero, so a large and mostly empty index costs little; it reads a hole within a block.
/// The walk ends where the file does.
///
///   while (walker.Next())
///     for (std::size_t i = 0; i < walker.Size(); ++i)
///       ...walker.First() + i, walker.Value(i)...
///   return !walker.HasFailed();
class IndexWalker {
 public:
  /// Walks over the entries before `end`.
  IndexWalker(const ZrFileStream& file, const Format::IndexShape& index, bool swap,
              std::uint64_t end, const WalkOptions& options = {});

  /// Goes on to the next block. False at the end, and for a block that cannot be read; the next
  /// call goes on behind that block. Throws std::bad_alloc.
  bool Next();
  /// The last call of Next has found a block that cannot be read.
  bool HasFailed() const { return m_failed; }

  /// The number of the first entry of the block, or of the block that cannot be read. What lies
  /// between the block before and this one is a hole; at the end, this is the last entry's
  /// successor.
  std::uint64_t First() const { return m_first; }
  /// Entries in the block.
  std::size_t Size() const { return m_size; }
  /// The first entry behind the block.
  std::uint64_t Position() const { return m_next; }
  /// The index value of an entry of the block.
  std::uint64_t Value(std::size_t entry) const { return Word(entry, 0); }
  /// The hash code of a slot of the block.
  std::uint64_t Code(std::size_t slot) const { return Word(slot, Format::kWidth8); }

 private:
  std::uint64_t Word(std::size_t entry, std::size_t offset) const {
    return LoadScalar<std::uint64_t>(m_bytes.data() + entry * m_entrySize + offset, m_swap);
  }
  void SkipHole();
  bool ReadBlock();

  const ZrFileStream& m_file;
  const Format::IndexShape m_index;
  const std::size_t m_entrySize;
  const bool m_swap;
  const WalkOptions m_options;
  const std::uint64_t m_blockSize;
  std::uint64_t m_end;
  std::uint64_t m_next;
  std::uint64_t m_first;
  std::size_t m_size = 0;
  bool m_failed = false;
  std::vector<unsigned char> m_bytes;
};

}  // namespace Zarn::Io
