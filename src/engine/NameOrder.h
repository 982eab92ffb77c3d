#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace Zarn::Engine {

/// The names of a file in an order for a walk that gives each once. Slots get other numbers when
/// the file is compacted, and records other places; the hash of a name stays. So the walk goes
/// through the range of the hashes in pieces, each of bounded size, and within a piece in the order
/// in which the records lie. What was given of a piece is known by its hashes.
///
///   do {
///     Begin(...); Add(...) of all slots; Finish(...);
///     ...and again from Begin on, if the slots have got other numbers...
///     while (!GetRest().empty()) ...Give(...)...
///   } while (Advance());
class NameOrder {
 public:
  /// The slot with the first code of a hash.
  struct Item {
    std::uint64_t hash;
    std::uint64_t position;  // of the record, as it was; 56 bits
    std::uint32_t slot;
  };

  /// Begins to collect a piece, or what is left of it. `slots`: how many the index has in use.
  void Begin(std::uint64_t slots);
  /// Throws std::bad_alloc.
  void Add(std::uint64_t code, std::uint64_t value, std::uint32_t slot);
  /// All slots were added. `hasUniqueCodes`: no two have the same code.
  void Finish(bool hasUniqueCodes);
  /// What is still to be given of the piece.
  std::span<const Item> GetRest() const { return std::span(m_items).subspan(m_at); }
  /// The next so many are given.
  void Give(std::size_t count) { m_at += count; }
  /// Whether other names have this hash.
  bool IsShared(std::uint64_t hash) const;
  /// Goes on to the next piece. False at the end.
  bool Advance();

 private:
  static std::uint64_t Mix(std::uint64_t hash) { return hash * 0x9E3779B97F4A7C15; }
  void DropDoubles();
  void Narrow();

  // The piece: from the first to the last mixed hash.
  std::uint64_t m_first = 0;
  std::uint64_t m_last = UINT64_MAX;
  std::size_t m_most = 0;  // items, and twice as many while they are collected
  std::vector<Item> m_items;
  std::size_t m_at = 0;
  std::vector<std::uint64_t> m_given;  // mixed hashes of the piece that are no more among the items
  std::vector<std::uint64_t> m_shared;  // hashes that have more than one slot
};

}  // namespace Zarn::Engine
