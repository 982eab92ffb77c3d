#include "Neighbours.h"

#include <algorithm>

#include "IndexValue.h"
#include "RecordHead.h"

namespace Zarn::Io {
namespace {

constexpr std::uint64_t kPiece = 64 * 1024;

// Every record states a length in this range.
bool IsPlausibleLength(std::uint64_t length) {
  return length > Format::kGridRecordHead && length <= UINT32_MAX;
}

// Whether the bytes begin with what every writer puts in front of a record.
bool LooksLikeRecord(const unsigned char* bytes, std::uint64_t available, bool swap) {
  using Format::HeadParse;
  Format::RecordHead head;
  const auto parse = Format::ParseRecordHead(bytes, available, Format::kGridFile, swap, head);
  if (parse.outcome == HeadParse::kDamaged || available < Format::kGridRecordHead ||
      head.versionCount == 0 ||
      !Format::HoldsRecord(Format::StatusOf(head.Table(bytes, swap).Locator(0))))
    return false;
  // A longer table is not looked at.
  return parse.outcome == HeadParse::kNeedsMore ||
         (head.filledLength != 0 && head.filledLength <= head.capacity);
}

}  // namespace

bool RunsOverRecord(const ZrFileStream& file, bool swap, std::uint64_t begin, std::uint64_t end) {
  ZrByteArray piece;
  while (begin < end) {
    if (end - begin > kPiece) begin = file.NextData(begin);
    if (begin >= end) break;
    const std::uint64_t starts = std::min(kPiece, end - begin);
    const std::uint64_t wanted = starts + Format::kGridRecordHead;
    if (!piece.ResizeForOverwrite(wanted)) return true;
    const std::uint64_t got = file.ReadUpTo(begin, piece.GetData(), wanted);
    std::uint64_t length;
    if (got < wanted && (!file.GetLength(length) || length > begin + got)) return true;
    for (std::uint64_t i = 0; i < starts && i + sizeof length <= got; ++i) {
      length = LoadScalar<std::uint64_t>(piece.GetData() + i, swap);
      if (IsPlausibleLength(length) && LooksLikeRecord(piece.GetData() + i, got - i, swap))
        return true;
    }
    begin += starts;
  }
  return false;
}

}  // namespace Zarn::Io
