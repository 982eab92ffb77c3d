#pragma once

#include <atomic>
#include <optional>

#include "Board.h"
#include "CellIndex.h"
#include "FileHeader.h"
#include "NameIndex.h"
#include "Tail.h"
#include "TileStore.h"

namespace Zarn::Engine {

/// Everything about the file that is open: the stream, the header, the index, the mapping, and
/// where the data end; and the board on which changes are told. It is loaded aside and replaced as
/// a whole.
///
/// Threads: see the rooms in it. The stream and the kind of the file never change.
class OpenFile {
 public:
  struct Source {
    const PelmUnicodeString& path;
    const Format::XorString& xorString;
    bool readOnly;
    bool mapped;    ///< for lookups
    bool isShared;  ///< with other processes, by the process lock, which is held
    /// A stream that is certainly open on the file at the path; null: none.
    std::shared_ptr<ZrFile64> stream;
  };

  /// Opens the file and reads its headers, in a number of calls that does not depend on its size;
  /// of a naming file the hash codes as well. What `previous`, of the same object or null, knows is
  /// kept as far as it is still the file's. A file that cannot be opened for writing is opened for
  /// reading; none is created. A replacement that was cut short is finished first.
  ///
  /// kOk; kNotOpen; kWrongFile; kNotUsable for an index that does not lie in the file or does not
  /// fit into memory. After a failure `loaded` is null. Throws std::bad_alloc.
  static unsigned int Load(const Source& source, MaxSizes& maxSizes, OpenFile* previous,
                           std::shared_ptr<OpenFile>& loaded);

  OpenFile() = default;
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  const std::shared_ptr<ZrFile64>& GetStream() const { return m_file; }
  const Io::FileHeader& GetHeader() const { return m_header; }
  Io::FileHeader& GetHeader() { return m_header; }
  const Format::RecordShape& GetShape() const { return m_shape; }
  std::uint32_t GetKind() const { return m_shape.kind; }
  /// Null in a file of another kind.
  CellIndex* Cells() const { return m_cells.get(); }
  NameIndex* Names() const { return m_names.get(); }
  bool HasIndex() const { return m_cells != nullptr || m_names != nullptr; }
  /// The one of the two that there is.
  IndexEntries& Index() const {
    return m_cells != nullptr ? static_cast<IndexEntries&>(*m_cells) : *m_names;
  }
  /// Whether tiles keep versions.
  bool HasVersions() const;
  /// Null without kMapped.
  Io::FileMap* Map() const { return m_pMap.get(); }
  /// For a file that has an index.
  Io::Tail& GetTail() { return *m_tail; }

  /// Records and versions, with a thread's record buffer. For a file that has an index.
  TileStore MakeStore(ZrByteArray& buffer) { return TileStore(GetPlace(), buffer); }
  TileStore::Place GetPlace();
  Io::Board& GetBoard() { return *m_board; }

  /// With the lock: takes notice of what others have done; `length`: of the file now. kNames: the
  /// names that others have added are to be added here, too; kAll: this is another file, to be
  /// loaded again.
  enum class Change { kNone, kTiles, kNames, kAll };
  Change Refresh(std::uint64_t length);

  /// Whether the board of a shared file tells something of where its data end.
  bool HasEnd() const { return m_board->HasEnd(); }
  /// For the first writer: where they end has to be looked for.
  bool ForgetEnd();
  /// The data end here, in a longer file.
  void HasSpareFrom(std::uint64_t end);
  /// Whether the file is longer than its data, as far as that is known. Without the lock.
  bool HasSpare() const;
  /// Cuts it off if it is, unless somebody maps the file. There is no other writer.
  void CutSpare();

  /// Whether the path still leads to this file, as far as it was seen lately. Any thread may ask.
  bool IsAtPath();

  /// Tells it from all others that were ever loaded in this process.
  std::uint64_t GetId() const { return m_id; }

  /// The number of the locked file that it was loaded from; 0 without the process lock.
  std::uint64_t GetLockedFile() const { return m_nLockedFile; }
  void SetLockedFile(std::uint64_t number) { m_nLockedFile = number; }

 private:
  static std::uint64_t NextId();
  std::uint64_t FindSpare() const;
  bool OpenStream(const Source& source);
  bool ReadHeader(const Source& source);
  void TakeMap(const OpenFile& previous);
  bool ReadIndex(MaxSizes& maxSizes);
  void TakeTail(const Source& source, const OpenFile& previous);

  const std::uint64_t m_id = NextId();
  std::shared_ptr<ZrFile64> m_file;
  Io::FileHeader m_header;
  std::optional<Io::Board> m_board;
  Format::RecordShape m_shape;
  std::shared_ptr<Io::FileMap> m_pMap;
  std::unique_ptr<CellIndex> m_cells;
  std::unique_ptr<NameIndex> m_names;
  std::optional<Io::Tail> m_tail;             // where the data end
  std::atomic<std::uint64_t> m_nOlderEnd{0};  // see TileStore::Place
  std::uint64_t m_nLockedFile = 0;
  PelmUnicodeString m_strPath;              // of a shared file
  std::atomic<std::int64_t> m_nextLook{0};  // at the path, in milliseconds of the monotonic clock
};

}  // namespace Zarn::Engine
