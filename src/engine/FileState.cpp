#include "FileState.h"

#include <algorithm>

#include "IndexWalker.h"
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
  const auto index =
      Format::IndexShape::OfGrid(indexOffset, state.grid.rowCount, state.grid.colCount);
  return ProvideIndex(state, {index, isShared, state.swap});
}

constexpr std::uint64_t kSlotsAtOnce = 16384;

// Reads the hash codes of the slots from `first` on into the table. Those in holes, and beyond the
// end of the file, are empty, all with the code 0, of which the last counts: so a file that claims
// many names takes memory only for those that it has.
bool AddNames(const FileState& state, const Format::IndexShape& index, std::uint64_t first) {
  const std::uint64_t count = state.naming.count;
  std::uint64_t fileLength;
  if (!state.file->GetLength(fileLength)) return false;
  const std::uint64_t inFile =
      fileLength > index.EntryAt(0) ? (fileLength - index.EntryAt(0)) / index.EntrySize() : 0;
  const auto insert = [&](std::uint64_t code, std::uint64_t slot) {
    return state.names->Insert(code, static_cast<std::uint32_t>(slot));
  };
  Io::IndexWalker slots(*state.file, index, state.swap, std::min(count, inFile),
                        {.first = first, .blockSize = kSlotsAtOnce, .readsLastBlock = true});
  std::uint64_t next = slots.Position();
  std::uint64_t roomUpTo = 0;
  while (slots.Next()) {
    if (slots.First() > next && !insert(0, slots.First() - 1)) return false;
    next = slots.Position();
    if (next > roomUpTo) {
      roomUpTo = slots.NextHole();
      if (!state.names->Reserve(state.names->GetSize() + roomUpTo - slots.First())) return false;
    }
    for (std::size_t i = 0; i < slots.Size(); ++i)
      if (!insert(slots.Code(i), slots.First() + i)) return false;
  }
  return !slots.HasFailed() && (next == count || insert(0, count - 1));
}

// Whether the index has only grown since `previous` was loaded. Slots are never taken back, so it
// then has the names that it had. One that was made anew, by compaction, has a later time of
// creation; and the last slot that was known must still be the same.
bool HasOnlyGrown(const FileState& state, const FileState& previous,
                  const Format::IndexShape& index) {
  if (previous.names == nullptr || previous.file != state.file ||
      Format::HeaderView(previous.header).CreateTime() !=
          Format::HeaderView(state.header).CreateTime() ||
      previous.naming.count > state.naming.count)
    return false;
  if (previous.naming.count == 0) return true;
  const std::uint64_t last = previous.naming.count - 1;
  std::uint64_t code;
  return state.file->ReadAt(index.EntryAt(last) + Format::kWidth8, &code, sizeof code) &&
         previous.names->Find(LoadScalar<std::uint64_t>(&code, state.swap)) == last;
}

bool LoadNamingIndex(FileState& state, const FileState& previous, std::uint64_t indexOffset) {
  Format::NamingHeaderImage image;
  if (!state.file->ReadAt(indexOffset, image.data(), image.size())) return false;
  state.naming = Format::DecodeNamingHeader(image, state.swap);
  if (state.naming.capacity > Format::kMaxNamingCapacity ||
      state.naming.count > state.naming.capacity)
    return false;
  const auto index = Format::IndexShape::OfNames(indexOffset, state.naming.capacity);
  if (!ProvideIndex(state, {index})) return false;
  const bool hasGrown = HasOnlyGrown(state, previous, index);
  state.names = hasGrown ? previous.names : std::make_shared<NameTable>();
  return AddNames(state, index, hasGrown ? previous.naming.count : 0);
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
