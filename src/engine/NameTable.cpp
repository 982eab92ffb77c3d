#include "NameTable.h"

#include <sys/mman.h>
#include <sys/random.h>

#include <algorithm>
#include <bit>
#include <new>

#include "Layout.h"

namespace Zarn::Engine {

// Odd, so that no bit of a code gets lost.
std::uint64_t NameTable::GetSpread() {
  static const std::uint64_t spread = [] {
    constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15;
    std::uint64_t number;
    if (::getrandom(&number, sizeof number, GRND_NONBLOCK) < 0) number = kGolden;
    return number | 1;
  }();
  return spread;
}

// The memory of a large array is committed when it is first touched: no store waits for all of it.
NameTable::NameTable(std::uint64_t names, std::uint64_t slots)
    : m_count(std::max<std::uint64_t>(names / 4 * 7, 16)),
      m_slotMask(static_cast<std::uint32_t>(
          std::bit_ceil(std::min(slots + m_count / 2, Format::kMaxNamingCapacity) + 1) - 1)),
      m_places(static_cast<std::uint32_t*>(std::calloc(m_count, sizeof(std::uint32_t)))) {
  if (m_places == nullptr) throw std::bad_alloc();
}

void NameTable::UseLargePages() {
  constexpr std::uintptr_t kLargePage = 1 << 21;
  const auto address = reinterpret_cast<std::uintptr_t>(m_places.get());
  const std::uintptr_t begin = (address + kLargePage - 1) & ~(kLargePage - 1);
  const std::uintptr_t end = (address + m_count * sizeof(std::uint32_t)) & ~(kLargePage - 1);
  if (begin < end) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

std::uint64_t NameTable::CountSteps(std::uint64_t code) const {
  std::uint64_t steps = 1;
  for (std::uint64_t number = Home(code); LoadPlace(number) != 0; number = Next(number))
    ++steps;
  return steps;
}

}  // namespace Zarn::Engine
