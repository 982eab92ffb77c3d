#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "hx/export.h"

namespace hx {

/// West, south, east and north, in degrees.
struct Bounds {
  double west = -180, south = -85.051129, east = 180, north = 85.051129;
};

/// Where a map may open.
struct Center {
  double longitude = 0, latitude = 0;
  int zoom = 0;
};

/// What is known of a tileset as a whole: texts by the keys of MBTiles, such as "name", "format",
/// "attribution", and "json" with the layers of vector tiles. Other keys stay as they are.
class HX_TILES_API Metadata {
 public:
  using Values = std::map<std::string, std::string, std::less<>>;

  Metadata() = default;
  explicit Metadata(Values values) : m_values(std::move(values)) {}

  const Values& values() const noexcept { return m_values; }
  bool empty() const noexcept { return m_values.empty(); }
  /// The text of a key; empty if there is none.
  std::string get(std::string_view key) const;
  void set(std::string_view key, std::string_view value);
  void erase(std::string_view key);

  /// @name Keys that are numbers
  /// Nothing if the key is missing, or its text is none of these numbers.
  /// @{
  std::optional<Bounds> bounds() const;
  std::optional<Center> center() const;
  std::optional<int> min_zoom() const;
  std::optional<int> max_zoom() const;
  void set_bounds(const Bounds& bounds);
  void set_center(const Center& center);
  void set_zooms(int min, int max);
  /// @}

  /// An object of texts.
  std::string to_json() const;
  /// Takes objects whose values are no texts, too: a number, a list or an object becomes its JSON.
  /// Nothing for any other text.
  static std::optional<Metadata> from_json(std::string_view json);

 private:
  Values m_values;
};

}  // namespace hx
