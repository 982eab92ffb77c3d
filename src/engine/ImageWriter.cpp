#include "ImageWriter.h"

#include <algorithm>

namespace Zarn::Engine {
namespace {

// Blocks end at multiples of this, and so do chunks. It stays in a processor's own cache from the
// copying of the records to the write: with 1 MiB compaction took 40 % more of the processor.
constexpr std::uint64_t kBlock = 1 << 18;
constexpr std::uint64_t kSynced = 1 << 21;  // the disk gets so much at once
static_assert(kBlock % Format::RedoChecksum::kChunk == 0 && kSynced % kBlock == 0);
constexpr std::uint64_t kEntriesAtOnce = 1 << 16;  // bytes

// Adds bytes to a buffer that has room for `reserve`.
bool Add(ZrByteArray& buffer, const void* bytes, std::uint64_t size, std::uint64_t reserve) {
  if (!buffer.Reserve(reserve)) return false;
  buffer.SetPosition(buffer.GetSize());
  return buffer.WriteBytes(bytes, size) != 0;
}

}  // namespace

bool ImageWriter::AppendRecord(const Format::RecordImage& head, const ZrByteArray& payload) {
  return Append(head.Bytes().GetData(), head.Head().size) &&
         Append(payload.GetData(), payload.GetSize());
}

bool ImageWriter::AppendZeros(std::uint64_t size) {
  static constexpr unsigned char kZeros[Format::RedoChecksum::kChunk] = {};
  return Append(kZeros, size);
}

bool ImageWriter::Append(const unsigned char* bytes, std::uint64_t size) {
  while (size > 0) {
    const std::uint64_t piece = std::min(size, kBlock - GetPosition() % kBlock);
    if (!Add(m_records, bytes, piece, kBlock)) return false;
    if (GetPosition() % kBlock == 0 && !FlushRecords()) return false;
    bytes += piece;
    size -= piece;
  }
  return true;
}

bool ImageWriter::FlushRecords() {
  const unsigned char* bytes = m_records.GetData();
  const std::uint64_t size = m_records.GetSize();
  if (!m_file.WriteAt(m_recordsStart, bytes, size)) return false;
  const std::uint64_t end = m_recordsStart + size;
  if (end % kSynced == 0) m_file.BeginSync(end - kSynced, kSynced);
  const std::uint64_t skipped =
      std::min(size, std::max(m_recordsStart, GetChecksumStart()) - m_recordsStart);
  if (skipped < size) m_checksum.Add(m_recordsStart + skipped, bytes + skipped, size - skipped);
  m_recordsStart += size;
  return m_records.ResizeForOverwrite(0);
}

bool ImageWriter::PutEntry(std::uint64_t number, const void* entry) {
  const std::uint64_t size = m_index.EntrySize();
  if ((number - m_firstEntry + 1) * size > kEntriesAtOnce && !FlushEntries()) return false;
  if (m_entries.IsEmpty()) m_firstEntry = number;
  // Entries left out between two are zero, as they are in the file.
  return m_entries.Resize((number - m_firstEntry) * size) &&
         Add(m_entries, entry, size, kEntriesAtOnce);
}

bool ImageWriter::FlushEntries() {
  if (m_entries.IsEmpty()) return true;
  return m_file.WriteAt(m_index.EntryAt(m_firstEntry), m_entries.GetData(), m_entries.GetSize()) &&
         m_entries.ResizeForOverwrite(0);
}

}  // namespace Zarn::Engine
