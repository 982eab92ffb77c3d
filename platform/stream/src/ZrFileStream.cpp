#include "ZrFileStream.h"

#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>

#include "Descriptors.h"
#include "FileAccess.h"
#include "FileLock.h"
#include "FileSyscalls.h"
#include "ZrFailure.h"
#include "ZrFile.h"

namespace Zarn {
namespace {

off_t Offset(std::uint64_t position) { return static_cast<off_t>(position); }

constexpr iovec kNoPart = {nullptr, 0};

constexpr std::size_t kHeadPage = 4096;

// Notes that a transfer has ended early: by an error, or because nothing could be moved, as at the
// end of the file.
void NoteEnd(ssize_t moved) { FailBySystem(moved < 0 ? errno : 0); }

// Moves all bytes of the parts with repeated calls of `transfer`. Returns how many were moved:
// fewer than asked when a call fails or moves nothing. Positions beyond the largest offset are
// refused here, so that none reaches the kernel as a negative number.
template <typename Transfer>
std::uint64_t TransferParts(std::uint64_t position, iovec first, iovec second, Transfer transfer) {
  const std::uint64_t wanted = std::uint64_t{first.iov_len} + second.iov_len;
  if (position > INT64_MAX || wanted > INT64_MAX - position) return 0;
  std::uint64_t done = 0;
  while (done < wanted) {
    iovec rest[2] = {first, second};
    const std::size_t fromFirst = std::min<std::uint64_t>(done, first.iov_len);
    const std::size_t fromSecond = done - fromFirst;
    rest[0].iov_base = static_cast<char*>(first.iov_base) + fromFirst;
    rest[0].iov_len -= fromFirst;
    rest[1].iov_base = static_cast<char*>(second.iov_base) + fromSecond;
    rest[1].iov_len -= fromSecond;
    const iovec* begin = rest[0].iov_len == 0 ? rest + 1 : rest;
    const int count = static_cast<int>(rest + (rest[1].iov_len == 0 ? 1 : 2) - begin);
    const ssize_t moved =
        Uninterrupted([&] { return transfer(begin, count, Offset(position + done)); });
    if (moved <= 0) {
      NoteEnd(moved);
      break;
    }
    done += static_cast<std::uint64_t>(moved);
  }
  return done;
}

std::uint64_t ReadAll(int fd, std::uint64_t position, void* buffer, std::uint64_t size) {
  const FileSyscalls& calls = GetFileSyscalls();
  return TransferParts(position, {buffer, size}, kNoPart,
                       [&](const iovec* part, int, off_t offset) {
                         return calls.pread(fd, part->iov_base, part->iov_len, offset);
                       });
}

bool WriteAll(int fd, std::uint64_t position, iovec first, iovec second) {
  const FileSyscalls& calls = GetFileSyscalls();
  const std::uint64_t moved =
      TransferParts(position, first, second, [&](const iovec* parts, int count, off_t offset) {
        return count == 1 ? calls.pwrite(fd, parts->iov_base, parts->iov_len, offset)
                          : calls.pwritev(fd, parts, count, offset);
      });
  return moved == std::uint64_t{first.iov_len} + second.iov_len;
}

// 0 on failure, which is no type in the lists here.
std::uint32_t FileSystemOf(int fd) {
  struct statfs status;
  const auto ask = [&] { return GetFileSyscalls().fstatfs(fd, &status); };
  return Uninterrupted(ask) == 0 ? static_cast<std::uint32_t>(status.f_type) : 0;
}

iovec Part(const void* bytes, std::uint64_t size) { return {const_cast<void*>(bytes), size}; }

}  // namespace

ZrFileStream::ZrFileStream() = default;

ZrFileStream::~ZrFileStream() { Close(); }

bool ZrFileStream::Open(const PelmUnicodeString& path, unsigned int direction) {
  Close();
  std::string native;
  if (!ZrFile::ToNative(path, native)) return false;
  if (direction != kRead && direction != kReadWrite) return false;
  // O_NONBLOCK: opening a FIFO must fail, not wait for its other end. Regular files ignore it.
  const int flags = (direction == kRead ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int fd = Uninterrupted([&] { return GetFileSyscalls().open(native.c_str(), flags, 0); });
  return Attach(fd, direction == kRead);
}

bool ZrFileStream::Attach(int fd, bool readOnly) {
  fd = AboveStandardStreams(fd);
  if (fd < 0) return FailBySystem();
  struct stat status;
  const bool isKnown = GetFileSyscalls().fstat(fd, &status) == 0;
  if (!isKnown || !S_ISREG(status.st_mode)) {
    FailBySystem(isKnown ? 0 : errno);  // no error of the system's if it is no regular file
    GetFileSyscalls().close(fd);
    return false;
  }
  m_fd = fd;
  m_readOnly = readOnly;
  m_position = 0;
  return true;
}

bool ZrFileStream::Reopen(const PelmUnicodeString& path) {
  const bool hasClaim = m_claim != nullptr;
  return IsSameFile(path) && Open(path, kReadWrite) && (!hasClaim || TryClaim(path));
}

bool ZrFileStream::Close() {
  if (!IsOpen()) return false;
  m_claim.reset();
  GetFileSyscalls().close(m_fd);  // Linux gives the descriptor up even when this reports an error
  m_fd = -1;
  return true;
}

bool ZrFileStream::IsSameFile(const PelmUnicodeString& path) const {
  std::string native;
  struct stat there;
  struct stat here;
  return ZrFile::ToNative(path, native) && GetFileSyscalls().stat(native.c_str(), &there) == 0 &&
         GetStatus(here) && here.st_dev == there.st_dev && here.st_ino == there.st_ino;
}

bool ZrFileStream::GetStatus(struct stat& status) const {
  return IsOpen() && GetFileSyscalls().fstat(m_fd, &status) == 0;
}

std::uint64_t ZrFileStream::Read(void* buffer, std::uint64_t size) {
  const std::uint64_t done = ReadAll(m_fd, m_position, buffer, size);
  m_position += done;
  return done;
}

bool ZrFileStream::Write(const void* buffer, std::uint64_t size) {
  if (!WriteAt(m_position, buffer, size)) return false;
  m_position += size;
  return true;
}

bool ZrFileStream::ReadAt(std::uint64_t position, void* buffer, std::uint64_t size) const {
  return ReadAll(m_fd, position, buffer, size) == size;
}

bool ZrFileStream::WriteAt(std::uint64_t position, const void* buffer, std::uint64_t size) {
  return WriteAll(m_fd, position, Part(buffer, size), kNoPart);
}

std::uint64_t ZrFileStream::ReadUpTo(std::uint64_t position, void* buffer,
                                     std::uint64_t size) const {
  return ReadAll(m_fd, position, buffer, size);
}

bool ZrFileStream::WriteParts(std::uint64_t position, const void* head, std::uint64_t headSize,
                              const void* body, std::uint64_t bodySize) {
  return WriteAll(m_fd, position, Part(head, headSize), Part(body, bodySize));
}

bool ZrFileStream::WriteGathered(std::uint64_t position, iovec* parts, std::size_t count) {
  for (const iovec* const end = parts + count; parts != end;) {
    const int now = static_cast<int>(std::min<std::ptrdiff_t>(end - parts, IOV_MAX));
    if (position > INT64_MAX) return false;
    const ssize_t moved = Uninterrupted(
        [&] { return GetFileSyscalls().pwritev(m_fd, parts, now, Offset(position)); });
    if (moved <= 0) {
      NoteEnd(moved);
      return false;
    }
    position += static_cast<std::uint64_t>(moved);
    auto left = static_cast<std::size_t>(moved);
    for (; parts != end && left >= parts->iov_len; ++parts)
      left -= parts->iov_len;
    if (parts != end) *parts = {static_cast<char*>(parts->iov_base) + left, parts->iov_len - left};
  }
  return true;
}

bool ZrFileStream::CopyFrom(const ZrFileStream& source, std::uint64_t position,
                            std::uint64_t size) {
  const iovec range = Part(nullptr, size);
  return TransferParts(position, range, kNoPart, [&](const iovec* rest, int, off_t offset) {
           off_t from = offset;
           off_t to = offset;
           return GetFileSyscalls().copy_file_range(source.m_fd, &from, m_fd, &to, rest->iov_len,
                                                    0);
         }) == size;
}

const unsigned char* ZrFileStream::Map(std::uint64_t size) const {
  if (!ShowsWrites()) return nullptr;
  void* const bytes =
      GetFileSyscalls().mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_NORESERVE, m_fd, 0);
  if (bytes == MAP_FAILED) return nullptr;
  return static_cast<unsigned char*>(bytes);
}

void* ZrFileStream::MapPage(bool forWriting) const {
  if (!ShowsWrites()) return nullptr;
  const int protection = forWriting ? PROT_READ | PROT_WRITE : PROT_READ;
  void* const page = GetFileSyscalls().mmap(nullptr, kHeadPage, protection, MAP_SHARED, m_fd, 0);
  return page == MAP_FAILED ? nullptr : page;
}

void ZrFileStream::UnmapPage(void* page) {
  if (page != nullptr) ::munmap(page, kHeadPage);
}

bool ZrFileStream::PreparePage(void* page) {
  return GetFileSyscalls().madvise(page, kHeadPage, MADV_POPULATE_WRITE) == 0;
}

bool ZrFileStream::OverwritesInPlace() const {
  const std::uint32_t type = FileSystemOf(m_fd);
  return type == EXT4_SUPER_MAGIC || type == TMPFS_MAGIC;
}

bool ZrFileStream::SharesPages() const {
  constexpr std::uint32_t kLocal[] = {
      EXT4_SUPER_MAGIC,  XFS_SUPER_MAGIC,      BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC,
      TMPFS_MAGIC,       RAMFS_MAGIC,          MSDOS_SUPER_MAGIC, EXFAT_SUPER_MAGIC,
      SQUASHFS_MAGIC,    EROFS_SUPER_MAGIC_V1, ISOFS_SUPER_MAGIC, REISERFS_SUPER_MAGIC,
      NILFS_SUPER_MAGIC, OVERLAYFS_SUPER_MAGIC};
  return std::ranges::find(kLocal, FileSystemOf(m_fd)) != std::end(kLocal);
}

void ZrFileStream::ForgetPages() const { ::posix_fadvise(m_fd, 0, 0, POSIX_FADV_DONTNEED); }

void ZrFileStream::ReadAhead(std::uint64_t position, std::uint64_t size) const {
  ::posix_fadvise(m_fd, Offset(position), Offset(size), POSIX_FADV_WILLNEED);
}

// On an overlay, a file gets a copy of its own when it is first opened for writing. Earlier
// descriptors read the copy from then on, but earlier mappings show the original for ever.
bool ZrFileStream::ShowsWrites() const {
  return !m_readOnly || FileSystemOf(m_fd) != OVERLAYFS_SUPER_MAGIC;
}

bool ZrFileStream::StoreWord(std::uint64_t position, std::uint64_t word) {
  struct [[gnu::packed, gnu::may_alias]] AnywhereInMemory {
    std::uint64_t word;
  };
  const auto pageSize = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  const std::uint64_t inPage = position % pageSize;
  const std::uint64_t size = inPage + sizeof word;
  void* const bytes = GetFileSyscalls().mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED,
                                             m_fd, Offset(position - inPage));
  if (bytes == MAP_FAILED) return false;
  static_cast<volatile AnywhereInMemory*>(static_cast<void*>(static_cast<char*>(bytes) + inPage))
      ->word = word;
  ::munmap(bytes, size);
  return true;
}

// Nothing else uses the descriptor's own position, and this costs half of what fstat does.
bool ZrFileStream::GetLength(std::uint64_t& length) const {
  const off_t end = IsOpen() ? GetFileSyscalls().lseek(m_fd, 0, SEEK_END) : -1;
  if (end < 0) return FailBySystem();
  length = static_cast<std::uint64_t>(end);
  return true;
}

bool ZrFileStream::SetLength(std::uint64_t length) {
  if (length > INT64_MAX) return FailBySystem(EFBIG);
  return Uninterrupted([&] { return GetFileSyscalls().ftruncate(m_fd, Offset(length)); }) == 0 ||
         FailBySystem();
}

bool ZrFileStream::IsMapped() const { return FileLock::IsMapped(m_fd); }

bool ZrFileStream::ZeroFill(std::uint64_t position, std::uint64_t size) {
  if (size == 0) return true;
  std::uint64_t length;
  if (!GetLength(length) || position > INT64_MAX || size > INT64_MAX - position) return false;
  const std::uint64_t inside = position < length ? std::min(size, length - position) : 0;
  if (!WriteZeros(position, inside)) return false;
  const std::uint64_t outside = size - inside;
  if (outside == 0) return true;
  const int result = Uninterrupted([&] {
    return GetFileSyscalls().fallocate(m_fd, 0, Offset(position + inside), Offset(outside));
  });
  if (result == 0) return true;
  return errno == EOPNOTSUPP || errno == ENOSYS ? WriteZeros(position + inside, outside)
                                                : FailBySystem();
}

bool ZrFileStream::WriteZeros(std::uint64_t position, std::uint64_t size) {
  static constexpr char kZeros[65536] = {};
  for (std::uint64_t done = 0; done < size;) {
    const std::uint64_t piece = std::min<std::uint64_t>(size - done, sizeof kZeros);
    if (!WriteAt(position + done, kZeros, piece)) return false;
    done += piece;
  }
  return true;
}

std::uint64_t ZrFileStream::NextData(std::uint64_t position) const {
  const off_t found = GetFileSyscalls().lseek(m_fd, Offset(position), SEEK_DATA);
  if (found >= 0) return static_cast<std::uint64_t>(found);
  std::uint64_t length;
  if (errno == ENXIO && GetLength(length)) return std::max(position, length);
  return position;
}

std::uint64_t ZrFileStream::NextHole(std::uint64_t position) const {
  const off_t found = GetFileSyscalls().lseek(m_fd, Offset(position), SEEK_HOLE);
  if (found >= 0) return static_cast<std::uint64_t>(found);
  std::uint64_t length;
  return GetLength(length) ? std::max(position, length) : position;
}

bool ZrFileStream::Reserve(std::uint64_t position, std::uint64_t size) {
  if (position > INT64_MAX || size > INT64_MAX - position) return false;
  if (size == 0) return true;
  return Uninterrupted([&] {
           return GetFileSyscalls().fallocate(m_fd, FALLOC_FL_KEEP_SIZE, Offset(position),
                                              Offset(size));
         }) == 0 ||
         errno == EOPNOTSUPP || errno == ENOSYS || FailBySystem();
}

bool ZrFileStream::MakeHole(std::uint64_t position, std::uint64_t size) {
  std::uint64_t length;
  if (!GetLength(length)) return false;
  if (position >= length) return true;
  size = std::min(size, length - position);
  if (size == 0) return true;
  const int result = Uninterrupted([&] {
    return GetFileSyscalls().fallocate(m_fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                       Offset(position), Offset(size));
  });
  if (result == 0) return true;
  return errno == EOPNOTSUPP || errno == ENOSYS ? WriteZeros(position, size) : FailBySystem();
}

bool ZrFileStream::TryClaim(const PelmUnicodeString& path) { return MakeClaim(path, false); }

bool ZrFileStream::Claim(const PelmUnicodeString& path) { return MakeClaim(path, true); }

bool ZrFileStream::MakeClaim(const PelmUnicodeString& path, bool wait) {
  std::string native;
  struct stat status;
  auto claim = std::make_unique<FileLock>();
  if (!ZrFile::ToNative(path, native) || !GetStatus(status) || !claim->Open(native) ||
      !claim->IsOpenOn(status) || !claim->Claim(wait))
    return false;
  m_claim = std::move(claim);
  return true;
}

bool ZrFileStream::TakeOwner(const ZrFileStream& other) {
  const auto access = FileAccess::Of(other.m_fd);
  return (access && access->GiveTo(m_fd)) || FailBySystem();
}

bool ZrFileStream::TakeOwner(const PelmUnicodeString& path) {
  std::string native;
  if (!ZrFile::ToNative(path, native)) return false;
  const auto access = FileAccess::Of(native);
  return (access && access->GiveTo(m_fd)) || FailBySystem();
}

bool ZrFileStream::Sync() {
  return IsOpen() &&
         (Uninterrupted([&] { return GetFileSyscalls().fdatasync(m_fd); }) == 0 || FailBySystem());
}

void ZrFileStream::BeginSync(std::uint64_t position, std::uint64_t size) {
  GetFileSyscalls().sync_file_range(m_fd, Offset(position), Offset(size), SYNC_FILE_RANGE_WRITE);
}

bool ZrFileStream::Load(ZrByteArray& data) const {
  std::uint64_t length;
  if (!GetLength(length) || !data.ResizeForOverwrite(length)) return false;
  data.SetPosition(0);
  return ReadAt(0, data.GetData(), length);
}

bool ZrFileStream::Save(const ZrByteArray& data) {
  return IsOpen() && WriteAt(0, data.GetData(), data.GetSize()) && SetLength(data.GetSize());
}

void ZrFileStream::Swap2Byte(void* value) {
  StoreScalar(value, LoadScalar<std::uint16_t>(value, true), false);
}

void ZrFileStream::Swap4Byte(void* value) {
  StoreScalar(value, LoadScalar<std::uint32_t>(value, true), false);
}

void ZrFileStream::Swap8Byte(void* value) {
  StoreScalar(value, LoadScalar<std::uint64_t>(value, true), false);
}

}  // namespace Zarn
