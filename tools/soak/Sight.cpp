#include "Sight.h"

#include <cstring>
#include <random>

namespace Soak {

using Zarn::ZrResult;

namespace {

std::uint64_t Mix(std::uint32_t tile, std::uint32_t stamp, std::uint32_t generation) {
  return std::mt19937_64((std::uint64_t{tile} << 40) + (std::uint64_t{stamp} << 32) + generation)();
}

}  // namespace

std::uint32_t Length(std::uint32_t tile, std::uint32_t stamp, std::uint32_t generation) {
  const std::uint64_t ofTile = Mix(tile, 0, 0) % (tile % 4 == 0 ? 20000 : 1500);
  return kHeadSize +
         static_cast<std::uint32_t>(ofTile * (1 + Mix(tile, stamp, generation) % 3) / 2);
}

std::vector<unsigned char> Payload(std::uint32_t tile, std::uint32_t stamp,
                                   std::uint32_t generation) {
  const std::uint32_t length = Length(tile, stamp, generation);
  const std::uint32_t head[] = {tile, stamp, generation, length};
  std::uint64_t word = Mix(tile, stamp, generation);
  std::vector<unsigned char> bytes(length + sizeof word);
  std::memcpy(bytes.data(), head, kHeadSize);
  for (std::size_t i = kHeadSize; i < length; i += sizeof word, word += 0x0123456789ABCDEF)
    std::memcpy(&bytes[i], &word, sizeof word);
  bytes.resize(length);
  return bytes;
}

Sight::Sight(std::uint32_t number, std::uint32_t stamp, unsigned int code,
             const Zarn::ZrByteArray& data, unsigned long long filled)
    : tile(number),
      asked(stamp),
      result(code),
      m_isMissing(result == ZrResult::kNotFound && data.IsEmpty()),
      m_found(Identify(data, filled)) {}

std::optional<Sight::Found> Sight::Identify(const Zarn::ZrByteArray& data,
                                            unsigned long long filled) const {
  std::uint32_t head[kHeadSize / sizeof(std::uint32_t)];
  if (result != ZrResult::kOk || filled < kHeadSize || filled > data.GetSize()) return {};
  std::memcpy(head, data.GetData(), kHeadSize);
  const std::uint32_t stamp = head[1], generation = head[2];
  if (head[0] != tile || stamp >= kVersions) return {};
  const auto payload = Payload(tile, stamp, generation);
  if (data.GetSize() != payload.size() || std::memcmp(data.GetData(), payload.data(), filled) != 0)
    return {};
  return Found{stamp, {generation, static_cast<std::uint32_t>(filled)}};
}

bool Sight::Fits(const Versions& versions) const {
  const auto isThere = [&](std::uint32_t stamp) { return versions[stamp].filled != 0; };
  std::uint32_t count = kVersions;  // of those that it may be; it must be the last that is there
  if (asked < kVersions && isThere(asked)) count = asked + 1;
  while (count > 0 && !isThere(count - 1))
    --count;
  if (count == 0) return m_isMissing;
  return m_found && m_found->stamp == count - 1 && m_found->version == versions[count - 1];
}

template <typename Visit>
void Sight::VisitMissing(Visit visit) const {
  if (m_found && m_found->stamp == asked) return;
  if (asked < kVersions) visit(asked);
  for (std::uint32_t stamp = m_found ? m_found->stamp + 1 : 0; stamp < kVersions; ++stamp)
    visit(stamp);
}

Wrong Sight::Judge(const Versions& seen, const Generations& removed) const {
  if (result != ZrResult::kOk && result != ZrResult::kNotFound) return kOther;
  if (!m_found && !m_isMissing) return kTorn;
  if (m_found && m_found->version < seen[m_found->stamp]) return kStale;
  bool isLost = false;
  VisitMissing([&](std::uint32_t stamp) {
    isLost |= seen[stamp].filled != 0 && removed[stamp] <= seen[stamp].generation;
  });
  return isLost ? kLost : kNothing;
}

// A version that was there and is missing now has been removed, in a later generation.
bool Sight::Enter(const Versions& seen) const {
  Tile& known = g_ledger->tiles[tile];
  bool isNew = m_found && known.See(m_found->stamp, m_found->version);
  VisitMissing([&](std::uint32_t stamp) {
    if (seen[stamp].filled != 0) isNew |= known.See(stamp, {seen[stamp].generation + 1, 0});
  });
  return isNew;
}

}  // namespace Soak
