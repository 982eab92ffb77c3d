#include "ZrCompactFileReader.h"

#include <algorithm>
#include <optional>

#include "Cause.h"
#include "Header.h"
#include "IndexValue.h"
#include "RecordReader.h"
#include "Snapshot.h"

namespace Zarn {

/// One lookup, and what it has found.
struct ZrCompactFileReader::Tile {
  unsigned int row;
  unsigned int col;
  unsigned long long version;
  unsigned int result = ZrResult::kReadFailure;
  bool hasEntry = false;
  bool isThere = false;
  bool isOlder = false;  // the version is not the newest
  std::optional<Io::RecordReader> record{};
};

unsigned int ZrCompactFileReader::Open(const PelmUnicodeString& path,
                                       const PelmUnicodeString& password,
                                       ZrCompactFile::ZrOpenMode mode) {
  return Io::PublicCall("open", path).Answer(OpenExisting(path, password, mode, kRead));
}

bool ZrCompactFileReader::Close() {
  CloseStream();
  return true;
}

unsigned int ZrCompactFileReader::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                         unsigned long long& nFilled, unsigned long long nVersion) {
  const Io::PublicCall call("read from", m_strPath);
  if (!IsOpen()) return call.Answer(ZrResult::kNotOpen);
  Tile tile{row, col, nVersion};
  const bool needsLock = GetBoard().GetPlace() == Io::Board::kNowhere;
  const auto lookAgain = [&] {
    Io::ForgetFailure();
    LookUp(tile);
  };
  if (needsLock || !LookUp(tile)) UnderLock(lookAgain);
  if (tile.hasEntry) nFilled = 0;
  if (tile.result != ZrResult::kOk) return call.Answer(tile.result);
  if (!tile.isThere) data.Resize(0);
  if (!tile.isThere || tile.isOlder) return ZrResult::kOk;
  tile.record->HandOver(m_payload, data);
  nFilled = std::min(tile.record->Head().filledLength, tile.record->Head().capacity);
  return ZrResult::kOk;
}

// False if changes by others go on for long; the result is a failure then.
bool ZrCompactFileReader::LookUp(Tile& tile) {
  for (Io::Snapshot snapshot(GetBoard(), *this, nullptr); snapshot.Begin();) {
    ReadTile(tile, snapshot);
    if (snapshot.IsValid()) return true;
    Io::ForgetFailure();
  }
  tile.result = Io::FailUnlessBySystem(ZrCause::kInUse, ZrResult::kReadFailure);
  unsigned long long entry;
  tile.hasEntry = ReadIndexValue(tile.row, tile.col, entry);
  return false;
}

void ZrCompactFileReader::ReadTile(Tile& tile, Io::Snapshot& snapshot) {
  unsigned long long entry;
  unsigned long long sizeHint;
  tile.result = ZrResult::kReadFailure;
  tile.hasEntry = FindRecord(tile.row, tile.col, entry, sizeHint);
  if (!tile.hasEntry) return;
  snapshot.UsesTile(*Format::GridCellNumber(m_nRowCount, m_nColCount, tile.row, tile.col));
  tile.isThere = Format::HoldsRecord(Format::StatusOf(entry));
  tile.record.emplace(*this, Format::RecordShape{.swap = m_bSwap});
  if (tile.isThere && !ReadRecord(Format::PositionOf(entry), sizeHint, *tile.record)) {
    Io::FailUnlessBySystem(ZrCause::kDamagedRecord);
    return;
  }
  tile.isOlder =  // which this class deliberately does not follow
      tile.isThere && tile.record->Versions().SelectForLookup(tile.version) != 0;
  tile.result = ZrResult::kOk;
}

bool ZrCompactFileReader::ReadRecord(unsigned long long position, unsigned long long sizeHint,
                                     Io::RecordReader& record) {
  return position >= GetDataStart() &&
         record.Read(position, {Format::kGridRecordHead, sizeHint}, m_payload) &&
         record.Head().length >= Format::kGridRecordHead;
}

// Reads the cell's entry, and hints at the size of the payload.
bool ZrCompactFileReader::FindRecord(unsigned int row, unsigned int col, unsigned long long& entry,
                                     unsigned long long& sizeHint) const {
  unsigned long long entries[2];
  const unsigned int got = ReadEntries(row, col, entries, 2);
  if (got == 0 || Format::HeaderView(m_header).FileKind() != Format::kGridFile) return false;
  entry = entries[0];
  const unsigned long long length = got == 2 ? Format::DistanceToNext(entry, entries[1]) : 0;
  sizeHint = length > Format::kGridRecordHead ? length - Format::kGridRecordHead : 0;
  return true;
}

}  // namespace Zarn
