// Stores tiles under names and lists them.   names [FOLDER]

#include <ZrCompactFile.h>
#include <ZrFile.h>

#include <cstdio>
#include <string>

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;

namespace {

bool StoreAndRead(ZrCompactFile& file) {
  const ZrByteArray tile("elevation", 9);
  if (file.SetAt(u"14/8721/5433", tile, 0, 0, 1) != ZrResult::kOk) return false;
  if (file.SetAt(u"14/8721/5434", tile, 0, 0, 1) != ZrResult::kOk) return false;
  // The contents of a file: here those of this program.
  if (file.SetAt(u"the program", u"/proc/self/exe", 1) != ZrResult::kOk) return false;

  ZrByteArray data;
  unsigned long long filled = 0;
  return file.Lookup(u"14/8721/5433", data, filled, 1) == ZrResult::kOk && filled == 9 &&
         file.Lookup(u"the program", data, filled, 1) == ZrResult::kOk && filled > 4 &&
         data.GetData()[1] == 'E' && data.GetData()[2] == 'L' && data.GetData()[3] == 'F' &&
         file.Lookup(u"14/8721/5435", data, filled, 1) == ZrResult::kNotFound;
}

// A removed tile keeps its name in the list; its status tells.
bool RemoveAndList(ZrCompactFile& file) {
  if (file.Remove(u"14/8721/5434", 1) != ZrResult::kOk) return false;
  PelmArray<PelmUnicodeString> names;
  if (!file.GetValidNamingList(names) || names.GetSize() != 3) return false;
  unsigned int tiles = 0;
  for (const PelmUnicodeString& name : names) {
    if (file.GetStatus(name) != ZrCompactFile::kComplete) continue;
    std::printf("%s\n", name.ToUtf8().c_str());
    ++tiles;
  }
  return tiles == 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const PelmUnicodeString path = PelmUnicodeString::FromUtf8(folder + "/names.cf");
  // Room for 1024 names at first; the index grows as needed.
  ZrCompactFile file;
  const bool good = file.Create(path, 1024, u"", ZrCompactFile::kReplace) == ZrResult::kOk &&
                    StoreAndRead(file) && RemoveAndList(file) && file.Close();
  Zarn::ZrFile::Delete(path);
  return good ? 0 : 1;
}
