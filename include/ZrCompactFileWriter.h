#pragma once

#include <memory>

#include "ZrByteArray.h"
#include "ZrGridFile.h"

namespace Zarn {

namespace Io {
class Tail;
}

/// Creates grid files and stores one record per cell, without any lock.
///
/// A tile is overwritten in place where the old record has the room, and appended otherwise; its
/// index entry is written after it. Every successful write is in the kernel when the call returns:
/// it survives the death of the process, not the loss of power.
///
/// One thread uses one object, and one writer at a time works on a file; readers may be open
/// meanwhile.
///
/// A process that is killed leaves every tile as it was, or as it was meant to become.
///
/// Limits, kept for the files that exist:
/// - A tile has one version here. Storing into a cell whose tile has several, as ZrCompactFile
///   makes them, leaves only the new one.
/// - The unused capacity of a tile is not written, so the file may end before its last record does.
///   Such a record reads as damaged, and storing into its cell does nothing, until something
///   follows it.
/// - The data goes right behind the record's head, whatever the offset; the offset only counts into
///   the filled length.
/// - Records are written in this host's byte order. In a file of the other order, which a reader
///   takes to be in that order throughout, such records cannot be read; and storing into such a
///   cell again does nothing, for the old record seems to end beyond the file.
class HX_COMPACTFILE_API ZrCompactFileWriter : public ZrGridFile {
 public:
  ZrCompactFileWriter();
  ~ZrCompactFileWriter();

  /// Creates a grid file, with its missing folders, and leaves it open. The file appears complete
  /// or not at all.
  ///
  /// @param path     ".cf" is appended to a path without an extension.
  /// @param rows,cols at least 1 each; their product, in 32 bits, at most 0x10000000.
  /// @param password scrambles the header; empty for none.
  /// @param mode     with ZrCompactFile::kReplace an existing file is deleted, and the answer is
  ///                 kNotCreated all the same: a second call then creates the new one.
  ///
  /// kOk; kNotUsable for a ".sc" path, or when no file can be made there; kNotCreated for bad
  /// sizes, an unusable path, an existing file (also one that appeared meanwhile), a full
  /// disk, or if memory is short. After a failure the writer is closed.
  unsigned int Create(const PelmUnicodeString& path, unsigned int rows, unsigned int cols,
                      const PelmUnicodeString& password, ZrCompactFile::ZrOpenMode mode);

  /// Opens an existing grid file for reading and writing; results as ZrCompactFileReader::Open.
  unsigned int Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                    ZrCompactFile::ZrOpenMode mode);

  /// Always true.
  bool Close();

  /// Stores a tile.
  ///
  /// @param nCapacity size of the tile's payload area in bytes, at most
  ///                 ZrCompactFile::kMaxCapacity; 0 for the size of the data.
  /// @param nOffset  where in that area the data is meant to go; `nOffset` plus the size must not
  ///                 exceed the capacity, and becomes the filled length.
  /// @param nVersion version stamp, only stored.
  ///
  /// kOk; kNotOpen; kReadFailure if the old record cannot be read; kWriteFailure for empty data,
  /// invalid arguments, a cell outside the grid, or a failed write. An old record that ends beyond
  /// the file makes the call do nothing and answer kOk. A tile rewritten in place keeps the
  /// status of its cell.
  unsigned int SetAt(unsigned int row, unsigned int col, const ZrByteArray& data,
                     unsigned long long nCapacity, unsigned long long nOffset,
                     unsigned long long nVersion);

  /// Writes the index entry of a cell. False if not open, outside the grid, or not written.
  bool WriteIndexValue(unsigned int row, unsigned int col, unsigned long long value);

  /// Writes a record with one version at `position` and returns the position; 0 on failure and for
  /// a position that no record can have. `status` receives kComplete or kPartial. The index is
  /// not touched.
  unsigned long long WriteDataToFile(ZrCompactFile::ZrStatus& status, const ZrByteArray& data,
                                     unsigned long long capacity, unsigned long long nOffset,
                                     unsigned long long nVersion, unsigned long long position);

  /// @name Steps of Create
  /// On an open file they begin the file anew. They refuse, with kWriteFailure, where a stored tile
  /// would be lost.
  /// @{

  /// Writes a new file header. kOk, kNotUsable if not open, kWriteFailure.
  unsigned int WriteHeader();
  /// Writes rows, columns and flags, and an empty index behind them. kOk, kWriteFailure.
  unsigned int WriteHeaderGrid(unsigned int rows, unsigned int cols);
  /// @}

 private:
  enum class Place { kInPlace, kAppend, kBeyondFile, kUnreadable };
  struct Store;  // one call of SetAt, and what it finds

  // What the public operations of similar names do.
  unsigned int CreateFile(const PelmUnicodeString& path, unsigned int rows, unsigned int cols,
                          const PelmUnicodeString& password, ZrCompactFile::ZrOpenMode mode);
  unsigned int StoreTile(unsigned int row, unsigned int col, const ZrByteArray& data,
                         unsigned long long nCapacity, unsigned long long nOffset,
                         unsigned long long nVersion);
  bool WriteEntry(unsigned int row, unsigned int col, unsigned long long value);
  unsigned long long WriteData(ZrCompactFile::ZrStatus& status, const ZrByteArray& data,
                               unsigned long long capacity, unsigned long long nOffset,
                               unsigned long long nVersion, unsigned long long position);
  unsigned int RefuseHeader() const;
  unsigned int MakeFile(unsigned int rows, unsigned int cols, ZrCompactFile::ZrOpenMode mode);
  bool LookForChanges();
  Place FindPlace(Store& store) const;
  unsigned int Append(const Store& store);
  unsigned int Rewrite(const Store& store);
  bool RewriteAcrossPages(const Store& store, unsigned long long fileLength);
  unsigned long long WriteRecord(const Store& store, unsigned long long position,
                                 ZrCompactFile::ZrStatus& status);
  bool ReplaceIndexValue(unsigned int row, unsigned int col, unsigned long long before,
                         unsigned long long after);
  unsigned long long GetAppendPosition(unsigned long long fileLength);
  bool HoldsRecords() const;

  const std::unique_ptr<Io::Tail> m_pTail;  // where the next record goes
};

}  // namespace Zarn
