#include "ZrCompactFileWriter.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Board.h"
#include "Cause.h"
#include "FileHeader.h"
#include "IndexHeaders.h"
#include "IndexShape.h"
#include "PathRules.h"
#include "PelmTime.h"
#include "RecordHead.h"
#include "SafeRewrite.h"
#include "StoreArguments.h"
#include "Tail.h"
#include "WholeWords.h"
#include "ZrFile.h"
#include "ZrNewFile.h"

namespace Zarn {

static_assert(ZrCompactFile::kMaxCapacity == Format::kMaxCapacity);

struct ZrCompactFileWriter::Store {
  /// Of the old record, the head and at least as much of what is to be replaced as lies in the page
  /// where the record begins.
  static constexpr std::uint64_t kMostOld = 4096;

  unsigned int row;
  unsigned int col;
  const ZrByteArray& data;
  Format::StoreSpan span;
  unsigned long long version;
  unsigned long long entry = 0;  // of the cell, before the store
  std::uint64_t fileLength = 0;  // before the store
  std::uint64_t oldSize = 0;
  unsigned char old[kMostOld] = {};  // oldSize bytes of the old record

  std::uint64_t Home() const { return Format::PositionOf(entry); }
  std::uint64_t WrittenLength() const { return Format::kGridRecordHead + span.size; }
  std::uint64_t RecordLength() const { return Format::kGridRecordHead + span.capacity; }
};

namespace {

constexpr const char* kStoring = "store into";
constexpr const char* kWritingHeader = "write the header of";

/// Around the changes of one call, which do not tell where the data end.
class Writing {
 public:
  explicit Writing(Io::Board& board) : m_board(board) {
    board.BeginWriting();
    m_isPossible = board.SetEnd(0);
  }
  ~Writing() { m_board.EndWriting(); }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;

  bool IsPossible() const { return m_isPossible; }

 private:
  Io::Board& m_board;
  bool m_isPossible = false;
};

}  // namespace

ZrCompactFileWriter::ZrCompactFileWriter()
    : m_pTail(std::make_unique<Io::Tail>(Format::IndexShape{}, false, Io::Tail::kLight)) {}

ZrCompactFileWriter::~ZrCompactFileWriter() { Close(); }

unsigned int ZrCompactFileWriter::Create(const PelmUnicodeString& path, unsigned int rows,
                                         unsigned int cols, const PelmUnicodeString& password,
                                         ZrCompactFile::ZrOpenMode mode) {
  return Io::PublicCall("create", path).Answer(CreateFile(path, rows, cols, password, mode));
}

unsigned int ZrCompactFileWriter::CreateFile(const PelmUnicodeString& path, unsigned int rows,
                                             unsigned int cols, const PelmUnicodeString& password,
                                             ZrCompactFile::ZrOpenMode mode) try {
  Close();
  if (Format::IsCachePath(path)) return Io::Fail(ZrCause::kWrongKind, ZrResult::kNotUsable);
  // The product wraps at 32 bits before it is compared.
  if (rows == 0 || cols == 0 || rows * cols > Format::kMaxGridCells)
    return Io::Fail(ZrCause::kOutOfRange, ZrResult::kNotCreated);
  if (!Format::IsUsablePath(path)) return Io::Fail(ZrCause::kBadPath, ZrResult::kNotCreated);
  const PelmUnicodeString completed = Format::CompletePath(path);
  if (ZrFile::IsExist(completed)) {
    if ((mode & ZrCompactFile::kReplace) != 0) ZrFile::Delete(completed);
    // Deleted or not: a replacing create takes two calls.
    return Io::FailUnlessBySystem(ZrCause::kExists, ZrResult::kNotCreated);
  }

  SetIdentity(completed, password, mode);
  m_header = Format::PresetHeader();
  m_nRowCount = m_nColCount = m_nGridFlags = 0;
  const PelmUnicodeString directory = ZrFile::GetDir(completed);
  if (!directory.IsEmpty()) ZrFile::MkDirEx(directory);
  const unsigned int result = MakeFile(rows, cols, mode);
  if (result != ZrResult::kOk) {
    Close();
    return result;
  }
  *m_pTail = Io::Tail({}, m_bSwap, Io::Tail::kLight);
  m_pTail->SetEmpty();
  return ZrResult::kOk;
} catch (const std::bad_alloc&) {
  Close();
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kNotCreated);
}

// Without Commit the file goes away again.
unsigned int ZrCompactFileWriter::MakeFile(unsigned int rows, unsigned int cols,
                                           ZrCompactFile::ZrOpenMode mode) {
  ZrNewFile file(*this);
  if (!file.Begin(m_strPath)) return ZrResult::kNotUsable;
  m_bOpened = true;
  if (WriteHeader() != ZrResult::kOk || WriteHeaderGrid(rows, cols) != ZrResult::kOk ||
      file.Publish() != ZrNewFile::Outcome::kPublished || !Join(mode) || !Reload() ||
      !JoinWriters())
    return ZrResult::kNotCreated;
  file.Commit();
  return ZrResult::kOk;
}

unsigned int ZrCompactFileWriter::Open(const PelmUnicodeString& path,
                                       const PelmUnicodeString& password,
                                       ZrCompactFile::ZrOpenMode mode) {
  const Io::PublicCall call("open", path);
  const unsigned int result = OpenExisting(path, password, mode, kReadWrite);
  *m_pTail = Io::Tail({}, m_bSwap, Io::Tail::kLight);
  return call.Answer(result);
}

bool ZrCompactFileWriter::Close() {
  Flush();
  CloseStream();
  return true;
}

unsigned int ZrCompactFileWriter::WriteHeader() {
  const Io::PublicCall call(kWritingHeader, m_strPath);
  if (!IsOpen()) return call.Answer(Io::Fail(ZrCause::kNotOpen, ZrResult::kNotUsable));
  if (m_bSwap || (HoldsRecords() && GetIndexOffset() != Format::kHeaderSize))
    return call.Answer(RefuseHeader());
  const Format::HeaderImage header =
      Format::NewHeader(Format::kGridFile, PelmTime().GetCurTime().GetTime());
  if (!GetBoard().Replaces() || !Io::WriteFileHeader(*this, m_xorString, header, false))
    return call.Answer(ZrResult::kWriteFailure);
  m_header = header;
  Flush();
  return ZrResult::kOk;
}

unsigned int ZrCompactFileWriter::WriteHeaderGrid(unsigned int rows, unsigned int cols) {
  const Io::PublicCall call(kWritingHeader, m_strPath);
  if (m_bSwap || HoldsRecords()) return call.Answer(RefuseHeader());
  const Format::GridHeader header = {rows, cols, m_nGridFlags | Format::kVersionsEnabled};
  const auto image = Format::EncodeGridHeader(header, false);
  const auto shape = Format::IndexShape::OfGrid(GetIndexOffset(), rows, cols);
  const std::uint64_t entries = shape.EntryAt(0);
  const std::uint64_t end = shape.End();
  if (!GetBoard().Replaces() || !WriteAt(GetIndexOffset(), image.data(), image.size()) ||
      !ZeroFill(entries, end - entries) || !SetLength(end))
    return call.Answer(ZrResult::kWriteFailure);
  m_nRowCount = header.rowCount;
  m_nColCount = header.colCount;
  m_nGridFlags = header.flags;
  Flush();
  return ZrResult::kOk;
}

bool ZrCompactFileWriter::HoldsRecords() const {
  std::uint64_t length;
  return !GetLength(length) || length > GetDataStart();
}

// The result where a new header would cost tiles.
unsigned int ZrCompactFileWriter::RefuseHeader() const {
  const ZrCause cause = m_bSwap ? ZrCause::kWrongKind : ZrCause::kExists;
  return Io::FailUnlessBySystem(cause, ZrResult::kWriteFailure);
}

bool ZrCompactFileWriter::WriteIndexValue(unsigned int row, unsigned int col,
                                          unsigned long long value) {
  return Io::PublicCall(kStoring, m_strPath)
      .Answer(WriteEntry(row, col, value), ZrResult::kWriteFailure);
}

bool ZrCompactFileWriter::WriteEntry(unsigned int row, unsigned int col, unsigned long long value) {
  if (!IsOpen()) return Io::Fail(ZrCause::kNotOpen);
  const auto cell = Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  if (!cell) return Io::Fail(ZrCause::kOutOfRange);
  if (!LookForChanges()) return false;
  CutSpare();
  const Writing writing(GetBoard());
  if (!writing.IsPossible()) return false;
  unsigned long long before;
  if (ReadIndexValue(row, col, before)) return ReplaceIndexValue(row, col, before, value);
  std::uint64_t after;
  StoreScalar<std::uint64_t>(&after, value, m_bSwap);
  const Io::BoardChange change(GetBoard(), *cell);
  return change.IsShown() && WriteAt(GetIndexShape().EntryAt(*cell), &after, sizeof after);
}

// The same for an entry that is `before` in the file. On failure the old one is there.
bool ZrCompactFileWriter::ReplaceIndexValue(unsigned int row, unsigned int col,
                                            unsigned long long before, unsigned long long after) {
  const auto cell = Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  if (!cell) return false;
  std::uint64_t stored[2];
  StoreScalar<std::uint64_t>(&stored[0], before, m_bSwap);
  StoreScalar<std::uint64_t>(&stored[1], after, m_bSwap);
  const Io::BoardChange change(GetBoard(), *cell);
  return change.IsShown() &&
         Io::ReplaceWord(*this, GetIndexShape().EntryAt(*cell), stored[0], stored[1]);
}

unsigned int ZrCompactFileWriter::SetAt(unsigned int row, unsigned int col, const ZrByteArray& data,
                                        unsigned long long nCapacity, unsigned long long nOffset,
                                        unsigned long long nVersion) {
  return Io::PublicCall(kStoring, m_strPath)
      .Answer(StoreTile(row, col, data, nCapacity, nOffset, nVersion));
}

unsigned int ZrCompactFileWriter::StoreTile(unsigned int row, unsigned int col,
                                            const ZrByteArray& data, unsigned long long nCapacity,
                                            unsigned long long nOffset,
                                            unsigned long long nVersion) {
  if (!IsOpen()) return ZrResult::kNotOpen;
  const auto span = Format::ResolveStore(nCapacity, nOffset, data.GetSize());
  if (!span)
    return Io::Fail(data.IsEmpty() ? ZrCause::kEmptyArgument : ZrCause::kOutOfRange,
                    ZrResult::kWriteFailure);
  if (!LookForChanges()) return ZrResult::kReadFailure;
  CutSpare();
  const Writing writing(GetBoard());
  Store store{row, col, data, *span, nVersion};
  if (!writing.IsPossible() || !ReadIndexValue(row, col, store.entry) ||
      !GetLength(store.fileLength))
    return ZrResult::kWriteFailure;
  switch (FindPlace(store)) {
    case Place::kInPlace:
      return Rewrite(store);
    case Place::kAppend:
      return Append(store);
    case Place::kBeyondFile:
      return ZrResult::kOk;  // deliberately silent, nothing written
    default:
      return Io::FailUnlessBySystem(ZrCause::kDamagedRecord, ZrResult::kReadFailure);
  }
}

// Others may have stored tiles, or compacted the file.
bool ZrCompactFileWriter::LookForChanges() {
  const auto change = GetBoard().Refresh();
  if (change != Io::Board::Change::kNone) m_pTail->Invalidate();
  return change != Io::Board::Change::kAll || Reload();
}

// Where the tile goes. In place only if the whole new record fits into the old one, or the old one
// is the last in the file, and if no other record lies in what the old one has not filled.
ZrCompactFileWriter::Place ZrCompactFileWriter::FindPlace(Store& store) const {
  const std::uint64_t position = store.Home();
  if (!Format::HoldsRecord(Format::StatusOf(store.entry)) || position < GetDataStart())
    return Place::kAppend;
  const std::uint64_t written = store.WrittenLength();
  const std::uint64_t inPage = Store::kMostOld - position % Store::kMostOld;
  const std::uint64_t inFile = store.fileLength > position ? store.fileLength - position : 1;
  const std::uint64_t wanted =
      std::max<std::uint64_t>(std::min(inPage, written), Format::kGridRecordHead);
  store.oldSize = ReadUpTo(position, store.old, std::min(wanted, inFile));
  if (store.oldSize < Format::kRecordLengthSize) return Place::kUnreadable;
  Format::RecordHead head;
  const auto parse = Format::ParseRecordHead(store.old, store.oldSize, {.swap = m_bSwap}, head);
  const std::uint64_t length = head.length;
  if (length < Format::kGridRecordHead) return Place::kAppend;
  if (store.fileLength < position || length > store.fileLength - position)
    return Place::kBeyondFile;

  const std::uint64_t capacity = store.span.capacity;
  const bool allowed = !IsVersionEnabled() || length >= Format::kMinGridRecord + capacity;
  const bool harmless = length >= store.RecordLength() || length == store.fileLength - position;
  if (!allowed || !harmless) return Place::kAppend;
  const std::uint64_t filled = parse.outcome == Format::HeadParse::kComplete
                                   ? head.size + std::min(head.filledLength, head.capacity)
                                   : Format::kGridRecordHead;
  return m_pTail->IsCrowded(*this, position, filled, written) ? Place::kAppend : Place::kInPlace;
}

unsigned int ZrCompactFileWriter::Append(const Store& store) {
  ZrCompactFile::ZrStatus status;
  const unsigned long long position =
      WriteRecord(store, GetAppendPosition(store.fileLength), status);
  const bool isStored =
      position != 0 && ReplaceIndexValue(store.row, store.col, store.entry,
                                         Format::PackIndexValue(status, position));
  return isStored ? ZrResult::kOk : ZrResult::kWriteFailure;
}

// Puts the record in the place of the cell's.
unsigned int ZrCompactFileWriter::Rewrite(const Store& store) {
  const std::uint64_t home = store.Home();
  const std::uint64_t written = store.WrittenLength();
  const std::uint64_t fileLength = std::max(store.fileLength, home + written);
  // A last record that grows gets the room first: a full disk must not cost the tile.
  const bool grows = fileLength > store.fileLength;
  if (grows && !ZeroFill(store.fileLength, fileLength - store.fileLength))
    return ZrResult::kWriteFailure;
  if (Io::SpansPages(home, written))
    return RewriteAcrossPages(store, fileLength) ? ZrResult::kOk : ZrResult::kWriteFailure;

  Io::SafeRewrite rewrite(*this, *m_pTail, GetBoard());
  rewrite.KeepOld(*Format::GridCellNumber(m_nRowCount, m_nColCount, store.row, store.col), home,
                  store.old, std::min(store.oldSize, written));
  ZrCompactFile::ZrStatus status;
  if (rewrite.WithinPage(
          [&](std::uint64_t position) { return WriteRecord(store, position, status) != 0; }))
    return ZrResult::kOk;
  if (grows) Cut(store.fileLength);
  return ZrResult::kWriteFailure;
}

// The entry deliberately keeps its status.
bool ZrCompactFileWriter::RewriteAcrossPages(const Store& store, unsigned long long fileLength) {
  ZrCompactFile::ZrStatus status;
  const auto write = [&](std::uint64_t position) {
    return WriteRecord(store, position, status) != 0;
  };
  const std::uint64_t copy = GetAppendPosition(fileLength);
  const std::uint64_t copyEnd = copy + store.RecordLength();
  // Readers take a record that the file holds wholly.
  if (copy == 0 || !write(copy) || !SetLength(copyEnd)) {
    m_pTail->GiveBack(*this);
    if (fileLength > store.fileLength) Cut(store.fileLength);
    return false;
  }
  unsigned long long entry = store.entry;
  const auto point = [&](std::uint64_t position) {
    const auto next = Format::PackIndexValue(Format::StatusOf(entry), position);
    return ReplaceIndexValue(store.row, store.col, std::exchange(entry, next), next);
  };
  Io::SafeRewrite rewrite(*this, *m_pTail, GetBoard());
  const std::uint64_t place = rewrite.AcrossPages(copy, store.Home(), write, point);
  if (place != 0) m_pTail->Claim(place + store.RecordLength());
  return place != 0;
}

unsigned long long ZrCompactFileWriter::WriteRecord(const Store& store, unsigned long long position,
                                                    ZrCompactFile::ZrStatus& status) {
  return WriteData(status, store.data, store.span.capacity, store.span.offset, store.version,
                   position);
}

unsigned long long ZrCompactFileWriter::WriteDataToFile(
    ZrCompactFile::ZrStatus& status, const ZrByteArray& data, unsigned long long capacity,
    unsigned long long nOffset, unsigned long long nVersion, unsigned long long position) {
  return Io::PublicCall(kStoring, m_strPath)
      .Answer(WriteData(status, data, capacity, nOffset, nVersion, position),
              ZrResult::kWriteFailure);
}

unsigned long long ZrCompactFileWriter::WriteData(
    ZrCompactFile::ZrStatus& status, const ZrByteArray& data, unsigned long long capacity,
    unsigned long long nOffset, unsigned long long nVersion, unsigned long long position) {
  const auto span = Format::FitSpan(capacity, nOffset, data.GetSize());
  if (!IsOpen()) return Io::Fail(ZrCause::kNotOpen, 0U);
  if (!span || position < GetDataStart()) return Io::FailUnlessBySystem(ZrCause::kOutOfRange, 0U);
  const std::uint64_t recordLength = Format::kGridRecordHead + capacity;
  // Beyond what an index value can name, the position would run into the status.
  if (position > Format::kPositionMask || recordLength > Format::kPositionMask - position)
    return Io::Fail(ZrCause::kOutOfRange, 0U);
  status = static_cast<ZrCompactFile::ZrStatus>(span->Status());
  unsigned char head[Format::kGridRecordHead];
  // Host order even in a file of the other order, where only the index is swapped.
  Format::EncodeRecordHead(head, {}, {},
                           {nVersion, span->Status(), capacity, span->FilledLength()});
  if (!WriteParts(position, head, sizeof head, data.GetData(), data.GetSize())) return 0;
  m_pTail->Claim(position + recordLength);
  Flush();
  return position;
}

// Where the next record goes; 0 if the file cannot be read.
unsigned long long ZrCompactFileWriter::GetAppendPosition(unsigned long long fileLength) {
  m_pTail->SetIndex(GetIndexShape());
  return m_pTail->Reserve(*this, fileLength);
}

}  // namespace Zarn
