#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "ZrByteArray.h"

namespace hx {

/// A view of bytes that somebody else keeps, as a call takes them: of anything with `data()` and
/// `size()` whose elements have one byte (std::string, std::vector, std::array, std::span), of a
/// text that ends with a zero, or of a pointer and a size. It is used during the call only.
class Bytes {
 public:
  constexpr Bytes() noexcept = default;
  /// `size` bytes at `data`.
  constexpr Bytes(const void* data, std::size_t size) noexcept : m_data(data), m_size(size) {}
  /// A text that ends with a zero, without that.
  constexpr Bytes(const char* text) noexcept  // NOLINT: literals convert
      : Bytes(std::string_view(text)) {}
  /// All elements of `range`.
  template <typename Range,
            typename Element = std::remove_pointer_t<decltype(std::declval<const Range&>().data())>,
            typename = std::enable_if_t<
                sizeof(Element) == 1 &&
                std::is_convertible_v<decltype(std::declval<const Range&>().size()),
                                      std::size_t>>>
  constexpr Bytes(const Range& range) noexcept  // NOLINT: containers convert
      : m_data(range.data()), m_size(range.size()) {}

  const std::byte* data() const noexcept { return static_cast<const std::byte*>(m_data); }
  constexpr std::size_t size() const noexcept { return m_size; }
  constexpr bool empty() const noexcept { return m_size == 0; }
  const std::byte* begin() const noexcept { return data(); }
  const std::byte* end() const noexcept { return data() + m_size; }

  /// The same bytes as characters.
  std::string_view text() const noexcept { return {static_cast<const char*>(m_data), m_size}; }

  friend bool operator==(const Bytes& a, const Bytes& b) noexcept { return a.text() == b.text(); }
  friend bool operator!=(const Bytes& a, const Bytes& b) noexcept { return !(a == b); }

 private:
  const void* m_data = nullptr;
  std::size_t m_size = 0;
};

/// Counts versions of a tile: larger for newer. Often a time.
using Stamp = unsigned long long;

/// The bytes of a tile, as a lookup has read them: nothing is copied to get here. A lookup into an
/// object that was used before takes over its memory, so a loop over many tiles allocates none.
///
/// An object is used by one thread at a time.
class Payload {
 public:
  /// The first byte; where any type may lie.
  const std::byte* data() const noexcept {
    return reinterpret_cast<const std::byte*>(m_bytes.GetData());
  }
  /// The size of the tile's payload area: of a tile stored whole, what was stored.
  std::size_t size() const noexcept { return static_cast<std::size_t>(m_bytes.GetSize()); }
  bool empty() const noexcept { return size() == 0; }
  const std::byte* begin() const noexcept { return data(); }
  const std::byte* end() const noexcept { return data() + size(); }

  /// How far the area is filled: of a tile stored in pieces, where the last piece ended.
  std::size_t filled() const noexcept { return static_cast<std::size_t>(m_filled); }
  /// Whether it is filled to the end.
  bool complete() const noexcept { return filled() == size(); }
  /// The version that was found.
  Stamp stamp() const noexcept { return m_stamp; }

  /// The same bytes as characters.
  std::string_view text() const noexcept { return Bytes(*this).text(); }
  /// A copy.
  std::vector<std::byte> to_vector() const { return {begin(), end()}; }

 private:
  friend class Container;

  Zarn::ZrByteArray m_bytes;
  unsigned long long m_filled = 0;
  Stamp m_stamp = 0;
};

}  // namespace hx
