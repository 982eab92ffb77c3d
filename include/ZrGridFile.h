#pragma once

#include <array>
#include <functional>
#include <memory>

#include "HxCompactFileExport.h"
#include "PelmUnicodeString.h"
#include "ZrCompactFile.h"
#include "ZrFile32.h"
#include "ZrResult.h"

namespace Zarn {

namespace Format {
struct IndexShape;
}
namespace Io {
class Board;
}

/// What ZrCompactFileWriter and ZrCompactFileReader have in common: an open grid file whose index
/// entries are read straight from the file. Use one of those two.
///
/// The object is itself the open file stream. One thread at a time uses one object. Others may use
/// the file at the same time, also through a ZrCompactFile with kProcessLock: while it is open, all
/// tell each other of changes by words in its header.
class HX_COMPACTFILE_API ZrGridFile : public ZrFile32 {
 public:
  /// True between a successful Create or Open and Close.
  bool IsOpen() const { return m_bOpened; }
  /// The path of the file that was last opened, or for which that was last tried, with ".cf"
  /// appended if it had no extension.
  PelmUnicodeString GetFilePath() const { return m_strPath; }
  /// True if tiles of this file keep versions. Every file made by this library says so.
  bool IsVersionEnabled() const;

  /// Reads and unscrambles the 64-byte file header. kReadFailure if it cannot be read,
  /// kWrongFile if it is not one (also: a wrong password); then the object keeps the header it had.
  unsigned int ReadHeader();
  /// Reads rows, columns and flags. kWrongFile in a naming file, kReadFailure if they cannot be
  /// read or do not lie inside the file.
  unsigned int ReadHeaderGrid();

  /// Reads the index entry of a cell: status in the top byte, record position in the 56 bits
  /// below. False if not open, outside the grid, or unreadable.
  bool ReadIndexValue(unsigned int row, unsigned int col, unsigned long long& value) const;
  /// Status of a cell; kUnknown where ReadIndexValue fails.
  ZrCompactFile::ZrStatus GetStatus(unsigned int row, unsigned int col) const;

 protected:
  ZrGridFile();
  ~ZrGridFile();

  /// Opens an existing file with a direction of ZrFileStream; the results of both classes' Open.
  unsigned int OpenExisting(const PelmUnicodeString& path, const PelmUnicodeString& password,
                            ZrCompactFile::ZrOpenMode mode, unsigned int direction);
  /// Closes the stream whatever state the object is in.
  void CloseStream();
  /// Takes part in what those who use the open file tell each other.
  bool Join(ZrCompactFile::ZrOpenMode mode);
  /// Where that is told; of an object of its own while no file is open.
  Io::Board& GetBoard() const;
  /// Under the process lock, which it takes shared: takes notice of what others have changed, and
  /// reads the headers again if need be; then calls `action`. False if the lock is not to be had,
  /// or the headers cannot be read.
  bool UnderLock(const std::function<void()>& action);
  /// Reads the headers again. False if that is not possible.
  bool Reload();
  /// Tells the others that this object writes without the lock, if it does. False if that is not
  /// possible.
  bool JoinWriters();
  /// Cuts the file off where other writers say that its data end. Under the writer lock.
  void CutSpare();
  /// Stores what Create and Open are given. `path` is a completed one.
  void SetIdentity(const PelmUnicodeString& path, const PelmUnicodeString& password,
                   ZrCompactFile::ZrOpenMode mode);

  /// Reads the entries of a cell and of those behind it, at most `count`; returns how many.
  unsigned int ReadEntries(unsigned int row, unsigned int col, unsigned long long* entries,
                           unsigned int count) const;
  /// First byte of the index area.
  unsigned long long GetIndexOffset() const;
  /// Where the index area and its entries lie.
  Format::IndexShape GetIndexShape() const;
  /// First byte behind the index area.
  unsigned long long GetDataStart() const;

  ZrCompactFile::ZrOpenMode m_nOpenMode = 0;  ///< stored, not interpreted
  std::array<unsigned char, 64> m_header;     ///< unscrambled, in host order
  std::uint32_t m_nRowCount = 0;              ///< of the grid
  std::uint32_t m_nColCount = 0;              ///< of the grid
  std::uint32_t m_nGridFlags = 0;             ///< bit 0: tiles keep versions
  bool m_bSwap = false;    ///< the file is in the other byte order than this host
  bool m_bOpened = false;  ///< see IsOpen
  std::array<unsigned char, 256> m_xorString;  ///< the password's
  PelmUnicodeString m_strPath;                 ///< see GetFilePath
  PelmUnicodeString m_strPassword;             ///< as given

 private:
  struct Sharing;

  bool IsOpenAt(const PelmUnicodeString& path) const;
  bool AttachBoard();

  const std::unique_ptr<Sharing> m_pSharing;
};

}  // namespace Zarn
