#include "RecordReader.h"

#include <algorithm>

namespace Zarn::Io {

using Format::HeadParse;

bool RecordReader::Read(std::uint64_t position, RecordGuess guess, ZrByteArray& payload) {
  guess.headSize = std::min<std::uint64_t>(guess.headSize, sizeof m_small);
  m_bytes = m_small;
  if (!payload.ResizeForOverwrite(guess.payloadSize)) return false;
  const std::uint64_t got =
      m_file.ReadParts(position, m_bytes, guess.headSize, payload.GetData(), guess.payloadSize);
  const std::uint64_t gotHead = std::min(got, guess.headSize);
  const HeadParse parse = Parse(gotHead);
  if (parse.outcome == HeadParse::kDamaged) return false;

  const bool guessedRight = parse.outcome == HeadParse::kComplete &&
                            m_head.size == guess.headSize && m_head.capacity <= got - gotHead;
  // Having read it all proves that the record ends in the file, unless there is slack behind it.
  if (guessedRight && m_head.length == m_head.size + m_head.capacity)
    return payload.Resize(m_head.capacity);
  if (!CompleteHead(position, gotHead)) return false;
  if (guessedRight) return payload.Resize(m_head.capacity);
  return payload.ResizeForOverwrite(m_head.capacity) &&
         m_file.ReadAt(position + m_head.size, payload.GetData(), m_head.capacity);
}

bool RecordReader::ReadHead(std::uint64_t position, std::uint64_t guessedSize) {
  guessedSize = std::min<std::uint64_t>(guessedSize, sizeof m_small);
  m_bytes = m_small;
  return CompleteHead(position, m_file.ReadParts(position, m_bytes, guessedSize, nullptr, 0));
}

// Reads on until the head is whole. Before memory is had for what the record states, and again when
// more of it was read, it is known to lie in the file.
bool RecordReader::CompleteHead(std::uint64_t position, std::uint64_t available) {
  std::uint64_t fileLength;
  if (available < Format::kRecordLengthSize || !m_file.GetLength(fileLength)) return false;
  for (;;) {
    const HeadParse parse = Parse(available);
    if (parse.outcome == HeadParse::kDamaged || fileLength < position ||
        m_head.length > fileLength - position)
      return false;
    if (parse.outcome == HeadParse::kComplete) return true;
    if (!ProvideHead(parse.needed) || !m_file.ReadAt(position, m_bytes, parse.needed)) return false;
    available = parse.needed;
  }
}

bool RecordReader::ProvideHead(std::uint64_t size) {
  if (size <= sizeof m_small) return true;
  if (!m_large.ResizeForOverwrite(size)) return false;
  m_bytes = m_large.GetData();
  return true;
}

HeadParse RecordReader::Parse(std::uint64_t available) {
  return Format::ParseRecordHead(m_bytes, available, m_fileKind, m_swap, m_head);
}

}  // namespace Zarn::Io
