#include "FileHeader.h"

namespace Zarn::Io {

HeaderRead FileHeader::Read(const ZrFileStream& file, const Format::XorString& xorString) {
  const HeaderRead result = ReadFileHeader(file, xorString, m_header, m_bSwap);
  if (result != HeaderRead::kOk) return result;
  m_xorString = xorString;
  SetBytes();
  return result;
}

bool FileHeader::MoveIndex(ZrFileStream& file, std::uint64_t indexOffset) {
  Format::HeaderImage moved = m_header;
  Format::SetIndexOffset(moved, indexOffset);
  if (!WriteFileHeader(file, m_xorString, moved, m_bSwap)) {
    WriteFileHeader(file, m_xorString, m_header, m_bSwap);
    return false;
  }
  m_header = moved;
  return true;
}

bool FileHeader::SetPassword(ZrFileStream& file, const Format::XorString& xorString) {
  Format::HeaderImage header;
  bool swap;
  if (ReadFileHeader(file, m_xorString, header, swap) != HeaderRead::kOk ||
      !WriteFileHeader(file, xorString, header, swap))
    return false;
  m_xorString = xorString;
  SetBytes();
  return true;
}

Format::HeaderImage FileHeader::GetBytes() const {
  const std::lock_guard guard(m_mutex);
  return m_bytes;
}

void FileHeader::SetBytes() {
  const std::lock_guard guard(m_mutex);
  m_bytes = EncodeFileHeader(m_header, m_bSwap, m_xorString);
}

}  // namespace Zarn::Io
