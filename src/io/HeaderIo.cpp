#include "HeaderIo.h"

namespace Zarn::Io {
namespace {

void Scramble(Format::HeaderImage& image, const Format::XorString& xorString) {
  Format::ReMakeStream(image.data(), static_cast<int>(image.size()), xorString.data());
}

}  // namespace

HeaderRead ReadFileHeader(const ZrFileStream& file, const Format::XorString& xorString,
                          Format::HeaderImage& header, bool& swap) {
  Format::HeaderImage image;
  if (!file.ReadAt(0, image.data(), image.size())) return HeaderRead::kTooShort;
  Scramble(image, xorString);
  const Format::HeaderView view(image);
  if (!view.HasMagic()) return HeaderRead::kBadMagic;
  swap = view.IsForeignOrder();
  if (swap) Format::SwapHeaderFields(image);
  header = image;
  return HeaderRead::kOk;
}

Format::HeaderImage EncodeFileHeader(Format::HeaderImage header, bool swap,
                                     const Format::XorString& xorString) {
  if (swap) Format::SwapHeaderFields(header);
  Scramble(header, xorString);
  return header;
}

bool WriteFileHeader(ZrFileStream& file, const Format::XorString& xorString,
                     const Format::HeaderImage& header, bool swap) {
  const Format::HeaderImage image = EncodeFileHeader(header, swap, xorString);
  return file.WriteAt(0, image.data(), image.size());
}

}  // namespace Zarn::Io
