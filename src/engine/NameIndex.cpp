#include "NameIndex.h"

#include <sys/stat.h>

#include <algorithm>
#include <new>
#include <span>
#include <utility>

#include "Cause.h"
#include "IndexWalker.h"
#include "NameHash.h"
#include "TileStore.h"
#include "WholeWords.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kSlotsAtOnce = 16384;

// Writes a header that lies on two pages, field by field; all that ever change have eight bytes.
// The count goes last of them: once it is there, nothing can fail any more.
bool WriteByFields(ZrFile64& file, std::uint64_t position, const Format::NamingHeaderImage& bytes) {
  constexpr std::size_t kFlags = Format::kNamingFlagsOffset;
  Format::NamingHeaderImage now;
  if (!file.ReadAt(position, now.data(), now.size())) return false;
  if (!file.WriteAt(position + kFlags, &bytes[kFlags], bytes.size() - kFlags)) return false;
  for (std::size_t field = kFlags; field > 0;) {
    field -= Format::kWidth8;
    const auto before = LoadScalar<std::uint64_t>(&now[field], false);
    const auto after = LoadScalar<std::uint64_t>(&bytes[field], false);
    if (before != after && !Io::ReplaceWord(file, position + field, before, after)) return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<NameIndex> NameIndex::Load(const std::shared_ptr<ZrFile64>& file, Io::Board& board,
                                           Io::FileHeader& header, MaxSizes& maxSizes) {
  const std::uint64_t indexOffset = header.View().IndexOffset();
  Format::NamingHeaderImage bytes;
  if (!file->ReadAt(indexOffset, bytes.data(), bytes.size())) return nullptr;
  const Format::NamingHeader naming = Format::DecodeNamingHeader(bytes, header.IsSwapped());
  if (naming.capacity > Format::kMaxNamingCapacity || naming.count > naming.capacity)
    return nullptr;
  const auto shape = Format::IndexShape::OfNames(indexOffset, naming.capacity);
  auto index = std::make_unique<NameIndex>(file, board, header, maxSizes, naming,
                                           IndexPages::Area{shape, header.IsSwapped()});
  return index->IsUsable() && index->InitHashCodeMap() ? std::move(index) : nullptr;
}

NameIndex::NameIndex(std::shared_ptr<ZrFile64> file, Io::Board& board, Io::FileHeader& fileHeader,
                     MaxSizes& maxSizes, const Format::NamingHeader& header,
                     const IndexPages::Area& area)
    : IndexEntries(std::move(file), board, area),
      m_header(fileHeader),
      m_maxSizes(maxSizes),
      m_nNamingCapacity(header.capacity),
      m_nNamingCount(header.count),
      m_nNamingFlags(header.flags) {
  m_maxSizes.Set({header.maxSize1, header.maxSize2});
}

std::optional<Format::NamingHeader> NameIndex::ReadHeader() const {
  Format::NamingHeaderImage bytes;
  if (!m_file->ReadAt(GetShape().begin, bytes.data(), bytes.size())) return std::nullopt;
  return Format::DecodeNamingHeader(bytes, IsSwapped());
}

// Slots are never taken back, so the names that were there are still the same.
NameIndex::Growth NameIndex::LookForNewNames() {
  const auto header = ReadHeader();
  if (!header || header->capacity != GetCapacity() || header->count > header->capacity ||
      header->count < GetCount())
    return Growth::kUnknown;
  m_maxSizes.Set({header->maxSize1, header->maxSize2});
  if (header->count > GetCount()) return Growth::kNewNames;
  m_tag = Io::Board::Tag(m_board.GetEntries());
  return Growth::kNone;
}

bool NameIndex::AddNewNames() {
  const auto header = ReadHeader();
  if (!header || !Reserve(CountInData(GetCount(), header->count), header->count)) return false;
  if (HasLargerTable()) TakeLargerTable();
  if (!AddCodes(*m_mapHashCode, GetCount(), header->count)) return false;
  m_nNamingCount = header->count;
  m_tag = Io::Board::Tag(m_board.GetEntries());
  return true;
}

bool NameIndex::IsComplete(View& view) {
  if (m_board.IsCurrent(m_tag, view.GetEntries())) return true;
  std::uint64_t count;
  if (!view.ReadIndex(GetShape().begin + Format::kNamingCountOffset, &count, sizeof count) ||
      LoadScalar<std::uint64_t>(&count, IsSwapped()) != GetCount())
    return false;
  view.SeesAllNames();
  return true;
}

void NameIndex::KeepComplete(const View& view) {
  if (!view.HasSeenAllNames() || !view.IsUnchanged()) return;
  const std::lock_guard guard(m_mutex);
  if (m_board.MayKeep(view.GetEntries())) m_tag = Io::Board::Tag(view.GetEntries());
}

void NameIndex::Forget(std::uint32_t number) {
  IndexEntries::Forget(number);
  const std::lock_guard guard(m_mutex);
  if (number >= GetCount()) m_tag = 0;
}

// Visits the hash codes of the slots from `first` up to `end` in blocks, with the number of the
// first slot of each. The slots in holes, and beyond the end of the file, are empty, all with the
// code 0; of a run of them only the last is visited, for of one code the last slot counts. So a
// file that claims many names takes memory only for those that it has.
template <typename Visit>
bool NameIndex::VisitCodes(std::uint64_t first, std::uint64_t end, Visit visit) const {
  const std::uint64_t none[] = {0};
  std::uint64_t fileLength;
  if (!m_file->GetLength(fileLength)) return false;
  const std::uint64_t start = GetShape().EntryAt(0);
  const std::uint64_t inFile = (std::max(fileLength, start) - start) / GetShape().EntrySize();
  Io::IndexWalker slots(*m_file, GetShape(), IsSwapped(), std::min(end, inFile),
                        {.first = first, .blockSize = kSlotsAtOnce, .readsLastBlock = true});
  std::vector<std::uint64_t> codes;
  std::uint64_t next = slots.Position();
  while (slots.Next()) {
    if (slots.First() > next && !visit(slots.First() - 1, std::span(none))) return false;
    next = slots.Position();
    codes.resize(slots.Size());
    for (std::size_t i = 0; i < codes.size(); ++i)
      codes[i] = slots.Code(i);
    if (!visit(slots.First(), std::span<const std::uint64_t>(codes))) return false;
  }
  return !slots.HasFailed() && (next == end || visit(end - 1, std::span(none)));
}

// How many of the slots the table needs room for: those that lie in the file and not in holes, and
// one for each hole. A file that has as many blocks as bytes is not searched for holes.
std::uint64_t NameIndex::CountInData(std::uint64_t first, std::uint64_t end) const {
  constexpr std::uint64_t kBlock = 512;
  const std::uint64_t all = end - first;
  struct stat status;
  if (all <= kSlotsAtOnce || !m_file->GetStatus(status)) return all;
  const auto length = static_cast<std::uint64_t>(status.st_size);
  const bool isDense = static_cast<std::uint64_t>(status.st_blocks) * kBlock >= length;
  const std::uint64_t stop = std::min(GetShape().EntryAt(end), length);
  std::uint64_t count = 1;  // all that lie behind the end
  for (std::uint64_t at = GetShape().EntryAt(first); at < stop;) {
    const std::uint64_t data = isDense ? at : std::clamp(m_file->NextData(at), at, stop);
    at = isDense ? stop : std::clamp(m_file->NextHole(data), std::min(data + 1, stop), stop);
    count += (at - data) / GetShape().EntrySize() + 2;
  }
  return std::min(count, all);
}

bool NameIndex::AddCodes(NameTable& table, std::uint64_t first, std::uint64_t end) const {
  constexpr std::size_t kAhead = 16;
  bool isRead = true;
  const auto add = [&](std::uint64_t block, std::span<const std::uint64_t> codes) {
    for (std::size_t i = 0; i < codes.size() && isRead; ++i) {
      if (i + kAhead < codes.size()) table.Prefetch(codes[i + kAhead]);
      if (!table.MayHold(table.GetSize() + 1, block + i + 1)) return false;
      table.Insert(codes[i], static_cast<std::uint32_t>(block + i), [&](std::uint32_t other) {
        std::uint64_t code = 0;
        if (other - block < i)
          code = codes[other - block];
        else
          isRead = isRead && ReadCode(other, code);
        return code == codes[i];
      });
    }
    return isRead;
  };
  return VisitCodes(first, end, add);
}

bool NameIndex::ReadCode(std::uint64_t slot, std::uint64_t& code) const {
  unsigned char bytes[Format::kWidth8];
  if (!Io::ReadEntries(*m_file, GetShape().EntryAt(slot) + Format::kWidth8, bytes, sizeof bytes))
    return false;
  code = LoadScalar<std::uint64_t>(bytes, IsSwapped());
  return true;
}

bool NameIndex::InitHashCodeMap() {
  const std::uint64_t count = GetCount();
  m_mapHashCode = std::make_unique<NameTable>(CountInData(0, count), count);
  m_mapHashCode->UseLargePages();
  if (!AddCodes(*m_mapHashCode, 0, count)) return false;
  m_tag = Io::Board::Tag(m_board.GetEntries());
  return true;
}

bool NameIndex::Reserve(std::uint64_t names, std::uint64_t slots) {
  const std::uint64_t size = m_mapHashCode->GetSize() + names;
  const bool isFull = !m_mapHashCode->MayHold(size, slots);
  if (!isFull && size <= m_mapHashCode->GetComfort()) return true;
  return FillLargerTable(size, slots, isFull) || !isFull;
}

// Of a full table everything at once. Before, some slots for each name above its comfort, so that
// all are in the larger one in time; in pieces, which are quicker to read and to insert.
bool NameIndex::FillLargerTable(std::uint64_t names, std::uint64_t slots, bool isFull) try {
  constexpr std::uint64_t kPiece = 1024;
  constexpr std::uint64_t kForEach = 8;
  if (m_larger == nullptr || !m_larger->MayHold(names, slots)) {
    m_larger = std::make_unique<NameTable>(names + names / 2, slots);
    m_inLarger = 0;
  }
  const std::uint64_t count = GetCount();
  const std::uint64_t goal = isFull ? count : (names - m_mapHashCode->GetComfort()) * kForEach;
  if (m_inLarger >= std::min(goal, count)) return true;
  const std::uint64_t end = std::min(std::max(goal, m_inLarger + kPiece), count);
  const bool isAdded = AddCodes(*m_larger, m_inLarger, end);
  m_inLarger = end;
  if (!isAdded) m_larger.reset();
  return isAdded;
} catch (const std::bad_alloc&) {
  m_larger.reset();
  return Io::Fail(ZrCause::kNoMemory);
}

std::uint32_t NameIndex::GetSameHashCodeCount(std::uint64_t code) const {
  const auto isAny = [](std::uint32_t) { return true; };
  std::uint32_t count = 0;
  while (m_mapHashCode->Find(code, isAny)) {
    ++count;
    const std::uint64_t next = Format::GetNextHashCode(code);
    if (std::exchange(code, next) == next) break;
  }
  return count;
}

NameIndex::Found NameIndex::FindSlot(std::uint64_t code, NameSlot& slot, View* view) const {
  bool isRead = true;
  const auto number = m_mapHashCode->Find(code, [&](std::uint32_t candidate) {
    std::uint64_t itsCode = 0;
    slot = {{candidate, Format::PackIndexValue(Format::kStatusUnknown, 0)}, code, false};
    isRead = ReadEntry(candidate, slot.entry, view, &itsCode);
    return !isRead || itsCode == code;
  });
  if (!number) return Found::kNone;
  return isRead ? Found::kSlot : Found::kUnreadable;
}

bool NameIndex::GetNamingIdxValue(const NameKey& key, TileStore& store, NameSlot& slot,
                                  View* view) const {
  slot = {{static_cast<std::uint32_t>(GetCount()), 0}, key.GetHashCode(), true};
  return ReSetHashCodeAndIndexValue(key, store, slot, view);
}

// Walks through the names of one hash. Deliberately it stops at the first slot whose tile is gone,
// even if the name follows further on: that slot is then taken for the name.
bool NameIndex::ReSetHashCodeAndIndexValue(const NameKey& key, TileStore& store, NameSlot& slot,
                                           View* view) const {
  const NameSlot next = slot;
  std::uint64_t probe = slot.code;
  std::optional<NameSlot> unreadable;  // the first one
  bool isFull = false;
  Found found = Found::kNone;
  while (!isFull) {
    found = FindSlot(probe, slot, view);
    if (found == Found::kUnreadable) return false;
    if (found == Found::kNone || slot.entry.status == Format::kStatusEmpty) break;
    const auto matches = HasName(slot.entry, key, store);
    if (matches == true) return true;
    if (!matches && !unreadable) unreadable = slot;
    isFull = Format::GetNextHashCode(probe) == probe;
    probe = Format::GetNextHashCode(probe);
  }
  if (unreadable) {
    slot = *unreadable;
    return false;
  }
  if (!isFull && found == Found::kSlot) return true;
  slot = next;
  slot.code = probe;
  return !isFull || Io::Fail(ZrCause::kFull);
}

std::optional<bool> NameIndex::HasName(TileEntry& entry, const NameKey& key, TileStore& store) {
  if (!store.ReadCurrentHead(entry)) return std::nullopt;
  const std::string_view name = store.CurrentName().bytes;
  return key.Matches(reinterpret_cast<const unsigned char*>(name.data()), name.size());
}

bool NameIndex::AddSlots(const NameSlot* slots, std::uint64_t count) {
  const std::uint64_t oldCount = m_nNamingCount;
  const std::uint64_t size = count * Format::kNamingSlotSize;
  unsigned char one[Format::kNamingSlotSize];
  ZrByteArray many;
  if (oldCount + count > m_nNamingCapacity ||
      !m_mapHashCode->MayHold(m_mapHashCode->GetSize() + count, oldCount + count) ||
      (count > 1 && !many.ResizeForOverwrite(size)))
    return Io::FailUnlessBySystem(ZrCause::kFull);
  unsigned char* const bytes = count > 1 ? many.GetData() : one;
  for (std::uint64_t i = 0; i < count; ++i) {
    unsigned char* slot = bytes + i * Format::kNamingSlotSize;
    StoreScalar(slot, slots[i].entry.Value(), IsSwapped());
    StoreScalar(slot + Format::kWidth8, slots[i].code, IsSwapped());
  }
  const std::uint64_t indexOffset = GetShape().begin;
  const std::uint64_t place = GetShape().EntryAt(oldCount);
  const Io::BoardChange change(m_board, count == 1 ? slots->entry.number : Io::BoardChange::kMany);
  if (!change.IsShown()) return false;
  if (!m_file->WriteAt(place, bytes, size) ||
      !WriteHeader(indexOffset, m_nNamingCapacity, oldCount + count)) {
    WriteHeader(indexOffset, m_nNamingCapacity, oldCount);
    m_file->ZeroFill(place, size);
    m_board.Forget();
    return false;
  }
  m_pIndex->Write(oldCount, bytes, count);
  // No slot has the code of a new name.
  for (std::uint64_t i = 0; i < count; ++i)
    m_mapHashCode->Insert(slots[i].code, slots[i].entry.number,
                          [](std::uint32_t) { return false; });
  m_nNamingCount = oldCount + count;
  return true;
}

bool NameIndex::WriteHeader(std::uint64_t indexOffset, std::uint64_t capacity,
                            std::uint64_t count) {
  const auto bytes = Format::EncodeNamingHeader(
      m_maxSizes.Get().MakeHeader(capacity, count, m_nNamingFlags), IsSwapped());
  return Io::SpansPages(indexOffset, bytes.size())
             ? WriteByFields(*m_file, indexOffset, bytes)
             : m_file->WriteAt(indexOffset, bytes.data(), bytes.size());
}

bool NameIndex::IncreaseNamingIndexCapacity(std::uint64_t position) {
  const Format::IndexShape old = GetShape();
  const auto larger = Format::IndexShape::OfNames(position, 2 * old.count);
  if (position == 0) return false;
  if (old.count == 0 || larger.count > Format::kMaxNamingCapacity) return Io::Fail(ZrCause::kFull);
  const std::uint64_t oldSize = old.End() - old.EntryAt(0);
  // An index of which the file has lost a part does not count as full, whatever it states.
  std::uint64_t length;
  if (!m_file->GetLength(length) || length < old.End())
    return Io::FailUnlessBySystem(ZrCause::kDamagedEntry);
  std::unique_ptr<IndexPages> pages;
  try {
    pages = std::make_unique<IndexPages>(*m_file, m_board, IndexPages::Area{larger, IsSwapped()});
  } catch (const std::bad_alloc&) {
    return Io::Fail(ZrCause::kNoMemory);
  }
  // All the room first: a full disk shows before anything is copied.
  if (!pages->IsUsable() || !m_board.Replaces() ||
      !m_file->ZeroFill(position, larger.End() - position) ||
      !WriteHeader(position, larger.count, m_nNamingCount) ||
      !CopySlots(old.EntryAt(0), larger.EntryAt(0), oldSize) || !m_file->Sync()) {
    m_file->Cut(length);  // lest every attempt take more of the disk
    return false;
  }
  if (!m_header.MoveIndex(*m_file, position)) return false;
  m_nNamingCapacity = larger.count;
  m_pIndex = std::move(pages);
  return true;
}

bool NameIndex::CopySlots(std::uint64_t from, std::uint64_t to, std::uint64_t size) {
  constexpr std::uint64_t kPiece = 1 << 20;
  ZrByteArray piece;
  if (!piece.ResizeForOverwrite(std::min(kPiece, size))) return false;
  for (std::uint64_t done = 0; done < size;) {
    const std::uint64_t now = std::min<std::uint64_t>(piece.GetSize(), size - done);
    if (!m_file->ReadAt(from + done, piece.GetData(), now) ||
        !m_file->WriteAt(to + done, piece.GetData(), now))
      return false;
    done += now;
  }
  return true;
}

bool NameIndex::List(const Format::RecordShape& shape, PelmArray<PelmUnicodeString>& names) const {
  const bool isUtf16 = shape.formatVersion == Format::kCurrentVersion;
  if (!isUtf16 && shape.formatVersion != Format::kOlderVersion) return true;
  ZrByteArray keyBuf;
  std::uint64_t left;
  if (!m_file->GetLength(left)) return false;
  std::vector<std::uint32_t> slots;
  if (!Sort(slots)) return false;
  for (const std::uint32_t slot : slots) {
    TileEntry entry;
    if (!ReadEntry(slot, entry, nullptr)) return false;
    const auto read = GetKeyString(entry.position, shape, keyBuf);
    if (read == Io::NameRead::kFailed) return false;
    if (read == Io::NameRead::kNone) continue;
    if (keyBuf.GetSize() > left) return false;
    left -= keyBuf.GetSize();
    const auto* bytes = reinterpret_cast<const char*>(keyBuf.GetData());
    const std::size_t size = isUtf16 ? keyBuf.GetSize() : 0;  // an older file lists empty names
    names.Add(PelmUnicodeString(UnitsOf({bytes, size}, shape.swap)));
  }
  return true;
}

bool NameIndex::Sort(std::vector<std::uint32_t>& slots) const {
  std::vector<std::pair<std::uint64_t, std::uint32_t>> codes;
  codes.reserve(m_mapHashCode->GetSize());
  const auto add = [&](std::uint64_t block, std::span<const std::uint64_t> some) {
    for (std::size_t i = 0; i < some.size(); ++i)
      codes.emplace_back(some[i], static_cast<std::uint32_t>(block + i));
    return true;
  };
  if (!VisitCodes(0, GetCount(), add)) return false;
  std::sort(codes.begin(), codes.end());
  for (std::size_t i = 0; i < codes.size(); ++i)
    if (i + 1 == codes.size() || codes[i].first != codes[i + 1].first)
      slots.push_back(codes[i].second);
  return true;
}

// The name as the record stores it.
Io::NameRead NameIndex::GetKeyString(std::uint64_t recordPosition, const Format::RecordShape& shape,
                                     ZrByteArray& keyBuf) const {
  if (!GetShape().LeavesRoom(recordPosition, Format::kNameOffset)) return Io::NameRead::kNone;
  return Io::RecordReader(*m_file, shape).ReadName(recordPosition, keyBuf);
}

}  // namespace Zarn::Engine
