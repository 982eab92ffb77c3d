#include "RecordReader.h"

#include <algorithm>

namespace Zarn::Io {

using Format::HeadParse;

namespace {

// The first read without a hint; most heads, with a name and some versions, are no longer.
constexpr std::uint64_t kUsualHead = 256;

// Two suffice unless another process writes meanwhile.
constexpr int kMostReads = 4;

// The payload goes to the caller, so it begins where any type may lie.
constexpr std::uint64_t kAlignment = 16;

std::uint64_t PaddingBefore(std::uint64_t headSize) {
  return (kAlignment - headSize % kAlignment) % kAlignment;
}

}  // namespace

// A second read shows the head again. Where no lock keeps a writer out, the head may be another by
// then; the one that was read together with the payload counts.
bool RecordReader::Read(std::uint64_t position, RecordHint hint, ZrByteArray& buffer) {
  std::uint64_t padding = PaddingBefore(hint.headSize);
  std::uint64_t wanted = hint.payloadSize == 0 ? kUsualHead : hint.headSize + hint.payloadSize;
  std::uint64_t inFile = 0;  // so much of the record lies in the file for certain
  for (int reads = 0; reads < kMostReads; ++reads) {
    if (!buffer.ResizeForOverwrite(padding + wanted)) return false;
    const std::uint64_t got = ReadUpTo(position, buffer.GetData() + padding, wanted);
    inFile = std::max(inFile, got);
    const HeadParse parse = Parse(buffer.GetData() + padding, got);
    if (parse.outcome == HeadParse::kComplete && m_head.capacity <= got - m_head.size) {
      if (m_head.length > inFile && !EndsInFile(position)) return false;
      buffer.DropFront(padding + m_head.size);
      return buffer.Resize(m_head.capacity);
    }
    if (!CompleteHead(position, got, parse, buffer)) return false;
    inFile = m_head.length;
    padding = PaddingBefore(m_head.size);
    wanted = m_head.size + m_head.capacity;
  }
  return false;
}

void RecordReader::HandOver(ZrByteArray& buffer, ZrByteArray& data) const {
  constexpr std::uint64_t kAlwaysKept = 64 * 1024;
  const std::uint64_t memory = m_head.size + buffer.GetReserve();  // the head lies in front
  if (memory > std::max<std::uint64_t>(kAlwaysKept, 2 * buffer.GetSize())) {
    ZrByteArray copy;
    if (copy.Assign(buffer.GetData(), buffer.GetSize())) buffer.SwapContents(copy);
  }
  data.SwapContents(buffer);
}

// Reads the file where the map gives nothing.
std::uint64_t RecordReader::ReadUpTo(std::uint64_t position, void* target, std::uint64_t size) {
  const std::uint64_t got = m_map != nullptr ? m_map->ReadUpTo(position, target, size) : 0;
  return got != 0 ? got : m_file.ReadUpTo(position, target, size);
}

bool RecordReader::ReadHead(std::uint64_t position, std::uint64_t lengthHint, ZrByteArray& buffer) {
  const std::uint64_t wanted = lengthHint == 0 ? kUsualHead : std::min(kUsualHead, lengthHint);
  if (!buffer.ResizeForOverwrite(wanted)) return false;
  const std::uint64_t got = ReadUpTo(position, buffer.GetData(), wanted);
  const HeadParse parse = Parse(buffer.GetData(), got);
  // A record of the length of the hint lay whole in the file when the length was read or written.
  const bool isInFile = parse.outcome == HeadParse::kComplete && m_head.length == lengthHint;
  return (isInFile || CompleteHead(position, got, parse, buffer)) && buffer.Resize(m_head.size);
}

NameRead RecordReader::ReadName(std::uint64_t position, ZrByteArray& buffer) {
  if (!buffer.ResizeForOverwrite(kUsualHead)) return NameRead::kFailed;
  const std::uint64_t got = m_file.ReadUpTo(position, buffer.GetData(), kUsualHead);
  if (got < Format::kNameOffset) return MissingName(position + Format::kNameOffset);
  const auto length = LoadScalar<std::uint64_t>(buffer.GetData(), m_shape.swap);
  const auto nameLength =
      LoadScalar<std::uint32_t>(buffer.GetData() + Format::kNameLengthOffset, m_shape.swap);
  if (length < Format::kMinNamingRecord || nameLength > length - Format::kMinNamingRecord)
    return NameRead::kNone;
  const std::uint64_t end = Format::kNameOffset + nameLength;
  if (end > got) {
    if (MissingName(position + end) == NameRead::kNone) return NameRead::kNone;
    if (!buffer.ResizeForOverwrite(end) || !m_file.ReadAt(position, buffer.GetData(), end))
      return NameRead::kFailed;
  }
  buffer.DropFront(Format::kNameOffset);
  return buffer.Resize(nameLength) ? NameRead::kRead : NameRead::kFailed;
}

// The result for a name which ends at `end` and was not read: there is none if the file ends
// before.
NameRead RecordReader::MissingName(std::uint64_t end) const {
  std::uint64_t length;
  return m_file.GetLength(length) && length < end ? NameRead::kNone : NameRead::kFailed;
}

// Reads again, from the start, until the head is whole. Checks that the record lies in the file
// before it allocates memory for what the record states, and again after each read.
bool RecordReader::CompleteHead(std::uint64_t position, std::uint64_t available, HeadParse parse,
                                ZrByteArray& buffer) {
  if (available < Format::kRecordLengthSize) return false;
  for (;;) {
    if (parse.outcome == HeadParse::kDamaged || !EndsInFile(position)) return false;
    if (parse.outcome == HeadParse::kComplete) return true;
    if (!buffer.ResizeForOverwrite(parse.needed) ||
        !m_file.ReadAt(position, buffer.GetData(), parse.needed))
      return false;
    parse = Parse(buffer.GetData(), parse.needed);
  }
}

bool RecordReader::EndsInFile(std::uint64_t position) const {
  if (m_map != nullptr && m_map->Has(position, m_head.length)) return true;
  std::uint64_t length;
  return m_file.GetLength(length) && position <= length && m_head.length <= length - position;
}

HeadParse RecordReader::Parse(const unsigned char* bytes, std::uint64_t available) {
  m_bytes = bytes;
  return Format::ParseRecordHead(bytes, available, m_shape, m_head);
}

}  // namespace Zarn::Io
