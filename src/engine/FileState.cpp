#include "FileState.h"

#include <algorithm>

#include "IndexValue.h"
#include "RedoFile.h"
#include "ZrResult.h"

namespace Zarn::Engine {
namespace {

bool OpenStream(const FileSource& source, std::shared_ptr<ZrFile64>& file) {
  if (file != nullptr && file->IsSameFile(source.path)) return true;
  file = std::make_shared<ZrFile64>();
  return (!source.readOnly && file->Open(source.path, ZrFile64::kReadWrite)) ||
         file->Open(source.path, ZrFile64::kRead);
}

bool ProvideIndex(FileState& state, const IndexPages::Area& area) {
  if (state.index != nullptr && state.index->Covers(state.file.get(), area)) {
    state.index->Forget();
    return true;
  }
  state.index = std::make_shared<IndexPages>(state.file, area);
  return state.index->IsUsable();
}

bool LoadGridIndex(FileState& state, std::uint64_t indexOffset, bool isShared) {
  Format::GridHeaderImage image;
  if (!state.file->ReadAt(indexOffset, image.data(), image.size())) return false;
  state.grid = Format::DecodeGridHeader(image, state.swap);
  const std::uint64_t count = Format::GridEntryCount(state.grid.rowCount, state.grid.colCount);
  return ProvideIndex(state,
                      {Format::GridEntryOffset(indexOffset, 0), count * Format::kGridEntrySize,
                       Format::kGridEntrySize, isShared, state.swap});
}

// Reads the hash codes of the slots from `first` on into the table. Those beyond the end of the
// file are empty, all with the code 0, of which the last counts.
bool AddNames(const FileState& state, std::uint64_t indexOffset, std::uint64_t first) {
  constexpr std::uint64_t kSlotsAtOnce = 16384;
  constexpr std::uint64_t kSlotSize = Format::kNamingSlotSize;
  const std::uint64_t start = Format::NamingSlotOffset(indexOffset, 0);
  const std::uint64_t count = state.naming.count;
  std::uint64_t fileLength;
  if (!state.file->GetLength(fileLength)) return false;
  const std::uint64_t inFile = fileLength > start ? (fileLength - start) / kSlotSize : 0;
  const std::uint64_t present = std::min(count, inFile);
  ZrByteArray slots;
  if (!state.names->Reserve(present + 1)) return false;
  for (std::uint64_t slot = first; slot < present; slot += kSlotsAtOnce) {
    const std::uint64_t now = std::min(kSlotsAtOnce, present - slot);
    if (!slots.ResizeForOverwrite(now * kSlotSize) ||
        !state.file->ReadAt(start + slot * kSlotSize, slots.GetData(), slots.GetSize()))
      return false;
    for (std::uint64_t i = 0; i < now; ++i)
      if (!state.names->Insert(LoadScalar<std::uint64_t>(
                                   slots.GetData() + i * kSlotSize + Format::kWidth8, state.swap),
                               static_cast<std::uint32_t>(slot + i)))
        return false;
  }
  return present == count || state.names->Insert(0, static_cast<std::uint32_t>(count - 1));
}

// Whether the index has only grown since `previous` was loaded. Slots are never taken back, so it
// then has the names that it had. One that was made anew, by compaction, has a later time of
// creation; and the last slot that was known must still be the same.
bool HasOnlyGrown(const FileState& state, const FileState& previous, std::uint64_t indexOffset) {
  if (previous.names == nullptr || previous.file != state.file ||
      Format::HeaderView(previous.header).CreateTime() !=
          Format::HeaderView(state.header).CreateTime() ||
      previous.naming.count > state.naming.count)
    return false;
  if (previous.naming.count == 0) return true;
  const std::uint64_t last = previous.naming.count - 1;
  std::uint64_t code;
  return state.file->ReadAt(Format::NamingSlotOffset(indexOffset, last) + Format::kWidth8, &code,
                            sizeof code) &&
         previous.names->Find(LoadScalar<std::uint64_t>(&code, state.swap)) == last;
}

bool LoadNamingIndex(FileState& state, const FileState& previous, std::uint64_t indexOffset) {
  Format::NamingHeaderImage image;
  if (!state.file->ReadAt(indexOffset, image.data(), image.size())) return false;
  state.naming = Format::DecodeNamingHeader(image, state.swap);
  if (state.naming.capacity > Format::kMaxNamingCapacity ||
      state.naming.count > state.naming.capacity)
    return false;
  if (!ProvideIndex(state,
                    {Format::NamingSlotOffset(indexOffset, 0),
                     state.naming.capacity * Format::kNamingSlotSize, Format::kNamingSlotSize}))
    return false;
  const bool hasGrown = HasOnlyGrown(state, previous, indexOffset);
  state.names = hasGrown ? previous.names : std::make_shared<NameTable>();
  return AddNames(state, indexOffset, hasGrown ? previous.naming.count : 0);
}

bool LoadIndex(FileState& state, const FileState& previous, bool isShared) {
  const Format::HeaderView header(state.header);
  const std::uint64_t indexOffset = header.IndexOffset();
  const bool isGrid = header.FileKind() == Format::kGridFile;
  if (!isGrid && header.FileKind() != Format::kNamingFile) {
    state.index = nullptr;  // a kind without an index opens, and can be asked for its kind
    return true;
  }
  if (indexOffset < Format::kHeaderSize) return false;
  return isGrid ? LoadGridIndex(state, indexOffset, isShared)
                : LoadNamingIndex(state, previous, indexOffset);
}

}  // namespace

unsigned int LoadFileState(const FileSource& source, FileState& state) {
  const FileState previous = state;
  state.grid = {};
  state.naming = {};
  state.names = nullptr;
  if (!source.isOpen && !OpenStream(source, state.file)) return ZrResult::kNotOpen;
  const auto readHeader = [&] {
    return Io::ReadFileHeader(*state.file, source.xorString, state.header, state.swap) ==
           Io::HeaderRead::kOk;
  };
  if (!readHeader()) {
    // Perhaps a compaction was cut short. Finishing it may give the path to another file.
    if (!Io::FinishReplacement(source.path) || !OpenStream(source, state.file) || !readHeader())
      return ZrResult::kWrongFile;
  }
  if (!source.mapped)
    state.map = nullptr;
  else if (state.map != nullptr && state.map->IsOf(state.file.get()))
    state.map->Forget();
  else
    state.map = std::make_shared<Io::FileMap>(state.file);
  return LoadIndex(state, previous, source.isShared) ? ZrResult::kOk : ZrResult::kNotUsable;
}

}  // namespace Zarn::Engine
