#pragma once

#include "Header.h"
#include "Scramble.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

enum class HeaderRead {
  kOk,
  kTooShort,  ///< the file is shorter than a header, or cannot be read
  kBadMagic,  ///< no compact file, or scrambled by another password
};

/// Reads and unscrambles the header. `header` gets its bytes in host order, and `swap` tells
/// whether the file is in the other order; on failure both stay as they are.
HeaderRead ReadFileHeader(const ZrFileStream& file, const Format::XorString& xorString,
                          Format::HeaderImage& header, bool& swap);

/// Writes the header of a new file, given in host order, in the file's order and scrambled.
bool WriteFileHeader(ZrFileStream& file, const Format::XorString& xorString,
                     const Format::HeaderImage& header, bool swap);

/// The header of one open file, in host order.
///
/// Threads: the file's owner keeps readers from changes.
class FileHeader {
 public:
  /// Reads and unscrambles the header. On failure the object stays as it was.
  HeaderRead Read(const ZrFileStream& file, const Format::XorString& xorString);
  /// Writes the header with another place of the index. On failure it writes the old one back.
  bool MoveIndex(ZrFileStream& file, std::uint64_t indexOffset);
  /// Scrambles the header in the file by another password, the words of the board as well.
  bool SetPassword(ZrFileStream& file, const Format::XorString& xorString);

  Format::HeaderView View() const { return Format::HeaderView(m_header); }
  /// The header in host order. Words of the board are as they were when it was read.
  const Format::HeaderImage& GetImage() const { return m_header; }
  /// Whether both have the same fields.
  bool HasFieldsOf(const FileHeader& other) const;
  /// Whether the file still has these fields. The words of the board may be others.
  bool IsIn(const ZrFileStream& file) const;
  /// What scrambles the header bytes.
  const Format::XorString& GetXorString() const { return m_xorString; }
  /// The file is in the other byte order.
  bool IsSwapped() const { return m_bSwap; }

 private:
  Format::HeaderImage m_header{};
  bool m_bSwap = false;
  Format::XorString m_xorString{};
};

}  // namespace Zarn::Io
