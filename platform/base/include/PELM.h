#pragma once

/// Facts about the host.
namespace PELM {

/// Byte-order probe: 1 on a little-endian host, 0 on a big-endian one.
inline constexpr unsigned char un_bigendina = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 1 : 0;

}  // namespace PELM
