#include "IndexHeaders.h"

#include "ZrByteOrder.h"

namespace Zarn::Format {

GridHeader DecodeGridHeader(const GridHeaderImage& image, bool swap) {
  const auto field = [&](std::size_t offset) {
    return LoadScalar<std::uint32_t>(image.data() + offset, swap);
  };
  return {field(kRowCountOffset), field(kColCountOffset), field(kGridFlagsOffset)};
}

GridHeaderImage EncodeGridHeader(const GridHeader& header, bool swap) {
  GridHeaderImage image;
  StoreScalar(image.data() + kRowCountOffset, header.rowCount, swap);
  StoreScalar(image.data() + kColCountOffset, header.colCount, swap);
  StoreScalar(image.data() + kGridFlagsOffset, header.flags, swap);
  return image;
}

NamingHeader DecodeNamingHeader(const NamingHeaderImage& image, bool swap) {
  const unsigned char* bytes = image.data();
  return {LoadScalar<std::uint64_t>(bytes + kNamingCapacityOffset, swap),
          LoadScalar<std::uint64_t>(bytes + kNamingCountOffset, swap),
          LoadScalar<double>(bytes + kMaxSize1Offset, swap),
          LoadScalar<double>(bytes + kMaxSize2Offset, swap),
          LoadScalar<std::uint32_t>(bytes + kNamingFlagsOffset, swap)};
}

NamingHeaderImage EncodeNamingHeader(const NamingHeader& header, bool swap) {
  NamingHeaderImage image;
  StoreScalar(image.data() + kNamingCapacityOffset, header.capacity, swap);
  StoreScalar(image.data() + kNamingCountOffset, header.count, swap);
  StoreScalar(image.data() + kMaxSize1Offset, header.maxSize1, swap);
  StoreScalar(image.data() + kMaxSize2Offset, header.maxSize2, swap);
  StoreScalar(image.data() + kNamingFlagsOffset, header.flags, swap);
  return image;
}

}  // namespace Zarn::Format
