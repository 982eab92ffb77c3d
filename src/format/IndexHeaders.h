#pragma once

#include <array>

#include "Layout.h"

/// The headers of the two kinds of index area.
namespace Zarn::Format {

struct GridHeader {
  std::uint32_t rowCount = 0;
  std::uint32_t colCount = 0;
  std::uint32_t flags = 0;
};

struct NamingHeader {
  std::uint64_t capacity = 0;  // slots
  std::uint64_t count = 0;     // slots in use
  double maxSize1 = 0;         // two numbers of the host's, kept and never interpreted
  double maxSize2 = 0;
  std::uint32_t flags = 0;
};

using GridHeaderImage = std::array<unsigned char, kGridHeaderSize>;
using NamingHeaderImage = std::array<unsigned char, kNamingHeaderSize>;

GridHeader DecodeGridHeader(const GridHeaderImage& image, bool swap);
GridHeaderImage EncodeGridHeader(const GridHeader& header, bool swap);

NamingHeader DecodeNamingHeader(const NamingHeaderImage& image, bool swap);
NamingHeaderImage EncodeNamingHeader(const NamingHeader& header, bool swap);

}  // namespace Zarn::Format
