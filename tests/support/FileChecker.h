#pragma once

#include <map>
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

/// Walks a whole file (without a password) by code of its own and verifies what holds for every
/// well-formed one: records lie in the file behind header and index, hold what they state, do not
/// overlap, have tables of strictly descending stamps, and every version named by a table is where
/// the table says. `errors` tells what does not hold.
class FileChecker {
 public:
  explicit FileChecker(const PelmUnicodeString& path);

  std::string errors;
  unsigned long long fileSize = 0;
  std::vector<unsigned long long> entries;  // index values
  /// The record at a position; empty versions if there is none.
  CheckedRecord Record(unsigned long long position) const;

 private:
  unsigned long long Number(unsigned long long offset, std::size_t width) const;
  bool IsRecord(unsigned long long position) const;
  void CheckFile();
  void CheckTile(unsigned long long entry);
  void Claim(unsigned long long position);
  void Report(const std::string& what, unsigned long long position);

  Bytes m_file;
  bool m_big = false;
  bool m_named = false;
  unsigned long long m_indexStart = 0;
  unsigned long long m_indexEnd = 0;
  std::map<unsigned long long, unsigned long long> m_claimed;  // records in use: start to end
};

}  // namespace Support
