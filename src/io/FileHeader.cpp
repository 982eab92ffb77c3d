#include "FileHeader.h"

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
  if (!file.ReadAt(0, image.data(), image.size())) return HeaderRead::kTooShort;
  Scramble(image, xorString);
  const Format::HeaderView view(image);
  if (!view.HasMagic()) return HeaderRead::kBadMagic;
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
  Format::HeaderImage header;
  bool swap;
  const HeaderRead result = ReadFileHeader(file, xorString, header, swap);
  if (result == HeaderRead::kOk) Set(header, swap, xorString);
  return result;
}

bool FileHeader::MoveIndex(ZrFileStream& file, std::uint64_t indexOffset) {
  Format::HeaderImage moved = m_header;
  Format::SetIndexOffset(moved, indexOffset);
  const bool isMoved = WriteFileHeader(file, m_xorString, moved, m_bSwap);
  if (isMoved)
    Set(moved, m_bSwap, m_xorString);
  else
    WriteFileHeader(file, m_xorString, m_header, m_bSwap);
  return isMoved;
}

bool FileHeader::SetPassword(ZrFileStream& file, const Format::XorString& xorString) {
  Format::HeaderImage header;
  bool swap;
  if (ReadFileHeader(file, m_xorString, header, swap) != HeaderRead::kOk ||
      !WriteFileHeader(file, xorString, header, swap))
    return false;
  Set(m_header, m_bSwap, xorString);
  return true;
}

Format::HeaderImage FileHeader::GetBytes() const {
  const std::lock_guard guard(m_mutex);
  return Encode(m_header, m_bSwap, m_xorString);
}

void FileHeader::Set(const Format::HeaderImage& header, bool swap,
                     const Format::XorString& xorString) {
  const std::lock_guard guard(m_mutex);
  m_header = header;
  m_bSwap = swap;
  m_xorString = xorString;
}

}  // namespace Zarn::Io
