#pragma once

#include "RecordImage.h"
#include "RedoMarks.h"
#include "ZrFile64.h"

namespace Zarn::Engine {

/// Writes the records and the index entries of a new container, each in ascending order, in large
/// blocks. Entries that are never put are zero, as the empty container has them.
class ImageWriter {
 public:
  /// Records follow the index.
  ImageWriter(ZrFile64& file, const Format::IndexShape& index)
      : m_file(file), m_index(index), m_recordsStart(index.End()) {}

  /// Where the next record goes.
  std::uint64_t GetPosition() const { return m_recordsStart + m_records.GetSize(); }
  /// The head in `head`, with `payload` behind it.
  bool AppendRecord(const Format::RecordImage& head, const ZrByteArray& payload);
  /// Not more than a chunk of the checksum.
  bool AppendZeros(std::uint64_t size);
  /// `entry`: all bytes of one. Numbers must ascend.
  bool PutEntry(std::uint64_t number, const void* entry);
  /// Writes what was kept back.
  bool Flush() { return FlushRecords() && FlushEntries(); }

  /// Of all chunks from GetChecksumStart on; for after Flush.
  const Format::RedoChecksum& GetChecksum() const { return m_checksum; }
  /// The first chunk that holds records only.
  std::uint64_t GetChecksumStart() const { return Format::RedoChecksum::ChunkEnd(m_index.End()); }

 private:
  bool Append(const unsigned char* bytes, std::uint64_t size);
  bool FlushRecords();
  bool FlushEntries();

  ZrFile64& m_file;
  const Format::IndexShape m_index;
  std::uint64_t m_recordsStart;  // of the records kept back
  ZrByteArray m_records;
  Format::RedoChecksum m_checksum;
  std::uint64_t m_firstEntry = 0;  // of the entries kept back
  ZrByteArray m_entries;
};

}  // namespace Zarn::Engine
