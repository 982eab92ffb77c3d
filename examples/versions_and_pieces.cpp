// Keeps several versions of a tile, and stores one in pieces.   versions_and_pieces [FOLDER]

#include <ZrCompactFile.h>
#include <ZrFile.h>

#include <string>

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;

namespace {

constexpr unsigned long long kNewest = ~0ULL;  // no version's stamp

bool Store(ZrCompactFile& file, unsigned int col, const std::string& text,
           unsigned long long capacity, unsigned long long offset, unsigned long long stamp) {
  const ZrByteArray data(text.data(), text.size());
  return file.SetAt(0, col, data, capacity, offset, stamp) == ZrResult::kOk;
}

// The filled part of a tile; empty if there is none.
std::string Read(ZrCompactFile& file, unsigned int col, unsigned long long stamp) {
  ZrByteArray data;
  unsigned long long filled = 0;
  if (file.Lookup(0, col, data, filled, stamp) != ZrResult::kOk) return "";
  return std::string(reinterpret_cast<const char*>(data.GetData()), filled);
}

bool KeepVersions(ZrCompactFile& file) {
  // A larger stamp is a newer version. The older one stays, and its exact stamp selects it.
  if (!Store(file, 0, "spring", 0, 0, 2024) || !Store(file, 0, "autumn", 0, 0, 2025)) return false;
  if (Read(file, 0, kNewest) != "autumn" || Read(file, 0, 2024) != "spring") return false;

  // Without the newest version the one before it is the newest.
  return file.Remove(0, 0, 2025) == ZrResult::kOk && Read(file, 0, kNewest) == "spring";
}

bool StoreInPieces(ZrCompactFile& file) {
  // Each piece names the capacity of the whole, its own offset and the same stamp.
  if (!Store(file, 1, "first ", 12, 0, 1) || Read(file, 1, kNewest) != "first ") return false;
  if (file.GetStatus(0, 1) != ZrCompactFile::kPartial) return false;
  return Store(file, 1, "second", 12, 6, 1) && Read(file, 1, kNewest) == "first second" &&
         file.GetStatus(0, 1) == ZrCompactFile::kComplete;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const PelmUnicodeString path = PelmUnicodeString::FromUtf8(folder + "/versions_and_pieces.cf");
  ZrCompactFile file;
  const bool good = file.Create(path, 1, 2, u"", ZrCompactFile::kReplace) == ZrResult::kOk &&
                    KeepVersions(file) && StoreInPieces(file) && file.Close();
  Zarn::ZrFile::Delete(path);
  return good ? 0 : 1;
}
