#pragma once

#include <array>

#include "IndexShape.h"
#include "ZrByteOrder.h"

/// The 64-byte file header as bytes, and typed access to its fields.
namespace Zarn::Format {

using HeaderImage = std::array<unsigned char, kHeaderSize>;

/// Reads fields from header bytes in host order. Owns nothing.
class HeaderView {
 public:
  explicit HeaderView(const HeaderImage& image) : m_image(image) {}

  bool HasMagic() const;
  /// The fields are in the other byte order than this host's. Any nonzero flag means big-endian.
  bool IsForeignOrder() const;
  std::uint32_t FormatVersion() const { return Field<std::uint32_t>(kFormatVersionOffset); }
  std::uint32_t FileKind() const { return Field<std::uint32_t>(kFileKindOffset); }
  double CreateTime() const { return Field<double>(kCreateTimeOffset); }
  std::uint64_t IndexOffset() const { return Field<std::uint64_t>(kIndexOffsetOffset); }
  /// How the file's records are laid out. `swap`: the file is in the other byte order.
  RecordShape Records(bool swap) const { return {FileKind(), FormatVersion(), swap}; }

 private:
  template <typename T>
  T Field(std::size_t offset) const {
    return LoadScalar<T>(m_image.data() + offset, false);
  }

  const HeaderImage& m_image;
};

/// The header bytes of an object that has read or written no header yet.
HeaderImage PresetHeader();

/// The header of a new file of this host, its index right behind it. `createTime`: PelmTime's days.
HeaderImage NewHeader(std::uint32_t fileKind, double createTime);

/// Changes the field in header bytes of host order.
void SetIndexOffset(HeaderImage& image, std::uint64_t indexOffset);

/// Reverses the bytes of every multi-byte field: between the file's order and the host's.
void SwapHeaderFields(HeaderImage& image);

}  // namespace Zarn::Format
