#pragma once

#include <cstdint>
#include <string>

#include "HxCompactFileExport.h"
#include "ZrResult.h"

namespace Zarn {

/// Why an operation failed. Numbers stay; further causes may be added behind the last one.
enum class ZrCause : std::uint32_t {
  kNone = 0,        ///< Nothing has failed in this thread.
  kOther = 1,       ///< None of those below; the error of the system, if there is one, tells more.
  kDiskFull = 2,    ///< The disk has no room.
  kSizeLimit = 3,   ///< A quota, a limit on the size of files, or the file system's own is reached.
  kPermission = 4,  ///< This process may not do that to the file or the folder.
  kReadOnly = 5,    ///< The file is open for reading only, or on a read-only file system.
  kLocked = 6,      ///< The file cannot be locked, or another opener has claimed it.
  kInUse = 7,       ///< A compaction or an unending change by others keeps the operation out.
  kNotOpen = 8,     ///< No file is open in the object.
  kNoFile = 9,      ///< There is no such file or folder, or it has lost its path.
  kNoTile = 10,     ///< The cell is empty, or there is no tile of that name.
  kExists = 11,     ///< A file is there already, or tiles that would be lost.
  kMoved = 12,      ///< The file was replaced by another one, or changed as a whole, meanwhile.
  kWrongFormat = 13,  ///< The file is no compact file, or has another password.
  kWrongKind = 14,    ///< The operation is for another kind of file: grid, naming, ".sc", regular.
  kUnfinished = 15,   ///< A compaction was cut short, and could not be finished here.
  kDamagedHeader = 16,  ///< The header of the file or of its index is damaged.
  kDamagedEntry = 17,   ///< An entry of the index is damaged.
  kDamagedRecord = 18,  ///< The record of a tile is damaged, or does not lie in the file.
  kOutOfRange = 19,     ///< A cell is outside the grid, or another number is not allowed.
  kEmptyArgument = 20,  ///< The data or the name is empty.
  kTooLong = 21,        ///< The name or the path is too long.
  kBadPath = 22,        ///< The path is empty, or can name no file.
  kBadName = 23,        ///< The name cannot be converted into what the file stores, or back.
  kBadSource = 24,      ///< The file whose contents were to be stored cannot be read.
  kFull = 25,           ///< The format has no room for more names, or for a longer file.
  kCancelled = 26,      ///< The function that was told of the progress has ended the operation.
  kNoMemory = 27,       ///< Memory is short.
  kTooManyFiles = 28,   ///< The process or the system has too many files open.
  kNotSupported = 29,   ///< The file system cannot do that.
  kInputOutput = 30,    ///< The disk, or what stands for it, reports an error.
};

/// What went wrong in an operation. Members may be added behind the last one.
struct ZrError {
  /// The result code of the operation; of one that answers no code, the code that fits.
  unsigned int result = ZrResult::kOk;
  ZrCause cause = ZrCause::kNone;  ///< why
  int systemError = 0;             ///< errno of the system call that failed; 0: none did
  std::string path;                ///< the file of the object, in UTF-8; empty if it has none
  /// What was tried, in English, as it stands between "cannot" and the path: "store into". It lives
  /// as long as the library.
  const char* action = "";
};

/// The failure of the last operation of this library that failed in the calling thread; of none,
/// a ZrError as it is made. An operation that succeeds leaves it as it is, as errno is left; so
/// look at it only after one that has failed. These set it:
///
/// - operations of ZrCompactFile, ZrCompactFileReader and ZrCompactFileWriter that answer a result
///   code other than kOk, also kNotFound of a lookup; false; kUnknown; or 0 instead of a position
///   or of a done SetPassword;
/// - those of ZrCompactFileStub that answer false;
/// - those of ZrCompactFileCollection and ZrCompactFileManager that answer null or an empty key. A
///   collection's creation of a file that fails sets it, too.
///
/// Of a batch it is about one of the stores that failed, of a check about the last finding. Each
/// thread has its own, and does not see those of others. The reference is good until the thread
/// ends; the next operation that fails changes what it leads to. Never a system call; it may
/// allocate memory when a thread first fails.
HX_COMPACTFILE_API const ZrError& ZrLastError() noexcept;

/// A result code in words: "it could not be written"; never null. For any thread, as are the next
/// two.
HX_COMPACTFILE_API const char* ZrResultText(unsigned int result) noexcept;

/// A cause in words: "the disk is full"; never null.
HX_COMPACTFILE_API const char* ZrCauseText(ZrCause cause) noexcept;

/// A sentence for people, in English and UTF-8: "cannot store into /a/b.cf: the disk is full (No
/// space left on device)". "no error" for a ZrError as it is made. Throws std::bad_alloc.
HX_COMPACTFILE_API std::string ZrErrorText(const ZrError& error);

}  // namespace Zarn
