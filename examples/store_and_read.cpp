// Stores a tile in a cell of a grid file, and reads it back.   store_and_read [FOLDER]

#include <ZrCompactFile.h>
#include <ZrFile.h>

#include <cstdio>
#include <cstring>
#include <string>

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;

namespace {

const std::string kText = "hello, tile";

bool Store(const PelmUnicodeString& path) {
  // 256 rows of 256 cells, no password.
  ZrCompactFile file;
  if (file.Create(path, 256, 256, u"", ZrCompactFile::kReplace) != ZrResult::kOk) return false;

  // Row 3, column 7; a capacity of 0 is that of the data, the offset is 0, the stamp 1. What is
  // stored survives the end of the process, and after Flush a loss of power.
  const ZrByteArray tile(kText.data(), kText.size());
  return file.SetAt(3, 7, tile, 0, 0, 1) == ZrResult::kOk && file.Flush() && file.Close();
}

bool Read(const PelmUnicodeString& path) {
  ZrCompactFile file;
  if (file.Open(path, u"", ZrCompactFile::kReadOnly) != ZrResult::kOk) return false;

  ZrByteArray data;
  unsigned long long filled = 0;
  if (file.Lookup(3, 7, data, filled, 1) != ZrResult::kOk || filled != kText.size()) return false;
  std::printf("cell (3, 7): %llu bytes\n", filled);
  if (std::memcmp(data.GetData(), kText.data(), kText.size()) != 0) return false;

  // Nobody has stored anything here.
  return file.Lookup(0, 0, data, filled, 1) == ZrResult::kNotFound && data.IsEmpty();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const PelmUnicodeString path = PelmUnicodeString::FromUtf8(folder + "/store_and_read.cf");
  const bool good = Store(path) && Read(path);
  Zarn::ZrFile::Delete(path);
  return good ? 0 : 1;
}
