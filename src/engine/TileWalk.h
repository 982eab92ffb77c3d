#pragma once

#include <optional>
#include <string>
#include <vector>

#include "IndexPages.h"
#include "NameOrder.h"
#include "PelmUnicodeString.h"
#include "RecordReader.h"
#include "RecordWindow.h"
#include "TileEntry.h"

namespace Zarn::Engine {

class OpenFile;

/// A walk over the tiles of a file: what was read ahead, and what is still to come. Cells come in
/// their order, names as NameOrder has them.
///
/// Each step of the engine takes what was read ahead, or has more read. A tile whose entry or
/// record changes while the others are read is read by itself when its turn comes, and so is one
/// that could not be read, to be told from damage as a lookup tells it. Names that share a hash are
/// listed together when the turn of their hash comes, and looked up by name: so a compaction, which
/// gives them other codes, matters no more.
class TileWalk {
 public:
  using Content = Io::RecordWindow::Content;

  /// The tile that was reached.
  struct Tile {
    std::uint32_t row = 0;  // of a cell
    std::uint32_t col = 0;
    std::u16string name;
    std::vector<unsigned long long> stamps;
    std::uint8_t status = 0;
    std::uint64_t recordLength = 0;
    std::uint64_t capacity = 0;
    std::uint64_t filledLength = 0;
    const unsigned char* data = nullptr;  // the payload area, for the walk over payloads
  };
  /// What the next step has to do.
  enum class Turn {
    kTile,   ///< nothing: the tile is reached
    kEntry,  ///< read a cell, or the only name of a hash, by itself
    kHash,   ///< list the names of a hash
    kName,   ///< look up a name that was listed
    kRead,   ///< read ahead
  };
  /// What reading ahead has come to.
  enum class Seen {
    kDone,
    kAgain,   ///< what was read is not of one moment
    kLocked,  ///< only the lock helps
  };

  TileWalk(Content content, const PelmUnicodeString& prefix);

  Content GetContent() const { return m_content; }
  const Tile& GetTile() const { return m_tile; }
  bool IsGrid() const { return m_shape.index.IsGrid(); }
  /// Tiles that could not be read.
  std::uint64_t GetDamaged() const { return m_damaged; }
  /// How many entries of all are done, about.
  std::uint64_t GetDone() const { return m_done; }
  std::uint64_t GetTotal() const { return m_total; }

  /// Whether the file has the same addresses as when the walk began.
  bool IsSame(const OpenFile& file);

  Turn Take();
  /// For Turn::kRead. `result`: kOk if the walk goes on; kNotFound at its end; kReadFailure for an
  /// index that cannot be read; kNotUsable if the file has other addresses. Throws std::bad_alloc.
  Seen ReadAhead(OpenFile& file, View& view, unsigned int& result);
  /// For Turn::kEntry. False: nothing can be said of it.
  bool FindEntry(OpenFile& file, View& view, TileEntry& entry) const;
  /// For Turn::kHash: the names that lookups find, and how many cannot be read. The store is for
  /// their heads.
  struct Group {
    std::vector<PelmUnicodeString> names;
    std::uint64_t damaged = 0;
  };
  Group ListHash(OpenFile& file, View& view, ZrByteArray& buffer) const;
  /// For Turn::kName.
  const PelmUnicodeString& GetListed() const { return m_listed.back(); }

  // The turn is done: by a tile that was read, which the walk may pass over; or by names.
  bool TakeAlone(const Io::RecordReader& record, const TileEntry& entry, ZrByteArray& buffer);
  void TakeNames(Group group);
  /// The tile is gone, or it is damaged.
  void PassOver(bool isDamaged);

 private:
  /// What of a file the addresses depend on.
  struct Shape {
    bool operator==(const Shape&) const = default;

    Format::IndexShape index;  // of a naming file only the kind
    std::uint32_t columns = 0;
    std::uint32_t formatVersion = 0;
  };
  /// An entry whose record is to be read.
  struct Found {
    std::uint64_t key;  // the cell, or the hash of the name
    std::uint64_t value;
    std::uint32_t number;
    std::uint32_t item;  // how many items of the order lie before it
  };
  /// What was read ahead. `record`: its number in the window; none if it must be read by itself.
  struct Ready {
    std::uint64_t key;
    std::uint8_t status;
    bool isShared;
    std::optional<std::uint32_t> record;
  };

  Seen ReadCells(OpenFile& file, View& view, unsigned int& result);
  bool FindCells(OpenFile& file, View& view, std::uint64_t& next);
  Seen ReadNames(OpenFile& file, View& view, unsigned int& result);
  Seen Collect(OpenFile& file, View& view, unsigned int& result);
  bool FindSlots(OpenFile& file, View& view, std::span<const NameOrder::Item> items);
  Seen ReadFound(OpenFile& file, View& view, std::size_t& count);
  bool IsSound(const OpenFile& file, std::size_t number) const;
  bool TakeRecord(const Ready& ready);
  bool TakeHead(const Format::RecordHead& head, const Format::VersionTable& versions,
                const unsigned char* name, std::uint8_t status);
  bool TakeName(const unsigned char* name, std::uint64_t length);
  void TakeCell(std::uint64_t cell);

  const Content m_content;
  const std::u16string m_prefix;
  bool m_hasBegun = false;
  Shape m_shape;
  bool m_swap = false;  // of what was read ahead

  // What was read ahead.
  Io::RecordWindow m_window;
  std::vector<Ready> m_ready;
  std::size_t m_at = 0;                     // the next one
  ZrByteArray m_alone;                      // a payload that was read by itself
  std::vector<PelmUnicodeString> m_listed;  // of one hash; the next one is the last

  // What is still to be read.
  std::vector<Found> m_found;
  std::vector<Io::RecordPlace> m_places;
  std::vector<unsigned char> m_entries;  // as they lie in the file
  std::size_t m_most;                    // records at once; fewer while others change many
  bool m_hasFailed = false;              // the last attempt to read ahead
  std::uint64_t m_next = 0;              // cell
  std::uint64_t m_block;                 // cells whose entries are read at once
  NameOrder m_order;
  bool m_isCollecting = true;
  std::uint64_t m_slot = 0;  // the next to be collected
  std::uint64_t m_fileId = 0;
  std::uint64_t m_generation = 0;

  Tile m_tile;
  std::uint64_t m_damaged = 0;
  std::uint64_t m_done = 0;
  std::uint64_t m_total = 0;
};

}  // namespace Zarn::Engine
