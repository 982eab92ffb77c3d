#include "OpenFile.h"

#include <algorithm>

#include "RedoFile.h"
#include "ZrResult.h"

namespace Zarn::Engine {

unsigned int OpenFile::Load(const Source& source, MaxSizes& maxSizes, OpenFile* previous,
                            std::shared_ptr<OpenFile>& loaded) {
  loaded = nullptr;
  const OpenFile none;
  const OpenFile& before = previous != nullptr ? *previous : none;
  auto file = std::make_shared<OpenFile>();
  file->m_file = source.stream != nullptr ? source.stream : before.m_file;
  if (source.stream == nullptr && !file->OpenStream(source)) return ZrResult::kNotOpen;
  // Perhaps a compaction was cut short. Finishing it may give the path to another file.
  if (!file->ReadHeader(source) && (!Io::FinishReplacement(source.path) ||
                                    !file->OpenStream(source) || !file->ReadHeader(source)))
    return ZrResult::kWrongFile;
  file->TakeMap(source, before);
  if (!file->ReadIndex(source, maxSizes, before)) return ZrResult::kNotUsable;
  file->TakeTail(source, before);
  loaded = std::move(file);
  return ZrResult::kOk;
}

// Opens the file at the path, unless it is the one that is open.
bool OpenFile::OpenStream(const Source& source) {
  const bool mayStay = m_file != nullptr && (!source.readOnly || m_file->IsReadOnly());
  if (mayStay && m_file->IsSameFile(source.path)) return true;
  m_file = std::make_shared<ZrFile64>();
  return (!source.readOnly && m_file->Open(source.path, ZrFile64::kReadWrite)) ||
         m_file->Open(source.path, ZrFile64::kRead);
}

bool OpenFile::ReadHeader(const Source& source) {
  if (m_header.Read(*m_file, source.xorString) != Io::HeaderRead::kOk) return false;
  const Format::HeaderView header = m_header.View();
  m_shape = {header.FileKind(), header.FormatVersion(), m_header.IsSwapped()};
  return true;
}

void OpenFile::TakeMap(const Source& source, const OpenFile& previous) {
  if (!source.mapped) return;
  if (previous.m_file == m_file) m_pMap = previous.m_pMap;
  if (m_pMap != nullptr)
    m_pMap->Invalidate();
  else
    m_pMap = std::make_shared<Io::FileMap>(m_file);
}

// A kind without an index opens, and can be asked for its kind.
bool OpenFile::ReadIndex(const Source& source, MaxSizes& maxSizes, const OpenFile& previous) {
  const std::uint64_t indexOffset = m_header.View().IndexOffset();
  const bool isGrid = GetKind() == Format::kGridFile;
  if (!isGrid && !m_shape.IsNaming()) return true;
  if (indexOffset < Format::kHeaderSize) return false;
  if (isGrid) {
    m_cells = CellIndex::Load(m_file, indexOffset, m_shape.swap, source.isShared, previous.Cells());
    return m_cells != nullptr;
  }
  m_names = NameIndex::Load(m_file, m_header, maxSizes, previous.Names(),
                            previous.m_header.View().CreateTime());
  return m_names != nullptr;
}

// Where the data end is looked for again, but from what was there before in the same file.
void OpenFile::TakeTail(const Source& source, const OpenFile& previous) {
  if (m_cells == nullptr && m_names == nullptr) return;
  if (previous.m_tail && previous.m_file == m_file &&
      previous.m_header.GetFields() == m_header.GetFields())
    m_tail = previous.m_tail;
  else
    m_tail.emplace(Index().GetShape(), m_shape.swap, source.isShared);
  m_tail->SetIndex(Index().GetShape());
  m_tail->Invalidate();
}

bool OpenFile::HasVersions() const {
  return m_cells != nullptr ? m_cells->HasVersions() : m_names != nullptr && m_names->HasVersions();
}

TileStore::Place OpenFile::GetPlace() {
  return {*m_file, m_pMap.get(), m_shape, Index().GetShape(), HasVersions(), *m_tail, Index()};
}

bool OpenFile::HasSameHeaders() const {
  if (m_cells == nullptr || m_header.View().IndexOffset() != Format::kHeaderSize) return false;
  const Format::HeaderImage header = m_header.GetBytes();
  const Format::GridHeaderImage index = m_cells->GetHeaderBytes();
  unsigned char now[Format::kHeaderSize + Format::kGridHeaderSize];
  const std::uint64_t got = m_pMap != nullptr ? m_pMap->ReadUpTo(0, now, sizeof now)
                                              : m_file->ReadUpTo(0, now, sizeof now);
  return got == sizeof now && std::equal(header.begin(), header.end(), now) &&
         std::equal(index.begin(), index.end(), now + Format::kHeaderSize);
}

void OpenFile::InvalidateTiles() {
  m_tail->Invalidate();
  m_cells->GetPages()->Invalidate();
}

}  // namespace Zarn::Engine
