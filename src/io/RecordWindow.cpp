#include "RecordWindow.h"

#include <algorithm>

namespace Zarn::Io {

std::size_t RecordWindow::Read(const Source& source, std::span<const RecordPlace> places) {
  if (m_bytes == nullptr) m_bytes = std::make_unique_for_overwrite<unsigned char[]>(kSize);
  m_records.clear();
  m_used = 0;
  m_fileLength = 0;
  while (m_records.size() < places.size()) {
    const auto rest = places.subspan(m_records.size());
    const Run run = FindRun(rest);
    if (run.count == 0) break;
    ReadRun(source, rest.first(run.count), run.size);
  }
  return m_records.size();
}

// The records from the first one on that lie so close behind each other that it takes longer to
// read each. Where the next one no longer fits, the last that does tells where the run ends. No
// records: they are for the next window.
RecordWindow::Run RecordWindow::FindRun(std::span<const RecordPlace> places) const {
  const std::uint64_t room = kSize - m_used;
  const std::uint64_t begin = places[0].position;
  std::size_t count = 1;
  bool isCut = false;
  for (; count < places.size(); ++count) {
    const std::uint64_t step = places[count].position - places[count - 1].position;
    if (step == 0 || step > GetReach()) break;  // huge, of one that lies before
    isCut = places[count].position - begin > room;
    if (isCut) break;
  }
  const std::uint64_t last = places[count - 1].position - begin;
  if (!isCut && last + Guess(places[count - 1]) <= room)
    return {count, last + Guess(places[count - 1])};
  if (count > 1) return {count - 1, last};
  return {m_used == 0 ? 1U : 0U, 0};
}

std::uint64_t RecordWindow::GetReach() const {
  constexpr std::uint64_t kAlways = 16 * 1024;
  return m_content == kHeads ? 8 * kHead : std::clamp(4 * m_usual, kAlways, kSize);
}

// How much to read for a record of which only the beginning is known.
std::uint64_t RecordWindow::Guess(const RecordPlace& place) const {
  if (m_content == kHeads) return place.length != 0 ? std::min(place.length, kHead) : kHead;
  return place.length != 0 ? place.length : m_usual;
}

// Of the last record the rest may have to be read, once for the head and once for the payload.
void RecordWindow::ReadRun(const Source& source, std::span<const RecordPlace> places,
                           std::uint64_t size) {
  constexpr int kMostReads = 3;
  unsigned char* const bytes = m_bytes.get() + m_used;
  const std::uint64_t room = kSize - m_used;
  const std::uint64_t begin = places[0].position;
  std::uint64_t got = size != 0 ? ReadUpTo(source, begin, bytes, size) : 0;
  for (const RecordPlace& place : places) {
    const bool isLast = &place == &places.back();
    const std::uint64_t offset = place.position - begin;
    Record record;
    for (int reads = 0; reads < kMostReads; ++reads) {
      const std::uint64_t available = got > offset ? got - offset : 0;
      const std::uint64_t needed = NeededFor(source, bytes + offset, available, record.head);
      if (needed != 0 && needed <= available &&
          IsInFile(source, place.position, record.head.length))
        record.bytes = bytes + offset;
      if (needed <= available || got < size || !isLast || needed > room - offset) break;
      size = std::min(offset + std::max(needed, kHead), room);
      got += ReadUpTo(source, begin + got, bytes + got, size - got);
    }
    if (record.bytes != nullptr)
      m_usual = (7 * m_usual + std::min(record.head.length, kSize)) / 8 + 1;
    m_records.push_back(record);
  }
  m_used += got;
}

// How many bytes of a record there must be. 0: it is damaged.
std::uint64_t RecordWindow::NeededFor(const Source& source, const unsigned char* bytes,
                                      std::uint64_t available, Format::RecordHead& head) const {
  using Format::HeadParse;
  const HeadParse parse = Format::ParseRecordHead(bytes, available, source.shape, head);
  if (parse.outcome == HeadParse::kDamaged) return 0;
  if (parse.outcome == HeadParse::kNeedsMore) return parse.needed;
  return m_content == kWhole ? head.size + head.capacity : head.size;
}

bool RecordWindow::IsInFile(const Source& source, std::uint64_t position, std::uint64_t length) {
  const auto isIn = [&] { return position <= m_fileLength && length <= m_fileLength - position; };
  return isIn() || (source.file.GetLength(m_fileLength) && isIn());
}

// Reads the file where the map gives nothing.
std::uint64_t RecordWindow::ReadUpTo(const Source& source, std::uint64_t position, void* target,
                                     std::uint64_t size) {
  const std::uint64_t got =
      source.map != nullptr ? source.map->ReadUpTo(position, target, size) : 0;
  return got != 0 ? got : source.file.ReadUpTo(position, target, size);
}

}  // namespace Zarn::Io
