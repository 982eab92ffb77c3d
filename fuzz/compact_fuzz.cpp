// Fuzzes compaction: either it is refused, and the file is as it was; or all that could be read
// before is there afterwards. Commands: 1 byte, how the file is opened.
#include <algorithm>
#include <utility>
#include <vector>

#include "Harness.h"

namespace {

using namespace Fuzz;

const PelmUnicodeString kPath = Path("t.cf"), kBeside = Path(".$t.cf");
constexpr unsigned int kMaxCells = 64;

// The newest versions that can be read, of cells or of names.
std::vector<std::pair<Bytes, Tile>> ReadAll(ZrCompactFile& file) {
  std::vector<std::pair<Bytes, Tile>> tiles;
  const auto add = [&](const Bytes& place, const Tile& tile) {
    if (tile.result == ZrResult::kOk) tiles.emplace_back(place, tile);
  };
  unsigned int rows = 0, cols = 0;
  PelmArray<PelmUnicodeString> names;
  if (file.GetIndexInfo(rows, cols) == 0) {
    for (unsigned int cell = 0; cell < kMaxCells && cols != 0; ++cell)
      add(std::to_string(cell), Look(file, UINT64_MAX, cell / cols, cell % cols));
  } else if (file.GetValidNamingList(names)) {
    for (const PelmUnicodeString& name : names)
      add(name.ToUtf8(), Look(file, UINT64_MAX, name));
  }
  std::sort(tiles.begin(), tiles.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  const auto isSame = [](const auto& a, const auto& b) { return a.first == b.first; };
  tiles.erase(std::unique(tiles.begin(), tiles.end(), isSame), tiles.end());
  return tiles;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  auto [contents, commands] = Split(bytes, size);
  WriteFile(kPath, contents);
  const unsigned char flags = commands.Next();
  const unsigned int lock = flags & ZrCompactFile::kProcessLock;
  ZrCompactFile file;
  if (file.Open(kPath, PasswordOf(flags & 1), ZrCompactFile::kCreateMissing | lock) != 0) return 0;

  const auto before = ReadAll(file);
  const auto compact = [&file] {
    const auto limit = MemoryLimit::ForFile(LengthOf(kPath), kCompactionBuffers);
    return file.Compact();
  };
  const unsigned int result = compact();
  CHECK(!Exists(kBeside));
  const auto after = ReadAll(file);
  if (result != ZrResult::kOk) {
    CHECK(result != ZrResult::kNotOpen && result != ZrResult::kNotUsable);
    CHECK(WithoutWords(ReadFile(kPath)) == WithoutWords(contents) && after == before);
    return 0;
  }
  CHECK(std::includes(after.begin(), after.end(), before.begin(), before.end(),
                      [](const auto& a, const auto& b) { return a.first < b.first; }));
  for (const auto& [place, tile] : before) {
    const auto now = std::find_if(after.begin(), after.end(),
                                  [&place = place](const auto& t) { return t.first == place; });
    CHECK(now->second == tile);
  }
  // No record was copied more often than a sound file has it. (The tables in front of the payloads
  // may be larger than they were: all newer versions' tables have each older one.)
  const Number was = contents.size();
  CHECK(Number(StatusOf(kPath).st_blocks) * 512 <= 2 * was + was * was / 100 + 65536);
  // It is sound now: there is nothing to refuse, and nothing left to save.
  const Number length = LengthOf(kPath);
  CHECK(compact() == ZrResult::kOk);
  CHECK(LengthOf(kPath) == length && ReadAll(file) == after);
  return 0;
}
