#include "ZrGridFile.h"

#include <algorithm>
#include <new>
#include <optional>

#include "Board.h"
#include "Cause.h"
#include "FileHeader.h"
#include "IndexHeaders.h"
#include "IndexShape.h"
#include "OpenPath.h"
#include "PathRules.h"
#include "RedoFile.h"
#include "ZrFile.h"
#include "ZrProcess.h"

namespace Zarn {

static_assert(ZrCompactFile::kComplete == Format::kStatusComplete &&
              ZrCompactFile::kPartial == Format::kStatusPartial &&
              ZrCompactFile::kUnknown == Format::kStatusUnknown);

// The lock of this object, and the board of the file.
struct __attribute__((visibility("hidden"))) ZrGridFile::Sharing : ZrProcess {
  explicit Sharing(ZrFileStream& stream) { Attach(Io::Board::kInObject, stream, {}); }

  void Attach(Io::Board::Place place, ZrFileStream& stream, const Format::HeaderImage& header) {
    board.emplace(place, stream, header, false);
  }

  using ZrProcess::EnterFile;
  using ZrProcess::IsAnotherPresent;
  using ZrProcess::IsLockOn;
  using ZrProcess::LeaveFile;

  std::optional<Io::Board> board;
};

ZrGridFile::ZrGridFile()
    : m_header(Format::PresetHeader()),
      m_xorString{},
      m_pSharing(std::make_unique<Sharing>(*this)) {}

ZrGridFile::~ZrGridFile() { CloseStream(); }

bool ZrGridFile::IsVersionEnabled() const {
  return Format::HeaderView(m_header).FileKind() == Format::kGridFile &&
         (m_nGridFlags & Format::kVersionsEnabled) != 0;
}

unsigned int ZrGridFile::OpenExisting(const PelmUnicodeString& path,
                                      const PelmUnicodeString& password,
                                      ZrCompactFile::ZrOpenMode mode, unsigned int direction) try {
  if (IsOpenAt(path)) return ZrResult::kOk;
  CloseStream();
  if (Format::IsCachePath(path)) return Io::Fail(ZrCause::kWrongKind, ZrResult::kNotUsable);
  if (!Format::IsUsablePath(path)) return Io::Fail(ZrCause::kBadPath, ZrResult::kNotFound);
  const PelmUnicodeString completed = Format::CompletePath(path);
  if (!ZrFile::IsExist(completed)) return ZrResult::kNotFound;

  SetIdentity(completed, password, mode);
  if (!ZrFile32::Open(completed, direction) || !Join(mode)) {
    Io::FailUnlessBySystem(ZrCause::kWrongKind);
    CloseStream();
    return ZrResult::kNotOpen;
  }
  unsigned int header = ReadHeader();
  // A compaction may have been cut short. Finishing it may give the path to another file.
  if (header == ZrResult::kWrongFile && Io::FinishReplacement(completed) &&
      ZrFile32::Open(completed, direction) && Join(mode))
    header = ReadHeader();
  if (header != ZrResult::kOk || !AttachBoard() || !JoinWriters()) {
    CloseStream();
    return ZrResult::kReadFailure;
  }
  m_bOpened = true;
  return ZrResult::kOk;
} catch (const std::bad_alloc&) {
  CloseStream();
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kNotOpen);
}

bool ZrGridFile::IsOpenAt(const PelmUnicodeString& path) const {
  return m_bOpened && Io::IsPathOf(path, m_strPath, *this);
}

// Without the bit for the process lock the object writes without it.
bool ZrGridFile::Join(ZrCompactFile::ZrOpenMode mode) {
  constexpr unsigned int kLastUsable = 1;
  const bool isUnlocked = !IsReadOnly() && (mode & ZrCompactFile::kProcessLock) == 0;
  return m_pSharing->ProcessLockInit(m_strPath) <= kLastUsable && m_pSharing->IsLockOn(*this) &&
         m_pSharing->EnterFile(isUnlocked ? Presence::kWritesUnlocked : Presence::kOpen);
}

Io::Board& ZrGridFile::GetBoard() const { return *m_pSharing->board; }

bool ZrGridFile::Reload() { return ReadHeader() == ZrResult::kOk && AttachBoard(); }

// The header was just read.
bool ZrGridFile::AttachBoard() {
  if (ReadHeaderGrid() != ZrResult::kOk) return false;
  m_pSharing->Attach(SharesPages() ? Io::Board::kInFile : Io::Board::kNowhere, *this, m_header);
  return true;
}

// Without the lock nobody could tell a dead writer's odd word, nor where the data end while this
// object writes. Who has the process lock from the caller leaves both to others.
bool ZrGridFile::JoinWriters() {
  const bool isLocked = (m_nOpenMode & ZrCompactFile::kProcessLock) != 0;
  if (IsReadOnly() || isLocked) return true;
  if (!m_pSharing->WriterLock(0)) return false;
  bool isUsable = m_pSharing->IsLockOn(*this) &&
                  (GetBoard().Refresh() != Io::Board::Change::kAll ||
                   (Reload() && GetBoard().Refresh() != Io::Board::Change::kAll));
  if (isUsable) CutSpare();
  isUsable = isUsable && GetBoard().RenounceEnd();
  if (isUsable && GetBoard().IsOdd() && !m_pSharing->IsAnotherPresent(Presence::kWritesUnlocked))
    GetBoard().Repair();
  m_pSharing->WriterUnlock();
  return isUsable;
}

// Without another writer nobody vouches for the end that the board tells.
void ZrGridFile::CutSpare() {
  const std::uint64_t end = GetBoard().GetEnd();
  std::uint64_t length;
  if (end != 0 && GetLength(length) && end < length &&
      m_pSharing->IsAnotherPresent(Presence::kWrites))
    Cut(end);
}

// If another file has the path, the lock says nothing about this one.
bool ZrGridFile::UnderLock(const std::function<void()>& action) {
  if (!m_pSharing->ReaderLock(0)) return false;
  bool isUsable = m_pSharing->IsLockOn(*this) || Io::Fail(ZrCause::kMoved);
  if (isUsable && GetBoard().Refresh() == Io::Board::Change::kAll)
    isUsable = Reload() && GetBoard().Refresh() != Io::Board::Change::kAll;
  if (isUsable) {
    if (GetBoard().IsOdd() && !m_pSharing->IsAnotherPresent(Presence::kWritesUnlocked))
      GetBoard().Bury();
    action();
  }
  m_pSharing->ReaderUnlock();
  return isUsable;
}

void ZrGridFile::CloseStream() {
  const Io::KeptNote kept;
  if (m_pSharing->LeaveFile()) GetBoard().Clear(m_strPath);
  m_pSharing->ProcessLockRelease();
  m_pSharing->Attach(Io::Board::kInObject, *this, {});
  ZrFile32::Close();
  m_bSwap = false;
  m_bOpened = false;
}

void ZrGridFile::SetIdentity(const PelmUnicodeString& path, const PelmUnicodeString& password,
                             ZrCompactFile::ZrOpenMode mode) {
  m_strPath = path;
  m_strPassword = password;
  m_nOpenMode = mode;
  m_xorString = Format::MakeXorString(password.GetBuffer());
}

unsigned int ZrGridFile::ReadHeader() {
  const Io::PublicCall call("read the header of", m_strPath);
  switch (Io::ReadFileHeader(*this, m_xorString, m_header, m_bSwap)) {
    case Io::HeaderRead::kOk:
      return ZrResult::kOk;
    case Io::HeaderRead::kBadMagic:
      return call.Answer(ZrResult::kWrongFile);
    default:
      return call.Answer(ZrResult::kReadFailure);
  }
}

unsigned int ZrGridFile::ReadHeaderGrid() {
  const Io::PublicCall call("read the header of", m_strPath);
  if (Format::HeaderView(m_header).FileKind() != Format::kGridFile)
    return call.Answer(Io::Fail(ZrCause::kWrongKind, ZrResult::kWrongFile));
  Format::GridHeaderImage image;
  if (GetIndexOffset() < Format::kHeaderSize ||
      !ReadAt(GetIndexOffset(), image.data(), image.size()))
    return call.Answer(Io::FailUnlessBySystem(ZrCause::kDamagedHeader, ZrResult::kReadFailure));
  const Format::GridHeader header = Format::DecodeGridHeader(image, m_bSwap);
  m_nRowCount = header.rowCount;
  m_nColCount = header.colCount;
  m_nGridFlags = header.flags;
  return ZrResult::kOk;
}

bool ZrGridFile::ReadIndexValue(unsigned int row, unsigned int col,
                                unsigned long long& value) const {
  return Io::PublicCall("read from", m_strPath)
      .Answer(ReadEntries(row, col, &value, 1) == 1, ZrResult::kReadFailure);
}

unsigned int ZrGridFile::ReadEntries(unsigned int row, unsigned int col,
                                     unsigned long long* entries, unsigned int count) const {
  const auto cell = Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  if (!m_bOpened || !cell)
    return Io::Fail(m_bOpened ? ZrCause::kOutOfRange : ZrCause::kNotOpen, 0U);
  const unsigned int following = Format::GridEntryCount(m_nRowCount, m_nColCount) - *cell;
  const std::uint64_t size = std::min(count, following) * std::uint64_t{Format::kGridEntrySize};
  const std::uint64_t position = GetIndexShape().EntryAt(*cell);
  const auto got =
      static_cast<unsigned int>(ReadUpTo(position, entries, size) / Format::kGridEntrySize);
  if (got == 0) Io::FailUnlessBySystem(ZrCause::kDamagedEntry);
  for (unsigned int i = 0; i < got; ++i)
    entries[i] = LoadScalar<unsigned long long>(&entries[i], m_bSwap);
  return got;
}

ZrCompactFile::ZrStatus ZrGridFile::GetStatus(unsigned int row, unsigned int col) const {
  unsigned long long value;
  if (!ReadIndexValue(row, col, value)) return ZrCompactFile::kUnknown;
  return static_cast<ZrCompactFile::ZrStatus>(Format::StatusOf(value));
}

unsigned long long ZrGridFile::GetIndexOffset() const {
  return Format::HeaderView(m_header).IndexOffset();
}

Format::IndexShape ZrGridFile::GetIndexShape() const {
  return Format::IndexShape::OfGrid(GetIndexOffset(), m_nRowCount, m_nColCount);
}

unsigned long long ZrGridFile::GetDataStart() const { return GetIndexShape().End(); }

}  // namespace Zarn
