#include "EmptyContainer.h"

#include "FileHeader.h"
#include "IndexShape.h"

namespace Zarn::Engine {
namespace {

template <typename IndexHeaderImage>
bool Write(ZrFile64& file, const Format::XorString& xorString, std::uint32_t fileKind,
           double createTime, const IndexHeaderImage& indexHeader, std::uint64_t fileLength) {
  const Format::HeaderImage header = Format::NewHeader(fileKind, createTime);
  return Io::WriteFileHeader(file, xorString, header, false) &&
         file.WriteAt(Format::kHeaderSize, indexHeader.data(), indexHeader.size()) &&
         file.SetLength(fileLength);
}

}  // namespace

bool WriteEmptyContainer(ZrFile64& file, const Format::XorString& xorString,
                         const Format::GridHeader& header, double createTime) {
  return Write(
      file, xorString, Format::kGridFile, createTime, Format::EncodeGridHeader(header, false),
      Format::IndexShape::OfGrid(Format::kHeaderSize, header.rowCount, header.colCount).End());
}

bool WriteEmptyContainer(ZrFile64& file, const Format::XorString& xorString,
                         const Format::NamingHeader& header, double createTime) {
  return Write(file, xorString, Format::kNamingFile, createTime,
               Format::EncodeNamingHeader(header, false),
               Format::IndexShape::OfNames(Format::kHeaderSize, header.capacity).End());
}

}  // namespace Zarn::Engine
