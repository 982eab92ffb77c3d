#include "FileHeader.h"

#include <algorithm>

#include "Cause.h"
#include "RedoMarks.h"

namespace Zarn::Io {
namespace {

void Scramble(Format::HeaderImage& image, const Format::XorString& xorString) {
  Format::ReMakeStream(image.data(), static_cast<int>(image.size()), xorString.data());
}

// The bytes by which a file holds a header, given in host order.
Format::HeaderImage Encode(Format::HeaderImage header, bool swap,
                           const Format::XorString& xorString) {
  if (swap) Format::SwapHeaderFields(header);
  Scramble(header, xorString);
  return header;
}

}  // namespace

HeaderRead ReadFileHeader(const ZrFileStream& file, const Format::XorString& xorString,
                          Format::HeaderImage& header, bool& swap) {
  Format::HeaderImage image;
  if (!file.ReadAt(0, image.data(), image.size()))
    return Io::FailUnlessBySystem(ZrCause::kWrongFormat, HeaderRead::kTooShort);
  const bool isMarked = Format::DecodeRedoMark(image).has_value();
  Scramble(image, xorString);
  const Format::HeaderView view(image);
  if (!view.HasMagic())
    return Io::Fail(isMarked ? ZrCause::kUnfinished : ZrCause::kWrongFormat, HeaderRead::kBadMagic);
  swap = view.IsForeignOrder();
  if (swap) Format::SwapHeaderFields(image);
  header = image;
  return HeaderRead::kOk;
}

bool WriteFileHeader(ZrFileStream& file, const Format::XorString& xorString,
                     const Format::HeaderImage& header, bool swap) {
  const Format::HeaderImage bytes = Encode(header, swap, xorString);
  return file.WriteAt(0, bytes.data(), bytes.size());
}

HeaderRead FileHeader::Read(const ZrFileStream& file, const Format::XorString& xorString) {
  const HeaderRead result = ReadFileHeader(file, xorString, m_header, m_bSwap);
  if (result == HeaderRead::kOk) m_xorString = xorString;
  return result;
}

bool FileHeader::MoveIndex(ZrFileStream& file, std::uint64_t indexOffset) {
  const auto write = [&](const Format::HeaderImage& header) {
    const Format::HeaderImage bytes = Encode(header, m_bSwap, m_xorString);
    return file.WriteAt(0, bytes.data(), Format::kHeaderFieldsSize);
  };
  Format::HeaderImage moved = m_header;
  Format::SetIndexOffset(moved, indexOffset);
  const bool isMoved = write(moved);
  if (isMoved)
    m_header = moved;
  else
    write(m_header);
  return isMoved;
}

// In one write, for what is scrambled by one password must not be read by the other.
bool FileHeader::SetPassword(ZrFileStream& file, const Format::XorString& xorString) {
  Format::HeaderImage header;
  bool swap;
  if (ReadFileHeader(file, m_xorString, header, swap) != HeaderRead::kOk) return false;
  if (WriteFileHeader(file, xorString, header, swap)) {
    m_xorString = xorString;
    return true;
  }
  WriteFileHeader(file, m_xorString, header, swap);  // a part of the other may be there
  return false;
}

bool FileHeader::IsIn(const ZrFileStream& file) const {
  FileHeader now;
  return now.Read(file, m_xorString) == HeaderRead::kOk && HasFieldsOf(now);
}

bool FileHeader::HasFieldsOf(const FileHeader& other) const {
  return std::equal(m_header.begin(), m_header.begin() + Format::kHeaderFieldsSize,
                    other.m_header.begin());
}

}  // namespace Zarn::Io
