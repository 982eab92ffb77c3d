#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Ledger.h"
#include "ZrByteArray.h"
#include "ZrResult.h"

namespace Soak {

constexpr std::uint32_t kHeadSize = 16;
constexpr std::uint32_t kNewest = kVersions;  // asks for a stamp that is never stored

/// One of three for each tile, so that a rewrite finds the same, a smaller or a larger one.
std::uint32_t Length(std::uint32_t tile, std::uint32_t stamp, std::uint32_t generation);

/// A payload says what it is, and every byte behind that follows from it.
std::vector<unsigned char> Payload(std::uint32_t tile, std::uint32_t stamp,
                                   std::uint32_t generation);

/// What a lookup gives.
class Sight {
 public:
  Sight(std::uint32_t tile, std::uint32_t asked, unsigned int result, const Zarn::ZrByteArray& data,
        unsigned long long filled);

  /// Whether that is the version asked for, or the newest if that is not there.
  bool Fits(const Versions& versions) const;
  /// What is wrong with it. `seen` is what was known before the lookup began; `removed` says, as of
  /// after it, in which generation a removal of each version was last planned.
  Wrong Judge(const Versions& seen, const Generations& removed) const;
  /// Enters in the ledger what it shows, and says whether that is new.
  bool Enter(const Versions& seen) const;

  const std::uint32_t tile, asked;
  const unsigned int result;

 private:
  struct Found {
    std::uint32_t stamp;
    Version version;
  };
  std::optional<Found> Identify(const Zarn::ZrByteArray& data, unsigned long long filled) const;
  // If another version was found than the one asked for, that one is missing, and all newer ones.
  template <typename Visit>
  void VisitMissing(Visit visit) const;

  const bool m_isMissing;
  const std::optional<Found> m_found;  // the version of which it is the whole
};

}  // namespace Soak
