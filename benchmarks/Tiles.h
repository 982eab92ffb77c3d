#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "PelmUnicodeString.h"
#include "Support.h"
#include "ZrByteArray.h"

namespace Bench {

inline constexpr unsigned int kColumns = 256;  // of a grid

using Bytes = std::span<const unsigned char>;

/// What a benchmark stores: so many tiles of given sizes, in cells or by names. Where only one size
/// is given, all tiles have it, and there may be any number of them.
struct Tiles {
  explicit Tiles(std::vector<std::size_t> tileSizes) : sizes(std::move(tileSizes)) {
    payload.assign(*std::max_element(sizes.begin(), sizes.end()) * 2, 0x5A);
  }

  unsigned int Count() const { return static_cast<unsigned int>(sizes.size()); }
  unsigned int Rows() const { return (Count() + kColumns - 1) / kColumns; }
  std::size_t SizeOf(unsigned int tile) const { return sizes[sizes.size() == 1 ? 0 : tile]; }
  bool IsNamed() const { return !names.empty(); }

  /// Gives every tile the name that it has in a map of zoom level 8.
  void MakeNames() {
    MakeRoomForNames(Count());
    for (unsigned int i = 0; i < Count(); ++i)
      MakeName(i);
  }
  /// Of one tile only; there must be room for it.
  void MakeName(unsigned int i) {
    utf8Names[i] = "8/" + std::to_string(i % kColumns) + "/" + std::to_string(i / kColumns);
    names[i] = PelmUnicodeString::FromUtf8(utf8Names[i]);
  }
  void MakeRoomForNames(unsigned int count) {
    utf8Names.resize(count);
    names.resize(count);
  }

  std::vector<std::size_t> sizes;
  std::vector<unsigned char> payload;  // every tile is its beginning; twice the largest
  std::vector<PelmUnicodeString> names;
  std::vector<std::string> utf8Names;
};

/// Sizes as a web map has them: log-normal, median 6 KiB, 200 bytes to 100 KiB.
inline Tiles MapTiles(unsigned int count) {
  std::mt19937 random(2);
  std::lognormal_distribution<double> distribution(std::log(6144.0), 0.9);
  std::vector<std::size_t> sizes(count);
  for (std::size_t& size : sizes)
    size = static_cast<std::size_t>(std::clamp(distribution(random), 200.0, 102400.0));
  return Tiles(std::move(sizes));
}

/// What tells one store of a tile from others; it lies at both ends of the bytes.
struct Mark {
  std::uint32_t tile, store;

  bool operator==(const Mark&) const = default;
};

inline Mark MarkAt(const unsigned char* bytes) {
  Mark mark = {};
  std::memcpy(&mark, bytes, sizeof mark);
  return mark;
}

inline void SetMarks(Zarn::ZrByteArray& data, const Mark& mark) {
  std::memcpy(data.GetData(), &mark, sizeof mark);
  std::memcpy(data.GetData() + data.GetSize() - sizeof mark, &mark, sizeof mark);
}

/// The bytes to store, other ones each time.
class Payload {
 public:
  explicit Payload(const Tiles& tiles)
      : m_data(tiles.payload.data(), tiles.payload.size()),
        m_store(static_cast<std::uint32_t>(
            std::chrono::steady_clock::now().time_since_epoch().count())) {}

  // All bytes are there from the beginning: setting the size neither copies nor clears any.
  const Zarn::ZrByteArray& Next(unsigned int tile, std::size_t size) {
    Check(m_data.ResizeForOverwrite(size));
    SetMarks(m_data, {tile, m_store++});
    return m_data;
  }

 private:
  Zarn::ZrByteArray m_data;
  std::uint32_t m_store;
};

/// The first `count` tiles in an order of chance.
inline std::vector<unsigned int> Shuffled(unsigned int count, unsigned int seed = 1) {
  std::vector<unsigned int> order(count);
  std::iota(order.begin(), order.end(), 0U);
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  return order;
}

}  // namespace Bench
