// Writes files that the build for another machine reads, and reads those of that build.
//   exchange write|read FOLDER

#include "engine/EngineFixture.h"

namespace Zarn {
namespace {

constexpr unsigned int kTiles = 60, kOlder = 1, kNewest = 2, kByReader = 3;

// Tiles and versions differ; some tiles span pages.
std::string TextOf(unsigned int i, unsigned long long stamp) {
  return std::string(1 + i * 150, static_cast<char>('a' + (i + stamp) % 26));
}

// Makes a file; or reads one, stores into it, compacts it, and reads it again.
bool Run(bool named, bool writes, const PelmUnicodeString& path) {
  ZrCompactFile file;
  bool isGood = !writes ? file.Open(path, u"", ZrCompactFile::kProcessLock) == 0
                : named ? file.Create(path, 8ULL, u"", ZrCompactFile::kCreateMissing) == 0
                        : file.Create(path, 6U, 10U, u"", ZrCompactFile::kCreateMissing) == 0;
  const auto forAll = [&](unsigned int stamp, bool stores) {
    for (unsigned int i = 0; i < kTiles; ++i) {
      // Of 16-bit units, whose order is the file's.
      const PelmUnicodeString name = u"\u4E2D" + PelmUnicodeString::FromUtf8(std::to_string(i));
      const Subject at = named ? Subject(name) : Subject(i / 10, i % 10);
      const std::string text = TextOf(i, stamp);
      isGood = isGood && (stores ? StoreTile(file, at, Data(text), stamp) == 0
                                 : ReadTile(file, at, stamp).payload == text);
    }
  };
  forAll(kOlder, writes);
  forAll(kNewest, writes);
  if (!writes) {
    forAll(kByReader, true);
    isGood = isGood && file.Compact() == 0;
    forAll(kOlder, false);
    forAll(kByReader, false);
  }
  ZrVerifySummary summary;
  return isGood && file.Verify(summary) == 0 && summary.tiles == kTiles;
}

}  // namespace
}  // namespace Zarn

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const bool writes = std::string(argv[1]) == "write";
  const PelmUnicodeString folder = PelmUnicodeString::FromUtf8(argv[2]);
  const bool isGood = Zarn::Run(false, writes, folder + u"/grid.cf");
  return isGood && Zarn::Run(true, writes, folder + u"/names.cf") ? 0 : 1;
}
