#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "ZrCompactFile.h"
#include "ZrCompactFileWriter.h"
#include "support/RawFile.h"
#include "support/TemporaryFolder.h"

namespace Zarn {

/// What a lookup gave.
struct Tile {
  unsigned int result = 0;
  std::string payload;
  unsigned long long filled = 0;

  bool operator==(const Tile&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Tile& tile) {
    return out << tile.result << " \"" << tile.payload << "\" " << tile.filled;
  }
};

inline ZrByteArray Data(std::string_view text) { return ZrByteArray(text.data(), text.size()); }

inline std::string Content(const ZrByteArray& data) {
  return data.IsEmpty() ? std::string()
                        : std::string(reinterpret_cast<const char*>(data.GetData()),
                                      static_cast<std::size_t>(data.GetSize()));
}

/// What addresses a tile: a cell, or a name.
struct Subject {
  Subject(unsigned int itsRow, unsigned int itsCol) : row(itsRow), col(itsCol) {}
  Subject(PelmUnicodeString itsName) : isName(true), name(std::move(itsName)) {}
  Subject(const char16_t* itsName) : Subject(PelmUnicodeString(itsName)) {}

  /// Calls the one that is for names, or for cells.
  auto operator()(auto call) const { return isName ? call(name) : call(row, col); }

  bool isName = false;
  unsigned int row = 0, col = 0;
  PelmUnicodeString name;
};

/// What a lookup gives; light readers know no names.
inline Tile ReadTile(auto& file, const Subject& at, unsigned long long version) {
  ZrByteArray data = Data("before");
  Tile tile{0, "", 77};
  const auto look = [&](auto&&... to) { return file.Lookup(to..., data, tile.filled, version); };
  if constexpr (std::is_same_v<decltype(file), ZrCompactFile&>)
    tile.result = at(look);
  else
    tile.result = look(at.row, at.col);
  tile.payload = Content(data);
  return tile;
}
inline unsigned int StoreTile(ZrCompactFile& file, const Subject& at, const ZrByteArray& data,
                              unsigned long long version, unsigned long long capacity = 0,
                              unsigned long long offset = 0) {
  return at([&](auto&&... to) { return file.SetAt(to..., data, capacity, offset, version); });
}
inline unsigned int RemoveTile(ZrCompactFile& file, const Subject& at, unsigned long long version) {
  return at([&](auto&&... to) { return file.Remove(to..., version); });
}
inline unsigned int StatusOf(ZrCompactFile& file, const Subject& at) {
  return at([&](auto&&... to) -> unsigned int { return file.GetStatus(to...); });
}

/// A folder, an object, and a file in it.
class EngineTest : public ::testing::Test {
 public:
  static constexpr ZrCompactFile::ZrOpenMode kMode = ZrCompactFile::kCreateMissing;

  explicit EngineTest(TemporaryFolder::Place place = TemporaryFolder::kDisk) : folder(place) {}

  /// Closes the object and deletes the file.
  void Forget() {
    object.Close();
    std::filesystem::remove(path.ToUtf8());
  }
  /// A new grid, open in the object; `foreign`: made by hand, in the other byte order.
  void MakeGrid(unsigned int rows, unsigned int cols, bool foreign = false,
                ZrCompactFile::ZrOpenMode mode = kMode) {
    Forget();
    m_big = kBigHost != foreign;
    if (!foreign) {
      ASSERT_EQ(object.Create(path, rows, cols, u"", mode), 0U);
      return;
    }
    using Support::operator+;
    WriteByHand(20120214, 0,
                Number(rows, 4) + Number(cols, 4) + Number(1, 4) +
                    Support::Bytes(std::size_t{8} * rows * cols));
    ASSERT_EQ(object.Open(path, u"", mode), 0U);
  }
  /// A grid of one row by a light writer that appends where the file ends: inside what the tile
  /// before has reserved, which each does with `capacity` bytes. Only the last one fills them, if
  /// `endsInFile`. Not open.
  void MakeCrowded(unsigned int cols, unsigned long long capacity, bool endsInFile = true) {
    Forget();
    ZrCompactFileWriter writer;
    ASSERT_EQ(writer.Create(path, 1, cols, u"", kMode), 0U);
    for (unsigned int col = 0; col < cols; ++col) {
      std::string text = CrowdedTile(col);
      if (endsInFile && col + 1 == cols) text.resize(capacity, 'z');
      ZrCompactFile::ZrStatus status;
      const auto at = writer.WriteDataToFile(status, Data(text), capacity, 0, 1,
                                             std::filesystem::file_size(path.ToUtf8()));
      ASSERT_TRUE(writer.WriteIndexValue(0, col, 1ULL << 56 | at));
    }
  }
  static std::string CrowdedTile(unsigned int col) { return "tile " + std::to_string(col); }
  /// The same for a naming file.
  void MakeNaming(unsigned long long capacity, bool foreign = false,
                  unsigned int formatVersion = 20120214) {
    Forget();
    m_big = kBigHost != foreign;
    using Support::operator+;
    WriteByHand(formatVersion, 1,
                Number(capacity) + Support::Bytes(24) + Number(1, 4) +
                    Support::Bytes(std::size_t{16} * capacity));
    ASSERT_EQ(object.Open(path, u"", kMode), 0U);
  }
  void Reopen(ZrCompactFile::ZrOpenMode mode = kMode) {
    object.Close();
    ASSERT_EQ(object.Open(path, u"", mode), 0U);
  }
  unsigned int Store(const Subject& at, std::string_view text, unsigned long long version = 1,
                     unsigned long long capacity = 0, unsigned long long offset = 0) {
    return StoreTile(object, at, Data(text), version, capacity, offset);
  }
  unsigned int Store(unsigned int row, unsigned int col, auto... what) {
    return Store(Subject(row, col), what...);
  }
  Tile Read(const Subject& at, unsigned long long version = ~0ULL) {
    return ReadTile(object, at, version);
  }
  Tile Read(unsigned int row, unsigned int col, unsigned long long version) {
    return Read(Subject(row, col), version);
  }
  /// Expects the file to be sound, and answers its bytes.
  Support::Bytes Check() const {
    ZrCompactFile file;
    ZrCompactFile::ZrVerifySummary summary;
    EXPECT_EQ(file.Open(path, u"", ZrCompactFile::kReadOnly), 0U);
    const auto show = [](const ZrCompactFile::ZrFinding& finding) {
      ADD_FAILURE() << finding.message << " at " << finding.position;
      return true;
    };
    EXPECT_TRUE(file.Verify(summary, show) == 0 && summary.unwrittenBytes == 0);
    return Support::ReadFile(path);
  }
  /// The last bytes of the file, which is sound.
  Support::Bytes Last(std::size_t size) const {
    const Support::Bytes file = Check();
    return {file.end() - static_cast<std::ptrdiff_t>(size), file.end()};
  }
  /// A record of a grid by hand: stamps and positions of its versions, and the newest one's bytes.
  Support::Bytes Record(const std::vector<std::pair<unsigned long long, std::uint64_t>>& versions,
                        std::string_view payload) const {
    using Support::operator+;
    Support::Bytes table;
    for (const auto& [stamp, position] : versions)
      table = table + Number(stamp) + Number(1ULL << 56 | position);
    return Number(28 + table.size() + payload.size()) + Number(versions.size(), 4) + table +
           Number(payload.size()) + Number(payload.size()) + Support::Text(payload);
  }
  bool IsBig() const { return m_big; }
  /// A number in the file's byte order.
  Support::Bytes Number(unsigned long long value, std::size_t width = 8) const {
    return Support::Number(value, width, m_big);
  }

  TemporaryFolder folder;
  PelmUnicodeString path = folder.GetPath("t.cf");
  ZrCompactFile object;

 private:
  static constexpr bool kBigHost = std::endian::native == std::endian::big;

  void WriteByHand(unsigned int formatVersion, unsigned int kind, const Support::Bytes& index) {
    using Support::operator+;
    Support::WriteFile(path, Support::Bytes{'C', 'F', static_cast<unsigned char>(m_big)} +
                                 Number(formatVersion, 4) + Number(kind, 4) + Number(0) +
                                 Number(64) + Support::Bytes(37) + index);
  }

  bool m_big = kBigHost;
};

}  // namespace Zarn
