#pragma once

#include "RecordImage.h"
#include "RedoMarks.h"
#include "ZrFile64.h"

namespace Zarn::Engine {

/// Writes the records and the index entries of a new container, each in ascending order, in large
/// blocks. Entries that are never put are zero, as the empty container has them.
class ImageWriter {
 public:
  /// Entries of `entrySize` bytes from `entriesStart` on; records from `dataStart` on.
  ImageWriter(ZrFile64& file, std::uint64_t entriesStart, std::uint64_t entrySize,
              std::uint64_t dataStart)
      : m_file(file),
        m_entriesStart(entriesStart),
        m_entrySize(entrySize),
        m_dataStart(dataStart),
        m_recordsStart(dataStart) {}

  /// Where the next record goes.
  std::uint64_t GetPosition() const { return m_recordsStart + m_records.GetSize(); }
  /// The head in `head`, with `payload` behind it.
  bool AppendRecord(const Format::RecordImage& head, const ZrByteArray& payload);
  /// Not more than a chunk of the checksum.
  bool AppendZeros(std::uint64_t size);
  /// `entry`: entrySize bytes. Numbers must ascend.
  bool PutEntry(std::uint64_t number, const void* entry);
  /// Writes what was kept back.
  bool Flush() { return FlushRecords() && FlushEntries(); }

  /// Of all chunks from GetChecksumStart on; for after Flush.
  const Format::RedoChecksum& GetChecksum() const { return m_checksum; }
  /// The first chunk that holds records only.
  std::uint64_t GetChecksumStart() const { return Format::RedoChecksum::ChunkEnd(m_dataStart); }

 private:
  bool Append(const unsigned char* bytes, std::uint64_t size);
  bool FlushRecords();
  bool FlushEntries();

  ZrFile64& m_file;
  const std::uint64_t m_entriesStart;
  const std::uint64_t m_entrySize;
  const std::uint64_t m_dataStart;
  std::uint64_t m_recordsStart;  // of the records kept back
  ZrByteArray m_records;
  Format::RedoChecksum m_checksum;
  std::uint64_t m_firstEntry = 0;  // of the entries kept back
  ZrByteArray m_entries;
};

}  // namespace Zarn::Engine
