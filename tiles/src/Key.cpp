#include "hx/key.h"

#include <charconv>
#include <initializer_list>

namespace hx {
namespace {

// Writes the three numbers, and returns the end.
char* Write(const Tile& tile, char* text, char* end) {
  for (const std::uint32_t number : {tile.z, tile.x, tile.y}) {
    text = std::to_chars(text, end, number).ptr;
    *text++ = '/';
  }
  return text - 1;
}

}  // namespace

Key::Key(Tile tile) noexcept
    : m_textLength(static_cast<std::uint8_t>(Write(tile, m_text, m_text + kLongest) - m_text)) {}

std::string Tile::name() const { return std::string(Key(*this).name()); }

// Digits only, and no zero in front: so a name is that of no other tile.
std::optional<Tile> Tile::parse(std::string_view name) noexcept {
  Tile tile;
  const char* at = name.data();
  const char* const end = at + name.size();
  for (std::uint32_t* number : {&tile.z, &tile.x, &tile.y}) {
    if (number != &tile.z && (at == end || *at++ != '/')) return std::nullopt;
    const char* const begin = at;
    const auto [next, error] = std::from_chars(at, end, *number);
    if (error != std::errc() || (*begin == '0' && next != begin + 1)) return std::nullopt;
    at = next;
  }
  return at == end ? std::optional(tile) : std::nullopt;
}

}  // namespace hx
