#include "hx/metadata.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <utility>

#include "Json.h"

namespace hx {
namespace {

using Json = nlohmann::json;

// `count` numbers with commas between them.
template <std::size_t count>
std::optional<std::array<double, count>> Split(const std::string& text) {
  std::array<double, count> numbers;
  const char* at = text.data();
  const char* const end = at + text.size();
  const auto skip = [&](char c) {
    while (at != end && *at == c)
      ++at;
  };
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0 && (at == end || *at++ != ',')) return std::nullopt;
    skip(' ');
    const auto [next, error] = std::from_chars(at, end, numbers[i]);
    if (error != std::errc()) return std::nullopt;
    at = next;
    skip(' ');
  }
  return at == end ? std::optional(numbers) : std::nullopt;
}

template <typename... Numbers>
std::string Join(Numbers... numbers) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text.precision(10);
  const char* separator = "";
  ((text << std::exchange(separator, ",") << numbers), ...);
  return text.str();
}

std::optional<int> ToInt(const std::string& text) {
  int number = 0;
  const char* const end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && next == end ? std::optional(number) : std::nullopt;
}

// A list of numbers is written as MBTiles have it, without brackets.
std::string ToText(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  const std::string text = value.dump();
  const bool isNumbers = value.is_array() && std::all_of(value.begin(), value.end(),
                                                         [](auto& v) { return v.is_number(); });
  return isNumbers ? text.substr(1, text.size() - 2) : text;
}

}  // namespace

std::optional<Json> ParseJson(std::string_view text) {
  constexpr int kDeepest = 100;
  bool isTooDeep = false;
  Json parsed = Json::parse(
      text,
      [&](int depth, Json::parse_event_t, Json&) {
        isTooDeep |= depth > kDeepest;
        return !isTooDeep;
      },
      false);
  return parsed.is_discarded() || isTooDeep ? std::nullopt : std::optional(std::move(parsed));
}

std::string Metadata::get(std::string_view key) const {
  const auto found = m_values.find(key);
  return found != m_values.end() ? found->second : std::string();
}

void Metadata::set(std::string_view key, std::string_view value) {
  m_values.insert_or_assign(std::string(key), std::string(value));
}

void Metadata::erase(std::string_view key) {
  if (const auto found = m_values.find(key); found != m_values.end()) m_values.erase(found);
}

std::optional<Bounds> Metadata::bounds() const {
  const auto numbers = Split<4>(get("bounds"));
  if (!numbers) return std::nullopt;
  const auto [west, south, east, north] = *numbers;
  return Bounds{west, south, east, north};
}

std::optional<Center> Metadata::center() const {
  const auto numbers = Split<3>(get("center"));
  if (!numbers) return std::nullopt;
  const auto [longitude, latitude, zoom] = *numbers;
  if (!(zoom >= 0 && zoom <= 255)) return std::nullopt;
  return Center{longitude, latitude, static_cast<int>(zoom)};
}

std::optional<int> Metadata::min_zoom() const { return ToInt(get("minzoom")); }
std::optional<int> Metadata::max_zoom() const { return ToInt(get("maxzoom")); }

void Metadata::set_bounds(const Bounds& bounds) {
  set("bounds", Join(bounds.west, bounds.south, bounds.east, bounds.north));
}

void Metadata::set_center(const Center& center) {
  set("center", Join(center.longitude, center.latitude, center.zoom));
}

void Metadata::set_zooms(int min, int max) {
  set("minzoom", std::to_string(min));
  set("maxzoom", std::to_string(max));
}

// A text that is no UTF-8 gets the character for that.
std::string Metadata::to_json() const {
  return Json(m_values).dump(2, ' ', false, Json::error_handler_t::replace);
}

std::optional<Metadata> Metadata::from_json(std::string_view json) {
  const auto parsed = ParseJson(json);
  if (!parsed || !parsed->is_object()) return std::nullopt;
  Metadata metadata;
  for (const auto& [key, value] : parsed->items())
    metadata.set(key, ToText(value));
  return metadata;
}

}  // namespace hx
