#include "RecordHead.h"

#include <cstring>

#include "ZrByteOrder.h"

namespace Zarn::Format {
namespace {

constexpr HeadParse kDamaged = {HeadParse::kDamaged};

HeadParse NeedsMore(std::uint64_t needed) { return {HeadParse::kNeedsMore, needed}; }

}  // namespace

bool RecordHead::MayLieAt(std::uint64_t position, const IndexShape& index) const {
  return versionCount > 0 && index.LeavesRoom(position, length);
}

HeadParse ParseRecordHead(const unsigned char* bytes, std::uint64_t available,
                          const RecordShape& shape, RecordHead& head) {
  const bool named = shape.IsNaming();
  const bool swap = shape.swap;
  if (available < kRecordLengthSize) return NeedsMore(kRecordLengthSize);
  head.length = LoadScalar<std::uint64_t>(bytes, swap);
  if (head.length < (named ? kMinNamingRecord : kMinGridRecord)) return kDamaged;

  std::uint64_t countOffset = kRecordLengthSize;
  if (named) {
    if (available < kNameOffset) return NeedsMore(kNameOffset);
    head.charset = LoadScalar<std::uint32_t>(bytes + kCharsetOffset, swap);
    head.nameLength = LoadScalar<std::uint32_t>(bytes + kNameLengthOffset, swap);
    if (head.nameLength > head.length - kMinNamingRecord) return kDamaged;
    countOffset = kNameOffset + head.nameLength;
  }

  head.tableOffset = countOffset + kVersionCountSize;
  if (available < head.tableOffset) return NeedsMore(head.tableOffset);
  head.versionCount = LoadScalar<std::uint32_t>(bytes + countOffset, swap);
  const std::uint64_t tableSize = std::uint64_t{head.versionCount} * kVersionEntrySize;
  if (tableSize > head.length - head.tableOffset - kPayloadSizesSize) return kDamaged;

  head.size = head.tableOffset + tableSize + kPayloadSizesSize;
  if (available < head.size) return NeedsMore(head.size);
  const unsigned char* sizes = bytes + head.tableOffset + tableSize;
  head.capacity = LoadScalar<std::uint64_t>(sizes, swap);
  head.filledLength = LoadScalar<std::uint64_t>(sizes + kWidth8, swap);
  if (head.capacity > head.length - head.size) return kDamaged;
  return {HeadParse::kComplete};
}

void EncodeRecordHead(unsigned char* target, const RecordShape& shape, const StoredName& name,
                      const NewRecord& record) {
  const bool swap = shape.swap;
  const std::uint64_t headSize = RecordHeadSize(shape, name.bytes.size());
  StoreScalar<std::uint64_t>(target, headSize + record.capacity, swap);
  if (shape.IsNaming()) {
    StoreScalar(target + kCharsetOffset, name.charset, swap);
    StoreScalar(target + kNameLengthOffset, static_cast<std::uint32_t>(name.bytes.size()), swap);
    std::memcpy(target + kNameOffset, name.bytes.data(), name.bytes.size());
  }
  unsigned char* const sizes = target + headSize - kPayloadSizesSize;
  unsigned char* const entry = sizes - kVersionEntrySize;
  StoreScalar<std::uint32_t>(entry - kVersionCountSize, 1, swap);
  StoreScalar(entry, record.stamp, swap);
  // Position 0 stands for this record, which has no place before it is appended.
  StoreScalar(entry + kWidth8, PackIndexValue(record.status, 0), swap);
  StoreScalar(sizes, record.capacity, swap);
  StoreScalar(sizes + kWidth8, record.filledLength, swap);
}

}  // namespace Zarn::Format
