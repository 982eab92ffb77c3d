#pragma once

#include "IndexShape.h"
#include "RecordHead.h"
#include "ZrByteArray.h"

namespace Zarn::Format {

/// A record buffer: a record from its first byte on, and the changes that stores and removals make
/// to it. It holds at least the head; a change that moves the payload area moves as much of the
/// record as the buffer holds.
///
/// Changes that need memory answer false, and change nothing, if memory is short.
class RecordImage {
 public:
  RecordImage(ZrByteArray& bytes, const RecordShape& shape) : m_bytes(bytes), m_shape(shape) {}

  /// Parses the buffer. False if it holds no whole head.
  bool Parse();

  const RecordHead& Head() const { return m_head; }
  /// Of a naming file's record.
  StoredName Name() const {
    return {m_head.charset,
            {reinterpret_cast<const char*>(m_bytes.GetData()) + kNameOffset, m_head.nameLength}};
  }
  VersionTable Versions() const { return m_head.Table(m_bytes.GetData(), m_shape.swap); }
  ZrByteArray& Bytes() { return m_bytes; }
  const ZrByteArray& Bytes() const { return m_bytes; }
  /// Makes the buffer the head, in one version, of a new record. Only a naming file's has the name.
  bool Begin(const NewRecord& record, const StoredName& name);

  /// Where in the record the locator of an entry is.
  std::uint64_t LocatorOffset(std::uint32_t entry) const {
    return m_head.tableOffset + entry * std::uint64_t{kVersionEntrySize} + kWidth8;
  }
  void SetLocator(std::uint32_t entry, std::uint64_t locator);
  /// Capacity and filled length, and with them the record length: head plus capacity.
  void SetPayload(std::uint64_t capacity, std::uint64_t filledLength);

  /// Adds an entry at the front. The table takes the 16 bytes behind it, so the head grows into the
  /// payload area, and no payload moves. The caller then sets capacity and filled length.
  bool PushVersion(std::uint64_t stamp, std::uint64_t locator);
  /// Inserts an entry; all that follows moves back, and the record becomes 16 bytes longer.
  bool InsertVersion(std::uint32_t index, std::uint64_t stamp, std::uint64_t locator);
  /// Takes entries out; all that follows moves forward. The record keeps its length, so its last
  /// bytes, 16 for each, are slack.
  void RemoveVersions(std::uint32_t index, std::uint32_t count);
  /// Replaces the table by that of another record, from its entry `first` on; all that follows
  /// moves, and the record length changes by as much.
  bool ReplaceVersions(const VersionTable& other, std::uint32_t first);

 private:
  void SetLength(std::uint64_t length);
  void SetCount(std::uint32_t count);
  void SetEntry(std::uint32_t index, std::uint64_t stamp, std::uint64_t locator);
  /// Moves the bytes from `from` to the end of the buffer by `distance`, which resizes it.
  bool MoveTail(std::uint64_t from, std::int64_t distance);
  unsigned char* Entry(std::uint32_t index) {
    return m_bytes.GetData() + m_head.tableOffset + std::uint64_t{index} * kVersionEntrySize;
  }

  ZrByteArray& m_bytes;
  RecordShape m_shape;
  RecordHead m_head;
};

}  // namespace Zarn::Format
