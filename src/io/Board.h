#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "Header.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// The words on which whoever changes a file tells what it does. Lookups take no lock: they
/// look at the words before and after they read, and read again if what they used may have changed.
///
///   entries     odd while something that lookups follow is being changed in place, otherwise even:
///               an index entry, a locator, the count of names, or a record to which an entry
///               leads; 2 more afterwards
///   change      the tile that is being changed, or was the last one, by the number of its entry; a
///               count of such tiles; and one of changes, which shows whether this word is of the
///               same moment as `entries`. 32, 16 and 16 bits
///   generation  raised before the header, the index area or the contents as a whole change, or the
///               file at the path
///   end         for writers: no entry, locator or index ever leads to this position or behind it
///               while it stays; 0: unknown
///
/// While a file is shared they lie in reserved bytes of its header: all who can open the file, in
/// whatever container or under whatever mount, share them, and trust them as they trust the file.
/// They are zero, which is how the format has them, once nobody has the file open. A file of one
/// object has them in memory. Where pages of a file are not shared, as on a network, there are
/// none: then every lookup takes the lock.
///
/// Rules for those who change the words, or anything that the words are about:
///   1. They hold the writer lock. One who gets it first compares the generation, and finishes a
///      replacement that was cut short; only then it makes an odd word even (Repair).
///   2. `entries` becomes odd before a change and even after it, also when the operation fails; the
///      tile is told meanwhile, before anything of it changes (BoardChange).
///   3. Who looks at the words is present (Presence) from before the first look on. The last one
///      to leave zeroes them.
///   4. `end` is raised before an entry leads to what lies behind it. A writer that finds no other
///      one when it enters makes it unknown: a loss of power may have left it with newer entries.
///      While somebody writes without the lock it stays unknown (RenounceEnd).
///
/// The object also knows how the words were when it last looked, and so what is still right of that
/// which was read before: that may be used if it has a tag of Tag(), which is then current.
///
/// Threads: lookups of any number of threads call Look, GetKnown, IsCurrent and Note at any time;
/// everything else is for the one that holds the writer lock, or loads the file.
class Board {
 public:
  enum Place {
    kInObject,  ///< nobody else uses the file
    kInFile,
    kNowhere,  ///< every lookup takes the lock
  };
  struct Words {
    std::uint64_t generation = 0;
    std::uint64_t change = 0;
    std::uint64_t entries = 0;
    std::uint64_t end = 0;  ///< not for lookups of a file of one object
  };
  /// What others have changed.
  enum class Change { kNone, kTiles, kAll };

  /// What keeps values that it has read, each with a tag.
  class Keeper {
   public:
    /// The entry of this number may have changed, and the count of entries may have passed it.
    virtual void Forget(std::uint32_t entry) = 0;

   protected:
    ~Keeper() = default;
  };

  /// `header`: of the file, unscrambled, as it was just read. `isMapped`: lookups may load the
  /// words from a mapping.
  Board(Place place, ZrFileStream& file, const Format::HeaderImage& header, bool isMapped);
  ~Board();
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  Place GetPlace() const { return m_place; }
  /// Whether to look costs no system call.
  bool IsNear() const { return m_place != kInFile || m_page != nullptr; }
  /// The words now. False if the file cannot be read.
  bool Look(Words& words) const;
  /// The words of a shared file when this object last looked. False while it changes them itself.
  bool GetKnown(Words& words) const;
  /// Of the file as it was loaded.
  std::uint64_t GetGeneration() const { return m_generation; }
  bool IsOurs(const Words& words) const { return words.generation == m_generation; }
  /// Whether nothing is being changed: an odd value that a dead writer has left counts as even.
  bool IsSettled(const Words& words) const {
    return words.entries % 2 == 0 || words.entries == m_dead.load(std::memory_order_relaxed);
  }
  /// The tile that was told last.
  static std::uint32_t TileOf(const Words& words) {
    return static_cast<std::uint32_t>(words.change);
  }
  /// Whether all changes between the two are those of the tiles that were told last. There must be
  /// no more than one new one: only the last is known.
  static bool IsNext(const Words& before, const Words& now);
  /// Whether a lookup that has read what belongs to this tile, and nothing else, can be told from
  /// the words before and after to have seen none of its changes.
  static bool IsOther(std::uint32_t tile, const Words& before, const Words& now);
  /// A lookup has seen these words.
  void Note(const Words& words);

  /// What is read while the words are settled, with this value of `entries`, gets this tag, unless
  /// MayKeep says no when it is to be kept. 0 is never a tag.
  static std::uint64_t Tag(std::uint64_t entries) { return entries + 1; }
  bool MayKeep(std::uint64_t entries) const;
  /// Whether the words are of one moment, and the change under way, if there is one, was told. Else
  /// nothing that is read may be kept but for one who knows that `entries` has stayed.
  static bool IsTold(const Words& words);
  /// Who is told of each change while the changes can be followed one by one; after any other,
  /// nothing that was kept is current.
  void SetKeeper(Keeper* keeper) { m_keeper = keeper; }
  /// Whether what has the tag is as it was when `entries` has this value.
  bool IsCurrent(std::uint64_t tag, std::uint64_t entries) const;
  /// The same for one who holds the lock, after Refresh.
  bool IsCurrent(std::uint64_t tag) const {
    return tag > m_validFrom.load(std::memory_order_acquire);
  }
  /// The words as the holder of the lock knows them.
  std::uint64_t GetEntries() const;

  /// Takes notice of what others have changed since this object last knew, with the lock held.
  /// After kAll the file must be loaded again.
  Change Refresh();
  /// Whether an odd word was there when the file was loaded, or at the last Refresh. Under the lock
  /// it is a dead writer's, unless somebody writes without the lock: then a writer repairs it, and
  /// others remember that it counts as even.
  bool IsOdd() const { return m_odd != 0; }
  void Bury() { m_dead = m_odd; }
  void Repair();
  /// Nothing that was kept is current any more.
  void Forget();

  /// Around all changes of one operation.
  void BeginWriting();
  void EndWriting();
  /// Before the header, the index area or all contents change; to others this is another file then.
  bool Replaces();
  /// Whether the word of the end is not zero.
  bool HasEnd() const { return m_place == kInFile && m_end != 0; }
  /// Whether nobody else can change anything while this object holds the writer lock.
  bool ExcludesOthers() const { return m_place == kInObject || TellsEnd(); }
  /// Whether writers tell where the data end.
  bool TellsEnd() const;
  /// Where the data end, as of the last Refresh or SetEnd; 0: unknown.
  std::uint64_t GetEnd() const;
  /// The same, as it is now.
  std::uint64_t LookForEnd() const;
  /// Tells where they end now; 0: unknown. False if the word could not be written: then nothing may
  /// lead behind the end of before. Only in a file that is shared.
  bool SetEnd(std::uint64_t end);
  /// It becomes unknown, since nobody may know who has written before.
  bool ForgetEnd();
  /// It becomes unknown, and remains so: the caller writes without the lock from now on.
  bool RenounceEnd();
  /// The last one to leave: zeroes the words, so that the file, which is at this path, is as the
  /// format has it.
  void Clear(const PelmUnicodeString& path);

 private:
  friend class BoardChange;
  enum WordNumber { kGeneration, kChange, kEntries, kEnd };

  template <typename Function>
  bool Set(WordNumber number, Function function);
  bool Tell(std::uint32_t tile);
  bool LookUnderLock(Words& words) const;
  bool LookAtFile(Words& words) const;
  static bool LookAtPage(void* page, Words& words);
  void Know(const Words& words);

  const Place m_place;
  ZrFileStream& m_file;
  std::array<std::atomic<std::uint64_t>, 3> m_own{};  // where there are none in the file
  void* m_page = nullptr;                             // for lookups with kMapped
  void* m_writable = nullptr;                         // the same, to write there
  bool m_mayWritePage = false;                        // in the operation under way
  bool m_overwritesInPlace = false;
  std::uint64_t m_generation;  // of what was loaded
  std::uint64_t m_refreshed;   // `entries` at the last Refresh
  std::uint64_t m_odd = 0;     // that was found; 0: none
  std::uint64_t m_end;         // as in Words
  Keeper* m_keeper = nullptr;

  // Known words of a file; kWriting: this object changes them.
  static constexpr std::uint64_t kWriting = UINT64_MAX;
  std::mutex m_mutex;  // held while they change
  std::atomic<std::uint64_t> m_known{0};
  std::atomic<std::uint64_t> m_knownChange{0};
  std::atomic<std::uint64_t> m_validFrom{0};  // tags up to this one are not current
  std::atomic<std::uint64_t> m_dead{0};       // an odd value that no writer will change; 0: none
};

/// Makes `entries` odd for a change in place, tells whose it is, and makes the word even again when
/// it ends.
class BoardChange {
 public:
  /// For a change of several tiles, or of others than can be told.
  static constexpr std::uint32_t kMany = UINT32_MAX;

  BoardChange(Board& board, std::uint32_t tile);
  ~BoardChange();
  BoardChange(const BoardChange&) = delete;
  BoardChange& operator=(const BoardChange&) = delete;

  /// False if the word could not be written: then nothing may be changed.
  bool IsShown() const { return m_isShown; }

 private:
  Board& m_board;
  const bool m_isOdd;
  const bool m_isShown;
};

}  // namespace Zarn::Io
