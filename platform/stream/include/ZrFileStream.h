#pragma once

#include <sys/stat.h>
#include <sys/uio.h>

#include <cstdint>
#include <memory>

#include "HxPlatformExport.h"
#include "PelmUnicodeString.h"
#include "ZrByteArray.h"

namespace Zarn {

class FileLock;

/// An open regular file: what ZrFile32 and ZrFile64 have in common, which is everything.
///
/// Offsets are 64-bit. There is no buffer in this process: a successful write is in the kernel and
/// survives the death of the process (not the loss of power; see Sync). Transfers are complete or
/// fail: interrupted and short system calls are carried on. The calls with a position of their own
/// (`...At`, `ReadUpTo`, `WriteParts`) neither use nor move the stream's position, and several
/// threads may make them at once; everything else is for one thread at a time.
class HX_PLATFORM_API ZrFileStream {
 public:
  static constexpr unsigned int kRead = 2;       ///< a direction of Open
  static constexpr unsigned int kReadWrite = 3;  ///< a direction of Open

  ZrFileStream();
  ZrFileStream(const ZrFileStream&) = delete;
  ZrFileStream& operator=(const ZrFileStream&) = delete;

  /// Opens an existing regular file; never creates, truncates or waits (a FIFO fails). Closes
  /// what was open before, also when it fails.
  bool Open(const PelmUnicodeString& path, unsigned int direction);
  /// False if nothing was open.
  bool Close();
  /// Whether a file is open.
  bool IsOpen() const { return m_fd >= 0; }
  /// True while open on a descriptor that cannot write.
  bool IsReadOnly() const { return IsOpen() && m_readOnly; }
  /// True if `path` names the very file that is open here.
  bool IsSameFile(const PelmUnicodeString& path) const;
  /// The system's status of the open file.
  bool GetStatus(struct stat& status) const;

  /// Sets where Read and Write go on, in bytes from the beginning; it may lie beyond the end.
  void Seek(std::uint64_t position) { m_position = position; }
  /// Where they go on.
  std::uint64_t GetPosition() const { return m_position; }
  /// Bytes from the position to the end of the file, at most `size`; returns how many, and
  /// advances by as many.
  std::uint64_t Read(void* buffer, std::uint64_t size);
  /// Writes all bytes at the position and advances, or fails and stays.
  bool Write(const void* buffer, std::uint64_t size);

  /// Reads exactly `size` bytes, or answers false.
  bool ReadAt(std::uint64_t position, void* buffer, std::uint64_t size) const;
  /// Writes them all, or answers false.
  bool WriteAt(std::uint64_t position, const void* buffer, std::uint64_t size);
  /// At most `size` bytes. Returns how many came: fewer at the end of the file, or after an error.
  std::uint64_t ReadUpTo(std::uint64_t position, void* buffer, std::uint64_t size) const;
  /// The contents of two buffers, one after the other, in one system call.
  bool WriteParts(std::uint64_t position, const void* head, std::uint64_t headSize,
                  const void* body, std::uint64_t bodySize);

  /// The same for any number of buffers, in as few system calls as the system allows. The parts are
  /// used up.
  bool WriteGathered(std::uint64_t position, iovec* parts, std::size_t count);
  /// Copies a range of another file to the same place, within the kernel. False, and then any part
  /// of it may be copied, if that is not possible between the two.
  bool CopyFrom(const ZrFileStream& source, std::uint64_t position, std::uint64_t size);

  /// Maps `size` bytes from the start of the file for reading in any order, also beyond its end,
  /// where they must not be touched. Null if that is not possible, or if it would not show what
  /// others write: in a file opened for reading on an overlay. The caller unmaps them.
  const unsigned char* Map(std::uint64_t size) const;

  /// Maps the first page of the file for reading and, if asked, for writing; null as for Map. The
  /// caller gives it back by UnmapPage.
  void* MapPage(bool forWriting) const;
  /// Ends a mapping of MapPage; null is ignored.
  static void UnmapPage(void* page);
  /// Takes the room that a write into such a page needs. False if there is none, or if the file has
  /// no page any more: then to touch it would end the process.
  static bool PreparePage(void* page);
  /// Whether the file system overwrites a page where it is, so that it needs no PreparePage.
  bool OverwritesInPlace() const;
  /// Whether mappings, reads and writes of all processes that can open this file go to the same
  /// pages of this machine, so that each sees at once what the others write.
  bool SharesPages() const;
  /// Makes the system read anew what it remembers of the file's contents.
  void ForgetPages() const;
  /// Makes the system begin to read what is not in its memory. Promises nothing.
  void ReadAhead(std::uint64_t position, std::uint64_t size) const;

  /// Writes eight bytes, which must lie within the file, by one store into its pages: a process
  /// that is killed meanwhile has written all or none of them. False, and nothing is written, if
  /// the file cannot be mapped.
  bool StoreWord(std::uint64_t position, std::uint64_t word);

  /// Length in bytes; false on a stream that is not open.
  bool GetLength(std::uint64_t& length) const;
  /// Truncates, or extends by bytes that read as zero.
  bool SetLength(std::uint64_t length);
  /// Whether somebody maps the file (Presence::kMapsFile), so that it must not become shorter.
  /// Under the writer lock that stays so, as does the contrary.
  bool IsMapped() const;
  /// Truncates as SetLength does, unless somebody maps the file.
  bool Cut(std::uint64_t length) { return !IsMapped() && SetLength(length); }
  /// Makes `size` bytes from `position` on read as zero and takes the room for them, so that a
  /// full disk shows here. What lies beyond the end of the file is reserved without being written
  /// where the file system can do that.
  bool ZeroFill(std::uint64_t position, std::uint64_t size);
  /// Takes the room for `size` bytes from `position` on, without changing any. False only if there
  /// is none: a file system that cannot reserve has no answer.
  bool Reserve(std::uint64_t position, std::uint64_t size);
  /// Makes `size` bytes from `position` on read as zero, and gives their room back where the file
  /// system can do that. The length of the file stays.
  bool MakeHole(std::uint64_t position, std::uint64_t size);
  /// The first position at or after `position` that does not lie in a hole; the length of the
  /// file if only a hole follows. Without knowledge of holes, `position` itself.
  std::uint64_t NextData(std::uint64_t position) const;
  /// The first position at or after `position` that lies in a hole; the end of the file counts.
  std::uint64_t NextHole(std::uint64_t position) const;

  /// Does nothing, since there is no buffer; true while open.
  bool Flush() { return IsOpen(); }
  /// Waits until what was written would survive a loss of power.
  bool Sync();
  /// Makes the system begin to write `size` bytes from `position` on to the disk, so that a later
  /// Sync has less to do. Promises nothing.
  void BeginSync(std::uint64_t position, std::uint64_t size);

  /// Claims the open file, which is at `path`, until it is closed: of all streams of all processes
  /// one at a time has the claim. It keeps no other call from using the file. False if another
  /// stream has the claim, if another file is at the path, or without the right to write. The
  /// kernel frees the claim of a process that dies, and a child of fork() has none.
  bool TryClaim(const PelmUnicodeString& path);
  /// The same, but waits while another stream has the claim.
  bool Claim(const PelmUnicodeString& path);
  /// Gives the open file, as far as this process may, the owner, the group, the permissions and the
  /// access control list of another. If one of these cannot be given, the file gets fewer
  /// permissions, so that besides its owner it admits no user whom the other one keeps out. It
  /// should have none for group and others before. False if the permissions cannot be set.
  bool TakeOwner(const ZrFileStream& other);
  /// The same, of what is at a path, which need not be one that can be opened.
  bool TakeOwner(const PelmUnicodeString& path);

  /// The whole file into `data`; false, too, if the file becomes shorter meanwhile.
  bool Load(ZrByteArray& data) const;
  /// Makes `data` the whole contents of the file.
  bool Save(const ZrByteArray& data);

  /// Reverses two bytes in place.
  static void Swap2Byte(void* value);
  /// Reverses four.
  static void Swap4Byte(void* value);
  /// Reverses eight.
  static void Swap8Byte(void* value);

 protected:
  ~ZrFileStream();

 private:
  friend class ZrNewFile;

  /// Takes over a descriptor; false, and it is closed, if it is not a regular file's.
  bool Attach(int fd, bool readOnly);
  /// Opens the file, which has got this path, by it, and takes the claim anew if there is one.
  bool Reopen(const PelmUnicodeString& path);
  bool ShowsWrites() const;
  bool WriteZeros(std::uint64_t position, std::uint64_t size);
  bool MakeClaim(const PelmUnicodeString& path, bool wait);

  std::unique_ptr<FileLock> m_claim;
  int m_fd = -1;
  bool m_readOnly = false;
  std::uint64_t m_position = 0;
};

}  // namespace Zarn
