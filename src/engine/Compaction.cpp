#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "Cause.h"
#include "EmptyContainer.h"
#include "Engine.h"
#include "PELM.h"
#include "PelmTime.h"
#include "RedoFile.h"
#include "TileCopier.h"

namespace Zarn::Engine {

using Outcome = Io::RedoFile::Outcome;

namespace {

bool IsKnownKind(std::uint32_t fileKind) {
  return fileKind == Format::kGridFile || fileKind == Format::kNamingFile;
}

// By the time of creation others know that the file is another one than they have loaded. So it
// always grows, whatever the clock says.
double TimeAfter(double previous) {
  const double now = PelmTime().GetCurTime().GetTime();
  const double next = std::nextafter(previous, std::numeric_limits<double>::infinity());
  return std::isfinite(next) && next > now ? next : now;
}

// Tells the caller how far a compaction has come. Collecting counts as much as putting back.
class ProgressReport {
 public:
  ProgressReport(const ZrCompactFile::CompactProgress& callback, const ZrFile64& source)
      : m_callback(callback) {
    source.GetLength(m_length);
  }

  bool Collected(std::uint64_t done, std::uint64_t all) const { return Tell(0, done, all); }
  bool CollectedAll() const { return Collected(1, 1); }
  void PutBack(std::uint64_t done, std::uint64_t all) const { Tell(m_length, done, all); }
  void PutBackAll() const { PutBack(1, 1); }

 private:
  bool Tell(std::uint64_t start, std::uint64_t done, std::uint64_t all) const {
    if (!m_callback) return true;
    const double part = all == 0 ? 1 : static_cast<double>(done) / static_cast<double>(all);
    const auto bytes = static_cast<std::uint64_t>(static_cast<double>(m_length) * part);
    bool goesOn = false;
    try {
      const Io::KeptNote kept;
      goesOn = m_callback(start + std::min(bytes, m_length), 2 * m_length);
    } catch (...) {
    }
    return goesOn || Io::Fail(ZrCause::kCancelled);
  }

  const ZrCompactFile::CompactProgress& m_callback;
  std::uint64_t m_length = 0;
};

}  // namespace

unsigned int Engine::Compact(const ZrCompactFile::CompactProgress& progress) {
  if (m_bHasCacheFile)
    return AskCacheFile([](ZrCacheFile& cache) { return cache.Reconstruction(); });
  WriteOperation operation(m_locks, m_state, Operation::kCompaction);
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  if (!IsKnownKind(File().GetKind())) return ZrResult::kUnknownKind;
  if (!operation.IsUsable())
    return File().Names() != nullptr ? ZrResult::kNotCreated : ZrResult::kReadFailure;
  try {
    if (!MayStore(operation)) return ZrResult::kNotCreated;
    if (!File().GetStream()->IsSameFile(m_strAbsolutePath))
      return Io::Fail(ZrCause::kMoved, ZrResult::kNotCreated);
    Io::RedoFile image;
    const unsigned int result = BuildImage(image, progress);
    return result == ZrResult::kOk ? ReplaceByImage(image, operation, progress) : result;
  } catch (const std::bad_alloc&) {
    return Io::Fail(ZrCause::kNoMemory,
                    operation.IsOpen() ? ZrResult::kWriteFailure : ZrResult::kNotUsable);
  }
}

// The compacted container, complete and on the disk; and all that can fail while the source is
// whole.
unsigned int Engine::BuildImage(Io::RedoFile& image,
                                const ZrCompactFile::CompactProgress& progress) {
  const OpenFile& file = File();
  ZrFile64& source = *file.GetStream();
  if (!image.Make(m_strAbsolutePath, source) || !WriteEmptyImage(image.GetStream()))
    return ZrResult::kNotCreated;
  const ProgressReport report(progress, source);
  std::uint64_t furthest = 0;
  for (const auto layout : {TileCopier::kAsStored, TileCopier::kTight}) {
    const bool isFirst = layout == TileCopier::kAsStored;
    if (!isFirst && (!image.GetStream().SetLength(0) || !WriteEmptyImage(image.GetStream()))) break;
    TileCopier copier(
        file, m_maxSizes.Get(), image.GetStream(), layout,
        [this](const Format::StoredName& stored, std::u16string& name) {
          return DecodeOlderName(stored, name);
        },
        [&](std::uint64_t done, std::uint64_t all) {
          furthest = std::max(furthest, done);
          return report.Collected(furthest, all);
        });
    const unsigned int result = copier.Copy();
    if (isFirst && copier.IsTooLong()) continue;  // no file becomes longer by its compaction
    if (result != ZrResult::kOk) return result;
    if (report.CollectedAll() && image.Seal(copier.GetChecksum(), copier.GetChecksumStart()) &&
        image.Reserve(source))
      return ZrResult::kOk;
    break;
  }
  return ZrResult::kWriteFailure;
}

// Of the same kind and size as the source, and with the same password.
bool Engine::WriteEmptyImage(ZrFile64& image) {
  const Io::FileHeader& header = File().GetHeader();
  const double time = TimeAfter(header.View().CreateTime());
  const Format::XorString& xorString = header.GetXorString();
  if (const CellIndex* const cells = File().Cells())
    return WriteEmptyContainer(
        image, xorString,
        Format::GridHeader{cells->GetRowCount(), cells->GetColCount(), Format::kVersionsEnabled},
        time);
  return WriteEmptyContainer(image, xorString,
                             m_maxSizes.Get().MakeHeader(File().Names()->GetCapacity(), 0), time);
}

// Puts the image in the place of the source, and opens that again.
unsigned int Engine::ReplaceByImage(Io::RedoFile& image, WriteOperation& operation,
                                    const ZrCompactFile::CompactProgress& progress) {
  m_locks.AssertMutexHeld();
  if (!operation.ExcludeReaders()) return ZrResult::kWriteFailure;
  const std::shared_ptr<OpenFile> replaced = m_state.file;
  const std::shared_ptr<ZrFile64> source = File().GetStream();
  const ProgressReport report(progress, *source);
  const std::uint64_t length = image.GetImageLength();
  const Outcome outcome =
      Replace(image, *replaced, [&](std::uint64_t done) { report.PutBack(done, length); });
  // Opening may have to finish what could not be done here, and needs the claims for it.
  image.LetGo();
  if (outcome == Outcome::kByName) operation.LeaveProcessLock();  // it is on the file of before
  if (TakeIntoUse(nullptr) != ZrResult::kOk) {
    operation.LeaveProcessLock();
    TearDown();
    return ZrResult::kNotUsable;
  }
  // Not even the mark was written.
  if (outcome == Outcome::kNot && File().GetHeader().HasFieldsOf(replaced->GetHeader())) {
    image.Delete(*source);
    return ZrResult::kWriteFailure;
  }
  // Where somebody maps the file, it has kept its length.
  if (outcome == Outcome::kInPlace) File().HasSpareFrom(length);
  report.PutBackAll();
  return ZrResult::kOk;
}

// Lookups of all openers wait from here on: for them this becomes another file.
Outcome Engine::Replace(Io::RedoFile& image, OpenFile& file,
                        const Io::RedoFile::Progress& progress) {
  Io::Board& board = file.GetBoard();
  m_locks.GetLookups().Stop();
  if (!board.SetEnd(0) || !board.Replaces()) return Outcome::kNot;
  const Io::BoardChange change(board, Io::BoardChange::kMany);
  TearDown();
  const Outcome outcome = image.Replace(*file.GetStream(), progress);
  board.Replaces();  // a light reader may have opened it in between
  return outcome;
}

// The name that a file of the older version stores, in UTF-16 of this host's byte order, which has
// a charset number of its own.
bool Engine::DecodeOlderName(const Format::StoredName& stored, std::u16string& name) {
  constexpr PELMCharset::Charset kWide =
      PELM::un_bigendina == 1 ? PELMCharset::kUtf16Le : PELMCharset::kUtf16Be;
  const auto charset = PELMCharset::Resolve(static_cast<PELMCharset::Charset>(stored.charset));
  std::string units;
  if (!GetTextCodec(charset, kWide)->Convert(stored.bytes, units)) return false;
  name.resize(units.size() / sizeof(char16_t));
  std::memcpy(name.data(), units.data(), name.size() * sizeof(char16_t));
  return true;
}

// Kept until the file is closed. One that could not be opened converts nothing.
ZrTextCodec* Engine::GetTextCodec(PELMCharset::Charset from, PELMCharset::Charset to) {
  std::unique_ptr<ZrTextCodec>& codec = m_mapTextCodec[std::uint64_t{from} << 32 | to];
  if (codec == nullptr) {
    auto opened = std::make_unique<ZrTextCodec>();
    opened->Open(from, to);
    codec = std::move(opened);  // not if memory was short
  }
  return codec.get();
}

}  // namespace Zarn::Engine
