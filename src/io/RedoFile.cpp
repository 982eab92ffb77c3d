#include "RedoFile.h"

#include <sys/random.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "Cause.h"
#include "PathRules.h"
#include "ZrFile.h"

namespace Zarn::Io {

using Format::HeaderImage;

namespace {

// Large enough for the disk, and small enough to stay in a processor's cache between reading and
// writing: 128 MiB were a fifth slower.
bool MakeBuffer(ZrByteArray& buffer) {
  constexpr std::uint64_t kUsual = 0x200000;
  constexpr std::uint64_t kSmallest = 0x10000;
  static_assert(kSmallest % Format::RedoChecksum::kChunk == 0);
  for (std::uint64_t size = kUsual; size >= kSmallest; size /= 2)
    if (buffer.ResizeForOverwrite(size)) return true;
  return false;
}

constexpr auto kSkip = [](std::uint64_t, std::uint64_t) { return true; };

// Calls `data(from, to)` for what the redo image holds from `begin` on, and `hole(from, to)` for
// the holes between, in order, until one answers false.
template <typename Data, typename Hole>
bool ForEachPart(const ZrFileStream& image, std::uint64_t begin, std::uint64_t end, Data data,
                 Hole hole) {
  while (begin < end) {
    const std::uint64_t dataStart = std::min(image.NextData(begin), end);
    const std::uint64_t dataEnd =
        dataStart < end ? std::clamp(image.NextHole(dataStart), dataStart + 1, end) : end;
    if (dataStart > begin && !hole(begin, dataStart)) return false;
    if (dataStart < dataEnd && !data(dataStart, dataEnd)) return false;
    begin = dataEnd;
  }
  return true;
}

// Adds the chunks that begin before `end`, of a redo image of `length` bytes.
bool AddChecksum(const ZrFileStream& image, std::uint64_t length, std::uint64_t end,
                 ZrByteArray& buffer, Format::RedoChecksum& sum) {
  constexpr std::uint64_t kChunk = Format::RedoChecksum::kChunk;
  std::uint64_t next = 0;  // what lies before was added
  const auto add = [&](std::uint64_t from, std::uint64_t to) {
    next = std::max(next, from / kChunk * kChunk);
    to = std::min(Format::RedoChecksum::ChunkEnd(to), length);
    while (next < to) {
      const std::uint64_t piece = std::min<std::uint64_t>(buffer.GetSize(), to - next);
      if (!image.ReadAt(next, buffer.GetData(), piece)) return false;
      sum.Add(next, buffer.GetData(), piece);
      next += piece;
    }
    return true;
  };
  return ForEachPart(image, 0, std::min(end, length), add, kSkip);
}

// Cuts the container to this length. While somebody maps it, it keeps its length, and gives back
// only the room.
bool Shorten(ZrFileStream& container, std::uint64_t length) {
  std::uint64_t now;
  if (!container.GetLength(now)) return false;
  return container.IsMapped() && now > length ? container.MakeHole(length, now - length)
                                              : container.SetLength(length);
}

// Puts a complete redo image in the place of a container that is marked; the mark may not be on the
// disk yet. Holes become holes. The header comes last: with it the container is back, and others
// may change it, so nothing follows but a sync.
bool CopyImage(const ZrFileStream& image, std::uint64_t length, ZrFileStream& container,
               ZrByteArray& buffer, const RedoFile::Progress& progress) {
  const auto copy = [&](std::uint64_t from, std::uint64_t to) {
    while (from < to) {
      const std::uint64_t piece = std::min<std::uint64_t>(buffer.GetSize(), to - from);
      // The kernel may even share the blocks of both files.
      if (!container.CopyFrom(image, from, piece) &&
          !(image.ReadAt(from, buffer.GetData(), piece) &&
            container.WriteAt(from, buffer.GetData(), piece)))
        return false;
      container.BeginSync(from, piece);  // the disk works while the next piece is copied
      from += piece;
      if (progress) progress(from);
    }
    return true;
  };
  const auto clear = [&](std::uint64_t from, std::uint64_t to) {
    return container.MakeHole(from, to - from);
  };
  HeaderImage header;
  return image.ReadAt(0, header.data(), header.size()) && container.Sync() &&
         Shorten(container, length) && ForEachPart(image, header.size(), length, copy, clear) &&
         container.Sync() && container.WriteAt(0, header.data(), Format::kHeaderFieldsSize) &&
         container.Sync();
}

// Gives the redo image the path of the container, for good: others may change it from then on. Its
// trailer is dead space.
bool ReplaceByName(const ZrFileStream& image, const PelmUnicodeString& imagePath,
                   const PelmUnicodeString& path) {
  if (!image.IsSameFile(imagePath) || !ZrFile::Rename(imagePath, path)) return false;
  ZrFile::SyncDir(path);  // if it fails, both may be as they were, which is as good
  return true;
}

void RemoveImage(const ZrFileStream& image, const PelmUnicodeString& imagePath) {
  if (!image.IsSameFile(imagePath)) return;
  ZrFile::Delete(imagePath);
  ZrFile::SyncDir(imagePath);
}

// Deletes what lies at the path of the redo image, if no other process works on it and the
// container, which is claimed, does not need it. The sync comes first: the disk may still have the
// mark where memory has the header.
//
// A file of another user, a FIFO or a broken link cannot be opened and so not claimed. But every
// process that works on a redo image has claimed its container, so none works on this one.
bool RemoveLeftover(const PelmUnicodeString& imagePath, ZrFileStream& container) {
  ZrFile64 leftover;
  HeaderImage header;
  if (leftover.Open(imagePath, ZrFile64::kReadWrite) &&
      !(leftover.TryClaim(imagePath) && leftover.IsSameFile(imagePath)))
    return false;
  return container.ReadAt(0, header.data(), header.size()) && !Format::DecodeRedoMark(header) &&
         container.Sync() && ZrFile::Delete(imagePath);
}

// Whether `image` is the one that the mark names, and whole.
bool IsImageOf(const Format::RedoId& id, const ZrFileStream& image, ZrByteArray& buffer,
               std::uint64_t& imageLength) {
  std::uint64_t length;
  Format::RedoTrailerImage bytes;
  if (!image.GetLength(length) || length < Format::kHeaderSize + bytes.size()) return false;
  imageLength = length - bytes.size();
  if (!image.ReadAt(imageLength, bytes.data(), bytes.size())) return false;
  const auto trailer = Format::DecodeRedoTrailer(bytes);
  Format::RedoChecksum sum;
  return trailer && trailer->id == id && trailer->imageLength == imageLength &&
         MakeBuffer(buffer) && AddChecksum(image, imageLength, imageLength, buffer, sum) &&
         sum.Get() == trailer->checksum;
}

}  // namespace

RedoFile::~RedoFile() {
  if (m_process != ::getpid()) m_file.Commit();
}

bool RedoFile::Make(const PelmUnicodeString& path, ZrFile64& container) {
  m_containerPath = ZrFile::FollowLink(path);
  m_path = Format::TemporaryPath(m_containerPath);
  constexpr unsigned int kOwnerOnly = 0600;  // until it has the permissions of the container
  // Others find the redo image by their path of the container.
  if (!ZrFile::IsOnMountOfFolder(m_containerPath)) return Fail(ZrCause::kNotSupported);
  if (!ClaimContainer(container) || !m_file.Begin(m_path, kOwnerOnly) ||
      !m_stream.TryClaim(m_file.GetTemporaryPath()) || !m_stream.TakeOwner(container))
    return false;
  ZrNewFile::Outcome outcome = m_file.Publish();
  if (outcome == ZrNewFile::Outcome::kExists && RemoveLeftover(m_path, container))
    outcome = m_file.Publish();
  return outcome == ZrNewFile::Outcome::kPublished;
}

// By a stream of its own: the engine goes on with the other one.
bool RedoFile::ClaimContainer(const ZrFile64& container) {
  return m_container.Open(m_containerPath, ZrFile64::kReadWrite) &&
         m_container.TryClaim(m_containerPath) && container.IsSameFile(m_containerPath);
}

bool RedoFile::Seal(Format::RedoChecksum sum, std::uint64_t sumStart) {
  Format::RedoId& id = m_trailer.id;
  std::uint64_t& length = m_trailer.imageLength;
  if (!MakeBuffer(m_buffer) || !m_stream.GetLength(length) ||
      !AddChecksum(m_stream, length, sumStart, m_buffer, sum) ||
      ::getrandom(&id, sizeof id, 0) != ssize_t{sizeof id})
    return false;
  m_trailer.checksum = sum.Get();
  const Format::RedoTrailerImage bytes = Format::EncodeRedoTrailer(m_trailer);
  return m_stream.WriteAt(m_trailer.imageLength, bytes.data(), bytes.size()) && m_stream.Sync() &&
         ZrFile::SyncDir(m_path);
}

bool RedoFile::Reserve(ZrFile64& container) const {
  const auto reserve = [&](std::uint64_t from, std::uint64_t to) {
    return container.Reserve(from, to - from);
  };
  return ForEachPart(m_stream, 0, m_trailer.imageLength, reserve, kSkip);
}

RedoFile::Outcome RedoFile::Replace(ZrFile64& container, const Progress& progress) {
  m_file.Commit();  // from here on only RemoveImage deletes the redo image
  HeaderImage header = {};
  // The redo image must lie where the mark leads.
  const bool isThere =
      m_stream.IsSameFile(m_path) && m_stream.ReadAt(0, header.data(), header.size());
  const HeaderImage mark = Format::EncodeRedoMark(m_trailer.id, header);
  if (isThere && container.WriteAt(0, mark.data(), Format::kHeaderFieldsSize) &&
      CopyImage(m_stream, m_trailer.imageLength, container, m_buffer, progress)) {
    RemoveImage(m_stream, m_path);
    return Outcome::kInPlace;
  }
  return ReplaceByName(m_stream, m_path, m_containerPath) ? Outcome::kByName : Outcome::kNot;
}

void RedoFile::LetGo() {
  m_stream.Close();
  m_container.Close();
}

void RedoFile::Delete(ZrFile64& container) {
  LetGo();
  if (ClaimContainer(container)) RemoveLeftover(m_path, container);
}

bool FinishReplacement(const PelmUnicodeString& path) {
  const KeptNote kept;  // if it fails, what the caller has found stays the cause
  const PelmUnicodeString containerPath = ZrFile::FollowLink(path);
  const PelmUnicodeString imagePath = Format::TemporaryPath(containerPath);
  ZrFile64 container;
  ZrFile64 image;
  HeaderImage header;
  const auto readMark = [&] {
    return container.ReadAt(0, header.data(), header.size()) ? Format::DecodeRedoMark(header)
                                                             : std::nullopt;
  };
  if (!container.Open(containerPath, ZrFile64::kReadWrite)) return false;
  if (!readMark()) return true;  // another process may just have finished
  // The holder of the claim may be a new compaction that waits for this caller's lock: then the
  // mark is gone.
  constexpr int kMostTries = 600'000;
  for (int i = 0; !container.TryClaim(containerPath); ++i) {
    if (i == kMostTries || !readMark() || !container.IsSameFile(containerPath)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!image.Open(imagePath, ZrFile64::kReadWrite) || !image.Claim(imagePath) ||
      !image.IsSameFile(imagePath))
    return true;
  const auto id = readMark();  // the last holder of the claims may have finished
  ZrByteArray buffer;
  std::uint64_t length;
  if (!id || !IsImageOf(*id, image, buffer, length)) return true;
  if (CopyImage(image, length, container, buffer, nullptr))
    RemoveImage(image, imagePath);
  else
    ReplaceByName(image, imagePath, containerPath);
  return true;
}

}  // namespace Zarn::Io
