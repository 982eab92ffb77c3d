#pragma once

#include <string>
#include <vector>

#include "support/RawFile.h"

namespace Support {

struct CheckedVersion {
  unsigned long long stamp;
  unsigned int status;
  unsigned long long position;  // as the table says: 0 may stand for the record itself
};

struct CheckedRecord {
  unsigned long long length, capacity, filled;
  std::vector<CheckedVersion> versions;
};

/// Has a file (without a password) verified, and reads its entries and records by code of its own.
/// `errors` tells what was found.
class FileChecker {
 public:
  explicit FileChecker(const PelmUnicodeString& path);

  std::string errors;
  unsigned long long fileSize = 0;
  std::vector<unsigned long long> entries;  // index values
  /// The record at a position, which must be one.
  CheckedRecord Record(unsigned long long position) const;

 private:
  unsigned long long Number(unsigned long long offset, std::size_t width) const;
  void ReadEntries();

  Bytes m_file;
  bool m_big = false;
  bool m_named = false;
};

}  // namespace Support
