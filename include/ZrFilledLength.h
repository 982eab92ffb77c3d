#pragma once

#include <cstdint>
#include <type_traits>

namespace Zarn {

/// `Result`, for a function that takes a std::uint64_t where another overload takes an unsigned
/// long long; nothing where these are one type. So a variable of either type may receive a length.
template <typename Length, typename Result>
using ZrForUint64 = std::enable_if_t<
    std::is_same_v<Length, std::uint64_t> && !std::is_same_v<Length, unsigned long long>, Result>;

}  // namespace Zarn
