#pragma once

#include <string>

#include "support/RawFile.h"

namespace Support {

/// Has a file (without a password) verified, and reads what a grid holds by code of its own.
class FileChecker {
 public:
  explicit FileChecker(const PelmUnicodeString& path);

  std::string errors;  ///< all that was found
  std::size_t GetSize() const { return m_file.size(); }
  /// The index value of the first cell.
  unsigned long long GetEntry() const { return Number(76, 8); }
  /// A record: its length, its versions as stamp:status|position (0 may stand for the record
  /// itself), capacity/filled length.
  std::string Describe(unsigned long long position) const;

 private:
  unsigned long long Number(unsigned long long offset, std::size_t width) const;

  const Bytes m_file;
};

}  // namespace Support
