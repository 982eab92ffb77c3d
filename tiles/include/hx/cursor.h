#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "hx/bytes.h"
#include "hx/export.h"
#include "hx/key.h"

namespace hx {

/// What a walk over tiles gives.
struct CursorOptions {
  /// Whether it reads the payloads, too.
  bool payloads = true;
  /// Only names that begin with this, in UTF-8. The others are read as well: names have no order.
  std::string prefix = {};
};

/// A tile that a walk has reached. What it gives is valid until the walk goes on.
class HX_TILES_API Entry {
 public:
  /// Of a grid.
  Cell cell() const noexcept;
  /// Of a container of names, in UTF-8.
  std::string name() const;
  /// Of all versions, the newest first. What follows is of that one.
  const std::vector<Stamp>& stamps() const noexcept;
  /// The size of the payload area.
  std::uint64_t size() const noexcept;
  /// How far it is filled.
  std::uint64_t filled() const noexcept;
  /// The payload area; empty if the walk reads no payloads.
  Bytes payload() const noexcept;

 private:
  friend class Cursor;
  friend class Container;
  struct Walk;

  std::unique_ptr<Walk> m_walk;
};

/// A walk over tiles:
///
///     for (const hx::Entry& entry : container.tiles())
///       ...entry.name(), entry.payload()...
///
/// It reads ahead in large pieces, so it is faster than lookups, and keeps no list of the tiles. It
/// holds no lock between two steps. Others may store, erase and compact meanwhile: each tile that
/// is there all the time is given exactly once, whole, as it was at a moment shortly before; one
/// that comes or goes meanwhile may be given or not. A tile whose record is damaged is passed over,
/// and counted.
///
/// One thread at a time uses it, and the container outlives it. It can be walked over once.
class HX_TILES_API Cursor {
 public:
  Cursor(Cursor&& other) noexcept;
  Cursor& operator=(Cursor&& other) noexcept;
  ~Cursor();

  /// Goes on to the next tile; at first, to the first one. False behind the last one.
  bool next();
  /// The tile that was reached.
  const Entry& entry() const noexcept { return m_entry; }
  /// How many damaged tiles were passed over up to now.
  std::uint64_t damaged() const noexcept;

  /// For algorithms, and for the loop above.
  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = const Entry*;
    using reference = const Entry&;

    iterator() = default;
    reference operator*() const noexcept { return m_cursor->entry(); }
    pointer operator->() const noexcept { return &m_cursor->entry(); }
    iterator& operator++() {
      if (!m_cursor->next()) m_cursor = nullptr;
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const iterator& a, const iterator& b) {
      return a.m_cursor == b.m_cursor;
    }
    friend bool operator!=(const iterator& a, const iterator& b) { return !(a == b); }

   private:
    friend class Cursor;
    explicit iterator(Cursor* cursor) : m_cursor(cursor) {}

    Cursor* m_cursor = nullptr;  // null: the end
  };
  /// Goes on to the next tile.
  iterator begin() { return ++iterator(this); }
  iterator end() noexcept { return {}; }

 private:
  friend class Container;
  Cursor();

  Entry m_entry;
};

}  // namespace hx
