#include "TileWalk.h"

#include <algorithm>

#include "Cause.h"
#include "IndexWalker.h"
#include "NameHash.h"
#include "NameKey.h"
#include "OpenFile.h"
#include "ZrResult.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kLargestBlock = 8192;  // cells
constexpr std::uint64_t kSmallestBlock = 64;
constexpr int kBlocksAtOnce = 64;  // with empty cells only; then others get a turn
constexpr int kSlotBlocksAtOnce = 16;
constexpr std::size_t kMostAtOnce = 2048;  // records
constexpr std::size_t kFewestAtOnce = 16;

std::uint64_t Word(const std::vector<unsigned char>& bytes, std::size_t number, bool swap) {
  return LoadScalar<std::uint64_t>(&bytes[number * sizeof(std::uint64_t)], swap);
}

}  // namespace

TileWalk::TileWalk(Content content, const PelmUnicodeString& prefix)
    : m_content(content),
      m_prefix(prefix.GetUnits()),
      m_window(content),
      m_most(kMostAtOnce),
      m_block(kSmallestBlock) {}

// Only cells and hashes that mean the same tiles as before can be told from those that were given.
bool TileWalk::IsSame(const OpenFile& file) {
  Shape now;
  now.formatVersion = file.GetShape().formatVersion;
  now.index.kind = file.GetKind();
  if (const CellIndex* const cells = file.Cells()) {
    now.index = cells->GetShape();
    now.columns = cells->GetColCount();
    now.formatVersion = 0;
    if (!m_prefix.empty()) return Io::Fail(ZrCause::kWrongKind);
  }
  if (!std::exchange(m_hasBegun, true)) m_shape = now;
  return m_shape == now || Io::Fail(ZrCause::kMoved);
}

TileWalk::Turn TileWalk::Take() {
  if (!m_listed.empty()) return Turn::kName;
  while (m_at < m_ready.size()) {
    const Ready& ready = m_ready[m_at];
    if (ready.isShared) return Turn::kHash;
    if (!ready.record) return Turn::kEntry;
    ++m_at;
    if (TakeRecord(ready)) return Turn::kTile;
  }
  return Turn::kRead;
}

TileWalk::Seen TileWalk::ReadAhead(OpenFile& file, View& view, unsigned int& result) {
  m_ready.clear();
  m_at = 0;
  result = ZrResult::kNotUsable;
  if (!IsSame(file)) return Seen::kDone;
  m_swap = file.GetShape().swap;
  return IsGrid() ? ReadCells(file, view, result) : ReadNames(file, view, result);
}

TileWalk::Seen TileWalk::ReadCells(OpenFile& file, View& view, unsigned int& result) {
  m_total = m_shape.index.count;
  result = m_next == m_total ? ZrResult::kNotFound : ZrResult::kReadFailure;
  std::uint64_t next = m_next;
  if (next == m_total || !FindCells(file, view, next)) return Seen::kDone;
  result = ZrResult::kOk;
  std::size_t count = 0;
  const Seen seen = ReadFound(file, view, count);
  if (seen != Seen::kDone) return seen;
  m_block = count < m_found.size() / 2 ? std::max(m_block / 2, kSmallestBlock)
            : count == m_found.size()  ? std::min(m_block * 2, kLargestBlock)
                                       : m_block;
  m_next = count < m_found.size() ? m_found[count].number : next;
  m_done = m_next;
  return Seen::kDone;
}

// The next cells that are not empty; `next`: how far they reach. False if they cannot be read.
bool TileWalk::FindCells(OpenFile& file, View& view, std::uint64_t& next) {
  const Format::IndexShape& index = m_shape.index;
  m_found.clear();
  std::uint64_t block = m_block;
  for (int i = 0; i < kBlocksAtOnce && next < m_total; ++i) {
    const std::uint64_t count = std::min(block, m_total - next);
    m_entries.resize(count * Format::kGridEntrySize);
    if (!view.ReadIndex(index.EntryAt(next), m_entries.data(), m_entries.size())) return false;
    for (std::uint64_t cell = 0; cell < count; ++cell) {
      const std::uint64_t value = Word(m_entries, cell, m_swap);
      if (Format::StatusOf(value) != Format::kStatusEmpty)
        m_found.push_back({next + cell, value, static_cast<std::uint32_t>(next + cell), 0});
    }
    next += count;
    if (!m_found.empty() || next == m_total) break;
    const std::uint64_t position = index.EntryAt(next);
    const std::uint64_t data = std::max(file.GetStream()->NextData(position), position);
    next = std::min(next + (data - position) / Format::kGridEntrySize, m_total);
    block = kLargestBlock;
  }
  return true;
}

// In a compacted file, and in one whose index has grown, slots may be others.
TileWalk::Seen TileWalk::ReadNames(OpenFile& file, View& view, unsigned int& result) {
  result = ZrResult::kOk;
  const std::uint64_t generation = file.GetBoard().GetGeneration();
  if (m_fileId != file.GetId() || m_generation != generation) m_isCollecting = true, m_slot = 0;
  m_fileId = file.GetId();
  m_generation = generation;
  if (m_isCollecting) return Collect(file, view, result);
  const auto items = m_order.GetRest();
  if (items.empty()) {
    m_isCollecting = m_order.Advance();
    m_slot = 0;
    if (!m_isCollecting) result = ZrResult::kNotFound;
    return Seen::kDone;
  }
  const auto some = items.first(std::min({items.size(), m_most, 2 * m_window.GetUsualCount()}));
  if (!FindSlots(file, view, some)) {
    result = ZrResult::kReadFailure;
    return Seen::kDone;
  }
  std::size_t count = 0;
  const Seen seen = ReadFound(file, view, count);
  if (seen != Seen::kDone) return seen;
  const std::size_t given = count < m_found.size() ? m_found[count].item : some.size();
  m_order.Give(given);
  m_done = std::min(m_done + given, m_total);
  return Seen::kDone;
}

// A part of the index. The codes of slots never change in a file of this generation, nor does the
// status of a tile that stays; all else is read again.
TileWalk::Seen TileWalk::Collect(OpenFile& file, View& view, unsigned int& result) {
  const NameIndex& names = *file.Names();
  if (m_slot == 0) {
    if (!view.LookNow()) return Seen::kAgain;
    if (!file.Names()->IsComplete(view)) return Seen::kLocked;
    m_total = names.GetCount();
    m_order.Begin(m_total);
  }
  Io::IndexWalker slots(*file.GetStream(), names.GetShape(), m_swap, m_total, {.first = m_slot});
  bool isRead = true;
  for (int i = 0; i < kSlotBlocksAtOnce && isRead; ++i) {
    isRead = slots.Next();
    for (std::size_t slot = 0; slot < slots.Size(); ++slot)
      m_order.Add(slots.Code(slot), slots.Value(slot),
                  static_cast<std::uint32_t>(slots.First() + slot));
  }
  m_slot = 0;  // if this is of no use, all is to be collected again
  if (slots.HasFailed()) result = ZrResult::kReadFailure;
  if (!view.LookAgain()) return Seen::kAgain;
  if (slots.HasFailed()) return Seen::kDone;
  m_slot = slots.Position();
  if (isRead && m_slot < m_total) return Seen::kDone;
  m_order.Finish(names.HasUniqueCodes());
  m_isCollecting = false;
  return Seen::kDone;
}

// The entries of these slots as they are now. They mostly lie in a row.
bool TileWalk::FindSlots(OpenFile& file, View& view, std::span<const NameOrder::Item> items) {
  const Format::IndexShape& index = file.Index().GetShape();
  const auto [least, most] = std::minmax_element(
      items.begin(), items.end(), [](const auto& a, const auto& b) { return a.slot < b.slot; });
  const std::uint64_t first = least->slot;
  const std::uint64_t size = (most->slot - first + 1) * Format::kNamingSlotSize;
  const bool isRow = size <= 4 * items.size() * Format::kNamingSlotSize;
  m_entries.resize(isRow ? size : items.size() * Format::kNamingSlotSize);
  if (isRow && !view.ReadIndex(index.EntryAt(first), m_entries.data(), size)) return false;
  m_found.clear();
  for (std::uint32_t i = 0; i < items.size(); ++i) {
    const NameOrder::Item& item = items[i];
    const std::size_t at = isRow ? item.slot - first : i;
    if (!isRow &&
        !view.ReadIndex(index.EntryAt(item.slot), &m_entries[at * Format::kNamingSlotSize],
                        Format::kNamingSlotSize))
      return false;
    const std::uint64_t value = Word(m_entries, 2 * at, m_swap);
    const std::uint64_t code = Word(m_entries, 2 * at + 1, m_swap);
    if (code == item.hash && Format::StatusOf(value) != Format::kStatusEmpty)
      m_found.push_back({item.hash, value, item.slot, i});
  }
  return true;
}

// Reads the records of the first entries that were found; `count`: how many of these are done. If
// most of them change meanwhile, a second attempt may see more.
TileWalk::Seen TileWalk::ReadFound(OpenFile& file, View& view, std::size_t& count) {
  m_places.clear();
  for (const Found& found : m_found)
    m_places.push_back({Format::PositionOf(found.value), file.Index().GetHint(found.number)});
  const std::size_t most = std::min(m_places.size(), m_most);
  const Io::RecordWindow::Source source = {*file.GetStream(), file.Map(), file.GetShape()};
  count = most != 0 ? m_window.Read(source, std::span(m_places).first(most)) : 0;
  if (!view.LookAgain()) return Seen::kAgain;
  std::size_t changed = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const Found& found = m_found[i];
    const std::uint8_t status = Format::StatusOf(found.value);
    Ready ready = {found.key, status, !IsGrid() && m_order.IsShared(found.key), std::nullopt};
    const bool isSettled = view.HoldsFor(found.number);
    changed += isSettled ? 0 : 1;
    if (isSettled && Format::HoldsRecord(status) && IsSound(file, i))
      ready.record = static_cast<std::uint32_t>(i);
    m_ready.push_back(ready);
  }
  const bool isGood = 2 * changed <= count;
  if (!isGood && !std::exchange(m_hasFailed, true)) {
    m_ready.clear();
    return Seen::kAgain;
  }
  m_hasFailed = false;
  m_most = isGood ? std::min(2 * m_most, kMostAtOnce) : std::max(m_most / 4, kFewestAtOnce);
  return Seen::kDone;
}

bool TileWalk::IsSound(const OpenFile& file, std::size_t number) const {
  const Io::RecordWindow::Record& record = m_window.At(number);
  return record.bytes != nullptr &&
         record.head.MayLieAt(m_places[number].position, file.Index().GetShape());
}

bool TileWalk::TakeRecord(const Ready& ready) {
  const Io::RecordWindow::Record& record = m_window.At(*ready.record);
  const Format::RecordHead& head = record.head;
  m_tile.data = m_content == Content::kWhole ? record.bytes + head.size : nullptr;
  return TakeHead(head, head.Table(record.bytes, m_swap), record.bytes + Format::kNameOffset,
                  ready.status);
}

bool TileWalk::TakeHead(const Format::RecordHead& head, const Format::VersionTable& versions,
                        const unsigned char* name, std::uint8_t status) {
  if (IsGrid()) TakeCell(m_ready[m_at - 1].key);
  if (!IsGrid() && !TakeName(name, head.nameLength)) return false;
  m_tile.stamps.clear();
  for (std::uint32_t i = 0; i < versions.Count(); ++i)
    m_tile.stamps.push_back(versions.Stamp(i));
  m_tile.status = status;
  m_tile.recordLength = head.length;
  m_tile.capacity = head.capacity;
  m_tile.filledLength = std::min(head.filledLength, head.capacity);
  return true;
}

void TileWalk::TakeCell(std::uint64_t cell) {
  m_tile.row = static_cast<std::uint32_t>(cell / m_shape.columns);
  m_tile.col = static_cast<std::uint32_t>(cell % m_shape.columns);
}

// No lookup finds a name that has another hash than its slot says, or that is no text.
bool TileWalk::TakeName(const unsigned char* name, std::uint64_t length) {
  const std::string_view stored(reinterpret_cast<const char*>(name), length);
  std::u16string& units = m_tile.name;
  std::uint64_t hash = Format::kHashOfNothing;
  units.clear();
  if (m_shape.formatVersion == Format::kOlderVersion) {
    units = UnitsOfOlder(stored);
    hash = Format::HashBytes(stored);
  } else if (m_shape.formatVersion == Format::kCurrentVersion && length % sizeof(char16_t) == 0) {
    units = UnitsOf(stored, m_swap);
    hash = Format::HashUnits(units);
  }
  if (units.empty() || hash != m_ready[m_at - 1].key) {
    ++m_damaged;
    return false;
  }
  return units.compare(0, m_prefix.size(), m_prefix) == 0;
}

bool TileWalk::FindEntry(OpenFile& file, View& view, TileEntry& entry) const {
  const std::uint64_t key = m_ready[m_at].key;
  entry = {};
  if (const CellIndex* const cells = file.Cells()) {
    const auto row = static_cast<std::uint32_t>(key / m_shape.columns);
    const auto col = static_cast<std::uint32_t>(key % m_shape.columns);
    return cells->Read(row, col, entry, &view);
  }
  NameSlot slot;
  const auto found = file.Names()->FindSlot(key, slot, &view);
  if (found == NameIndex::Found::kSlot) entry = slot.entry;
  return found != NameIndex::Found::kUnreadable;
}

// As lookups go: a slot whose tile is gone hides those behind it, and of names that are there twice
// the first one counts.
TileWalk::Group TileWalk::ListHash(OpenFile& file, View& view, ZrByteArray& buffer) const {
  Group group;
  std::uint64_t code = m_ready[m_at].key;
  for (bool isLast = false; !isLast;) {
    NameSlot slot;
    const auto found = file.Names()->FindSlot(code, slot, &view);
    if (found == NameIndex::Found::kUnreadable) ++group.damaged;
    if (found != NameIndex::Found::kSlot || slot.entry.status == Format::kStatusEmpty) break;
    TileStore tiles = file.MakeStore(buffer);
    std::u16string units;
    if (slot.entry.HoldsRecord() && tiles.ReadCurrentHead(slot.entry)) {
      const std::string_view stored = tiles.CurrentName().bytes;
      units = m_shape.formatVersion == Format::kOlderVersion
                  ? UnitsOfOlder(stored)
                  : UnitsOf(stored, file.GetShape().swap);
    }
    const PelmUnicodeString name(units);
    if (units.empty())
      ++group.damaged;
    else if (std::find(group.names.begin(), group.names.end(), name) == group.names.end())
      group.names.push_back(name);
    const std::uint64_t next = Format::GetNextHashCode(code);
    isLast = std::exchange(code, next) == next;
  }
  view.UsesMore();
  return group;
}

void TileWalk::TakeNames(Group group) {
  ++m_at;
  m_listed = std::move(group.names);
  m_damaged += group.damaged;
}

void TileWalk::PassOver(bool isDamaged) {
  if (m_listed.empty())
    ++m_at;
  else
    m_listed.pop_back();
  m_damaged += isDamaged ? 1 : 0;
}

bool TileWalk::TakeAlone(const Io::RecordReader& record, const TileEntry& entry,
                         ZrByteArray& buffer) {
  PassOver(false);
  const bool isTaken = TakeHead(record.Head(), record.Versions(), record.NameBytes(), entry.status);
  if (isTaken && m_content == Content::kWhole) record.HandOver(buffer, m_alone);
  m_tile.data = m_content == Content::kWhole ? m_alone.GetData() : nullptr;
  return isTaken;
}

}  // namespace Zarn::Engine
