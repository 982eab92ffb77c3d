#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "EmptyContainer.h"
#include "FileState.h"
#include "OperationLock.h"
#include "PELM.h"
#include "PelmTime.h"
#include "RedoFile.h"
#include "TileCopier.h"
#include "ZrCompactFile.h"

namespace Zarn {

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
    try {
      return m_callback(start + std::min(bytes, m_length), 2 * m_length);
    } catch (...) {
      return false;
    }
  }

  const ZrCompactFile::CompactProgress& m_callback;
  std::uint64_t m_length = 0;
};

}  // namespace

unsigned int ZrCompactFile::Compact() { return Compact(CompactProgress()); }

unsigned int ZrCompactFile::Compact(const CompactProgress& progress) {
  if (const auto cache = GetCacheFile()) return cache->Reconstruction();
  Engine::OperationLock lock(*this, Engine::OperationLock::kCompaction);
  if (!m_bOpened) return ZrResult::kNotOpen;
  if (!IsKnownKind(Format::HeaderView(m_header).FileKind())) return ZrResult::kUnknownKind;
  if (!lock.IsUsable()) return IsNaming() ? ZrResult::kNotCreated : ZrResult::kReadFailure;
  try {
    if (IsReadOnly() || !m_file->IsSameFile(m_strAbsolutePath)) return ZrResult::kNotCreated;
    const Engine::FileState source = GetState();
    Io::RedoFile image;
    const unsigned int result = BuildImage(source, image, progress);
    return result == ZrResult::kOk ? ReplaceByImage(source, image, lock, progress) : result;
  } catch (const std::bad_alloc&) {
    return m_bOpened ? ZrResult::kWriteFailure : ZrResult::kNotUsable;
  }
}

// The compacted container, complete and on the disk; and all that can fail while the source is
// whole.
unsigned int ZrCompactFile::BuildImage(const Engine::FileState& source, Io::RedoFile& image,
                                       const CompactProgress& progress) {
  if (!image.Make(m_strAbsolutePath, *source.file) || !WriteEmptyImage(source, image.GetStream()))
    return ZrResult::kNotCreated;
  const ProgressReport report(progress, *source.file);
  std::uint64_t furthest = 0;
  const auto collect = [&](Engine::TileCopier::Layout layout, bool& isTooLong) -> unsigned int {
    Engine::TileCopier copier(
        source, image.GetStream(), layout,
        [this](const Format::StoredName& stored, std::u16string& name) {
          return DecodeOlderName(stored, name);
        },
        [&](std::uint64_t done, std::uint64_t all) {
          furthest = std::max(furthest, done);
          return report.Collected(furthest, all);
        });
    const unsigned int result = copier.Copy();
    isTooLong = copier.IsTooLong();
    if (result != ZrResult::kOk) return result;
    return report.CollectedAll() && image.Seal(copier.GetChecksum(), copier.GetChecksumStart()) &&
                   image.Reserve(*source.file)
               ? ZrResult::kOk
               : ZrResult::kWriteFailure;
  };
  bool isTooLong;
  const unsigned int result = collect(Engine::TileCopier::kAsStored, isTooLong);
  if (!isTooLong) return result;
  // No file becomes longer by its compaction.
  if (!image.GetStream().SetLength(0) || !WriteEmptyImage(source, image.GetStream()))
    return ZrResult::kWriteFailure;
  return collect(Engine::TileCopier::kTight, isTooLong);
}

// Of the same kind and size as the source, and with the same password.
bool ZrCompactFile::WriteEmptyImage(const Engine::FileState& source, ZrFile64& image) const {
  constexpr std::uint32_t kFlags = Format::kVersionsEnabled;
  const double time = TimeAfter(Format::HeaderView(source.header).CreateTime());
  const Format::NamingHeader& naming = source.naming;
  return IsNaming()
             ? Engine::WriteEmptyContainer(image, m_xorString,
                                           Format::NamingHeader{naming.capacity, 0, naming.maxSize1,
                                                                naming.maxSize2, kFlags},
                                           time)
             : Engine::WriteEmptyContainer(
                   image, m_xorString,
                   Format::GridHeader{source.grid.rowCount, source.grid.colCount, kFlags}, time);
}

// Puts the image in the place of the source, and opens that again.
unsigned int ZrCompactFile::ReplaceByImage(const Engine::FileState& source, Io::RedoFile& image,
                                           Engine::OperationLock& lock,
                                           const CompactProgress& progress) {
  const ProgressReport report(progress, *source.file);
  const std::uint64_t length = image.GetImageLength();
  if (!lock.ExcludeLookups()) return ZrResult::kWriteFailure;
  TearDown();
  const Outcome outcome =
      image.Replace(*source.file, [&](std::uint64_t done) { report.PutBack(done, length); });
  // Opening may have to finish what could not be done here, and needs the claims for it.
  image.LetGo();
  if (outcome == Outcome::kByName) lock.LeaveProcessLock();  // it is on the file of before
  if (TakeIntoUse() != ZrResult::kOk) {
    lock.LeaveProcessLock();
    TearDown();
    return ZrResult::kNotUsable;
  }
  if (outcome == Outcome::kNot && m_header == source.header) {  // not even the mark was written
    image.Delete(*source.file);
    return ZrResult::kWriteFailure;
  }
  report.PutBackAll();
  return ZrResult::kOk;
}

// The name that a file of the older version stores, in UTF-16 of this host's byte order, which has
// a charset number of its own.
bool ZrCompactFile::DecodeOlderName(const Format::StoredName& stored, std::u16string& name) {
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
ZrTextCodec* ZrCompactFile::GetTextCodec(PELMCharset::Charset from, PELMCharset::Charset to) {
  std::unique_ptr<ZrTextCodec>& codec = m_mapTextCodec[std::uint64_t{from} << 32 | to];
  if (codec == nullptr) {
    codec = std::make_unique<ZrTextCodec>();
    codec->Open(from, to);
  }
  return codec.get();
}

}  // namespace Zarn
