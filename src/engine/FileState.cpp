#include "FileState.h"

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

bool LoadNamingIndex(FileState& state, std::uint64_t indexOffset) {
  Format::NamingHeaderImage image;
  if (!state.file->ReadAt(indexOffset, image.data(), image.size())) return false;
  state.naming = Format::DecodeNamingHeader(image, state.swap);
  if (state.naming.capacity > Format::kMaxNamingCapacity ||
      state.naming.count > state.naming.capacity)
    return false;
  return ProvideIndex(state, Format::NamingSlotOffset(indexOffset, 0),
                      state.naming.capacity * Format::kNamingSlotSize, Format::kNamingSlotSize);
}

bool LoadIndex(FileState& state) {
  const Format::HeaderView header(state.header);
  const std::uint64_t indexOffset = header.IndexOffset();
  const bool isGrid = header.FileKind() == Format::kGridFile;
  if (!isGrid && header.FileKind() != Format::kNamingFile) {
    state.index = nullptr;  // a kind without an index opens, and can be asked for its kind
    return true;
  }
  if (indexOffset < Format::kHeaderSize) return false;
  return isGrid ? LoadGridIndex(state, indexOffset) : LoadNamingIndex(state, indexOffset);
}

}  // namespace

unsigned int LoadFileState(const FileSource& source, FileState& state) {
  state.grid = {};
  state.naming = {};
  if (!OpenStream(source, state.file)) return ZrResult::kNotOpen;
  if (Io::ReadFileHeader(*state.file, source.xorString, state.header, state.swap) !=
      Io::HeaderRead::kOk)
    return ZrResult::kWrongFile;
  return LoadIndex(state) ? ZrResult::kOk : ZrResult::kNotUsable;
}

}  // namespace Zarn::Engine
