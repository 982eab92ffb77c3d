#include "OpenFile.h"

#include <algorithm>
#include <ctime>
#include <new>

#include "Cause.h"
#include "RedoFile.h"
#include "ZrResult.h"

namespace Zarn::Engine {

std::uint64_t OpenFile::NextId() {
  static std::atomic<std::uint64_t> s_last{0};
  return ++s_last;
}

unsigned int OpenFile::Load(const Source& source, MaxSizes& maxSizes, OpenFile* previous,
                            std::shared_ptr<OpenFile>& loaded) {
  loaded = nullptr;
  const OpenFile none;
  const OpenFile& before = previous != nullptr ? *previous : none;
  auto file = std::make_shared<OpenFile>();
  file->m_file = source.stream != nullptr ? source.stream : before.m_file;
  if (source.stream == nullptr && !file->OpenStream(source))
    return Io::FailUnlessBySystem(ZrCause::kWrongKind, ZrResult::kNotOpen);
  // Perhaps a compaction was cut short. Finishing it may give the path to another file.
  if (!file->ReadHeader(source) && (!Io::FinishReplacement(source.path) ||
                                    !file->OpenStream(source) || !file->ReadHeader(source)))
    return ZrResult::kWrongFile;
  const auto place = !source.isShared              ? Io::Board::kInObject
                     : file->m_file->SharesPages() ? Io::Board::kInFile
                                                   : Io::Board::kNowhere;
  if (source.mapped && place != Io::Board::kNowhere) file->TakeMap(before);
  file->m_board.emplace(place, *file->m_file, file->m_header.GetImage(), source.mapped);
  if (source.isShared) file->m_strPath = source.path;
  Io::ForgetFailure();
  if (!file->ReadIndex(maxSizes))
    return Io::FailUnlessBySystem(ZrCause::kDamagedHeader, ZrResult::kNotUsable);
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

// Pages that nobody shares would remain as they were first seen.
void OpenFile::TakeMap(const OpenFile& previous) {
  if (previous.m_file == m_file) m_pMap = previous.m_pMap;
  if (m_pMap == nullptr) m_pMap = std::make_shared<Io::FileMap>(m_file);
}

// A kind without an index opens, and can be asked for its kind.
bool OpenFile::ReadIndex(MaxSizes& maxSizes) {
  const std::uint64_t indexOffset = m_header.View().IndexOffset();
  const bool isGrid = GetKind() == Format::kGridFile;
  if (!isGrid && !m_shape.IsNaming()) return true;
  if (indexOffset < Format::kHeaderSize) return false;
  if (isGrid)
    m_cells = CellIndex::Load(m_file, *m_board, indexOffset, m_shape.swap);
  else
    m_names = NameIndex::Load(m_file, *m_board, m_header, maxSizes);
  return HasIndex();
}

// Where the data end is looked for again, but from what was there before in the same file.
void OpenFile::TakeTail(const Source& source, const OpenFile& previous) {
  if (!HasIndex()) return;
  const auto use = source.isShared ? Io::Tail::kShared
                   : source.mapped ? Io::Tail::kOwnMapped
                                   : Io::Tail::kOwn;
  if (previous.m_tail && previous.m_file == m_file && previous.m_header.HasFieldsOf(m_header))
    m_tail = previous.m_tail;
  else
    m_tail.emplace(Index().GetShape(), m_shape.swap, use);
  m_tail->SetIndex(Index().GetShape());
  m_tail->SetBoard(*m_board);
  m_tail->Refresh(0);
}

bool OpenFile::ForgetEnd() {
  if (m_tail) m_tail->Invalidate();
  return m_board->ForgetEnd();
}

void OpenFile::HasSpareFrom(std::uint64_t end) {
  std::uint64_t length;
  if (m_tail && m_file->GetLength(length)) m_tail->HasSpareFrom(end, length);
}

// Another object may have left it. 0 if there is none, or if that cannot be told.
std::uint64_t OpenFile::FindSpare() const {
  const std::uint64_t end = m_board->LookForEnd();
  std::uint64_t length;
  return end != 0 && m_file->GetLength(length) && end < length ? end : 0;
}

bool OpenFile::HasSpare() const {
  if (!m_tail || m_file->IsReadOnly()) return false;
  return m_board->GetPlace() == Io::Board::kInFile ? FindSpare() != 0 : m_tail->HasSpare();
}

void OpenFile::CutSpare() {
  if (!m_tail || m_file->IsReadOnly()) return;
  if (m_board->GetPlace() != Io::Board::kInFile)
    m_tail->CutSpare(*m_file);
  else if (const std::uint64_t end = FindSpare(); end != 0)
    m_file->Cut(end);
}

bool OpenFile::HasVersions() const {
  return m_cells != nullptr ? m_cells->HasVersions() : m_names != nullptr && m_names->HasVersions();
}

// Other programs may move or delete the file. Stores look at the path under the lock.
bool OpenFile::IsAtPath() try {
  constexpr std::int64_t kInterval = 10;
  if (m_board->GetPlace() != Io::Board::kInFile) return true;
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  const std::int64_t milliseconds = std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
  if (milliseconds < m_nextLook.load(std::memory_order_relaxed)) return true;
  if (!m_file->IsSameFile(m_strPath)) return false;
  m_nextLook.store(milliseconds + kInterval, std::memory_order_relaxed);
  return true;
} catch (const std::bad_alloc&) {
  return false;  // the lock looks as well
}

TileStore::Place OpenFile::GetPlace() {
  return {*m_file, m_pMap.get(), m_shape, Index().GetShape(), HasVersions(),
          *m_tail, *m_board,     Index(), m_nOlderEnd};
}

// A program that does not know the board, or one that was killed before it told of its change,
// shows only by the length that it has changed the file. Without a board the system may remember a
// length of the path that is not the open file's.
OpenFile::Change OpenFile::Refresh(std::uint64_t length) {
  if (length < Format::kHeaderSize) return Change::kAll;
  const auto change = m_board->Refresh();
  if (change == Io::Board::Change::kAll) return Change::kAll;
  if (m_board->GetPlace() == Io::Board::kNowhere && !m_header.IsIn(*m_file)) return Change::kAll;
  if (!HasIndex()) return Change::kNone;
  if (change == Io::Board::Change::kNone) {
    if (m_tail->IsAsLeft(length)) return Change::kNone;
    m_board->Forget();
    m_tail->Invalidate();
  } else {
    m_tail->Refresh(m_board->GetPlace() == Io::Board::kInFile ? length : 0);
  }
  if (m_names == nullptr) return Change::kTiles;
  switch (m_names->LookForNewNames()) {
    case NameIndex::Growth::kNone:
      return Change::kTiles;
    case NameIndex::Growth::kNewNames:
      return Change::kNames;
    default:
      return Change::kAll;
  }
}

}  // namespace Zarn::Engine
