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

constexpr std::uint64_t kSlotsAtOnce = 16384;

struct SlotRun {
  std::uint64_t first;
  std::uint64_t end;
};

// The slots from `slot` on, up to `end`, that do not lie wholly in the next hole, up to the one
// after it. Few slots are read sooner than the file is asked for holes.
SlotRun NextRun(const ZrFile64& file, std::uint64_t start, std::uint64_t slot, std::uint64_t end) {
  constexpr std::uint64_t kSize = Format::kNamingSlotSize;
  if (end - slot <= kSlotsAtOnce) return {slot, end};
  const std::uint64_t data = file.NextData(start + slot * kSize);
  const std::uint64_t first = std::min((data - start) / kSize, end);
  const std::uint64_t hole = std::max(file.NextHole(data), data + 1);
  return {first, std::min((hole - start + kSize - 1) / kSize, end)};
}

bool ReadCodes(const FileState& state, std::uint64_t start, const SlotRun& run) {
  constexpr std::uint64_t kSize = Format::kNamingSlotSize;
  ZrByteArray slots;
  if (!state.names->Reserve(state.names->GetSize() + run.end - run.first)) return false;
  for (std::uint64_t slot = run.first; slot < run.end; slot += kSlotsAtOnce) {
    const std::uint64_t now = std::min(kSlotsAtOnce, run.end - slot);
    if (!slots.ResizeForOverwrite(now * kSize) ||
        !state.file->ReadAt(start + slot * kSize, slots.GetData(), slots.GetSize()))
      return false;
    for (std::uint64_t i = 0; i < now; ++i)
      if (!state.names->Insert(
              LoadScalar<std::uint64_t>(slots.GetData() + i * kSize + Format::kWidth8, state.swap),
              static_cast<std::uint32_t>(slot + i)))
        return false;
  }
  return true;
}

// Reads the hash codes of the slots from `first` on into the table. Those in holes, and beyond the
// end of the file, are empty, all with the code 0, of which the last counts: so a file that claims
// many names takes memory only for those that it has.
bool AddNames(const FileState& state, std::uint64_t indexOffset, std::uint64_t first) {
  const std::uint64_t start = Format::NamingSlotOffset(indexOffset, 0);
  const std::uint64_t count = state.naming.count;
  std::uint64_t fileLength;
  if (!state.file->GetLength(fileLength)) return false;
  const std::uint64_t inFile =
      fileLength > start ? (fileLength - start) / Format::kNamingSlotSize : 0;
  const std::uint64_t present = std::min(count, inFile);
  const auto addEmpty = [&](std::uint64_t end) {
    return state.names->Insert(0, static_cast<std::uint32_t>(end - 1));
  };
  for (std::uint64_t slot = first; slot < present;) {
    const SlotRun run = NextRun(*state.file, start, slot, present);
    if (run.first > slot && !addEmpty(run.first)) return false;
    if (!ReadCodes(state, start, run)) return false;
    slot = run.end;
  }
  return present == count || addEmpty(count);
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
