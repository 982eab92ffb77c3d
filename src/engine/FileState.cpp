#include "FileState.h"

#include <algorithm>

#include "IndexValue.h"
#include "ZrResult.h"

namespace Zarn::Engine {
namespace {

bool OpenStream(const FileSource& source, std::shared_ptr<ZrFile64>& file) {
  if (file != nullptr && file->IsSameFile(source.path)) return true;
  file = std::make_shared<ZrFile64>();
  return (!source.readOnly && file->Open(source.path, ZrFile64::kReadWrite)) ||
         file->Open(source.path, ZrFile64::kRead);
}

bool ProvideIndex(FileState& state, std::uint64_t position, std::uint64_t size,
                  std::uint64_t entrySize) {
  if (state.index != nullptr && state.index->Covers(state.file.get(), position, size, entrySize)) {
    state.index->Forget();
    return true;
  }
  state.index = std::make_shared<IndexPages>(state.file, position, size, entrySize);
  return state.index->IsUsable();
}

bool LoadGridIndex(FileState& state, std::uint64_t indexOffset) {
  Format::GridHeaderImage image;
  if (!state.file->ReadAt(indexOffset, image.data(), image.size())) return false;
  state.grid = Format::DecodeGridHeader(image, state.swap);
  const std::uint64_t count = Format::GridEntryCount(state.grid.rowCount, state.grid.colCount);
  return ProvideIndex(state, Format::GridEntryOffset(indexOffset, 0),
                      count * Format::kGridEntrySize, Format::kGridEntrySize);
}

// Reads the hash codes of the slots from `first` on into the table. What lies beyond the end of the
// file is empty.
bool AddNames(const FileState& state, std::uint64_t indexOffset, std::uint64_t first) {
  constexpr std::uint64_t kSlotsAtOnce = 16384;
  const std::uint64_t count = state.naming.count;
  ZrByteArray slots;
  if (!state.names->Reserve(count)) return false;
  for (std::uint64_t slot = first; slot < count; slot += kSlotsAtOnce) {
    const std::uint64_t now = std::min(kSlotsAtOnce, count - slot);
    const std::uint64_t position = Format::NamingSlotOffset(indexOffset, slot);
    slots.Resize(0);
    if (!slots.Resize(now * Format::kNamingSlotSize)) return false;
    const std::uint64_t got = state.file->ReadUpTo(position, slots.GetData(), slots.GetSize());
    std::uint64_t length;
    if (got < slots.GetSize() && (!state.file->GetLength(length) || length > position + got))
      return false;
    for (std::uint64_t i = 0; i < now; ++i) {
      const unsigned char* code = slots.GetData() + i * Format::kNamingSlotSize + Format::kWidth8;
      if (!state.names->Insert(LoadScalar<std::uint64_t>(code, state.swap),
                               static_cast<std::uint32_t>(slot + i)))
        return false;
    }
  }
  return true;
}

bool LoadNamingIndex(FileState& state, const FileState& previous, std::uint64_t indexOffset) {
  Format::NamingHeaderImage image;
  if (!state.file->ReadAt(indexOffset, image.data(), image.size())) return false;
  state.naming = Format::DecodeNamingHeader(image, state.swap);
  if (state.naming.capacity > Format::kMaxNamingCapacity ||
      state.naming.count > state.naming.capacity)
    return false;
  if (!ProvideIndex(state, Format::NamingSlotOffset(indexOffset, 0),
                    state.naming.capacity * Format::kNamingSlotSize, Format::kNamingSlotSize))
    return false;
  // Slots are never taken back, so an index that has only grown has the names that it had. One that
  // was made anew, by compaction, has another time of creation.
  const bool hasGrown = previous.names != nullptr && previous.file == state.file &&
                        Format::HeaderView(previous.header).CreateTime() ==
                            Format::HeaderView(state.header).CreateTime() &&
                        previous.naming.count <= state.naming.count;
  state.names = hasGrown ? previous.names : std::make_shared<NameTable>();
  return AddNames(state, indexOffset, hasGrown ? previous.naming.count : 0);
}

bool LoadIndex(FileState& state, const FileState& previous) {
  const Format::HeaderView header(state.header);
  const std::uint64_t indexOffset = header.IndexOffset();
  const bool isGrid = header.FileKind() == Format::kGridFile;
  if (!isGrid && header.FileKind() != Format::kNamingFile) {
    state.index = nullptr;  // a kind without an index opens, and can be asked for its kind
    return true;
  }
  if (indexOffset < Format::kHeaderSize) return false;
  return isGrid ? LoadGridIndex(state, indexOffset) : LoadNamingIndex(state, previous, indexOffset);
}

}  // namespace

unsigned int LoadFileState(const FileSource& source, FileState& state) {
  const FileState previous = state;
  state.grid = {};
  state.naming = {};
  state.names = nullptr;
  if (!OpenStream(source, state.file)) return ZrResult::kNotOpen;
  if (Io::ReadFileHeader(*state.file, source.xorString, state.header, state.swap) !=
      Io::HeaderRead::kOk)
    return ZrResult::kWrongFile;
  return LoadIndex(state, previous) ? ZrResult::kOk : ZrResult::kNotUsable;
}

}  // namespace Zarn::Engine
