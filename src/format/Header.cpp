#include "Header.h"

#include <algorithm>

#include "PELM.h"

namespace Zarn::Format {
namespace {

template <typename T>
void SetField(HeaderImage& image, std::size_t offset, T value) {
  StoreScalar(image.data() + offset, value, false);
}

template <typename T>
void SwapField(HeaderImage& image, std::size_t offset) {
  SetField(image, offset, LoadScalar<T>(image.data() + offset, true));
}

}  // namespace

bool HeaderView::HasMagic() const {
  return std::equal(std::begin(kMagic), std::end(kMagic), m_image.begin() + kMagicOffset);
}

bool HeaderView::IsForeignOrder() const {
  const bool fileIsBigEndian = m_image[kBigEndianFlagOffset] != 0;
  const bool hostIsBigEndian = PELM::un_bigendina != 1;
  return fileIsBigEndian != hostIsBigEndian;
}

HeaderImage PresetHeader() {
  HeaderImage image{};
  std::copy(std::begin(kMagic), std::end(kMagic), image.begin() + kMagicOffset);
  SetField(image, kFormatVersionOffset, kOlderVersion);
  return image;
}

HeaderImage NewHeader(std::uint32_t fileKind, double createTime) {
  HeaderImage image = PresetHeader();
  image[kBigEndianFlagOffset] = PELM::un_bigendina == 1 ? 0 : 1;
  SetField(image, kFormatVersionOffset, kCurrentVersion);
  SetField(image, kFileKindOffset, fileKind);
  SetField(image, kCreateTimeOffset, createTime);
  SetIndexOffset(image, kHeaderSize);
  return image;
}

void SetIndexOffset(HeaderImage& image, std::uint64_t indexOffset) {
  SetField(image, kIndexOffsetOffset, indexOffset);
}

void SwapHeaderFields(HeaderImage& image) {
  SwapField<std::uint32_t>(image, kFormatVersionOffset);
  SwapField<std::uint64_t>(image, kCreateTimeOffset);
  SwapField<std::uint32_t>(image, kFileKindOffset);
  SwapField<std::uint64_t>(image, kIndexOffsetOffset);
}

}  // namespace Zarn::Format
