#pragma once

#include "Header.h"
#include "Scramble.h"
#include "ZrFileStream.h"

/// The file header between a stream and memory.
namespace Zarn::Io {

enum class HeaderRead {
  kOk,
  kTooShort,  ///< the file does not even have a header's length, or cannot be read
  kBadMagic,  ///< no compact file, or scrambled by another password
};

/// Reads and unscrambles the header; `header` becomes its image in host order, and `swap` tells
/// whether the file is in the other order. Both stay as they are on failure.
HeaderRead ReadFileHeader(const ZrFileStream& file, const Format::XorString& xorString,
                          Format::HeaderImage& header, bool& swap);

/// The bytes by which a file holds a header, given in host order: in the file's order and
/// scrambled.
Format::HeaderImage EncodeFileHeader(Format::HeaderImage header, bool swap,
                                     const Format::XorString& xorString);

/// Writes a header, given in host order, in the file's order and scrambled.
bool WriteFileHeader(ZrFileStream& file, const Format::XorString& xorString,
                     const Format::HeaderImage& header, bool swap);

}  // namespace Zarn::Io
