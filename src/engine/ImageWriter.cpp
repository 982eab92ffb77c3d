#include "ImageWriter.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kRecordsAtOnce = 1 << 20;
constexpr std::uint64_t kEntriesAtOnce = 1 << 16;  // bytes

// Adds bytes to a buffer that has room for `reserve`.
bool Add(ZrByteArray& buffer, const void* bytes, std::uint64_t size, std::uint64_t reserve) {
  if (!buffer.Reserve(reserve)) return false;
  buffer.SetPosition(buffer.GetSize());
  return buffer.WriteBytes(bytes, size) != 0;
}

}  // namespace

bool ImageWriter::AppendRecord(const Format::RecordImage& head, const ZrByteArray& payload) {
  const std::uint64_t headSize = head.Head().size;
  const std::uint64_t size = headSize + payload.GetSize();
  if (m_records.GetSize() + size > kRecordsAtOnce && !FlushRecords()) return false;
  if (size > kRecordsAtOnce) {  // not worth a copy
    if (!m_file.WriteParts(m_recordsStart, head.Bytes().GetData(), headSize, payload.GetData(),
                           payload.GetSize()))
      return false;
    m_recordsStart += size;
    return true;
  }
  return Add(m_records, head.Bytes().GetData(), headSize, kRecordsAtOnce) &&
         (payload.IsEmpty() ||
          Add(m_records, payload.GetData(), payload.GetSize(), kRecordsAtOnce));
}

bool ImageWriter::PutEntry(std::uint64_t number, const void* entry) {
  if ((number - m_firstEntry + 1) * m_entrySize > kEntriesAtOnce && !FlushEntries()) return false;
  if (m_entries.IsEmpty()) m_firstEntry = number;
  // Entries left out between two are zero, as they are in the file.
  return m_entries.Resize((number - m_firstEntry) * m_entrySize) &&
         Add(m_entries, entry, m_entrySize, kEntriesAtOnce);
}

bool ImageWriter::FlushRecords() {
  if (m_records.IsEmpty()) return true;
  if (!m_file.WriteAt(m_recordsStart, m_records.GetData(), m_records.GetSize())) return false;
  m_file.BeginSync(m_recordsStart, m_records.GetSize());
  m_recordsStart += m_records.GetSize();
  return m_records.ResizeForOverwrite(0);
}

bool ImageWriter::FlushEntries() {
  if (m_entries.IsEmpty()) return true;
  return m_file.WriteAt(m_entriesStart + m_firstEntry * m_entrySize, m_entries.GetData(),
                        m_entries.GetSize()) &&
         m_entries.ResizeForOverwrite(0);
}

}  // namespace Zarn::Engine
