// Writes files that the build for another machine reads, and reads those of that build.
//   exchange write|read FOLDER

#include <algorithm>
#include <string>

#include "ZrCompactFile.h"

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

namespace {

constexpr unsigned int kTiles = 60, kOlder = 1, kNewest = 2, kByReader = 3;

// Tiles and versions differ; some tiles span pages.
ZrByteArray TileOf(unsigned int i, unsigned long long stamp) {
  const std::string text(1 + i * 150, static_cast<char>('a' + (i + stamp) % 26));
  return ZrByteArray(text.data(), text.size());
}

// Of 16-bit units, whose order is the file's.
PelmUnicodeString NameOf(unsigned int i) {
  return u"\u4E2D" + PelmUnicodeString::FromUtf8(std::to_string(i));
}

bool Store(ZrCompactFile& file, bool named, unsigned int i, unsigned long long stamp) {
  const ZrByteArray tile = TileOf(i, stamp);
  return (named ? file.SetAt(NameOf(i), tile, 0, 0, stamp)
                : file.SetAt(i / 10, i % 10, tile, 0, 0, stamp)) == 0;
}

bool Holds(ZrCompactFile& file, bool named, unsigned int i, unsigned long long stamp) {
  const ZrByteArray tile = TileOf(i, stamp);
  ZrByteArray data;
  unsigned long long filled = 0;
  return (named ? file.Lookup(NameOf(i), data, filled, stamp)
                : file.Lookup(i / 10, i % 10, data, filled, stamp)) == 0 &&
         std::equal(data.GetData(), data.GetData() + data.GetSize(), tile.GetData(),
                    tile.GetData() + tile.GetSize());
}

// Makes a file; or reads one, stores into it, compacts it, and reads it again.
bool Run(bool named, bool writes, const PelmUnicodeString& path) {
  ZrCompactFile file;
  bool isGood = !writes ? file.Open(path, u"", ZrCompactFile::kProcessLock) == 0
                : named ? file.Create(path, 8ULL, u"", ZrCompactFile::kCreateMissing) == 0
                        : file.Create(path, 6U, 10U, u"", ZrCompactFile::kCreateMissing) == 0;
  for (unsigned int i = 0; i < kTiles; ++i)
    for (const unsigned int stamp : {kOlder, kNewest})
      isGood = isGood && (writes ? Store(file, named, i, stamp) : Holds(file, named, i, stamp));
  for (unsigned int i = 0; !writes && i < kTiles; ++i)
    isGood = isGood && Store(file, named, i, kByReader);
  isGood = isGood && (writes || file.Compact() == 0);
  for (unsigned int i = 0; !writes && i < kTiles; ++i)
    isGood = isGood && Holds(file, named, i, kOlder) && Holds(file, named, i, kByReader);
  Zarn::ZrVerifySummary summary;
  return isGood && file.Verify(summary) == 0 && summary.tiles == kTiles;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const bool writes = std::string(argv[1]) == "write";
  const PelmUnicodeString folder = PelmUnicodeString::FromUtf8(argv[2]);
  return Run(false, writes, folder + u"/grid.cf") && Run(true, writes, folder + u"/names.cf") ? 0
                                                                                              : 1;
}
