#pragma once

#include <memory>
#include <span>
#include <vector>

#include "FileMap.h"
#include "IndexShape.h"
#include "RecordHead.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Where a record lies.
struct RecordPlace {
  std::uint64_t position = 0;
  std::uint64_t length = 0;  ///< a hint; 0: none
};

/// Reads many records with few reads: those that lie one behind the other in one, and what lies
/// between them with them. It keeps the bytes until the next read.
///
/// Nothing of the file is believed: what cannot be read here, for whatever reason, is left to the
/// caller to be read by itself.
class RecordWindow {
 public:
  enum Content { kHeads, kWhole };
  struct Record {
    const unsigned char* bytes = nullptr;  ///< from its head on; null: not read
    Format::RecordHead head;
  };
  /// Of which file.
  struct Source {
    const ZrFileStream& file;
    FileMap* map;  ///< to read from; null: none
    const Format::RecordShape& shape;
  };

  /// kHeads: payloads are read only where that costs less than to pass over them.
  explicit RecordWindow(Content content) : m_content(content) {}

  /// Reads the first of these records, as many as there is room for, and at least one; returns how
  /// many. Throws std::bad_alloc.
  std::size_t Read(const Source& source, std::span<const RecordPlace> places);
  const Record& At(std::size_t number) const { return m_records[number]; }
  /// About how many records fit.
  std::size_t GetUsualCount() const { return kSize / (m_content == kWhole ? m_usual : kHead) + 1; }

 private:
  // Larger than a call is worth, and small enough to stay in the processor's cache.
  static constexpr std::uint64_t kSize = 512 * 1024;
  static constexpr std::uint64_t kHead = 256;  // holds most heads

  /// Records to be read at once.
  struct Run {
    std::size_t count;
    std::uint64_t size;  // 0: one that is too large
  };

  Run FindRun(std::span<const RecordPlace> places) const;
  std::uint64_t GetReach() const;
  std::uint64_t Guess(const RecordPlace& place) const;
  void ReadRun(const Source& source, std::span<const RecordPlace> places, std::uint64_t size);
  std::uint64_t NeededFor(const Source& source, const unsigned char* bytes, std::uint64_t available,
                          Format::RecordHead& head) const;
  bool IsInFile(const Source& source, std::uint64_t position, std::uint64_t length);
  static std::uint64_t ReadUpTo(const Source& source, std::uint64_t position, void* target,
                                std::uint64_t size);

  const Content m_content;
  std::unique_ptr<unsigned char[]> m_bytes;
  std::uint64_t m_used = 0;
  std::uint64_t m_fileLength = 0;  // as far as it was asked for
  std::vector<Record> m_records;
  std::uint64_t m_usual = 8 * 1024;  // length of the records that were read lately
};

}  // namespace Zarn::Io
