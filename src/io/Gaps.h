#pragma once

#include <cstdint>
#include <map>

namespace Zarn::Io {

/// Where in the payload areas of records that were appended lately nothing was stored yet. Such
/// bytes are anybody's guess, so a store that a kill cuts short there costs nothing.
///
/// Positions are those of the file. What memory is short for, or too much of, is forgotten.
class Gaps {
 public:
  /// Nothing was stored from `begin` to `end`.
  void Add(std::uint64_t begin, std::uint64_t end);
  /// Something is stored from `begin` to `end`, or may be. Whether nothing was there before.
  bool Take(std::uint64_t begin, std::uint64_t end);

 private:
  std::map<std::uint64_t, std::uint64_t> m_ends;  // by where a gap begins
};

}  // namespace Zarn::Io
