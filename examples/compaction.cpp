// Takes the dead space out of a file, and shows how far it has come.   compaction [FOLDER]

#include <ZrCompactFile.h>
#include <ZrFile.h>

#include <cstdio>
#include <filesystem>
#include <string>

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;

namespace {

// Tiles that grow are appended anew: what they were before is dead space.
bool StoreGrowing(ZrCompactFile& file) {
  for (std::size_t size = 1000; size <= 20000; size += 1000) {
    const std::string text(size, 't');
    for (unsigned int col = 0; col < 50; ++col) {
      const ZrByteArray tile(text.data(), text.size());
      if (file.SetAt(0, col, tile, 0, 0, 1) != ZrResult::kOk) return false;
    }
  }
  return true;
}

bool Compact(ZrCompactFile& file, const std::string& path) {
  // Who answers false, ends it; the file is as it was.
  const auto stop = [](unsigned long long, unsigned long long) { return false; };
  const auto before = std::filesystem::file_size(path);
  if (file.Compact(stop) != ZrResult::kWriteFailure) return false;
  if (std::filesystem::file_size(path) != before) return false;

  const auto show = [](unsigned long long done, unsigned long long total) {
    return std::printf("\r%llu of %llu bytes", done, total) > 0;
  };
  const unsigned int result = file.Compact(show);
  std::printf("\n");
  return result == ZrResult::kOk && std::filesystem::file_size(path) < before / 5;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = std::string(argc > 1 ? argv[1] : ".") + "/compaction.cf";
  const PelmUnicodeString name = PelmUnicodeString::FromUtf8(path);
  ZrCompactFile file;
  ZrByteArray data;
  unsigned long long filled = 0;
  const bool good = file.Create(name, 1, 50, u"", ZrCompactFile::kReplace) == ZrResult::kOk &&
                    StoreGrowing(file) && Compact(file, path) &&
                    file.Lookup(0, 49, data, filled, 1) == ZrResult::kOk && filled == 20000;
  file.Close();
  Zarn::ZrFile::Delete(name);
  return good ? 0 : 1;
}
